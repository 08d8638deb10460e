#ifndef TARN_BENCH_ROADLOAD_H
#define TARN_BENCH_ROADLOAD_H

/// @file
/// What the benchmarks of whole requests share.

#include "ProcessFigures.h"
#include "support/RoadAdapter.h"

#include <tarnadapterframe/tarn_ssl.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

using Clock = std::chrono::steady_clock;

/// Gives a connector its key and its address, a port of 127.0.0.1.
/// @param pOption  of one over TLS
inline void PrepareConnector(TarnConnector& connector, int iTarget, std::uint16_t usPort,
                             TARN_SSL_Option* pOption = nullptr)
{
    std::uint32_t ulIP = 0x7F000001;
    std::vector<void*> parameters = {&ulIP, &usPort};
    if (pOption != nullptr)
        parameters.push_back(pOption);
    connector.SetGroupID(ROAD_GROUP);
    connector.SetTargetID(static_cast<unsigned long>(iTarget));
    connector.SetAdapterProtocolID(ROAD_PROTOCOL);
    connector.InitCommuPara(parameters);
}

/// A connector that is registered as long as it lives.
class Connector : public TarnConnector
{
public:
    static inline std::atomic<int> s_nOpen{0};

    /// @param pOption  null: over TCP
    Connector(int iTarget, std::uint16_t usPort, TARN_SSL_Option* pOption = nullptr)
        : TarnConnector(pOption == nullptr ? TCP_TYPE : TCP_SSL_TYPE)
    {
        PrepareConnector(*this, iTarget, usPort, pOption);
        TarnConnectorMgr::Instance()->RegisterConnector(this, false, 0);
    }
    ~Connector() override { TarnConnectorMgr::Instance()->UnRegisterConnector(ROAD_GROUP, GetTargetID()); }
    int OnConnectOK() override { return ++s_nOpen; }
};

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

inline void Measure(const char* pszName, double seconds,
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

inline void Fail(const char* pszWhat)
{
    std::fprintf(stderr, "%s\n", pszWhat);
    std::exit(1);
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

/// Keeps questions under way, the next NE in turn.
inline void AskAsynchronously(int nMost, int nNes, const std::string& strText, Latencies& latencies,
                              Clock::time_point tEnd)
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
        auto* pQuestion = new TimedQuestion(i % nNes, strText);
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

/// The library with the adapter of questions, started for its own lifetime.
class Road
{
public:
    /// @param pProtocol  the library deletes it
    explicit Road(RoadProtocol* pProtocol = new RoadProtocol)
        : m_pProtocol(pProtocol)
    {
        Question::s_Adapters = {&m_MessageAdapter};
        if (tarnadapter::Init() != 0 ||
            TEAdapterManager::Instance()->RegisterProtocolAdapter(ROAD_PROTOCOL, m_pProtocol, true) != 0)
            Fail("the library does not start");
    }
    ~Road() { tarnadapter::Fini(); }
    Road(const Road&) = delete;
    Road& operator=(const Road&) = delete;

private:
    RoadProtocol* const m_pProtocol;
    RoadMessageAdapter m_MessageAdapter{m_pProtocol};
};

/// Waits until so many connectors have been opened.
inline void WaitUntilOpen(int nConnectors)
{
    while (Connector::s_nOpen < nConnectors)
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
}

#endif
