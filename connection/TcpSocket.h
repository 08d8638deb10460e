#ifndef TARN_CONNECTION_TCPSOCKET_H
#define TARN_CONNECTION_TCPSOCKET_H

#include <ace/INET_Addr.h>
#include <ace/config-all.h>

#include <string>

/// @file
/// What the transports over TCP share.

/// Prepares a connected socket: small messages are sent at once (TCP_NODELAY), and a peer that has vanished is noticed after about a minute and a half (keepalive after 60 s
/// of silence, 3 probes 10 s apart), see tcp(7).
void PrepareTcpSocket(ACE_HANDLE handle);

/// True for a socket that is connected to itself: on the same host, an attempt to reach a port that nobody
/// listens on may by chance be given that very port as its own.
bool IsConnectedToItself(ACE_HANDLE handle);

/// Address and port in dotted form, or "unknown.peer.addr".
std::string PeerText(const ACE_INET_Addr& address);

#endif
