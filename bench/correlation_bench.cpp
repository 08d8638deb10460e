// What message correlation costs as work grows.
//
//   RegisterFindUnregister/N  one source with one sink is announced, found and unregistered beside N open
//                             sources
//   Tick/N                    one tick of the message timer over N open sources, 1,000 of which expire (all
//                             of them when N is smaller)
//
// The library's own timer ticks, every 5 seconds; the sources note when the tick reaches the first of them
// and when the last expired one is reported.

#include <tarnadapterframe/tarnadapterframe.h>
#include <tarnadapterframe/tarnbaseutil.h>

#include <benchmark/benchmark.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <thread>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

// Of the tick under way; written on the timer thread only, read once the tick is over.
std::atomic<bool> g_bTickSeen{false};
Clock::time_point g_TickBegin;

bool DropLine(const std::string&, TarnLogLevel, const char*, const AsnType*, bool, bool)
{
    return true;
}

class BenchMessage : public TEMessage
{
public:
    BenchMessage(TarnProtocolAdapter* pAdapter, int nTimeOut)
        : TEMessage(pAdapter, COMMAND_MESSAGE, nTimeOut)
    {
        RequireSerial();
    }
    EMessageSyncFlag GetSyncFlag() override
    {
        if (!g_bTickSeen.load(std::memory_order_relaxed))
        {
            g_TickBegin = Clock::now();
            g_bTickSeen.store(true, std::memory_order_release);
        }
        return ASYNC_MESSAGE;
    }
    TEMessageAdapter* GetMessageAdapter() override { return nullptr; }
};

class BenchMessageAdapter : public TEMessageAdapter
{
public:
    BenchMessageAdapter()
        : TEMessageAdapter(nullptr, nullptr)
    {}
    // The messages are the benchmark's own.
    int HandleAsyncError(TEMessage*, void*, EAdapterError) override
    {
        m_LastReport = Clock::now();
        m_iReported.fetch_add(1, std::memory_order_release);
        return 0;
    }
    std::atomic<int> m_iReported{0};
    Clock::time_point m_LastReport;
};

// Open sources with one sink each, the first iExpiring of them about to expire.
class OpenSources
{
public:
    OpenSources(int iCount, int iExpiring)
    {
        TEAdapterManager* pManager = TEAdapterManager::Instance();
        pManager->AcquireMsgMapMtx();
        for (int i = 0; i < iCount; ++i)
        {
            m_sources.push_back(
                std::make_unique<BenchMessage>(&m_SourceAdapter, i < iExpiring ? 0 : 1'000'000));
            BenchMessage sink(&m_SinkAdapter, 60);
            pManager->RegisterPrivateMessage(m_sources.back().get(), &adapter, nullptr, 60);
            pManager->RegisterMessage(m_sources.back().get(), &sink);
        }
        pManager->ReleaseMsgMapMtx();
    }
    ~OpenSources()
    {
        for (const auto& pSource : m_sources)
            TEAdapterManager::Instance()->UnRegisterSourceMessage(pSource.get());
    }
    OpenSources(const OpenSources&) = delete;
    OpenSources& operator=(const OpenSources&) = delete;

    BenchMessageAdapter adapter;

private:
    TarnProtocolAdapter m_SourceAdapter{100};
    TarnProtocolAdapter m_SinkAdapter{101};
    std::vector<std::unique_ptr<BenchMessage>> m_sources;
};

void RegisterFindUnregister(benchmark::State& state)
{
    const OpenSources open(static_cast<int>(state.range(0)), 0);
    TEAdapterManager* pManager = TEAdapterManager::Instance();
    TarnProtocolAdapter sourceAdapter(99);
    TarnProtocolAdapter sinkAdapter(102);
    BenchMessageAdapter adapter;
    for (auto _ : state)
    {
        BenchMessage source(&sourceAdapter, 60);
        BenchMessage sink(&sinkAdapter, 60);
        pManager->RegisterPrivateMessage(&source, &adapter, nullptr, 60);
        pManager->RegisterMessage(&source, &sink);
        bool bFound = false;
        pManager->AcquireMsgMapMtx();
        const auto itUnit = pManager->FindSrcMsgUnit({sink.GetMessageSerial(), 102}, bFound);
        const auto itInfo = pManager->FindSrcMsgInfo(itUnit->second, bFound);
        pManager->UnRegisterSourceMessage(itInfo->second.pSource);
        pManager->ReleaseMsgMapMtx();
    }
    state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations()));
}

void Tick(benchmark::State& state)
{
    const int iCount = static_cast<int>(state.range(0));
    const int iExpiring = std::min(iCount, 1000);
    for (auto _ : state)
    {
        OpenSources open(iCount, iExpiring);
        g_bTickSeen.store(false, std::memory_order_release);
        while (open.adapter.m_iReported.load(std::memory_order_acquire) < iExpiring)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        const std::chrono::duration<double> elapsed = open.adapter.m_LastReport - g_TickBegin;
        state.SetIterationTime(elapsed.count());
    }
    state.counters["sources"] = iCount;
    state.counters["expired"] = iExpiring;
}

} // namespace

BENCHMARK(RegisterFindUnregister)->Arg(10)->Arg(1000)->Arg(100000);
BENCHMARK(Tick)->Arg(10)->Arg(1000)->Arg(100000)->UseManualTime()->Iterations(3)->Unit(
    benchmark::kMicrosecond);

int main(int argc, char** argv)
{
    TarnInstallLogSink(&DropLine);
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv) || tarnadapter::Init() != 0)
        return 1;
    benchmark::RunSpecifiedBenchmarks();
    tarnadapter::Fini();
    return 0;
}
