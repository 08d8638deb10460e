#include "platform/tp4/RelayedPair.h"

#include <cerrno>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

constexpr std::size_t BUFFER_BYTES = 65536;
constexpr short GONE = POLLHUP | POLLERR | POLLNVAL;

bool IsForLater(int iError)
{
    return iError == EAGAIN || iError == EWOULDBLOCK || iError == EINTR;
}

std::size_t Other(std::size_t uEnd)
{
    return 1 - uEnd;
}

} // namespace

RelayedPair::RelayedPair(int iFirst, int iSecond)
    : m_Ends{iFirst, iSecond}
{}

RelayedPair::~RelayedPair()
{
    for (const int iEnd : m_Ends)
        close(iEnd);
}

short RelayedPair::Events(std::size_t uEnd) const
{
    if (m_bConnecting)
        return uEnd == 1 ? POLLOUT : 0;
    const Way& from = m_Ways.at(uEnd);
    const Way& to = m_Ways.at(Other(uEnd));
    int iEvents = 0;
    if (!from.bEnded && from.IsEmpty())
        iEvents |= POLLIN;
    if (!to.IsEmpty())
        iEvents |= POLLOUT;
    return static_cast<short>(iEvents);
}

void RelayedPair::Prepare(pollfd* pPolled) const
{
    for (std::size_t uEnd = 0; uEnd < ENDS; ++uEnd)
    {
        const short iEvents = Events(uEnd);
        // An end that has ended may be gone altogether, which is told unasked; of another one it may not be looked at
        // before what it has sent is wanted, or poll would never wait.
        const bool bAwaited = m_Ways.at(uEnd).bEnded && !m_Ways.at(Other(uEnd)).bDropping;
        pPolled[uEnd] = {iEvents != 0 || bAwaited ? m_Ends.at(uEnd) : -1, iEvents, 0};
    }
}

bool RelayedPair::Serve(const pollfd* pPolled)
{
    if (m_bConnecting)
        return FinishConnecting(pPolled[1].revents);
    for (std::size_t uEnd = 0; uEnd < ENDS; ++uEnd)
    {
        const short iFound = pPolled[uEnd].revents;
        if ((pPolled[uEnd].events & POLLIN) != 0 && (iFound & (POLLIN | GONE)) != 0)
            Receive(uEnd);
        if (m_Ways.at(uEnd).bEnded && (iFound & GONE) != 0)
            Drop(Other(uEnd));
    }
    for (std::size_t uEnd = 0; uEnd < ENDS; ++uEnd)
        Send(uEnd);
    const bool bFirstDone = m_Ways[0].bTold;
    const bool bSecondDone = m_Ways[1].bTold;
    if (bFirstDone && bSecondDone)
        return false;
    const bool bLingering = (bFirstDone && m_Ways[1].bDropping) || (bSecondDone && m_Ways[0].bDropping);
    if (bLingering && m_tDeadline == Clock::time_point::max())
        m_tDeadline = Clock::now() + LINGER;
    return Clock::now() < m_tDeadline;
}

bool RelayedPair::FinishConnecting(short iEvents)
{
    if (iEvents == 0)
        return true;
    socklen_t uLength = sizeof(m_iConnectError);
    if (getsockopt(m_Ends[1], SOL_SOCKET, SO_ERROR, &m_iConnectError, &uLength) == -1)
        m_iConnectError = errno;
    m_bConnecting = false;
    return m_iConnectError == 0;
}

void RelayedPair::Receive(std::size_t uEnd)
{
    Way& way = m_Ways.at(uEnd);
    way.bytes.resize(BUFFER_BYTES);
    way.uSent = 0;
    const ssize_t iReceived = recv(m_Ends.at(uEnd), way.bytes.data(), way.bytes.size(), 0);
    const int iError = errno;
    way.bytes.resize(iReceived > 0 ? static_cast<std::size_t>(iReceived) : 0);
    if (iReceived == 0 || (iReceived < 0 && !IsForLater(iError)))
        way.bEnded = true;
}

/// Sends what has come from an end.
void RelayedPair::Send(std::size_t uEnd)
{
    Way& way = m_Ways.at(uEnd);
    const int iTo = m_Ends.at(Other(uEnd));
    if (!way.IsEmpty() && !way.bDropping)
    {
        const ssize_t iSent =
            send(iTo, way.bytes.data() + way.uSent, way.bytes.size() - way.uSent, MSG_NOSIGNAL);
        if (iSent > 0)
            way.uSent += static_cast<std::size_t>(iSent);
        else if (iSent < 0 && !IsForLater(errno))
            Drop(uEnd);
    }
    if (way.bDropping)
        way.uSent = way.bytes.size();
    if (way.IsEmpty() && way.bEnded && !way.bTold)
    {
        shutdown(iTo, SHUT_WR);
        way.bTold = true;
    }
}

/// What comes from an end reaches nobody any more.
void RelayedPair::Drop(std::size_t uEnd)
{
    m_Ways.at(uEnd).bDropping = true;
}
