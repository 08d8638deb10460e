// What connections cost: at rest (memory and processor time for each), and under load, beside a plain epoll loop
// that does the same work without the framework. The element is a process of its own, on 127.0.0.1.
//
//   connection_bench [connections at rest, 900 unless given] [seconds for each figure, 2]
#include "ProcessFigures.h"
#include "QuietHost.h"
#include "support/Element.h"

#include <tarnadapterframe/tarnadapterframe.h>
#include <tarnadapterframe/tarnbaseutil.h>

#include <arpa/inet.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::uint32_t PROTOCOL = 77;
constexpr std::uint32_t LOOPBACK = 0x7F000001;
constexpr std::size_t HEAD = 8;
constexpr int WINDOW = 4; // questions under way on each connection

std::atomic<long> g_nAnswers{0};
std::atomic<int> g_nOpen{0};

std::string Question()
{
    return Element::Frame(1, std::string(64, 'q'));
}

/// Length of the frame at the head of the bytes, 0 while it is not whole.
std::size_t FrameLength(const unsigned char* pBytes, std::size_t uBytes)
{
    if (uBytes < HEAD)
        return 0;
    std::uint32_t ulRest = 0;
    std::memcpy(&ulRest, pBytes, sizeof(ulRest));
    const std::size_t uLength = ntohl(ulRest) + sizeof(ulRest);
    return uBytes < uLength ? 0 : uLength;
}

/// An element that answers until the parent closes the pipe.
std::uint16_t StartElement(pid_t& child, int& iPipe)
{
    int down[2];
    int up[2];
    if (pipe(down) != 0 || pipe(up) != 0)
        std::abort();
    child = fork();
    if (child == 0)
    {
        close(down[1]);
        close(up[0]);
        const Element element;
        const std::uint16_t usPort = element.Port();
        char end = 0;
        [[maybe_unused]] ssize_t iDone = write(up[1], &usPort, sizeof(usPort));
        iDone = read(down[0], &end, 1);
        _exit(0);
    }
    close(down[0]);
    close(up[1]);
    std::uint16_t usPort = 0;
    [[maybe_unused]] const ssize_t iDone = read(up[0], &usPort, sizeof(usPort));
    close(up[0]);
    iPipe = down[1];
    return usPort;
}

class Answer : public TEMessage
{
public:
    Answer(TarnProtocolAdapter* pAdapter, ACE_HANDLE handle)
        : TEMessage(pAdapter, RESPONSE_MESSAGE, 60)
        , m_Handle(handle)
    {}
    EMessageSyncFlag GetSyncFlag() override { return ASYNC_MESSAGE; }
    TEMessageAdapter* GetMessageAdapter() override { return nullptr; }
    int HandleMessage() override
    {
        static const std::string strQuestion = Question();
        ++g_nAnswers;
        TEAsyncIOMgr::Instance()->SendToOutBuffer(m_Handle, strQuestion.data(),
                                                  static_cast<int>(strQuestion.size()));
        return 0;
    }

private:
    const ACE_HANDLE m_Handle;
};

class Adapter : public TarnProtocolAdapter
{
public:
    Adapter()
        : TarnProtocolAdapter(PROTOCOL)
    {}
    int CheckMessageValid(void* pHandle, std::vector<unsigned char>& data) override
    {
        const std::size_t uLength = FrameLength(data.data(), data.size());
        if (uLength == 0)
            return 0;
        TEAsyncIOMgr::Instance()->AddResponse(std::make_unique<Answer>(
            this, static_cast<ACE_HANDLE>(reinterpret_cast<std::intptr_t>(pHandle))));
        return static_cast<int>(uLength);
    }
};

class Connector : public TarnConnector
{
public:
    Connector(int iTarget, std::uint16_t usPort, int nQuestions)
        : TarnConnector(TCP_TYPE)
        , m_nQuestions(nQuestions)
    {
        std::uint32_t ulIP = LOOPBACK;
        std::vector<void*> parameters = {&ulIP, &usPort};
        SetGroupID(1);
        SetTargetID(static_cast<unsigned long>(iTarget));
        SetAdapterProtocolID(PROTOCOL);
        InitCommuPara(parameters);
        TarnConnectorMgr::Instance()->RegisterConnector(this, false, 0);
    }
    ~Connector() override { TarnConnectorMgr::Instance()->UnRegisterConnector(1, GetTargetID()); }
    int OnConnectOK() override
    {
        const auto handle = static_cast<ACE_HANDLE>(reinterpret_cast<std::intptr_t>(GetHandle()));
        const std::string strQuestion = Question();
        for (int i = 0; i < m_nQuestions; ++i)
            TEAsyncIOMgr::Instance()->SendToOutBuffer(handle, strQuestion.data(),
                                                      static_cast<int>(strQuestion.size()));
        ++g_nOpen;
        return 0;
    }

private:
    const int m_nQuestions;
};

using Connectors = std::vector<std::unique_ptr<Connector>>;

Connectors Open(int nConnections, std::uint16_t usPort, int nQuestions)
{
    g_nOpen = 0;
    Connectors connectors;
    for (int i = 0; i < nConnections; ++i)
        connectors.push_back(std::make_unique<Connector>(i, usPort, nQuestions));
    while (g_nOpen < nConnections)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    return connectors;
}

void AtRest(int nConnections, std::uint16_t usPort, double seconds)
{
    const long nBefore = ProcessStatus("VmRSS");
    const auto tOpen = Clock::now();
    const Connectors connectors = Open(nConnections, usPort, 0);
    const std::chrono::duration<double> opened = Clock::now() - tOpen;
    const long nAfter = ProcessStatus("VmRSS");
    // What opening leaves behind has ended: the first calls of the handlers, and connect threads that find no work.
    std::this_thread::sleep_for(std::chrono::seconds(20));
    const double processorBefore = ProcessorSeconds();
    std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
    const double processor = ProcessorSeconds() - processorBefore;
    std::printf(
        "at rest: %d connections open after %.2f s, %.1f kB each, %.2f %% of a processor, %ld threads\n",
        nConnections, opened.count(), static_cast<double>(nAfter - nBefore) / nConnections,
        100 * processor / seconds, ProcessStatus("Threads"));
}

struct Rate
{
    double perSecond;
    double processorUs; // for each answer
};

template <class Function>
Rate Measure(double seconds, Function&& run)
{
    const long nBefore = g_nAnswers;
    const double processorBefore = ProcessorSeconds();
    run(seconds);
    const auto nAnswers = static_cast<double>(g_nAnswers - nBefore);
    return {nAnswers / seconds, (ProcessorSeconds() - processorBefore) * 1e6 / nAnswers};
}

/// The same work by one thread and nothing around it.
Rate PlainLoop(int nConnections, std::uint16_t usPort, double seconds)
{
    const int iEpoll = epoll_create1(EPOLL_CLOEXEC);
    std::vector<std::vector<unsigned char>> input(FD_SETSIZE * 2);
    std::vector<int> sockets;
    const std::string strQuestion = Question();
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(usPort);
    address.sin_addr.s_addr = htonl(LOOPBACK);
    for (int i = 0; i < nConnections; ++i)
    {
        const int iSocket = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        const int iOn = 1;
        setsockopt(iSocket, IPPROTO_TCP, TCP_NODELAY, &iOn, sizeof(iOn));
        if (connect(iSocket, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0)
            std::abort();
        epoll_event event{};
        event.events = EPOLLIN;
        event.data.fd = iSocket;
        epoll_ctl(iEpoll, EPOLL_CTL_ADD, iSocket, &event);
        for (int j = 0; j < WINDOW; ++j)
            send(iSocket, strQuestion.data(), strQuestion.size(), MSG_NOSIGNAL);
        sockets.push_back(iSocket);
    }
    const Rate rate = Measure(seconds, [&](double howLong) {
        const auto tEnd = Clock::now() + std::chrono::duration<double>(howLong);
        while (Clock::now() < tEnd)
        {
            epoll_event events[64];
            const int nReady = epoll_wait(iEpoll, events, 64, 100);
            for (int i = 0; i < nReady; ++i)
            {
                const int iSocket = events[i].data.fd;
                auto& bytes = input[static_cast<std::size_t>(iSocket)];
                unsigned char received[1024];
                const ssize_t iReceived = recv(iSocket, received, sizeof(received), MSG_DONTWAIT);
                bytes.insert(bytes.end(), received, received + std::max<ssize_t>(iReceived, 0));
                while (const std::size_t uLength = FrameLength(bytes.data(), bytes.size()))
                {
                    bytes.erase(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(uLength));
                    ++g_nAnswers;
                    send(iSocket, strQuestion.data(), strQuestion.size(), MSG_NOSIGNAL);
                }
            }
        }
    });
    for (const int iSocket : sockets)
        close(iSocket);
    close(iEpoll);
    return rate;
}

void UnderLoad(int nConnections, std::uint16_t usPort, double seconds)
{
    Rate framework{};
    {
        const Connectors connectors = Open(nConnections, usPort, WINDOW);
        framework = Measure(seconds, [](double howLong) {
            std::this_thread::sleep_for(std::chrono::duration<double>(howLong));
        });
    }
    const Rate plain = PlainLoop(nConnections, usPort, seconds);
    std::printf("%4d connections, %d questions each: %7.0f answers/s, %5.1f us of processor each; plain loop "
                "%7.0f/s, %4.1f us; ratio of rates %.2f\n",
                nConnections, WINDOW, framework.perSecond, framework.processorUs, plain.perSecond,
                plain.processorUs, framework.perSecond / plain.perSecond);
}

} // namespace

int main(int argc, char** argv)
{
    const int nConnections = argc > 1 ? std::atoi(argv[1]) : 900;
    const double seconds = argc > 2 ? std::atof(argv[2]) : 2;
    if (nConnections < 1 || nConnections > 950 || seconds <= 0)
    {
        std::fprintf(stderr, "usage: %s [connections at rest, 1 to 950] [seconds for each figure]\n",
                     argv[0]);
        return 2;
    }
    // Before there are threads.
    pid_t child = -1;
    int iPipe = -1;
    const std::uint16_t usPort = StartElement(child, iPipe);
    InstallQuietHost();
    if (tarnadapter::Init() != 0 ||
        TEAdapterManager::Instance()->RegisterProtocolAdapter(PROTOCOL, new Adapter, true) != 0)
        return 1;
    AtRest(nConnections, usPort, seconds);
    for (const int nLoaded : {1, 16, 100, 500})
        UnderLoad(nLoaded, usPort, seconds);
    tarnadapter::Fini();
    close(iPipe);
    waitpid(child, nullptr, 0);
    return 0;
}
