// What the hex trace costs, with the default settings: every block of bytes that a connection sends or
// receives goes through it. The log goes to a file in a temporary folder.
//
//   Render      rendering alone, the host's log takes the text and drops it
//   CallerCost  what the tracing thread pays while the log's thread writes the file; batches that fit its
//               queue
//   ToFile      until the lines are in the file
//
// items_per_second counts traces, bytes_per_second the bytes traced, and "lost" the traces that did not reach
// the file.

#include <tarnadapterframe/tarnadapterframe.h>
#include <tarnadapterframe/tarnbaseutil.h>

#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <string_view>
#include <vector>

namespace fs = std::filesystem;

namespace {

constexpr int BATCH = 4000;

// A temporary folder with a configuration and, when the log is used, its file.
class LogFolder
{
public:
    LogFolder()
    {
        char szTemplate[] = "/tmp/trace_bench_XXXXXX";
        m_Folder = mkdtemp(szTemplate);
        std::ofstream(m_Folder / "tarnadapter.ini")
            << "[log]\nfile = " << LogFile() << "\nrotate_size_kb = 0\n";
        setenv("TARN_CFG_FILE", (m_Folder / "tarnadapter.ini").c_str(), 1);
    }
    ~LogFolder() { fs::remove_all(m_Folder); }
    LogFolder(const LogFolder&) = delete;
    LogFolder& operator=(const LogFolder&) = delete;

    std::string LogFile() const { return (m_Folder / "trace.log").string(); }

    std::size_t TracesInFile() const
    {
        std::ifstream file(LogFile());
        std::size_t traces = 0;
        for (std::string strLine; std::getline(file, strLine);)
            traces += strLine.find("AsyncIO RecvData") != std::string::npos ? 1U : 0U;
        return traces;
    }

private:
    fs::path m_Folder;
};

bool DropLine(const std::string&, TarnLogLevel, const char* pszText, const AsnType*, bool, bool)
{
    benchmark::DoNotOptimize(pszText);
    return true;
}

void Trace(const std::vector<char>& data)
{
    TraceHexData(data.data(), static_cast<int>(data.size()), TARN_TRACE_ASYNC_IO_RECV, 0);
}

void CountTraces(benchmark::State& state, std::int64_t traces, std::size_t bytesEach)
{
    state.SetItemsProcessed(traces);
    state.SetBytesProcessed(traces * static_cast<std::int64_t>(bytesEach));
}

void Render(benchmark::State& state)
{
    TarnInstallLogSink(&DropLine);
    const std::vector<char> data(static_cast<std::size_t>(state.range(0)), '\x5A');
    for (auto _ : state)
        Trace(data);
    CountTraces(state, static_cast<std::int64_t>(state.iterations()), data.size());
    TarnInstallLogSink(nullptr);
}

void TraceBatches(benchmark::State& state, bool bUntilWritten)
{
    const LogFolder folder;
    TarnDebugMgr::Instance()->Reopen();
    const std::vector<char> data(static_cast<std::size_t>(state.range(0)), '\x5A');
    std::int64_t traces = 0;
    for (auto _ : state)
    {
        const auto begin = std::chrono::steady_clock::now();
        for (int i = 0; i < BATCH; ++i)
            Trace(data);
        if (bUntilWritten)
            TarnDebugMgr::Instance()->Flush(60000);
        const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - begin;
        state.SetIterationTime(elapsed.count());
        TarnDebugMgr::Instance()->Flush(60000);
        traces += BATCH;
    }
    CountTraces(state, traces, data.size());
    state.counters["lost"] = static_cast<double>(traces) - static_cast<double>(folder.TracesInFile());
}

void CallerCost(benchmark::State& state)
{
    TraceBatches(state, false);
}

void ToFile(benchmark::State& state)
{
    TraceBatches(state, true);
}

} // namespace

BENCHMARK(Render)->Arg(20)->Arg(100)->Arg(1024);
BENCHMARK(CallerCost)->Arg(20)->Arg(100)->Arg(1024)->UseManualTime();
BENCHMARK(ToFile)->Arg(20)->Arg(100)->Arg(1024)->UseManualTime();

BENCHMARK_MAIN();
