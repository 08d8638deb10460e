#ifndef TARNADAPTERFRAME_TARNCONNECTOR_H
#define TARNADAPTERFRAME_TARNCONNECTOR_H

#include "tarnadapterframe/ConnectionTypes.h"
#include "tarnadapterframe/Export.h"
#include "tarnadapterframe/TarnLock.h"

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

struct ConnectorUses;
class TarnConnectorImpl;

/// One connection to a network element, as its owner sees it: the element's address, the connection's key and
/// settings, and two hooks that tell when it opens and breaks.
///
/// **Life.** Create it with a protocol type, set group id, target id and adapter protocol id, give the address
/// with InitCommuPara, then register it with TarnConnectorMgr, which opens it and keeps it open. Unregister it
/// before destroying it. The manager never deletes it. What is behind it (the transport with its socket) is
/// closed and freed later, within about 30 seconds, when no thread uses it any more; while the library is not
/// running, at once.
///
/// **Threads.** Every operation may be called from any thread while the object lives. The hooks of one
/// connection are called one at a time and in the order of the events, on a connect thread, an I/O thread or
/// the thread of a caller of TarnConnectorMgr, with no lock of the framework held but the one that keeps the
/// connector in use. They may call anything but the destructor of a connector. A hook that takes long holds up
/// its thread, and on an I/O thread other connections for some milliseconds, so hand work over and return.
///
/// **Without transport** (type UNKOWN_TYPE, or one that could not be created) the operations return what
/// stands with them and log a line.
class TARN_ADAPTER_API TarnConnector
{
public:
    explicit TarnConnector(ECommuProtocolType eType = UNKOWN_TYPE);
    /// Retires the transport. A connector that is registered must not be destroyed, nor one that a thread is
    /// inside a hook of: TarnConnectorMgr::UnRegisterConnector first. When that was called inside a hook, what
    /// the hook itself uses must be kept until it returns; for the framework's part this waits.
    virtual ~TarnConnector();

    TarnConnector(const TarnConnector&) = delete;
    TarnConnector& operator=(const TarnConnector&) = delete;

    /// Opens the connection and returns when it is open or has failed, after the connect timeout at the
    /// latest (TP4: after 10 seconds). For connections that their owner opens (AUTO_CONNECT clear). An open one is left
    /// as it is; over TP4 it is closed, as by DisConnect, and opened anew.
    /// @return 0 open, -1 failed or without transport
    virtual int Connect();
    /// Closes the connection. No hook is called. @return 0 closed, also when it was not open; -1 it could not
    /// be closed, or without transport
    virtual int DisConnect();

    /// Called after the connection has broken, or RequestDisConnect or UnRegisterConnector has closed it, once for each
    /// OnConnectOK.
    /// With AUTO_CONNECT it is closed by then and is going to be reopened after `nConnectSleep` seconds;
    /// without, its handle is unregistered and the owner closes it. @return ignored
    virtual int OnSockBreak();
    /// Called after the connection manager has opened the connection; its bytes are read and written from
    /// then on. @return ignored
    virtual int OnConnectOK();

    /// Chooses the protocol, of a connector that has none yet or another one. The old transport is retired
    /// with all its settings, as by the destructor; a registered connector stays registered, but nothing
    /// opens the new transport before TarnConnectorMgr::RequestConnect.
    /// @return 0; -1 for a type that is none: the connector has no transport then
    int InitCommuProtocolType(ECommuProtocolType eType);

    /// Gives the transport its parameters; what the elements point to is copied. TCP: exactly two, an
    /// IPv4 address (std::uint32_t, host byte order) and a port (std::uint16_t, host byte order). TLS: these two and a
    /// TARN_SSL_Option (tarn_ssl.h); more are ignored, and the address is taken even when the option is null.
    /// TP4: exactly two texts ended by a zero byte (char*), the network address (0 to 80 hex digits, in pairs) and the
    /// transport selector (0 to 15 characters); the address is taken even when the selector is refused.
    /// Serial: exactly two, the port's name (text ended by a zero byte; null leaves the name as it is) and the baud rate
    /// (int); Connect refuses what cannot be opened, or no rate of termios(3). They count from the next opening on.
    /// @return 0; -1 for a wrong number of parameters, and for all that TP4 and serial refuse; -2 for one that is null
    int InitCommuPara(std::vector<void*>& vctParas);
    /// Reports the transport's parameters, and all others empty or 0. TCP and TLS: type, IPv4 address and port in host
    /// byte order. TP4: type, and as first and second text the network address in hex digits, as given, and the
    /// selector. Serial: type, the port's name as the third text, and the baud rate. @return false without transport
    bool GetCommuPara(ECommuProtocolType& eType, unsigned long& ulIP, unsigned short& usPort,
                      std::string& strFirst, std::string& strSecond, std::string& strThird,
                      unsigned long& ulNumber);
    /// UNKOWN_TYPE without transport.
    ECommuProtocolType GetCommuProtType();

    /// Key of the connection: group id, 0 or above, and target id, 32 bits. Not to be changed while the
    /// connector is registered. Setters return 0, or -1 without transport; getters -1 and 0 then.
    int SetGroupID(int iGroupID);
    int GetGroupID();
    int SetTargetID(unsigned long ulTargetID);
    unsigned long GetTargetID();

    /// Id of the protocol adapter that frames this connection's bytes. @return 0, -1 without transport
    int SetAdapterProtocolID(unsigned long ulProtocolID);

    /// The bits of EConnectControlFlag; 7 in a new connection. @return 0, -1 without transport
    int SetControlFlag(int iControlFlag);
    int GetControlFlag();
    /// True when the control flag and the mask share a bit.
    bool IsControlParaTrue(int iMask);

    /// Seconds that an attempt to connect may take; 30 in a new connection, 0 lets every attempt fail. Not for TP4.
    /// @return 0, -1 without transport
    int SetConnTimeOut(int iSeconds);
    /// Failed attempts, counted since the last success, after which the manager gives up; 0 in a new
    /// connection: never. @return 0, -1 without transport
    int SetMaxConnectCount(int iCount);

    /// STATE_DISCONNECTED without transport.
    EConnectState GetConnState();
    /// For connections whose handle the owner brings along, see SetHandle. @return 0, -1 without transport
    int SetConnState(EConnectState eState);

    /// The I/O handle of the open connection, as a pointer-sized number; -1 in any other state.
    void* GetHandle();
    /// Brings an open handle along. It stays the caller's, who closes it, after the connector has been
    /// unregistered or its OnSockBreak called. The state goes first: in STATE_DISCONNECTED -1 is stored
    /// whatever is given. A handle that is being served is taken out of service. Over TP4, where the handle is the
    /// transport's socket, the connector takes it over, and the one before is the caller's.
    /// @return 0, -1 without transport
    int SetHandle(void* pHandle);

    /// Queues bytes for sending, as TEAsyncIOMgr::SendToOutBuffer does, but for this connection and never for another that has
    /// been given the same handle meanwhile. If the connection breaks before they are sent, they go out when it is open again.
    /// @return 0 queued, also when there was no memory to queue them (logged); -1 the queue stayed full, or without
    ///         transport; ADAPTER_ERR_NULL_DATA; ADAPTER_ERR_INVALID_HANDLE when the connection is not open, or not served
    int SendToOutBuffer(const char* pData, int iLength);

    /// The transport's stream object: of TLS its TARN_SOCK_Stream, otherwise null.
    void* GetSocketStream();
    /// The transport, for the framework's own use; null without. Good until the type is changed or the
    /// connector destroyed.
    void* GetTarnConnectorImpl();

private:
    friend class ConnectionPin;
    friend class TarnConnectorMgrImpl;

    TarnConnectorImpl* ReplaceTransport(TarnConnectorImpl* pImpl) TARN_EXCLUDES(m_ImplLock);

    // Guards the pointer for as long as it takes to pin the transport; a leaf.
    TarnThreadMutex m_ImplLock;
    TarnConnectorImpl* m_pImpl TARN_GUARDED_BY(m_ImplLock) = nullptr;
    // Held in read mode between TarnConnectorMgr::GetConnectorByID and ReleaseConnector, and during hooks.
    TarnRWThreadMutex m_UseLock;
    // Who uses it. Shared with who waits for them, since the connector may be destroyed as soon as there are none.
    const std::shared_ptr<ConnectorUses> m_pUses;
};

#endif
