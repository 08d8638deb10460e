// What serial lines cost, on pseudo terminals, which pace nothing: the round trip of a short message on one line beside
// idle ones, and the processor time of lines on which nothing happens.
//
//   serial_bench [SECONDS]    of idleness, 5 unless given

#include <tarnadapterframe/tarnadapterframe.h>
#include <tarnadapterframe/tarnbaseutil.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fcntl.h>
#include <memory>
#include <mutex>
#include <poll.h>
#include <string>
#include <termios.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

constexpr std::uint32_t PROTOCOL = 50;
constexpr int GROUP = 1;
constexpr int MESSAGE_BYTES = 8;
constexpr int ROUNDS = 20'000;

bool DropLine(const std::string&, TarnLogLevel, const char*, const AsnType*, bool, bool)
{
    return true;
}

bool Configure(const char* pszKey, std::string& strValue, const char*)
{
    strValue = "1";
    return std::string(pszKey) == "bEnableSerialCom";
}

/// Tells a waiting thread that a message has come back.
class EchoAdapter : public TarnProtocolAdapter
{
public:
    EchoAdapter()
        : TarnProtocolAdapter(PROTOCOL)
    {}

    int CheckMessageValid(void*, std::vector<unsigned char>& data) override
    {
        if (data.size() < MESSAGE_BYTES)
            return 0;
        const std::lock_guard<std::mutex> guard(m_Mutex);
        ++m_nReceived;
        m_Received.notify_one();
        return MESSAGE_BYTES;
    }
    bool WaitFor(int nReceived)
    {
        std::unique_lock<std::mutex> lock(m_Mutex);
        return m_Received.wait_for(lock, std::chrono::seconds(10), [&] { return m_nReceived >= nReceived; });
    }

private:
    std::mutex m_Mutex;
    std::condition_variable m_Received;
    int m_nReceived = 0;
};

/// A line with the pseudo terminal that it is.
struct Line
{
    explicit Line(unsigned long ulTargetID)
    {
        iFar = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
        if (iFar == -1 || grantpt(iFar) != 0 || unlockpt(iFar) != 0)
            std::abort();
        char* pszPort = ptsname(iFar);
        int iBaud = 115200;
        std::vector<void*> parameters = {pszPort, &iBaud};
        connector.SetGroupID(GROUP);
        connector.SetTargetID(ulTargetID);
        connector.SetAdapterProtocolID(PROTOCOL);
        if (connector.InitCommuPara(parameters) != 0 ||
            TarnConnectorMgr::Instance()->RegisterConnector(&connector, true, 1) != 0)
            std::abort();
    }
    ~Line()
    {
        TarnConnectorMgr::Instance()->UnRegisterConnector(GROUP, connector.GetTargetID());
        close(iFar);
    }
    Line(const Line&) = delete;
    Line& operator=(const Line&) = delete;

    int iFar = -1;
    TarnConnector connector{SERIAL_TYPE};
};

void Echo(int iFar, const std::atomic<bool>& bEnd)
{
    char received[4096];
    while (!bEnd)
    {
        pollfd readable = {iFar, POLLIN, 0};
        if (poll(&readable, 1, 100) <= 0)
            continue;
        const ssize_t iRead = read(iFar, received, sizeof(received));
        if (iRead > 0 && write(iFar, received, static_cast<std::size_t>(iRead)) != iRead)
            std::abort();
    }
}

double Seconds(std::chrono::steady_clock::duration duration)
{
    return std::chrono::duration<double>(duration).count();
}

/// @return microseconds a round trip
double RoundTrip(Line& line, EchoAdapter& adapter, int& nReceived)
{
    std::atomic<bool> bEnd{false};
    std::thread device([&] { Echo(line.iFar, bEnd); });
    const auto begin = std::chrono::steady_clock::now();
    for (int i = 0; i < ROUNDS; ++i)
        if (line.connector.SendToOutBuffer("12345678", MESSAGE_BYTES) != 0 || !adapter.WaitFor(++nReceived))
            std::abort();
    const double dTime = Seconds(std::chrono::steady_clock::now() - begin);
    bEnd = true;
    device.join();
    return dTime / ROUNDS * 1e6;
}

} // namespace

int main(int argc, char** argv)
{
    const int nIdleSeconds = argc > 1 ? std::atoi(argv[1]) : 5;
    TarnInstallCfgLookup(&Configure);
    TarnInstallLogSink(&DropLine);
    if (tarnadapter::Init() != 0)
        return 1;
    auto* pAdapter = new EchoAdapter;
    if (TEAdapterManager::Instance()->RegisterProtocolAdapter(PROTOCOL, pAdapter, true) != 0)
        return 1;
    int nReceived = 0;
    std::vector<std::unique_ptr<Line>> lines;
    double dOne = 0;
    for (const std::size_t uLines : {std::size_t{1}, std::size_t{62}})
    {
        while (lines.size() < uLines)
            lines.push_back(std::make_unique<Line>(lines.size() + 1));
        // The last line has the highest index in the wait.
        const double dRoundTrip = RoundTrip(*lines.back(), *pAdapter, nReceived);
        dOne = dOne == 0 ? dRoundTrip : dOne;
        const std::clock_t begin = std::clock();
        std::this_thread::sleep_for(std::chrono::seconds(nIdleSeconds));
        const double dIdle = static_cast<double>(std::clock() - begin) / CLOCKS_PER_SEC / nIdleSeconds;
        std::printf("%3zu lines: %6.1f us a round trip (%.2f of one line's), idle %.3f %% of a processor\n",
                    uLines, dRoundTrip, dRoundTrip / dOne, dIdle * 100);
    }
    lines.clear();
    tarnadapter::Fini();
    return 0;
}
