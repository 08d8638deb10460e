#include "connection/TcpSocket.h"

#include <ace/SOCK_Stream.h>

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

namespace {

// A socket that does not take an option works without it.
void SetOption(ACE_HANDLE handle, int iLevel, int iOption, int iValue)
{
    setsockopt(handle, iLevel, iOption, &iValue, sizeof(iValue));
}

} // namespace

void PrepareTcpSocket(ACE_HANDLE handle)
{
    constexpr int IDLE_SECONDS = 60;
    constexpr int PROBE_SECONDS = 10;
    constexpr int PROBES = 3;
    SetOption(handle, IPPROTO_TCP, TCP_NODELAY, 1);
    SetOption(handle, SOL_SOCKET, SO_KEEPALIVE, 1);
    SetOption(handle, IPPROTO_TCP, TCP_KEEPIDLE, IDLE_SECONDS);
    SetOption(handle, IPPROTO_TCP, TCP_KEEPINTVL, PROBE_SECONDS);
    SetOption(handle, IPPROTO_TCP, TCP_KEEPCNT, PROBES);
}

bool IsConnectedToItself(ACE_HANDLE handle)
{
    const ACE_SOCK_Stream stream(handle);
    ACE_INET_Addr local;
    ACE_INET_Addr remote;
    return stream.get_local_addr(local) == 0 && stream.get_remote_addr(remote) == 0 && local == remote;
}

std::string PeerText(const ACE_INET_Addr& address)
{
    constexpr std::size_t TEXT_SIZE = 100;
    char szText[TEXT_SIZE] = {};
    return address.addr_to_string(szText, sizeof(szText), 1) == 0 ? szText : "unknown.peer.addr";
}
