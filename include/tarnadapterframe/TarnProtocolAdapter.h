#ifndef TARNADAPTERFRAME_TARNPROTOCOLADAPTER_H
#define TARNADAPTERFRAME_TARNPROTOCOLADAPTER_H

#include "tarnadapterframe/Export.h"
#include "tarnadapterframe/TarnLock.h"

#include <cstdint>
#include <vector>

class TEMessage;

/// Base of a protocol adapter: hands out message serials, sends and cancels messages, and cuts received byte
/// streams into whole messages.
///
/// Construction does not register the adapter; TEAdapterManager::RegisterProtocolAdapter does, and takes it
/// over: the manager deletes it at the library's stop. Create it with `new` and do not delete it afterwards.
///
/// The framework calls its operations with no lock held, from several threads at once. An exception that
/// leaves one is caught at the call, logged at level 1 with the class name, and counts as the failure result.
class TARN_ADAPTER_API TarnProtocolAdapter
{
public:
    /// @param ulProtocolID  the id under which the adapter will be registered; not 0, and 1 is taken
    explicit TarnProtocolAdapter(std::uint32_t ulProtocolID);
    virtual ~TarnProtocolAdapter();

    TarnProtocolAdapter(const TarnProtocolAdapter&) = delete;
    TarnProtocolAdapter& operator=(const TarnProtocolAdapter&) = delete;

    /// Next message serial: 1, 2, 3 …, after 4294967295 comes 0. Unique per adapter, from any thread.
    virtual std::uint32_t RequireMessageSerial();

    /// Forgets a message, so that a late answer finds nobody. @return the base -1.
    virtual int CancelMessage(TEMessage* pMessage);

    /// Handles a message that is addressed to this adapter. @return the base -1.
    virtual int HandleMessage(TEMessage* pMessage);

    /// Sends a message. @param pParam  the derived adapter's own. @return the base -1.
    virtual int SendMessage(void* pParam, TEMessage* pMessage);
    /// Sends a message. @return the base -1.
    /// Overriding one of the two hides the other; `using TarnProtocolAdapter::SendMessage;` brings it back.
    virtual int SendMessage(TEMessage* pMessage);

    /// Recognises the whole message at the head of received bytes and hands it on.
    ///
    /// Called on an I/O thread (a serial line's own thread for serial connections), for one connection on one
    /// thread at a time, for several connections at once. It is called again with what is left until it finds
    /// no whole message.
    /// @param pHandle  the receiving connection's I/O handle, as a pointer-sized number
    /// @param data     the bytes received and not yet consumed, the oldest first; not to be changed
    /// @return above 0: that many bytes at the head are one whole message, which has been handed on, and are
    ///         consumed; more than there are empties the buffer. 0: no whole message yet, wait for more
    ///         bytes. -2 and -3 mean the same and are logged each time. Any other negative value, or an
    ///         exception: these bytes are not of this protocol; all are discarded and a socket connection
    ///         is broken. The base answers -1 to everything.
    virtual int CheckMessageValid(void* pHandle, std::vector<unsigned char>& data);

    std::uint32_t GetProtocolAdapterID() const;

protected:
    // The last serial handed out. An adapter whose serials must go on where a former run ended may set it.
    std::uint32_t m_ulSerialCounter TARN_GUARDED_BY(m_SerialLock) = 0;
    TarnThreadMutex m_SerialLock;

private:
    // Constant after construction.
    const std::uint32_t m_ulProtocolID;
};

#endif
