// What it takes to open thousands of connections, to reopen them when all have been dropped at once, and what elements that
// answer no connect cost the others. Prints rows of Markdown tables.
//
//   connect_bench open|drop|dead|broadcast [--option value]...
//
// open       all elements alive: until each is open, and has answered its first request; memory; processor time at rest;
//            until all are unregistered and destroyed
// drop       the same elements drop all connections at once: until all are back, and have answered
// dead       some of the elements never answer a connect (--refuse 1: refuse it); of the others: the times of both. One run
//            without dead ones comes first, and threads are added until the times are not more than --within times those of
//            that, or --slack seconds longer
// broadcast  one message to all open connections, as bytes and as requests
//
// --threads  connect threads, nConnectThreadNum; +N: N more than elements are dead
// --dead     how many of the elements, or a share with a percent sign
// --sleep    nConnectSleep; --timeout is of a connect
// --seconds  at rest; --limit is of each wait
//
// Each row is a process of its own, and so is the element, on 127.0.0.1; 10,000 elements take as many descriptors in both.
#include "ConnectRun.h"
#include "ElementProcess.h"

#include <sys/resource.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <new>
#include <utility>

namespace {

using connect_bench::Broadcast;
using connect_bench::Figures;
using connect_bench::g_Options;
using connect_bench::Options;
using connect_bench::Plan;
using connect_bench::Progress;

/// Figures in shared memory, of one run.
class RunFigures
{
public:
    explicit RunFigures(const Plan& plan)
        : m_pFigures(new (SharedMemory(sizeof(Figures))) Figures)
    {
        connect_bench::Run(plan, *m_pFigures);
    }
    const Figures* operator->() const { return m_pFigures; }

private:
    Figures* const m_pFigures; // stays until the end: some hundred bytes
};

std::string Count(long n)
{
    std::string str = std::to_string(n);
    for (std::size_t u = str.size(); u > 3; u -= 3)
        str.insert(u - 3, ",");
    return str;
}

std::string Number(int nDigits, double value)
{
    char szText[32];
    std::snprintf(szText, sizeof(szText), "%.*f", nDigits, value);
    return szText;
}

/// A time, or how many have come so far when the limit was over.
std::string Time(double seconds, int nReached, int nAll)
{
    if (nReached >= nAll)
        return Number(2, seconds);
    return "over " + Number(0, g_Options.limit) + " (" + Count(nReached) + ")";
}

std::string Opened(const Progress& progress, const Plan& plan)
{
    return !progress.bFollowed ? "-" : Time(progress.opened, progress.nOpen, plan.Living());
}

std::string Answered(const Progress& progress, const Plan& plan)
{
    return !progress.bFollowed ? "-" : Time(progress.answered, progress.nAnswered, plan.Living());
}

void Row(const std::vector<std::string>& cells)
{
    for (const std::string& strCell : cells)
        std::printf("| %s ", strCell.c_str());
    std::printf("|\n");
    std::fflush(stdout);
}

void Head(const std::vector<std::string>& cells)
{
    Row(cells);
    for (std::size_t u = 0; u < cells.size(); ++u)
        std::printf("|---:");
    std::printf("|\n");
}

int ThreadsOf(const std::string& strThreads, int nDead)
{
    const auto nThreads = static_cast<int>(std::strtol(strThreads.c_str(), nullptr, 10));
    return strThreads.front() == '+' ? nDead + nThreads : nThreads;
}

int DeadOf(const std::string& strDead, int nElements)
{
    const double number = std::strtod(strDead.c_str(), nullptr);
    return static_cast<int>(strDead.back() == '%' ? number * nElements / 100 : number);
}

void Open()
{
    Head({"elements", "connect threads", "all open, s", "all have answered, s", "processor, s", "KiB each",
          "processor at rest, %", "threads", "all closed, s"});
    for (const int nElements : g_Options.elements)
        for (const std::string& strThreads : g_Options.threads)
        {
            const Plan plan = {nElements, 0, ThreadsOf(strThreads, 0), 0};
            const RunFigures figures(plan);
            const Progress& first = figures->first;
            Row({Count(nElements), Count(plan.nThreads), Opened(first, plan), Answered(first, plan),
                 Number(2, first.processor), Number(1, figures->kiBytesEach),
                 Number(2, 100 * figures->atRest), Count(figures->nThreads), Number(2, figures->closed)});
        }
}

void Drop()
{
    Head({"elements", "nConnectSleep", "connect threads", "all back, s", "all have answered, s",
          "processor, s"});
    for (const int nElements : g_Options.elements)
        for (const int iSleep : g_Options.sleeps)
            for (const std::string& strThreads : g_Options.threads)
            {
                const Plan plan = {nElements, 0, ThreadsOf(strThreads, 0), iSleep};
                const RunFigures figures(plan);
                const Progress& again = figures->again;
                Row({Count(nElements), Count(iSleep), Count(plan.nThreads), Opened(again, plan),
                     Answered(again, plan), Number(2, again.processor)});
            }
}

/// How much longer it took than without dead ones. @return whether that is within what is asked
bool Compare(const Progress& progress, const Progress* pWithout, const Plan& plan, std::string& strTimes)
{
    strTimes = "-";
    if (pWithout == nullptr || progress.nAnswered < plan.Living())
        return false;
    strTimes = Number(1, progress.answered / pWithout->answered);
    return progress.answered <=
           std::max(g_Options.within * pWithout->answered, pWithout->answered + g_Options.slack);
}

/// @param pWithout  the run without dead ones; null: this is it
/// @return whether the living were hardly held up
bool DeadRow(const Plan& plan, const RunFigures* pWithout, const RunFigures& figures)
{
    const Progress& first = figures->first;
    const Progress& again = figures->again;
    std::string strFirst;
    std::string strAgain;
    const bool bFirst = Compare(first, pWithout != nullptr ? &(*pWithout)->first : nullptr, plan, strFirst);
    const bool bAgain = Compare(again, pWithout != nullptr ? &(*pWithout)->again : nullptr, plan, strAgain);
    std::vector<std::string> cells = {Count(plan.nElements),
                                      Count(plan.nDead),
                                      Count(plan.iSleep),
                                      Count(plan.nThreads),
                                      Opened(first, plan),
                                      Answered(first, plan),
                                      strFirst,
                                      Opened(again, plan),
                                      Answered(again, plan),
                                      strAgain,
                                      Number(1, 100 * figures->atRest)};
    if (g_Options.bRefuse)
        cells.push_back(Number(2, figures->closed));
    Row(cells);
    return bFirst && bAgain;
}

void Dead()
{
    if (!g_Options.bRefuse)
        std::printf("Connect timeout %d s.\n\n", g_Options.iTimeout);
    std::vector<std::string> cells = {"elements",
                                      "of them dead",
                                      "nConnectSleep",
                                      "connect threads",
                                      "living open, s",
                                      "have answered, s",
                                      "times",
                                      "dropped: living back, s",
                                      "have answered, s",
                                      "times",
                                      "processor at rest, %"};
    if (g_Options.bRefuse)
        cells.emplace_back("all closed, s");
    Head(cells);
    for (const int nElements : g_Options.elements)
        for (const int iSleep : g_Options.sleeps)
        {
            const Plan allAlive = {nElements, 0, ThreadsOf(g_Options.threads.front(), 0), iSleep};
            const RunFigures without(allAlive);
            DeadRow(allAlive, nullptr, without);
            for (const std::string& strDead : g_Options.dead)
                for (const std::string& strThreads : g_Options.threads)
                {
                    const int nDead = DeadOf(strDead, nElements);
                    const Plan plan = {nElements, nDead, ThreadsOf(strThreads, nDead), iSleep};
                    const RunFigures figures(plan);
                    if (DeadRow(plan, &without, figures))
                        break;
                }
        }
}

void BroadcastRows()
{
    Head({"elements", "sent as", "all queued, ms", "all received, ms", "all answered, ms",
          "processor, us a message"});
    for (const int nElements : g_Options.elements)
    {
        const RunFigures figures({nElements, 0, ThreadsOf(g_Options.threads.front(), 0), 0});
        const auto row = [&](const char* pszHow, const Broadcast& run) {
            Row({Count(nElements), pszHow, Number(1, run.queued * 1e3), Number(1, run.received * 1e3),
                 Number(1, run.answered * 1e3), Number(1, run.processor * 1e6 / nElements)});
        };
        row("bytes", figures->bytes);
        row("requests", figures->requests);
    }
}

// --- command line ---

[[noreturn]] void Usage(const char* pszProgram)
{
    std::fprintf(
        stderr,
        "usage: %s open|drop|dead|broadcast [--elements N,...] [--threads N|+N,...] [--dead N|N%%,...]\n"
        "  [--sleep S,...] [--timeout S] [--refuse 0|1] [--within X] [--slack S] [--seconds S] [--limit S]\n"
        "  [--payload B]\n",
        pszProgram);
    std::exit(2);
}

std::vector<std::string> Split(const std::string& strList)
{
    std::vector<std::string> parts;
    for (std::size_t uBegin = 0; uBegin <= strList.size();)
    {
        const std::size_t uEnd = std::min(strList.find(',', uBegin), strList.size());
        if (uEnd > uBegin)
            parts.push_back(strList.substr(uBegin, uEnd - uBegin));
        uBegin = uEnd + 1;
    }
    return parts;
}

std::vector<int> Numbers(const std::string& strList)
{
    std::vector<int> numbers;
    for (const std::string& strPart : Split(strList))
        numbers.push_back(static_cast<int>(std::strtol(strPart.c_str(), nullptr, 10)));
    return numbers;
}

bool Parse(int argc, char** argv)
{
    if (argc < 2 || argc % 2 != 0)
        return false;
    Options& options = g_Options;
    options.strWhat = argv[1];
    options.dead = {"1%", "5%", "10%", "50%"};
    options.threads = {"1", "2", "5", "10", "20", "50"};
    if (options.strWhat == "dead")
        options.threads = {"10", "20", "50", "100", "+10"};
    if (options.strWhat == "broadcast")
        options.threads = {"10"};
    for (int i = 2; i < argc; i += 2)
    {
        const std::string strName = argv[i];
        const char* pszValue = argv[i + 1];
        if (strName == "--elements")
            options.elements = Numbers(pszValue);
        else if (strName == "--threads")
            options.threads = Split(pszValue);
        else if (strName == "--dead")
            options.dead = Split(pszValue);
        else if (strName == "--sleep")
            options.sleeps = Numbers(pszValue);
        else if (strName == "--timeout")
            options.iTimeout = static_cast<int>(std::strtol(pszValue, nullptr, 10));
        else if (strName == "--seconds")
            options.seconds = std::strtod(pszValue, nullptr);
        else if (strName == "--limit")
            options.limit = std::strtod(pszValue, nullptr);
        else if (strName == "--refuse")
            options.bRefuse = std::strtol(pszValue, nullptr, 10) != 0;
        else if (strName == "--slack")
            options.slack = std::strtod(pszValue, nullptr);
        else if (strName == "--within")
            options.within = std::strtod(pszValue, nullptr);
        else if (strName == "--payload")
            options.uPayload = std::strtoul(pszValue, nullptr, 10);
        else
            return false;
    }
    const auto positive = [](const std::vector<int>& numbers) {
        return !numbers.empty() && *std::min_element(numbers.begin(), numbers.end()) > 0;
    };
    const auto isGood = [](const std::string& strThreads) { return ThreadsOf(strThreads, 0) > 0; };
    return positive(options.elements) && !options.threads.empty() &&
           std::all_of(options.threads.begin(), options.threads.end(), isGood) && options.seconds > 0 &&
           options.limit > 0 && options.uPayload <= 1024;
}

/// Both processes have one descriptor for each element.
void RaiseDescriptors()
{
    constexpr int OTHERS = 1500; // connect threads' attempts among them
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    const int nMost = *std::max_element(g_Options.elements.begin(), g_Options.elements.end());
    if (setrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur < static_cast<rlim_t>(nMost + OTHERS))
    {
        std::fprintf(stderr, "not enough descriptors: raise ulimit -n, or give fewer --elements\n");
        std::exit(1);
    }
}

} // namespace

int main(int argc, char** argv)
{
    const std::pair<const char*, void (*)()> commands[] = {
        {"open", Open}, {"drop", Drop}, {"dead", Dead}, {"broadcast", BroadcastRows}};
    if (!Parse(argc, argv))
        Usage(argv[0]);
    RaiseDescriptors();
    for (const auto& [pszName, command] : commands)
        if (g_Options.strWhat == pszName)
        {
            command();
            return 0;
        }
    Usage(argv[0]);
}
