#include "ConnectRun.h"

#include "ElementProcess.h"
#include "QuietHost.h"
#include "RoadLoad.h"

#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <memory>

namespace connect_bench {

Options g_Options;

namespace {

constexpr int FIRST_TARGET = 1000; // below are those that the road's adapter treats in a way of their own
constexpr std::uint32_t BROADCAST_SERIAL = 0xFFFFFFFF;
constexpr int BROADCASTS = 5;

std::atomic<Progress*> g_pProgress{nullptr};
std::atomic<int> g_nRefused{0};
std::atomic<int> g_nBroadcastAnswers{0};
Clock::time_point g_tStart; // of the progress; set while nothing happens

double Since(Clock::time_point tBegin)
{
    return std::chrono::duration<double>(Clock::now() - tBegin).count();
}

/// One of many, which asks as soon as it is open.
class Neighbour : public TarnConnector
{
public:
    Neighbour(int iTarget, std::uint16_t usPort)
        : TarnConnector(TCP_TYPE)
    {
        PrepareConnector(*this, iTarget, usPort);
        SetConnTimeOut(g_Options.iTimeout);
    }
    void Register() { TarnConnectorMgr::Instance()->RegisterConnector(this, false, 0); }
    void UnRegister() { TarnConnectorMgr::Instance()->UnRegisterConnector(ROAD_GROUP, GetTargetID()); }

    int OnConnectOK() override
    {
        Progress* pProgress = g_pProgress;
        if (m_pOpened.exchange(pProgress) != pProgress)
        {
            pProgress->opened = Since(g_tStart);
            ++pProgress->nOpen;
        }
        Ask(&Neighbour::OnFirstAnswer);
        return 0;
    }

    void Ask(AsynCallBack::Function pfnAnswered)
    {
        auto* pQuestion = new Question(static_cast<int>(GetTargetID()), std::string(g_Options.uPayload, 'q'));
        new AsynCallBack(pQuestion, pfnAnswered, this, nullptr);
        if (pQuestion->HandleMessage() != 0)
            ++g_nRefused;
    }

    static int OnFirstAnswer(TEMessage* /*pMessage*/, void* pNeighbour, void* /*pUnused*/)
    {
        Progress* pProgress = g_pProgress;
        if (static_cast<Neighbour*>(pNeighbour)->m_pAnswered.exchange(pProgress) != pProgress)
        {
            pProgress->answered = Since(g_tStart);
            ++pProgress->nAnswered;
        }
        return 0;
    }

private:
    std::atomic<Progress*> m_pOpened{nullptr}; // the last one that it has been counted in
    std::atomic<Progress*> m_pAnswered{nullptr};
};

using Neighbours = std::vector<std::unique_ptr<Neighbour>>;

/// Also takes the answers to what was sent to all as bytes.
class BroadcastProtocol : public RoadProtocol
{
    class Counted : public Answer
    {
    public:
        using Answer::Answer;
        int HandleMessage() override { return ++g_nBroadcastAnswers; }
    };
    Answer* NewAnswer(std::uint32_t ulSerial, std::string strText) override
    {
        if (ulSerial == BROADCAST_SERIAL)
            return new Counted(this, ulSerial, std::move(strText));
        return RoadProtocol::NewAnswer(ulSerial, std::move(strText));
    }
};

/// @return false when the limit has come first
template <class Condition>
bool WaitFor(Condition&& bReached)
{
    const auto tBegin = Clock::now();
    while (!bReached())
    {
        if (Since(tBegin) > g_Options.limit)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

/// Has something done that opens all living connections, and waits until they are open and have answered.
template <class Cause>
bool Follow(Progress& progress, const Plan& plan, Cause&& cause)
{
    const double processorBefore = ProcessorSeconds();
    g_tStart = Clock::now();
    g_pProgress = &progress;
    cause();
    const bool bAll = WaitFor([&] { return progress.nAnswered >= plan.Living(); });
    progress.processor = ProcessorSeconds() - processorBefore;
    progress.bFollowed = true;
    return bAll;
}

/// The dead ones are spread evenly.
bool IsDead(const Plan& plan, int i)
{
    const auto before = [&](int n) { return std::int64_t{n} * plan.nDead / plan.nElements; };
    return before(i + 1) != before(i);
}

Broadcast Median(std::vector<Broadcast> runs)
{
    std::sort(runs.begin(), runs.end(),
              [](const Broadcast& a, const Broadcast& b) { return a.answered < b.answered; });
    return runs[runs.size() / 2];
}

/// @param send       to one connection
/// @param nAnswered  counts the answers
Broadcast SendToAll(const Neighbours& neighbours, const ElementCounts& counts, std::atomic<int>& nAnswered,
                    const std::function<void(Neighbour&)>& send)
{
    std::vector<Broadcast> runs;
    for (int i = 0; i < BROADCASTS; ++i)
    {
        Broadcast run;
        nAnswered = 0;
        const long nFrames = counts.nFrames + static_cast<long>(neighbours.size());
        const double processorBefore = ProcessorSeconds();
        const auto tBegin = Clock::now();
        for (const auto& pNeighbour : neighbours)
            send(*pNeighbour);
        run.queued = Since(tBegin);
        if (!WaitFor([&] { return nAnswered >= static_cast<int>(neighbours.size()); }) ||
            counts.nFrames != nFrames)
            Fail("a broadcast has not been answered by all");
        run.answered = Since(tBegin);
        run.received = run.answered -
                       static_cast<double>(Clock::now().time_since_epoch().count() - counts.tLastFrame) / 1e9;
        run.processor = ProcessorSeconds() - processorBefore;
        runs.push_back(run);
    }
    return Median(runs);
}

void BroadcastToAll(const Neighbours& neighbours, const ElementCounts& counts, Figures& figures)
{
    const std::string strFrame = Element::Frame(BROADCAST_SERIAL, std::string(g_Options.uPayload, 'b'));
    figures.bytes = SendToAll(neighbours, counts, g_nBroadcastAnswers, [&](Neighbour& neighbour) {
        const TarnConnectorGuard connector(
            TarnConnectorMgr::Instance()->GetConnectorByID(ROAD_GROUP, neighbour.GetTargetID()));
        if (!connector || connector->SendToOutBuffer(strFrame.data(), static_cast<int>(strFrame.size())) != 0)
            Fail("a broadcast has been refused");
    });
    figures.requests = SendToAll(neighbours, counts, g_nBroadcastAnswers, [&](Neighbour& neighbour) {
        neighbour.Ask([](TEMessage*, void*, void*) { return ++g_nBroadcastAnswers; });
    });
}

void MeasureAtRest(long nKbBefore, const Plan& plan, Figures& figures)
{
    std::this_thread::sleep_for(std::chrono::seconds(1)); // what the opening leaves behind comes to its end
    figures.kiBytesEach = static_cast<double>(ProcessStatus("VmRSS") - nKbBefore) / plan.nElements;
    figures.nThreads = ProcessStatus("Threads");
    const double processorBefore = ProcessorSeconds();
    const auto tBegin = Clock::now();
    std::this_thread::sleep_for(std::chrono::duration<double>(g_Options.seconds));
    figures.atRest = (ProcessorSeconds() - processorBefore) / Since(tBegin);
}

void LiveThrough(const Plan& plan, ElementProcess& element, Figures& figures)
{
    const auto has = [](const char* pszWhat) { return g_Options.strWhat == pszWhat; };
    g_QuietSettings = {{"nConnectThreadNum", std::to_string(plan.nThreads)},
                       {"nConnectSleep", std::to_string(plan.iSleep)}};
    InstallQuietHost();
    const Road road(new BroadcastProtocol);
    const long nKbBefore = ProcessStatus("VmRSS");
    Neighbours neighbours;
    for (int i = 0; i < plan.nElements; ++i)
        neighbours.push_back(std::make_unique<Neighbour>(FIRST_TARGET + i, !IsDead(plan, i) ? element.Port(i)
                                                                           : g_Options.bRefuse
                                                                               ? element.RefusingPort()
                                                                               : element.HangingPort()));
    const bool bOpen = Follow(figures.first, plan, [&] {
        for (const auto& pNeighbour : neighbours)
            pNeighbour->Register();
    });
    if (bOpen && (has("open") || has("dead")))
        MeasureAtRest(nKbBefore, plan, figures);
    if (bOpen && (has("drop") || has("dead")))
        Follow(figures.again, plan, [&] { element.DropAll(); });
    if (bOpen && has("broadcast"))
        BroadcastToAll(neighbours, element.Counts(), figures);
    if (bOpen && (has("open") || (has("dead") && g_Options.bRefuse)))
    {
        const auto tBegin = Clock::now();
        for (const auto& pNeighbour : neighbours)
            pNeighbour->UnRegister();
        neighbours.clear();
        figures.closed = Since(tBegin);
    }
    figures.nRefused = g_nRefused;
    figures.bComplete = true;
    _exit(0); // attempts to reach dead ones are under way
}

} // namespace

void Run(const Plan& plan, Figures& figures)
{
    ElementProcess element;
    const pid_t child = fork();
    if (child == 0)
    {
        prctl(PR_SET_NAME, "connections");
        alarm(static_cast<unsigned>(4 * g_Options.limit + g_Options.seconds) + 60U); // never outlives the run
        LiveThrough(plan, element, figures);
    }
    int iStatus = 0;
    if (child < 0 || waitpid(child, &iStatus, 0) != child || !figures.bComplete)
        Fail("a process has not come to its end");
    if (figures.nRefused != 0)
        std::printf("%d requests were refused\n", figures.nRefused);
}

} // namespace connect_bench
