#ifndef TARNADAPTERFRAME_CONNECTIONTYPES_H
#define TARNADAPTERFRAME_CONNECTIONTYPES_H

/// @file
/// The vocabulary of connections to network elements.

/// How a connection reaches its element.
enum ECommuProtocolType : int
{
    TCP_TYPE = 1,      ///< TCP
    TP4_TYPE = 2,      ///< OSI transport class 4
    SERIAL_TYPE = 3,   ///< a serial line
    TCP_SSL_TYPE = 4,  ///< TLS over TCP
    UNKOWN_TYPE = 100, ///< none chosen yet
};

/// State of a connection.
enum EConnectState : int
{
    STATE_CONNECTED = 1,    ///< open, its handle is valid
    STATE_CONNECTING = 2,   ///< in the connect queue, before, during or between attempts
    STATE_DISCONNECTED = 3, ///< closed, and nobody tries to open it
};

/// Bits of a connection's control flag. A new connection has 7: AUTO_CONNECT, and two bits without meaning.
enum EConnectControlFlag : int
{
    /// The connection manager opens the connection when it is registered, closes and reopens it after a break
    /// and closes it when it is unregistered. When clear, the caller opens and closes it, and the manager
    /// only has its bytes read and written while it is registered.
    AUTO_CONNECT = 1,
    /// No further attempt to connect. Set by TarnConnectorMgr::RequestDisConnect and UnRegisterConnector,
    /// cleared by RequestConnect.
    EXIT_CONNECT = 8,
};

#endif
