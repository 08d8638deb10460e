// What ASN.1 requests cost over loopback TCP, to an element in this process: blocking from one and from 16 threads,
// 1,000 asynchronous ones under way, and lists of 100. Time from sending to the answer's delivery; the processor time is
// the whole process's, so the element's is in it.
//
//   asn1_bench [seconds for each figure, 3 unless given]
#include "QuietHost.h"
#include "RoadLoad.h"

#include <list>
#include <memory>

namespace {

constexpr int CONNECTORS = 16;

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
    const Road road;
    {
        std::vector<std::unique_ptr<Connector>> connectors;
        for (int i = 0; i < CONNECTORS; ++i)
            connectors.push_back(std::make_unique<Connector>(i, element.Port()));
        WaitUntilOpen(CONNECTORS);
        Measure("blocking, 1 thread", seconds,
                [](Latencies& latencies, Clock::time_point tEnd) { AskWithThreads(1, latencies, tEnd); });
        Measure("blocking, 16 threads", seconds,
                [](Latencies& latencies, Clock::time_point tEnd) { AskWithThreads(16, latencies, tEnd); });
        Measure("asynchronous, 1,000 under way", seconds, [](Latencies& latencies, Clock::time_point tEnd) {
            AskAsynchronously(1000, CONNECTORS, "how are you?", latencies, tEnd);
        });
        Measure("lists of 100", seconds,
                [](Latencies& latencies, Clock::time_point tEnd) { AskInLists(100, latencies, tEnd); });
    }
    return 0;
}
