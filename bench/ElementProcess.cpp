#include "ElementProcess.h"

#include "support/Element.h"
#include "support/Loopback.h"

#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string>
#include <unordered_map>
#include <vector>

namespace {

constexpr char DROP = 'd';

[[noreturn]] void Die(const char* pszWhat)
{
    std::perror(pszWhat);
    _exit(1);
}

/// @return the port
std::uint16_t Bind(int iSocket)
{
    sockaddr_in address = Loopback(0);
    socklen_t length = sizeof(address);
    if (bind(iSocket, reinterpret_cast<sockaddr*>(&address), length) != 0 ||
        getsockname(iSocket, reinterpret_cast<sockaddr*>(&address), &length) != 0)
        Die("no port");
    return ntohs(address.sin_port);
}

/// What the child runs: one loop.
class Loop
{
public:
    Loop(int iControl, ElementCounts& counts)
        : m_iControl(iControl)
        , m_Counts(counts)
        , m_iEpoll(epoll_create1(EPOLL_CLOEXEC))
    {
        Watch(m_iControl);
    }

    /// @return the port
    std::uint16_t Listen()
    {
        const int iListener = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
        const std::uint16_t usPort = Bind(iListener);
        if (listen(iListener, SOMAXCONN) != 0)
            Die("listen");
        Watch(iListener);
        m_Listeners.push_back(iListener);
        return usPort;
    }

    /// Returns when the other end of the control pipe has been closed.
    void Run()
    {
        epoll_event events[256];
        for (;;)
        {
            const int nEvents = epoll_wait(m_iEpoll, events, 256, -1);
            for (int i = 0; i < nEvents; ++i)
            {
                const int iFd = events[i].data.fd;
                if (std::find(m_Listeners.begin(), m_Listeners.end(), iFd) != m_Listeners.end())
                    Accept(iFd);
                else if (iFd != m_iControl)
                    Answer(iFd);
                else if (!Obey())
                    return;
            }
        }
    }

private:
    void Watch(int iFd) const
    {
        epoll_event event{};
        event.events = EPOLLIN;
        event.data.fd = iFd;
        if (epoll_ctl(m_iEpoll, EPOLL_CTL_ADD, iFd, &event) != 0)
            Die("epoll_ctl");
    }

    void Accept(int iListener)
    {
        for (;;)
        {
            const int iFd = accept4(iListener, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
            if (iFd < 0 && (errno == EMFILE || errno == ENFILE))
                Die("accept");
            if (iFd < 0)
                return;
            const int iOn = 1;
            setsockopt(iFd, IPPROTO_TCP, TCP_NODELAY, &iOn, sizeof(iOn));
            Watch(iFd);
            m_Input[iFd];
            ++m_Counts.nOpen;
        }
    }

    /// Frames are small, and few on the way: what the socket does not take at once is not to be expected.
    void Answer(int iFd)
    {
        const auto it = m_Input.find(iFd);
        if (it == m_Input.end())
            return; // dropped since it was announced
        char buffer[65536];
        const ssize_t iReceived = recv(iFd, buffer, sizeof(buffer), 0);
        if (iReceived <= 0)
        {
            if (iReceived == 0 || errno != EAGAIN)
                Close(iFd);
            return;
        }
        std::string& strInput = it->second;
        strInput.append(buffer, static_cast<std::size_t>(iReceived));
        const std::size_t uWhole = TakeFrames(strInput);
        if (uWhole == 0)
            return;
        const ssize_t iSent = send(iFd, strInput.data(), uWhole, MSG_NOSIGNAL);
        if (iSent >= 0 && static_cast<std::size_t>(iSent) != uWhole)
            Die("a socket is full");
        strInput.erase(0, uWhole);
    }

    /// Counts whole frames. @return their bytes
    std::size_t TakeFrames(const std::string& strBytes)
    {
        std::size_t uWhole = 0;
        std::uint32_t ulRest = 0;
        while (strBytes.size() - uWhole >= sizeof(ulRest))
        {
            std::memcpy(&ulRest, strBytes.data() + uWhole, sizeof(ulRest));
            const std::size_t uFrame = ntohl(ulRest) + sizeof(ulRest);
            if (strBytes.size() - uWhole < uFrame)
                break;
            uWhole += uFrame;
            m_Counts.tLastFrame = std::chrono::steady_clock::now().time_since_epoch().count();
            ++m_Counts.nFrames;
        }
        return uWhole;
    }

    /// @return false when there is nobody left to obey
    bool Obey()
    {
        char order = 0;
        if (read(m_iControl, &order, 1) != 1)
            return false;
        if (order != DROP)
            return true;
        for (const int iListener : m_Listeners)
            Accept(iListener);
        while (!m_Input.empty())
            Close(m_Input.begin()->first);
        return true;
    }

    void Close(int iFd)
    {
        close(iFd);
        m_Input.erase(iFd);
        --m_Counts.nOpen;
    }

    const int m_iControl;
    ElementCounts& m_Counts;
    const int m_iEpoll;
    std::vector<int> m_Listeners;
    std::unordered_map<int, std::string> m_Input; // by socket: not yet a whole frame
};

} // namespace

void* SharedMemory(std::size_t uBytes)
{
    void* pMemory = mmap(nullptr, uBytes, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (pMemory == MAP_FAILED)
        Die("mmap");
    return pMemory;
}

ElementProcess::ElementProcess()
    : m_pCounts(new (SharedMemory(sizeof(ElementCounts))) ElementCounts)
{
    int control[2];
    int ports[2];
    if (pipe(control) != 0 || pipe(ports) != 0)
        Die("pipe");
    m_Child = fork();
    if (m_Child < 0)
        Die("fork");
    if (m_Child == 0)
    {
        close(control[1]);
        close(ports[0]);
        prctl(PR_SET_NAME, "element");
        Loop loop(control[0], *m_pCounts);
        const HangingListener hanging;
        for (std::uint16_t& usPort : m_Ports.listening)
            usPort = loop.Listen();
        m_Ports.usHanging = hanging.Port();
        // Bound, so that nobody else is given the port; and nobody listens.
        m_Ports.usRefusing = Bind(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
        if (write(ports[1], &m_Ports, sizeof(m_Ports)) != sizeof(m_Ports))
            Die("write");
        close(ports[1]);
        loop.Run();
        _exit(0);
    }
    close(control[0]);
    close(ports[1]);
    m_iControl = control[1];
    if (read(ports[0], &m_Ports, sizeof(m_Ports)) != sizeof(m_Ports))
        Die("no element");
    close(ports[0]);
}

ElementProcess::~ElementProcess()
{
    close(m_iControl);
    waitpid(m_Child, nullptr, 0);
    munmap(m_pCounts, sizeof(ElementCounts));
}

void ElementProcess::DropAll()
{
    if (write(m_iControl, &DROP, 1) != 1)
        Die("no element any more");
}
