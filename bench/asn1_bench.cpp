// What ASN.1 requests cost over loopback TCP, to an element in this process: blocking from one and from 16 threads,
// 1,000 asynchronous ones under way, and lists of 100. Time from sending to the answer's delivery; the processor time is
// the whole process's, so the element's is in it.
//
//   asn1_bench [seconds for each figure, 3 unless given]
#include "QuietHost.h"
#include "support/Element.h"
#include "support/RoadAdapter.h"

#include <sys/resource.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

constexpr int CONNECTORS = 16;

std::atomic<int> g_nOpen{0};

class Connector : public TarnConnector
{
public:
    Connector(int iTarget, std::uint16_t usPort)
        : TarnConnector(TCP_TYPE)
    {
        std::uint32_t ulIP = 0x7F000001;
        std::vector<void*> parameters = {&ulIP, &usPort};
        SetGroupID(ROAD_GROUP);
        SetTargetID(static_cast<unsigned long>(iTarget));
        SetAdapterProtocolID(ROAD_PROTOCOL);
        InitCommuPara(parameters);
        TarnConnectorMgr::Instance()->RegisterConnector(this, false, 0);
    }
    ~Connector() override { TarnConnectorMgr::Instance()->UnRegisterConnector(ROAD_GROUP, GetTargetID()); }
    int OnConnectOK() override { return ++g_nOpen; }
};

double Seconds(const timeval& time)
{
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
}

double ProcessorSeconds()
{
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return Seconds(usage.ru_utime) + Seconds(usage.ru_stime);
}

class Latencies
{
public:
    void Add(Clock::time_point tSent)
    {
        const double microseconds = std::chrono::duration<double, std::micro>(Clock::now() - tSent).count();
        const std::lock_guard<std::mutex> guard(m_Mutex);
        m_Values.push_back(microseconds);
    }
    std::size_t Count() const { return m_Values.size(); }
    double Percentile(double share)
    {
        std::sort(m_Values.begin(), m_Values.end());
        return m_Values.empty()
                   ? 0
                   : m_Values[static_cast<std::size_t>(share * static_cast<double>(m_Values.size() - 1))];
    }

private:
    std::mutex m_Mutex;
    std::vector<double> m_Values;
};

void Measure(const char* pszName, double seconds,
             const std::function<void(Latencies&, Clock::time_point)>& work)
{
    Latencies latencies;
    const double processorBefore = ProcessorSeconds();
    const auto tStart = Clock::now();
    work(latencies,
         tStart + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds)));
    const double wall = std::chrono::duration<double>(Clock::now() - tStart).count();
    const double processor = ProcessorSeconds() - processorBefore;
    const auto nMessages = static_cast<double>(latencies.Count());
    std::printf("%-28s %9.0f messages/s   p50 %8.0f us   p99 %8.0f us   processor %6.1f us a message\n",
                pszName, nMessages / wall, latencies.Percentile(0.5), latencies.Percentile(0.99),
                processor / std::max(nMessages, 1.0) * 1e6);
}

void Fail(const char* pszWhat)
{
    std::fprintf(stderr, "%s\n", pszWhat);
    std::exit(1);
}

void AskAndWait(int iNe, Latencies& latencies, Clock::time_point tEnd)
{
    while (Clock::now() < tEnd)
    {
        Question question(iNe, "how are you?");
        const auto tSent = Clock::now();
        if (question.SyncHandleMessage(30) != 0)
            Fail("no answer");
        latencies.Add(tSent);
    }
}

void AskWithThreads(int nThreads, Latencies& latencies, Clock::time_point tEnd)
{
    std::vector<std::thread> threads;
    for (int i = 0; i < nThreads; ++i)
        threads.emplace_back([&, i] { AskAndWait(i % CONNECTORS, latencies, tEnd); });
    for (std::thread& thread : threads)
        thread.join();
}

struct UnderWay
{
    Latencies* pLatencies = nullptr;
    std::mutex mutex;
    std::condition_variable answered;
    int nUnderWay = 0; // guarded by mutex
};

struct TimedQuestion : Question
{
    using Question::Question;
    const Clock::time_point tSent = Clock::now();
};

void AskAsynchronously(int nMost, Latencies& latencies, Clock::time_point tEnd)
{
    UnderWay underWay;
    underWay.pLatencies = &latencies;
    for (int i = 0; Clock::now() < tEnd; ++i)
    {
        {
            std::unique_lock<std::mutex> lock(underWay.mutex);
            underWay.answered.wait(lock, [&] { return underWay.nUnderWay < nMost; });
            ++underWay.nUnderWay;
        }
        auto* pQuestion = new TimedQuestion(i % CONNECTORS, "how are you?");
        new AsynCallBack(
            pQuestion,
            [](TEMessage* pMessage, void* pUser, void*) {
                auto* pState = static_cast<UnderWay*>(pUser);
                pState->pLatencies->Add(static_cast<TimedQuestion*>(pMessage)->tSent);
                const std::lock_guard<std::mutex> guard(pState->mutex);
                --pState->nUnderWay;
                pState->answered.notify_one();
                return 0;
            },
            &underWay, nullptr);
        if (pQuestion->HandleMessage() != 0)
            Fail("not sent");
    }
    std::unique_lock<std::mutex> lock(underWay.mutex);
    underWay.answered.wait(lock, [&] { return underWay.nUnderWay == 0; });
}

void AskInLists(std::size_t uLength, Latencies& latencies, Clock::time_point tEnd)
{
    PSyncHelp help;
    while (Clock::now() < tEnd)
    {
        std::vector<std::unique_ptr<Question>> questions;
        std::list<MsgContext> lstMessages;
        for (std::size_t u = 0; u < uLength; ++u)
        {
            questions.push_back(std::make_unique<Question>(static_cast<int>(u) % CONNECTORS, "how are you?"));
            lstMessages.push_back({questions.back().get(), nullptr, nullptr, nullptr, nullptr});
        }
        const auto tSent = Clock::now();
        if (help.AsyncSendAsn1MessageList(lstMessages, nullptr, nullptr, nullptr, nullptr) != 0 ||
            help.Waiting(30, lstMessages) != 0)
            Fail("not all answered");
        for (std::size_t u = 0; u < uLength; ++u)
            latencies.Add(tSent);
    }
}

} // namespace

int main(int argc, char** argv)
{
    const double seconds = argc > 1 ? std::atof(argv[1]) : 3; // NOLINT(cert-err34-c): a wrong one is 0
    InstallQuietHost();
    Element element;
    auto* pProtocol = new RoadProtocol;
    RoadMessageAdapter messageAdapter(pProtocol);
    Question::s_Adapters = {&messageAdapter};
    if (tarnadapter::Init() != 0 ||
        TEAdapterManager::Instance()->RegisterProtocolAdapter(ROAD_PROTOCOL, pProtocol, true) != 0)
        Fail("the library does not start");
    {
        std::vector<std::unique_ptr<Connector>> connectors;
        for (int i = 0; i < CONNECTORS; ++i)
            connectors.push_back(std::make_unique<Connector>(i, element.Port()));
        while (g_nOpen < CONNECTORS)
            std::this_thread::yield();
        Measure("blocking, 1 thread", seconds,
                [](Latencies& latencies, Clock::time_point tEnd) { AskWithThreads(1, latencies, tEnd); });
        Measure("blocking, 16 threads", seconds,
                [](Latencies& latencies, Clock::time_point tEnd) { AskWithThreads(16, latencies, tEnd); });
        Measure("asynchronous, 1,000 under way", seconds, [](Latencies& latencies, Clock::time_point tEnd) {
            AskAsynchronously(1000, latencies, tEnd);
        });
        Measure("lists of 100", seconds,
                [](Latencies& latencies, Clock::time_point tEnd) { AskInLists(100, latencies, tEnd); });
    }
    tarnadapter::Fini();
    return 0;
}
