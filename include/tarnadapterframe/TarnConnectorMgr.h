#ifndef TARNADAPTERFRAME_TARNCONNECTORMGR_H
#define TARNADAPTERFRAME_TARNCONNECTORMGR_H

#include "tarnadapterframe/Export.h"

#include <ace/config-all.h>

#include <cstddef>

class TarnConnector;

/// The connections of the process, by their key (group id, target id): opens them on connect threads of its
/// own, retries and reopens them, and closes them on request.
///
/// Every operation may be called from any thread and from inside any hook of a connector, except where noted.
class TARN_ADAPTER_API TarnConnectorMgr
{
public:
    /// The manager, created on first use; null when ACE's process-wide lock cannot be taken.
    static TarnConnectorMgr* Instance();
    /// Stops the connect threads and deletes the manager. tarnadapter::Fini does this.
    static void Destroy();

    /// Registers a connector under its key. With AUTO_CONNECT set the connection is opened, at once or on a
    /// connect thread, and kept open; with AUTO_CONNECT clear it must be open already, and its bytes are read
    /// and written from now on.
    ///
    /// Give a connection with AUTO_CONNECT closed: an open one is served only with `bWait` true. One that
    /// RequestDisConnect has closed needs `bWait` false or a later RequestConnect to be opened again.
    /// @param pConnector         not owned; it must stay alive until it is unregistered
    /// @param bWait              try to connect on this thread first, for at most 4 seconds an attempt and
    ///                           with a second's pause after each; ended by tarnadapter::Fini
    /// @param iWaitConnectCount  attempts then, at least 1; when all have failed the connection is queued
    /// @return 0 open, queued, or failed with `bNoNeReconnect` set. -1 refused, or the key is taken. Any
    ///         failure after the key was entered leaves the connector registered: unregister it. AUTO_CONNECT
    ///         clear: the codes of EAdapterError, too; ADAPTER_ERR_REACTOR also when a call that was made for the
    ///         last registration does not return within 5 seconds
    virtual int RegisterConnector(TarnConnector* pConnector, bool bWait, int iWaitConnectCount) = 0;

    /// Takes a connector out: closes its connection (AUTO_CONNECT set; OnSockBreak is called, here, when it was open) or
    /// stops serving its handle (clear), and
    /// waits until no other thread is inside a hook of it or has got it from GetConnectorByID or GetConnectorByHandle, so that
    /// it may be destroyed afterwards. Called inside a hook or a framing call, of whichever connector, it does not wait, and for
    /// others that have got the connector it does not when its thread has got one itself: destroy the connector later
    /// then. Nothing that a hook, or a user of the connector, waits for may wait for the caller.
    ///
    /// While a connect thread is inside an attempt this waits for it, for the connect timeout at most.
    /// @return 0; -1 when the key is not registered, or group id below 0
    virtual int UnRegisterConnector(int iGroupId, unsigned long ulTargetID) = 0;

    /// The connector registered under a key, or null. It is in use by the caller until ReleaseConnector, for which
    /// UnRegisterConnector on another thread waits: release it soon, whatever is thrown (TarnConnectorGuard does), and before
    /// something that may wait for that thread, such as handing a message on. Who wants to destroy a connector releases the
    /// ones that he has got before he unregisters it.
    virtual TarnConnector* GetConnectorByID(int iGroupId, unsigned long ulTargetID) = 0;
    /// The connector of an open, registered connection; the same rules.
    virtual TarnConnector* GetConnectorByHandle(ACE_HANDLE handle) = 0;
    /// The connector whose bytes the calling thread is framing, for use inside TarnProtocolAdapter::CheckMessageValid: unlike a
    /// look-up by handle it does not find another connection that has been given the number meanwhile. The same rules. Null
    /// elsewhere, and when the connector has been unregistered.
    /// @param uStale  set to the number of bytes at the head of the data that an earlier opening of the connection has left: the
    ///                rest of their message will never come. An adapter that returns it from CheckMessageValid, when it is not
    ///                0, begins each opening afresh
    static TarnConnector* GetFramedConnector(std::size_t& uStale);
    /// Ends the use of a connector; on the thread that got it. Null is ignored. @return 0
    virtual int ReleaseConnector(TarnConnector* pConnector) = 0;

    /// TarnConnector::Connect and DisConnect of a connector. @return their result, -1 for null
    virtual int Connect(TarnConnector* pConnector) = 0;
    virtual int DisConnect(TarnConnector* pConnector) = 0;

    /// Has a registered connection opened, if it is not open or about to be. A queued one that is waiting for
    /// its next attempt goes on waiting.
    /// @return 0; -1 not registered, AUTO_CONNECT clear, or refused
    virtual int RequestConnect(int iGroupId, unsigned long ulTargetID) = 0;
    /// Closes a registered connection, or ends the attempts to open it, until RequestConnect. While a connect
    /// thread is inside an attempt this waits for it, for the connect timeout at most. OnSockBreak is called
    /// when it was open; before the return, unless another hook of the connector is running.
    /// @return 0; -1 not registered
    virtual int RequestDisConnect(int iGroupId, unsigned long ulTargetID) = 0;

    /// Ends all connect threads, waits for them (for the connect timeout of an attempt at most) and forgets
    /// the queued connections, which are STATE_DISCONNECTED then. Whatever is queued later waits for
    /// ResumeConnectThreads. Not to be called on a connect thread, that is, in OnConnectOK. @return 0
    virtual int StopConnectThreads() = 0;
    /// @return 0; -1 while the library is being stopped
    virtual int ResumeConnectThreads() = 0;

    TarnConnectorMgr(const TarnConnectorMgr&) = delete;
    TarnConnectorMgr& operator=(const TarnConnectorMgr&) = delete;

protected:
    TarnConnectorMgr() = default;
    virtual ~TarnConnectorMgr() = default;
};

/// Releases a connector that the manager has given out, at the end of its own lifetime.
class TarnConnectorGuard
{
public:
    /// @param pConnector  from GetConnectorByID, GetConnectorByHandle or GetFramedConnector on this thread; may be null
    explicit TarnConnectorGuard(TarnConnector* pConnector)
        : m_pConnector(pConnector)
    {}
    ~TarnConnectorGuard()
    {
        if (m_pConnector != nullptr)
            TarnConnectorMgr::Instance()->ReleaseConnector(m_pConnector);
    }
    TarnConnectorGuard(const TarnConnectorGuard&) = delete;
    TarnConnectorGuard& operator=(const TarnConnectorGuard&) = delete;

    explicit operator bool() const { return m_pConnector != nullptr; }
    TarnConnector* operator->() const { return m_pConnector; }
    TarnConnector* Get() const { return m_pConnector; }

private:
    TarnConnector* const m_pConnector;
};

#endif
