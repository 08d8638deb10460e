#include "platform/OsiSocket.h"

#include "platform/Tp4File.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <new>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr milliseconds CONNECT_LIMIT(10'000);

thread_local int t_iLastError = 0;

int FailSocket(int iError)
{
    t_iLastError = iError;
    return SOCKET_ERROR;
}

bool HasProvider()
{
    struct stat status = {};
    return stat(Tp4Directory().c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

/// Why a socket of this kind is not to be had; 0: it is.
int Refusal(int iFamily, int iType, int iProtocol)
{
    if (iFamily != AF_ISO)
        return EAFNOSUPPORT;
    if (iType != SOCK_SEQPACKET)
        return ESOCKTNOSUPPORT;
    if (iProtocol != ISOPROTO_TP4)
        return EPROTONOSUPPORT;
    return HasProvider() ? 0 : EAFNOSUPPORT;
}

/// @return false: it is malformed
bool ReadAddress(const sockaddr* pAddress, int iLength, SOCKADDR_TP& address)
{
    if (pAddress == nullptr || iLength != static_cast<int>(sizeof(address)))
        return false;
    std::memcpy(&address, pAddress, sizeof(address));
    return address.tp_family == AF_ISO && address.tp_addr_type == ISO_HIERARCHICAL &&
           address.tp_taddr_len <= ISO_MAX_ADDR_LENGTH && address.tp_tsel_len <= address.tp_taddr_len;
}

std::string FileNameOf(const SOCKADDR_TP& address)
{
    const char* pSelector = reinterpret_cast<const char*>(address.tp_addr);
    const char* pAddress = pSelector + address.tp_tsel_len;
    return Tp4FileName({pSelector, address.tp_tsel_len},
                       {pAddress, static_cast<std::size_t>(address.tp_taddr_len - address.tp_tsel_len)});
}

/// Limits the calls on a socket that wait for its peer; 0: they wait without end.
int LimitSending(SOCKET hSocket, milliseconds limit)
{
    const timeval time = {limit.count() / 1000, static_cast<suseconds_t>(limit.count() % 1000 * 1000)};
    return setsockopt(hSocket, SOL_SOCKET, SO_SNDTIMEO, &time, sizeof(time));
}

/// @return 0, or the errno
int ConnectWithin(SOCKET hSocket, const Tp4File& file, milliseconds limit)
{
    const auto deadline = steady_clock::now() + limit;
    int iError = EINTR;
    while (iError == EINTR)
    {
        const auto left = std::chrono::duration_cast<milliseconds>(deadline - steady_clock::now());
        if (LimitSending(hSocket, std::max(left, milliseconds(1))) == -1)
            return errno;
        iError = connect(hSocket, file.Address(), Tp4File::Length()) == 0 ? 0 : errno;
    }
    LimitSending(hSocket, milliseconds(0));
    // Without a file nobody has ever listened, or nobody listens any more.
    if (iError == ENOENT || iError == ENOTDIR)
        return ECONNREFUSED;
    return iError == EAGAIN ? ETIMEDOUT : iError;
}

} // namespace

SOCKET WSASocketA(int iFamily, int iType, int iProtocol, void* pProtocolInfo, unsigned uGroup, DWORD dwFlags)
{
    try
    {
        if (pProtocolInfo != nullptr || uGroup != 0 || dwFlags != 0)
            return FailSocket(EINVAL);
        if (const int iRefusal = Refusal(iFamily, iType, iProtocol))
            return FailSocket(iRefusal);
    }
    catch (const std::bad_alloc&)
    {
        return FailSocket(ENOMEM);
    }
    // A stream: records would lose what does not fit a read, and one of no bytes would read as the end.
    const SOCKET hSocket = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    return hSocket != INVALID_SOCKET ? hSocket : FailSocket(errno);
}

int ConnectOsiSocket(SOCKET hSocket, const sockaddr* pAddress, int iLength, milliseconds limit)
{
    SOCKADDR_TP address = {};
    if (!ReadAddress(pAddress, iLength, address))
        return FailSocket(EINVAL);
    try
    {
        const Tp4File file(Tp4Directory(), FileNameOf(address));
        int iError = file.Error();
        if (iError == 0)
            iError = ConnectWithin(hSocket, file, limit);
        else if (iError == ENOENT || iError == ENOTDIR)
            iError = ECONNREFUSED;
        return iError == 0 ? 0 : FailSocket(iError);
    }
    catch (const std::bad_alloc&)
    {
        return FailSocket(ENOMEM);
    }
}

int WSAConnect(SOCKET hSocket, const sockaddr* pAddress, int iLength, void* pCallerData, void* pCalleeData,
               void* pServiceQuality, void* pGroupQuality)
{
    if (pCallerData != nullptr || pCalleeData != nullptr || pServiceQuality != nullptr ||
        pGroupQuality != nullptr)
        return FailSocket(EINVAL);
    return ConnectOsiSocket(hSocket, pAddress, iLength, CONNECT_LIMIT);
}

int closesocket(SOCKET hSocket)
{
    // Whatever else close(2) reports, the descriptor is closed.
    return close(hSocket) == 0 || errno != EBADF ? 0 : FailSocket(EBADF);
}

int WSAGetLastError()
{
    return t_iLastError;
}
