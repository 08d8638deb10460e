#include "support/Element.h"

#include "support/Loopback.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <vector>

namespace {

constexpr std::uint32_t MAX_FRAME = std::uint32_t{32} << 20U;
constexpr std::size_t FLOOD_BYTES = 65536;

/// A listener on a port, 0: a free one. Tells the port.
int ListenOn(std::uint16_t& usPort, int iBacklog)
{
    const int iFd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    const int iOn = 1;
    setsockopt(iFd, SOL_SOCKET, SO_REUSEADDR, &iOn, sizeof(iOn));
    sockaddr_in address = Loopback(usPort);
    socklen_t length = sizeof(address);
    if (bind(iFd, reinterpret_cast<sockaddr*>(&address), length) != 0 || listen(iFd, iBacklog) != 0 ||
        getsockname(iFd, reinterpret_cast<sockaddr*>(&address), &length) != 0)
        throw std::runtime_error(std::string("no listener: ") + std::strerror(errno));
    usPort = ntohs(address.sin_port);
    return iFd;
}

std::uint32_t Number(const std::string& strBytes, std::size_t uOffset)
{
    std::uint32_t ulNumber = 0;
    std::memcpy(&ulNumber, strBytes.data() + uOffset, sizeof(ulNumber));
    return ntohl(ulNumber);
}

} // namespace

std::string Element::Frame(std::uint32_t ulSerial, const std::string& strPayload)
{
    const std::uint32_t ulLength = htonl(static_cast<std::uint32_t>(strPayload.size()) + 4);
    const std::uint32_t ulNetSerial = htonl(ulSerial);
    std::string strFrame(reinterpret_cast<const char*>(&ulLength), sizeof(ulLength));
    strFrame.append(reinterpret_cast<const char*>(&ulNetSerial), sizeof(ulNetSerial));
    return strFrame + strPayload;
}

Element::Element()
    : m_iEpoll(epoll_create1(EPOLL_CLOEXEC))
    , m_iWake(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC))
{
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.fd = m_iWake;
    epoll_ctl(m_iEpoll, EPOLL_CTL_ADD, m_iWake, &event);
    Listen();
    m_Thread = std::thread([this] { Run(); });
}

Element::~Element()
{
    {
        const std::lock_guard<std::mutex> guard(m_Mutex);
        m_bStop = true;
    }
    Wake();
    m_Thread.join();
    while (!m_Connections.empty())
        Close(m_Connections.begin()->first, false);
    if (m_iListener >= 0)
        close(m_iListener);
    close(m_iWake);
    close(m_iEpoll);
}

void Element::Listen()
{
    m_iListener = ListenOn(m_usPort, SOMAXCONN);
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.fd = m_iListener;
    epoll_ctl(m_iEpoll, EPOLL_CTL_ADD, m_iListener, &event);
}

void Element::Wake()
{
    const std::uint64_t uOne = 1;
    [[maybe_unused]] const ssize_t iWritten = write(m_iWake, &uOne, sizeof(uOne));
}

void Element::Behave(const Behaviour& behaviour)
{
    {
        const std::lock_guard<std::mutex> guard(m_Mutex);
        m_Behaviour = behaviour;
        for (const auto& [iFd, connection] : m_Connections)
            Watch(iFd, connection);
    }
    Wake();
}

void Element::DropAll(bool bReset)
{
    const std::lock_guard<std::mutex> guard(m_Mutex);
    Accept(); // a peer may be connected that has not been accepted yet
    while (!m_Connections.empty())
        Close(m_Connections.begin()->first, bReset);
}

void Element::SendToAll(const std::string& strBytes)
{
    {
        const std::lock_guard<std::mutex> guard(m_Mutex);
        Accept();
        for (auto& [iFd, connection] : m_Connections)
            connection.strOut += strBytes;
    }
    Wake();
}

void Element::StopListening()
{
    const std::lock_guard<std::mutex> guard(m_Mutex);
    if (m_iListener >= 0)
        close(m_iListener);
    m_iListener = -1;
}

void Element::StartListening()
{
    const std::lock_guard<std::mutex> guard(m_Mutex);
    if (m_iListener < 0)
        Listen();
}

int Element::Open() const
{
    const std::lock_guard<std::mutex> guard(m_Mutex);
    return static_cast<int>(m_Connections.size());
}

int Element::Accepted() const
{
    const std::lock_guard<std::mutex> guard(m_Mutex);
    return m_nAccepted;
}

int Element::Requests() const
{
    const std::lock_guard<std::mutex> guard(m_Mutex);
    return m_nRequests;
}

int Element::BadFrames() const
{
    const std::lock_guard<std::mutex> guard(m_Mutex);
    return m_nBadFrames;
}

void Element::Run()
{
    std::vector<epoll_event> events(256);
    int iWaitMs = 0;
    for (;;)
    {
        const int nEvents = epoll_wait(m_iEpoll, events.data(), static_cast<int>(events.size()), iWaitMs);
        const std::lock_guard<std::mutex> guard(m_Mutex);
        if (m_bStop)
            return;
        for (int i = 0; i < nEvents; ++i)
        {
            const epoll_event& event = events[static_cast<std::size_t>(i)];
            const int iFd = event.data.fd;
            const auto it = m_Connections.find(iFd);
            std::uint64_t uWakes = 0;
            if (iFd == m_iWake) [[maybe_unused]]
                const ssize_t iRead = read(m_iWake, &uWakes, sizeof(uWakes));
            else if (iFd == m_iListener)
                Accept();
            else if (it != m_Connections.end() && (event.events & (EPOLLIN | EPOLLHUP | EPOLLERR)) != 0 &&
                     !Receive(iFd, it->second))
                Close(iFd, false);
        }
        for (auto it = m_Connections.begin(); it != m_Connections.end();)
        {
            const auto itThis = it++;
            if (!Tick(itThis->first, itThis->second))
                Close(itThis->first, false);
        }
        iWaitMs = WaitMs();
    }
}

/// How long nothing is due.
int Element::WaitMs() const
{
    auto tNext = Clock::time_point::max();
    for (const auto& [iFd, connection] : m_Connections)
    {
        tNext = std::min(tNext, connection.tDrop);
        if (!connection.delayed.empty())
            tNext = std::min(tNext, connection.delayed.front().first);
        if (m_Behaviour.iPieceBytes > 0 && !connection.strOut.empty())
            return 1;
    }
    if (tNext == Clock::time_point::max())
        return -1;
    const auto tWait = std::chrono::duration_cast<std::chrono::milliseconds>(tNext - Clock::now()).count();
    return static_cast<int>(std::clamp<long>(tWait + 1, 0, 1000));
}

void Element::Accept()
{
    for (;;)
    {
        const int iFd = accept4(m_iListener, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (iFd < 0)
            return;
        const int iOn = 1;
        setsockopt(iFd, IPPROTO_TCP, TCP_NODELAY, &iOn, sizeof(iOn));
        ++m_nAccepted;
        Connection& connection = m_Connections[iFd];
        if (m_Behaviour.iDropAfterMs >= 0)
            connection.tDrop = Clock::now() + std::chrono::milliseconds(m_Behaviour.iDropAfterMs);
        epoll_event event{};
        event.data.fd = iFd;
        epoll_ctl(m_iEpoll, EPOLL_CTL_ADD, iFd, &event);
        Watch(iFd, connection);
    }
}

void Element::Watch(int iFd, const Connection& connection)
{
    const bool bWrite = !connection.strOut.empty() && m_Behaviour.iPieceBytes == 0;
    epoll_event event{};
    event.events =
        (m_Behaviour.bRead ? std::uint32_t{EPOLLIN} : 0U) | (bWrite ? std::uint32_t{EPOLLOUT} : 0U);
    event.data.fd = iFd;
    epoll_ctl(m_iEpoll, EPOLL_CTL_MOD, iFd, &event);
}

/// @return false when the connection is over
bool Element::Receive(int iFd, Connection& connection)
{
    if (!m_Behaviour.bRead)
        return true;
    char buffer[65536];
    const ssize_t iReceived = recv(iFd, buffer, sizeof(buffer), 0);
    if (iReceived <= 0)
        return iReceived < 0 && errno == EAGAIN;
    connection.strIn.append(buffer, static_cast<std::size_t>(iReceived));
    return Answer(connection);
}

bool Element::Answer(Connection& connection)
{
    constexpr std::size_t HEAD = 8;
    std::size_t uDone = 0;
    while (connection.strIn.size() - uDone >= HEAD)
    {
        const std::uint32_t ulLength = Number(connection.strIn, uDone);
        if (ulLength < 4 || ulLength > MAX_FRAME)
        {
            ++m_nBadFrames;
            return false;
        }
        if (connection.strIn.size() - uDone < ulLength + 4)
            break;
        std::string strFrame = connection.strIn.substr(uDone, ulLength + 4);
        uDone += ulLength + 4;
        ++m_nRequests;
        if (!m_Behaviour.bAnswer)
            continue;
        if (m_Behaviour.bGarbage)
            strFrame.assign(strFrame.size(), '\xFF');
        if (m_Behaviour.iCutAfterBytes >= 0)
        {
            strFrame.resize(std::min(strFrame.size(), static_cast<std::size_t>(m_Behaviour.iCutAfterBytes)));
            connection.bCloseWhenSent = true;
        }
        if (m_Behaviour.iDelayMs > 0)
            connection.delayed.emplace_back(Clock::now() + std::chrono::milliseconds(m_Behaviour.iDelayMs),
                                            std::move(strFrame));
        else
            connection.strOut += strFrame;
    }
    connection.strIn.erase(0, uDone);
    return true;
}

/// Does what is due. @return false when the connection is over
bool Element::Tick(int iFd, Connection& connection)
{
    const auto tNow = Clock::now();
    while (!connection.delayed.empty() && connection.delayed.front().first <= tNow)
    {
        connection.strOut += connection.delayed.front().second;
        connection.delayed.pop_front();
    }
    while (m_Behaviour.bFlood && connection.strOut.size() < FLOOD_BYTES)
        connection.strOut += Frame(0, std::string(100, 'f'));
    const bool bOpen = Send(iFd, connection);
    Watch(iFd, connection);
    return bOpen && connection.tDrop > tNow && !(connection.bCloseWhenSent && connection.strOut.empty());
}

bool Element::Send(int iFd, Connection& connection)
{
    if (connection.strOut.empty())
        return true;
    const std::size_t uPiece = m_Behaviour.iPieceBytes > 0 ? static_cast<std::size_t>(m_Behaviour.iPieceBytes)
                                                           : connection.strOut.size();
    const ssize_t iSent =
        send(iFd, connection.strOut.data(), std::min(uPiece, connection.strOut.size()), MSG_NOSIGNAL);
    if (iSent < 0)
        return errno == EAGAIN;
    connection.strOut.erase(0, static_cast<std::size_t>(iSent));
    return true;
}

void Element::Close(int iFd, bool bReset)
{
    const linger hard = {1, 0};
    if (bReset)
        setsockopt(iFd, SOL_SOCKET, SO_LINGER, &hard, sizeof(hard));
    close(iFd);
    m_Connections.erase(iFd);
}

HangingListener::HangingListener()
    : m_iListener(ListenOn(m_usPort, 0))
{
    // Nobody accepts, so these few fill the backlog; the next connect is left without an answer.
    for (int& iFd : m_Fillers)
    {
        iFd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
        const sockaddr_in address = Loopback(m_usPort);
        connect(iFd, reinterpret_cast<const sockaddr*>(&address), sizeof(address));
    }
}

HangingListener::~HangingListener()
{
    for (const int iFd : m_Fillers)
        close(iFd);
    close(m_iListener);
}
