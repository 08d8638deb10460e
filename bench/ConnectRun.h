#ifndef TARN_BENCH_CONNECTRUN_H
#define TARN_BENCH_CONNECTRUN_H

/// @file
/// One run of connect_bench: a process that opens connections to an element process, and what it has measured.

#include <atomic>
#include <string>
#include <vector>

namespace connect_bench {

struct Options
{
    std::string strWhat;
    std::vector<int> elements = {1000, 10000};
    /// Connect threads: a number, or +number, so many more than elements are dead.
    std::vector<std::string> threads;
    std::vector<std::string> dead;    // a number, or a share with a percent sign
    std::vector<int> sleeps = {0, 1}; // nConnectSleep
    int iTimeout = 2;                 // of a connect, seconds
    double seconds = 3;               // at rest
    double limit = 60;                // of each wait
    bool bRefuse = false;             // the dead ones
    double slack = 0.5;
    double within = 2; // times of the living beside dead ones against those without
    std::size_t uPayload = 64;
};

/// One row's circumstances.
struct Plan
{
    int nElements;
    int nDead;
    int nThreads;
    int iSleep;
    int Living() const { return nElements - nDead; }
};

/// How far the living have come, since all were asked to open.
struct Progress
{
    std::atomic<int> nOpen{0};
    std::atomic<int> nAnswered{0};
    std::atomic<double> opened{0}; // seconds after the start, of the last one
    std::atomic<double> answered{0};
    double processor = 0;
    bool bFollowed = false;
};

struct Broadcast
{
    double queued = 0, received = 0, answered = 0, processor = 0;
};

/// What a process has measured; in memory that it shares with its parent.
struct Figures
{
    Progress first, again;
    double kiBytesEach = 0, atRest = 0, closed = 0;
    long nThreads = 0;
    Broadcast bytes, requests; // medians
    int nRefused = 0;          // requests that were not taken
    bool bComplete = false;
};

extern Options g_Options;

/// Makes one run's measurements in a process of their own; before there are threads.
void Run(const Plan& plan, Figures& figures);

} // namespace connect_bench

#endif
