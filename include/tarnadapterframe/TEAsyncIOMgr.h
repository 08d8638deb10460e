#ifndef TARNADAPTERFRAME_TEASYNCIOMGR_H
#define TARNADAPTERFRAME_TEASYNCIOMGR_H

#include "tarnadapterframe/Export.h"

#include <ace/config-all.h>

#include <memory>

class TEMessage;

/// The engine that reads and writes all open connections and hands received messages to application threads.
///
/// It is started with the first protocol adapter that is registered with asynchronous I/O, see
/// TEAdapterManager::RegisterProtocolAdapter, and stopped by tarnadapter::Fini. Every operation may be called
/// from any thread until then.
class TARN_ADAPTER_API TEAsyncIOMgr
{
public:
    /// The engine, created on first use and not started by it; null when ACE's process-wide lock cannot be
    /// taken or there is no memory.
    static TEAsyncIOMgr* Instance();
    /// Stops the engine, waits for its threads and deletes it, if there is one; the connection manager goes
    /// with it. tarnadapter::Fini does this. Connections are neither closed nor told, messages still queued
    /// are not handled and not deleted. Not to be called on one of the framework's threads.
    static void Destroy();

    /// Queues bytes for sending on an open, registered connection; an I/O thread sends them, or in
    /// TarnAsn1Message::SyncHandleMessage, when it would have to be woken for that, the calling thread, as far as they
    /// can be sent without waiting. Bytes of one connection are sent in the order of the calls, each call's in one piece.
    ///
    /// Waits for up to 100 ms while 10,240,000 bytes are waiting to be sent on the connection. Bytes that are
    /// waiting when the connection breaks stay, and go out first when it is open again.
    /// @param handle   the connection's I/O handle, as TarnProtocolAdapter::CheckMessageValid got it or
    ///                 TarnConnector::GetHandle gives it
    /// @param pData    the bytes, copied
    /// @param iLength  their number; nothing is queued for 0 or less, and the result is 0
    /// @return 0 queued, also when there was no memory to queue them (logged); -1 the queue stayed full;
    ///         ADAPTER_ERR_NULL_DATA; ADAPTER_ERR_INVALID_HANDLE when no open connection is registered
    ///         under the handle
    virtual int SendToOutBuffer(ACE_HANDLE handle, const char* pData, int iLength) = 0;

    /// Queues a response for the response threads (`nAppProcessThreadNum`), of which as many take part as the work
    /// needs: the order of two responses is not fixed. When all that do are blocked another one joins in, at once where
    /// they wait for an answer inside the framework, after 4 to 8 milliseconds where application code blocks. A response
    /// thread calls TEMessage::HandleMessage and then deletes the message. While 1,280,000 messages are waiting the caller waits.
    /// @param pMessage  taken over with result 0
    /// @return 0 queued; -1 not: null, the application is exiting, the engine is being stopped, no response
    ///         threads or no memory, and the message stays its caller's. Only when the engine is being stopped
    ///         while the caller waits for room the message is deleted, with -1: use AddResponse where that matters
    virtual int AddTERspMessageData(TEMessage* pMessage) = 0;

    /// Queues a spontaneous report for the report threads (`nAppProcessRptMsgThreadNum`); with one of them
    /// reports are handled in the order of the calls. While 2048 messages are waiting the caller waits.
    ///
    /// Reports are discarded, with a line in the log, while the messages waiting stand for
    /// `nAppProcessRpgMsgLimit` commands or more, as TEMessage::GetCommandCount counts them.
    /// @param pMessage  taken over with result 0
    /// @return 0 queued, discarded (and deleted), or the engine is being stopped while the caller waits for room
    ///         (and deleted); -1 null, the application is exiting, the engine is being stopped, no report
    ///         threads or no memory, and the message stays its caller's
    virtual int AddTERptMessageData(TEMessage* pMessage) = 0;

    /// AddTERspMessageData and AddTERptMessageData for who does not want to know whose the message is afterwards: it is taken
    /// over in any case, and deleted when it is not queued. The results are the same.
    int AddResponse(std::unique_ptr<TEMessage> pMessage);
    int AddReport(std::unique_ptr<TEMessage> pMessage);

    TEAsyncIOMgr(const TEAsyncIOMgr&) = delete;
    TEAsyncIOMgr& operator=(const TEAsyncIOMgr&) = delete;

protected:
    TEAsyncIOMgr() = default;
    virtual ~TEAsyncIOMgr() = default;
};

#endif
