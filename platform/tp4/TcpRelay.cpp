#include "platform/tp4/TcpRelay.h"

#include "platform/Tp4Listener.h"

#include <algorithm>
#include <cerrno>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <system_error>
#include <unistd.h>
#include <utility>

namespace {

constexpr auto ACCEPT_PAUSE = std::chrono::seconds(1);

std::string Reason(int iError)
{
    return std::generic_category().message(iError);
}

/// A socket that is connected or connecting. @return -1 with errno
int BeginConnecting(const TcpAddress& target)
{
    const int iSocket = socket(target.address.ss_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (iSocket == -1)
        return -1;
    const int iOn = 1;
    setsockopt(iSocket, IPPROTO_TCP, TCP_NODELAY, &iOn, sizeof(iOn));
    setsockopt(iSocket, SOL_SOCKET, SO_KEEPALIVE, &iOn, sizeof(iOn));
    if (connect(iSocket, reinterpret_cast<const sockaddr*>(&target.address), target.uLength) == 0 ||
        errno == EINPROGRESS)
        return iSocket;
    const int iError = errno;
    close(iSocket);
    errno = iError;
    return -1;
}

} // namespace

TcpRelay::TcpRelay(const Tp4Listener& listener, const TcpAddress& target,
                   std::function<void(const std::string&)> complain)
    : m_Listener(listener)
    , m_Target(target)
    , m_Complain(std::move(complain))
{}

void TcpRelay::Run(int iStop)
{
    std::vector<pollfd> polled;
    for (;;)
    {
        polled.assign(2 + RelayedPair::ENDS * m_Pairs.size(), {});
        polled[0] = {iStop, POLLIN, 0};
        polled[1] = {MayAccept() ? m_Listener.Descriptor() : -1, POLLIN, 0};
        for (std::size_t i = 0; i < m_Pairs.size(); ++i)
            m_Pairs[i]->Prepare(&polled[2 + RelayedPair::ENDS * i]);
        if (poll(polled.data(), polled.size(), WaitMs()) == -1)
            continue; // interrupted, or out of memory for a moment
        if (polled[0].revents != 0)
            break;
        ServePairs(polled);
        if (polled[1].revents != 0)
            Accept();
    }
    m_Pairs.clear();
}

bool TcpRelay::MayAccept() const
{
    return RelayedPair::Clock::now() >= m_tAcceptAgain;
}

int TcpRelay::WaitMs() const
{
    auto tNext = MayAccept() ? RelayedPair::Clock::time_point::max() : m_tAcceptAgain;
    for (const auto& pPair : m_Pairs)
        tNext = std::min(tNext, pPair->Deadline());
    if (tNext == RelayedPair::Clock::time_point::max())
        return -1;
    const auto tWait =
        std::chrono::duration_cast<std::chrono::milliseconds>(tNext - RelayedPair::Clock::now());
    return static_cast<int>(std::max<std::chrono::milliseconds::rep>(tWait.count() + 1, 0));
}

void TcpRelay::ServePairs(const std::vector<pollfd>& polled)
{
    const pollfd* pPolled = polled.data() + 2;
    for (auto& pPair : m_Pairs)
    {
        if (!pPair->Serve(pPolled))
        {
            if (pPair->ConnectError() != 0)
                m_Complain(Reason(pPair->ConnectError()));
            pPair.reset();
        }
        pPolled += RelayedPair::ENDS;
    }
    m_Pairs.erase(std::remove(m_Pairs.begin(), m_Pairs.end(), nullptr), m_Pairs.end());
}

void TcpRelay::Accept()
{
    const int iNear = m_Listener.Accept();
    const int iFar = iNear != -1 ? BeginConnecting(m_Target) : -1;
    if (iFar != -1)
    {
        m_Pairs.push_back(std::make_unique<RelayedPair>(iNear, iFar));
        return;
    }
    const int iError = errno;
    if (iNear != -1)
        close(iNear);
    else if (iError == EAGAIN || iError == EINTR || iError == ECONNABORTED)
        return;
    else
        m_tAcceptAgain = RelayedPair::Clock::now() + ACCEPT_PAUSE;
    m_Complain(Reason(iError));
}
