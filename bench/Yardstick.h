#ifndef TARN_BENCH_YARDSTICK_H
#define TARN_BENCH_YARDSTICK_H

/// @file
/// What every client of the yardstick has in common: the command line, the payload of a serial, the figures and the line
/// that reports them. The wire: 4 bytes length of the rest, 4 bytes serial, both big-endian, and the payload; the answer is
/// the same frame; serial 0 is a report.

#include <sys/resource.h>
#include <time.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

namespace yardstick {

constexpr std::size_t HEAD_BYTES = 8;
constexpr std::size_t MAX_PAYLOAD = 65536;
constexpr std::size_t REPORT_BYTES = 32;

inline std::uint64_t NowNs()
{
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<std::uint64_t>(now.tv_sec) * 1'000'000'000U + static_cast<std::uint64_t>(now.tv_nsec);
}

inline void SleepNs(std::uint64_t uNs)
{
    timespec rest = {static_cast<time_t>(uNs / 1'000'000'000U), static_cast<long>(uNs % 1'000'000'000U)};
    while (nanosleep(&rest, &rest) != 0)
    {}
}

// ---------------------------------------------------------------------------------------------------------
// Command line

struct Options
{
    std::string strMode = "window";
    int iPort = 7100;
    int nPorts = 1;
    int nConnections = 16;
    int nWindow = 64;
    int nCallers = 0; // 0: one for each connection
    int nPayload = 64;
    double seconds = 1;
    double warmup = 0.2;
    int iTimeoutMs = 5000;
    int iReconnectMs = 0;
    // TLS, with an element whose certificate these authorities (PEM) vouch for; none: TCP.
    std::string strCaFile;
    // Of this library's client only.
    int bTrace = 0;           // hex trace to the log
    int iLogLevel = 2;        // of the host's log
    int nConnectThreads = 10; // these three: the library's defaults
    int nIOThreads = 4;
    int nResponseThreads = 4;
    std::string strLog; // kept; none: a file that is deleted at the end
    bool IsSync() const { return strMode == "sync"; }
    bool IsIdle() const { return strMode == "idle"; }
    std::size_t Payload() const { return static_cast<std::size_t>(nPayload); }
};

[[noreturn]] inline void Usage(const char* pszProgram)
{
    std::fprintf(
        stderr,
        "usage: %s --mode sync|window|idle --port P [--nports K] --conns C [--window W] [--callers T]\n"
        "  [--payload B] [--seconds S] [--warmup S] [--timeout-ms N] [--reconnect-ms N] [--ca FILE]\n"
        "  [--trace 0|1] [--log-level 0..3] [--log FILE] [--connect-threads N]\n"
        "  [--io-threads N] [--response-threads N]\n",
        pszProgram);
    std::exit(2);
}

/// Options that it does not know are passed over, with their values.
inline Options ParseOptions(int argc, char** argv)
{
    Options options;
    const auto number = [](int& iValue) {
        return [&iValue](const char* psz) { iValue = static_cast<int>(std::strtol(psz, nullptr, 10)); };
    };
    const auto fraction = [](double& value) {
        return [&value](const char* psz) { value = std::strtod(psz, nullptr); };
    };
    const auto text = [](std::string& str) { return [&str](const char* psz) { str = psz; }; };
    struct Known
    {
        const char* pszName;
        std::function<void(const char*)> take;
    };
    const Known known[] = {{"--mode", text(options.strMode)},
                           {"--port", number(options.iPort)},
                           {"--nports", number(options.nPorts)},
                           {"--conns", number(options.nConnections)},
                           {"--window", number(options.nWindow)},
                           {"--callers", number(options.nCallers)},
                           {"--payload", number(options.nPayload)},
                           {"--seconds", fraction(options.seconds)},
                           {"--warmup", fraction(options.warmup)},
                           {"--timeout-ms", number(options.iTimeoutMs)},
                           {"--reconnect-ms", number(options.iReconnectMs)},
                           {"--ca", text(options.strCaFile)},
                           {"--trace", number(options.bTrace)},
                           {"--log-level", number(options.iLogLevel)},
                           {"--connect-threads", number(options.nConnectThreads)},
                           {"--io-threads", number(options.nIOThreads)},
                           {"--response-threads", number(options.nResponseThreads)},
                           {"--log", text(options.strLog)}};
    for (int i = 1; i < argc; i += 2)
    {
        if (i + 1 == argc)
            Usage(argv[0]);
        for (const Known& option : known)
            if (std::strcmp(argv[i], option.pszName) == 0)
                option.take(argv[i + 1]);
    }
    if ((!options.IsSync() && !options.IsIdle() && options.strMode != "window") || options.nConnections < 1 ||
        options.nPorts < 1 || options.nWindow < 1 || options.nPayload < 0 ||
        options.Payload() > MAX_PAYLOAD || options.seconds <= 0 || options.warmup < 0)
        Usage(argv[0]);
    if (options.nCallers < 1)
        options.nCallers = options.nConnections;
    return options;
}

// ---------------------------------------------------------------------------------------------------------
// Payload: a window into fixed pseudo-random bytes, so that making and checking it costs a copy and a comparison

inline const std::vector<unsigned char>& Noise()
{
    static const std::vector<unsigned char> noise = [] {
        std::vector<unsigned char> bytes(MAX_PAYLOAD + 4096);
        std::uint64_t u = 88172645463325252U;
        for (unsigned char& byte : bytes)
        {
            u ^= u << 13U;
            u ^= u >> 7U;
            u ^= u << 17U;
            byte = static_cast<unsigned char>(u >> 32U);
        }
        return bytes;
    }();
    return noise;
}

inline const unsigned char* PayloadOf(std::uint32_t ulSerial)
{
    return Noise().data() + (ulSerial * 2654435761U >> 20U);
}

// ---------------------------------------------------------------------------------------------------------
// Figures

/// One writer; readable by another thread at any time.
class Count
{
public:
    void Add(std::uint64_t u = 1) { m_u.store(Get() + u, std::memory_order_relaxed); }
    std::uint64_t Get() const { return m_u.load(std::memory_order_relaxed); }

private:
    std::atomic<std::uint64_t> m_u{0};
};

/// Latencies, 64 steps for each power of two: within 1.6 %.
class Histogram
{
public:
    static constexpr std::size_t SLOTS = 2560;

    void Add(std::uint64_t uNs) { m_Counts[Slot(uNs)].Add(); }
    std::uint64_t Get(std::size_t uSlot) const { return m_Counts[uSlot].Get(); }
    static double ValueNs(std::size_t uSlot)
    {
        if (uSlot < 64)
            return static_cast<double>(uSlot);
        return (static_cast<double>(64 + uSlot % 64) + 0.5) *
               static_cast<double>(std::uint64_t{1} << (uSlot / 64 - 1));
    }

private:
    static std::size_t Slot(std::uint64_t uNs)
    {
        if (uNs < 64)
            return static_cast<std::size_t>(uNs);
        const int iPower = 63 - __builtin_clzll(uNs);
        return std::min(SLOTS - 1, static_cast<std::size_t>(iPower - 5) * 64 +
                                       static_cast<std::size_t>((uNs >> (iPower - 6)) & 63U));
    }

    std::array<Count, SLOTS> m_Counts;
};

enum class Phase
{
    RAMP,
    MEASURE,
    STOP,
};
inline std::atomic<Phase> g_ePhase{Phase::RAMP};
inline std::atomic<int> g_nOpen{0}; // connections open and, when idle, answered once

/// Of one thread; lives until the process ends.
struct Figures
{
    Count messages, bad, timeouts, lost, late, reports, reconnects;
    Histogram latencies;

    void Done(std::uint64_t uNs)
    {
        if (g_ePhase.load(std::memory_order_relaxed) != Phase::MEASURE)
            return;
        messages.Add();
        latencies.Add(uNs);
    }
};

inline std::mutex g_FiguresMutex;
inline std::vector<Figures*> g_Figures; // guarded by g_FiguresMutex

inline Figures& Mine()
{
    thread_local Figures* pFigures = [] {
        auto* p = new Figures;
        const std::lock_guard<std::mutex> guard(g_FiguresMutex);
        g_Figures.push_back(p);
        return p;
    }();
    return *pFigures;
}

inline long StatusKb(const char* pszKey)
{
    long iKb = 0;
    char szLine[256];
    if (FILE* pFile = std::fopen("/proc/self/status", "r"))
    {
        while (iKb == 0 && std::fgets(szLine, sizeof(szLine), pFile) != nullptr)
            if (std::strncmp(szLine, pszKey, std::strlen(pszKey)) == 0)
                iKb = std::strtol(szLine + std::strlen(pszKey), nullptr, 10);
        std::fclose(pFile);
    }
    return iKb;
}

/// Waits until all connections are open, measures, and prints the line. @return the number of errors
inline std::uint64_t MeasureAndPrint(const char* pszClient, const Options& options)
{
    constexpr std::uint64_t MOST_NS = 60'000'000'000U;
    const std::uint64_t uBegin = NowNs();
    while (g_nOpen.load() < options.nConnections && NowNs() - uBegin < MOST_NS)
        SleepNs(200'000);
    const bool bAllOpen = g_nOpen.load() >= options.nConnections;
    const double openMs = static_cast<double>(NowNs() - uBegin) / 1e6;
    if (bAllOpen)
        SleepNs(static_cast<std::uint64_t>(options.warmup * 1e9));
    rusage before{};
    rusage after{};
    getrusage(RUSAGE_SELF, &before);
    const std::uint64_t uStart = NowNs();
    g_ePhase = Phase::MEASURE;
    if (bAllOpen)
        SleepNs(static_cast<std::uint64_t>(options.seconds * 1e9));
    g_ePhase = Phase::STOP;
    const double seconds = static_cast<double>(NowNs() - uStart) / 1e9;
    getrusage(RUSAGE_SELF, &after);
    const long iPeakKb = StatusKb("VmHWM:");
    const long iRssKb = StatusKb("VmRSS:");

    std::uint64_t uMessages = 0, uBad = 0, uTimeouts = 0, uLost = 0, uLate = 0, uReports = 0, uReconnects = 0;
    std::vector<std::uint64_t> slots(Histogram::SLOTS);
    {
        const std::lock_guard<std::mutex> guard(g_FiguresMutex);
        for (const Figures* p : g_Figures)
        {
            uMessages += p->messages.Get();
            uBad += p->bad.Get();
            uTimeouts += p->timeouts.Get();
            uLost += p->lost.Get();
            uLate += p->late.Get();
            uReports += p->reports.Get();
            uReconnects += p->reconnects.Get();
            for (std::size_t u = 0; u < slots.size(); ++u)
                slots[u] += p->latencies.Get(u);
        }
    }
    std::uint64_t uTotal = 0;
    for (const std::uint64_t u : slots)
        uTotal += u;
    const auto percentile = [&](double share) {
        const auto uWanted = static_cast<std::uint64_t>(share * static_cast<double>(uTotal));
        std::uint64_t uSeen = 0;
        for (std::size_t u = 0; u < slots.size(); ++u)
            if ((uSeen += slots[u]) > uWanted)
                return Histogram::ValueNs(u) / 1000;
        return 0.0;
    };
    const auto passed = [](const timeval& from, const timeval& to) {
        return static_cast<double>(to.tv_sec - from.tv_sec) +
               static_cast<double>(to.tv_usec - from.tv_usec) / 1e6;
    };
    const double user = passed(before.ru_utime, after.ru_utime);
    const double sys = passed(before.ru_stime, after.ru_stime);
    const std::uint64_t uErrors = uBad + uTimeouts + uLost + uLate + (bAllOpen ? 0 : 1);
    const auto count = [](std::uint64_t u) { return static_cast<unsigned long long>(u); };
    const int nWindow = options.IsIdle() ? 0
                        : options.IsSync()
                            ? (options.nCallers + options.nConnections - 1) / options.nConnections
                            : options.nWindow;
    std::printf(
        "{\"client\":\"%s\",\"mode\":\"%s\",\"conns\":%d,\"window\":%d,\"payload\":%d,\"seconds\":%.3f,"
        "\"messages\":%llu,\"msg_per_s\":%.0f,\"p50_us\":%.1f,\"p99_us\":%.1f,\"p999_us\":%.1f,"
        "\"user_cpu_s\":%.3f,\"sys_cpu_s\":%.3f,\"cpu_us_per_msg\":%.3f,\"max_rss_kb\":%ld,"
        "\"errors\":%llu,\"rss_kb\":%ld,\"open_ms\":%.1f,\"ctx_switches\":%ld,\"bad\":%llu,"
        "\"timeouts\":%llu,\"lost\":%llu,\"late\":%llu,\"reports\":%llu,\"reconnects\":%llu}\n",
        pszClient, options.strMode.c_str(), options.nConnections, nWindow, options.nPayload, seconds,
        count(uMessages), static_cast<double>(uMessages) / seconds, percentile(0.5), percentile(0.99),
        percentile(0.999), user, sys,
        uMessages != 0 ? (user + sys) * 1e6 / static_cast<double>(uMessages) : 0.0, iPeakKb, count(uErrors),
        iRssKb, openMs, after.ru_nvcsw + after.ru_nivcsw - before.ru_nvcsw - before.ru_nivcsw, count(uBad),
        count(uTimeouts), count(uLost), count(uLate), count(uReports), count(uReconnects));
    std::fflush(stdout);
    return uErrors;
}

} // namespace yardstick

#endif
