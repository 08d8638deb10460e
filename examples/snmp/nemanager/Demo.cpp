#include "Commands.h"

#include "HostLog.h"
#include "Interrupt.h"

#include <sys/wait.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <fstream>
#include <mutex>
#include <sstream>
#include <stdexcept>

namespace {

using std::chrono::steady_clock;

constexpr int ELEMENTS = 4; // ne1, ne2 and, behind TLS and TP4, ne3 and ne4
constexpr int ROAD = 5;     // on which notifications come

SnmpOid Name(const std::string& strText)
{
    const auto name = SnmpOid::FromText(strText);
    if (!name)
        throw std::logic_error(strText);
    return *name;
}

const std::string SYSTEM = "1.3.6.1.2.1.1.";
const SnmpOid UP_TIME = Name(SYSTEM + "3.0");
// What the laboratory's elements list under the name "table", 2000 lines.
const SnmpOid TABLE = Name("1.3.6.1.4.1.8072.1.3.2.4.1.2.5.116.97.98.108.101");
constexpr int TABLE_LINES = 2000;

std::string TableLine(int iLine)
{
    return "line " + std::to_string(iLine) + " of the large table";
}

/// What one of the programs of Debian's package "snmp" says, and its exit status. It speaks to an element of its own accord.
struct Said
{
    std::vector<std::string> lines;
    int iStatus = -1;
};

Said Run(const std::string& strCommand)
{
    Said said;
    FILE* pPipe = popen((strCommand + " 2>&1").c_str(), "re");
    if (pPipe == nullptr)
        throw std::runtime_error("cannot run " + strCommand);
    std::string strOutput;
    std::array<char, 4096> bytes = {};
    for (std::size_t uRead = 0; (uRead = fread(bytes.data(), 1, bytes.size(), pPipe)) > 0;)
        strOutput.append(bytes.data(), uRead);
    const int iStatus = pclose(pPipe);
    said.iStatus = WIFEXITED(iStatus) ? WEXITSTATUS(iStatus) : -1;
    std::istringstream lines(strOutput);
    for (std::string strLine; std::getline(lines, strLine);)
        said.lines.push_back(strLine);
    return said;
}

std::string LineOf(const SnmpVarBind& binding)
{
    return binding.name.Text() + ' ' + binding.value.Text();
}

class Demonstration
{
public:
    explicit Demonstration(const std::string& strLaboratory);
    int Run();

private:
    void Connect();
    void ReadSystemGroups();
    void AskAsynchronously();
    void LeaveOneSilent();
    void WalkTable();
    void WalkTable(int iNeId, int nRepetitions, const char* pszTransport);
    void ReceiveInform();
    void LoseAndRegain();
    void ShowTrace();
    void ShowCounts();

    void Step(const char* pszTitle);
    void Say(const std::string& strLine);
    void Check(bool bHolds, const std::string& strWhat);
    void CheckOutcomes(const QuestionList& list, int iSilent);
    static std::vector<ElementSettings> Elements(const std::string& strLaboratory);
    std::string ReadFile(const std::string& strName) const;
    std::string Ask(int iNeId, const SnmpOid& name, std::uint64_t& ulNumber);

    const std::string m_strLaboratory;
    const steady_clock::time_point m_Start = steady_clock::now();
    int m_nStep = 0;
    int m_nChecks = 0;
    int m_nFailed = 0;
    std::mutex m_Output; // lines of events come on threads of the framework
    Manager m_Manager;   // the last: it ends before what its events use
};

Demonstration::Demonstration(const std::string& strLaboratory)
    : m_strLaboratory(strLaboratory)
    , m_Manager(Elements(strLaboratory), [this](const std::string& strLine) { Say("event: " + strLine); })
{}

std::vector<ElementSettings> Demonstration::Elements(const std::string& strLaboratory)
{
    std::vector<ElementSettings> elements = ElementsFromFile(strLaboratory + "/elements", {});
    const std::vector<ElementSettings> road = ElementsFromFile(strLaboratory + "/road", {});
    elements.insert(elements.end(), road.begin(), road.end());
    if (elements.size() != ROAD)
        throw UsageError(strLaboratory + " is no laboratory");
    return elements;
}

std::string Demonstration::ReadFile(const std::string& strName) const
{
    std::ifstream file(m_strLaboratory + '/' + strName);
    std::string strText;
    std::getline(file, strText);
    return strText;
}

void Demonstration::Say(const std::string& strLine)
{
    const std::chrono::duration<double> time = steady_clock::now() - m_Start;
    const std::lock_guard<std::mutex> guard(m_Output);
    std::printf("%5.1f    %s\n", time.count(), strLine.c_str());
    std::fflush(stdout);
}

void Demonstration::Step(const char* pszTitle)
{
    if (Interrupt::HasCome())
        throw std::runtime_error("interrupted");
    const std::lock_guard<std::mutex> guard(m_Output);
    std::printf("\n%d. %s\n", ++m_nStep, pszTitle);
}

void Demonstration::Check(bool bHolds, const std::string& strWhat)
{
    if (Interrupt::HasCome())
        throw std::runtime_error("interrupted");
    ++m_nChecks;
    m_nFailed += bHolds ? 0 : 1;
    Say((bHolds ? "ok      " : "FAILED  ") + strWhat);
}

/// A blocking question for one number. @return nothing, or what went wrong
std::string Demonstration::Ask(int iNeId, const SnmpOid& name, std::uint64_t& ulNumber)
{
    SnmpGet question(iNeId, {name});
    const int iResult = question.SyncHandleMessage(m_Manager.Settings(iNeId).nTimeOut);
    std::string strFailure = Failure(iResult, question);
    if (strFailure.empty())
        ulNumber = question.Answer().bindings.at(0).value.ulNumber;
    return strFailure;
}

void Demonstration::Connect()
{
    Step("All elements connect: two over TCP, one over TLS, one over TP4");
    m_Manager.Start();
    Check(m_Manager.WaitConnected(0, 20), "ne1, ne2, ne3, ne4 and the road for notifications are connected");
}

void Demonstration::ReadSystemGroups()
{
    Step("The system group of each, by blocking gets; snmpget says the same");
    std::vector<SnmpOid> names;
    std::string strNames;
    for (int i = 1; i <= 7; ++i)
    {
        names.push_back(Name(SYSTEM + std::to_string(i) + ".0"));
        strNames += ' ' + names.back().Text();
    }
    for (int iNeId = 1; iNeId <= ELEMENTS; ++iNeId)
    {
        SnmpGet question(iNeId, names);
        const int iResult = question.SyncHandleMessage(5);
        const std::string strName = m_Manager.Name(iNeId);
        std::string strCommand = "snmpget -v2c -c public -OnqtU ";
        strCommand += ReadFile(strName + ".address");
        strCommand += strNames;
        const Said said = ::Run(strCommand);
        const auto& bindings = question.Answer().bindings;
        bool bSame = Failure(iResult, question).empty() && said.iStatus == 0 &&
                     bindings.size() == names.size() && said.lines.size() == names.size();
        for (std::size_t i = 0; bSame && i < names.size(); ++i)
        {
            Say(strName + ' ' + LineOf(bindings[i]));
            if (names[i] == UP_TIME)
            {
                // The element's clock has gone on a little until it was asked again.
                const std::uint64_t ulTheirs = std::stoull(said.lines[i].substr(UP_TIME.Text().size() + 1));
                bSame =
                    bindings[i].value.ulNumber <= ulTheirs && ulTheirs <= bindings[i].value.ulNumber + 3000;
            }
            else
                bSame = LineOf(bindings[i]) == said.lines[i];
        }
        Check(bSame, strName + ": 7 values, the same as snmpget's");
    }
}

/// The answers of step 3, counted on the response threads.
struct Tally
{
    std::atomic<int> nDone{0};
    std::atomic<int> nRight{0};
};

int CountAnswer(TEMessage* pMessage, void* pTally, void* pLine)
{
    const auto& question = *static_cast<SnmpGet*>(pMessage);
    auto& tally = *static_cast<Tally*>(pTally);
    const auto iLine = static_cast<int>(reinterpret_cast<std::intptr_t>(pLine));
    const auto& bindings = question.Answer().bindings;
    tally.nRight += question.GetResult() == 0 && bindings.size() == 1 &&
                            bindings[0].name == question.Question().bindings[0].name &&
                            bindings[0].value.strBytes == TableLine(iLine)
                        ? 1
                        : 0;
    ++tally.nDone;
    return 0;
}

void Demonstration::AskAsynchronously()
{
    Step("300 gets with a callback, over all elements at once, each for another line of a table");
    constexpr int QUESTIONS = 300;
    static Tally s_Tally; // it outlives callbacks that an interrupt leaves behind
    int nSent = 0;
    const auto begin = steady_clock::now();
    for (int i = 0; i < QUESTIONS; ++i)
    {
        const int iLine = 1 + i * 6;
        auto* pQuestion = new SnmpGet(1 + i % ELEMENTS, {Name(TABLE.Text() + '.' + std::to_string(iLine))});
        pQuestion->SetTimeOut(10);
        new AsynCallBack(pQuestion, &CountAnswer, &s_Tally,
                         reinterpret_cast<void*>(static_cast<std::intptr_t>(iLine)));
        nSent += pQuestion->HandleMessage() == 0 ? 1 : 0; // gone, or going
    }
    Say(std::to_string(nSent) + " sent");
    // Answers, or the expiry of questions, end this.
    while (s_Tally.nDone < nSent && !Interrupt::HasCome() &&
           steady_clock::now() - begin < std::chrono::seconds(30))
        Interrupt::Sleep(std::chrono::milliseconds(1));
    const std::chrono::duration<double, std::milli> time = steady_clock::now() - begin;
    Say(std::to_string(s_Tally.nDone) + " answers within " + std::to_string(static_cast<int>(time.count())) +
        " ms");
    Check(s_Tally.nRight == QUESTIONS, "300 answers, each with the line that was asked for");
}

void Demonstration::CheckOutcomes(const QuestionList& list, int iSilent)
{
    for (int iNeId = 1; iNeId <= ELEMENTS; ++iNeId)
    {
        const SnmpGet& question = *list.Questions()[static_cast<std::size_t>(iNeId - 1)];
        const std::string strName = m_Manager.Name(iNeId);
        const int iResult = question.GetResult();
        char szResult[32] = {};
        std::snprintf(szResult, sizeof(szResult), iResult < 0 ? "%d" : "0x%x",
                      static_cast<unsigned>(iResult));
        const auto& bindings = question.Answer().bindings;
        const std::string strText = bindings.empty() ? "" : bindings[0].value.Text();
        const bool bSilent = iNeId == 2;
        Check(bSilent ? iResult == iSilent && strText.empty()
                      : iResult == 0 && strText == "\"Element " + strName + " of the laboratory\"",
              strName + " carries the result " + szResult + (bSilent ? "" : " and " + strText));
    }
}

void Demonstration::LeaveOneSilent()
{
    Step("A list over all elements, ne2 asked with a wrong community: it does not answer");
    constexpr int TIMEOUT = 3;
    const SnmpOid description = Name(SYSTEM + "1.0");
    QuestionList list;
    for (int iNeId = 1; iNeId <= ELEMENTS; ++iNeId)
    {
        SnmpGet& question = list.Add(iNeId, {description});
        if (iNeId == 2)
            question.SetCommunity("wrong");
    }
    auto begin = steady_clock::now();
    const auto checkTime = [&begin](int iWaited) {
        const auto time = steady_clock::now() - begin;
        return iWaited == 1 && time >= std::chrono::milliseconds(TIMEOUT * 1000 - 100) &&
               time < std::chrono::seconds(TIMEOUT + 3);
    };
    Check(checkTime(list.Ask(TIMEOUT)), "the list ends when its 3 seconds are over");
    CheckOutcomes(list, PSYNC_UNANSWERED);

    Say("the same, each sent singly:");
    begin = steady_clock::now();
    PSyncHelp exchange;
    std::list<MsgContext> contexts;
    QuestionList singly; // owns them
    for (int iNeId = 1; iNeId <= ELEMENTS; ++iNeId)
    {
        SnmpGet& question = singly.Add(iNeId, {description});
        if (iNeId == 2)
            question.SetCommunity("wrong");
        exchange.AsynSendAsn1Message(&question, nullptr, nullptr, nullptr, nullptr);
    }
    Check(checkTime(exchange.Waiting(TIMEOUT, contexts)), "the wait ends when its 3 seconds are over");
    CheckOutcomes(singly, ADAPTER_ERR_TIMEOUT);
}

void Demonstration::WalkTable()
{
    Step("A walk of a large table with get-bulk; snmpbulkwalk says the same");
    WalkTable(3, 50, "TLS");
    // A message of some 27,000 bytes, in which the provider of TP4 must keep every byte.
    WalkTable(4, 500, "TP4");
}

void Demonstration::WalkTable(int iNeId, int nRepetitions, const char* pszTransport)
{
    std::vector<std::string> lines;
    const auto begin = steady_clock::now();
    const std::string strFailure =
        WalkElement(m_Manager, iNeId, TABLE, nRepetitions,
                    [&](const SnmpVarBind& binding) { lines.push_back(LineOf(binding)); });
    const std::chrono::duration<double, std::milli> time = steady_clock::now() - begin;
    const std::string strName = m_Manager.Name(iNeId);
    Say(strName + ": " + std::to_string(lines.size()) + " values over " + pszTransport + ", " +
        std::to_string(nRepetitions) + " at once, in " + std::to_string(static_cast<int>(time.count())) +
        " ms" + (strFailure.empty() ? "" : ", " + strFailure));
    const Said said = ::Run("snmpbulkwalk -v2c -c public -OnqtU -Cr" + std::to_string(nRepetitions) + ' ' +
                            ReadFile(strName + ".address") + ' ' + TABLE.Text());
    if (!lines.empty())
        Say(lines.front() + " ... " + lines.back());
    Check(lines.size() == TABLE_LINES && lines == said.lines, "2000 values, the same as snmpbulkwalk's");
}

void Demonstration::ReceiveInform()
{
    Step("An inform arrives as a report, and is answered");
    const int nBefore = m_Manager.Notifications(ROAD);
    // Whom the road leads to listens only once this end is connected. snmpinform ends with 0 when it is answered.
    const std::string strCommand = "snmpinform -v2c -c public -r 0 -t 5 " + ReadFile("road.address") +
                                   " 4711 1.3.6.1.6.3.1.1.5.3 1.3.6.1.2.1.2.2.1.1.7 i 7";
    Said said;
    for (int i = 0; i < 50 && said.iStatus != 0; ++i)
    {
        m_Manager.WaitConnected(ROAD, 10);
        said = ::Run(strCommand);
        if (said.iStatus != 0)
            Interrupt::Sleep(std::chrono::milliseconds(200));
    }
    Check(said.iStatus == 0,
          "snmpinform has got its answer" + (said.lines.empty() ? "" : ": " + said.lines.front()));
    const SnmpPacket inform = m_Manager.LastNotification(ROAD);
    Check(m_Manager.Notifications(ROAD) == nBefore + 1 && inform.ePdu == SnmpPdu::INFORM &&
              inform.bindings.size() == 3 && inform.bindings[0].value.ulNumber == 4711 &&
              inform.bindings[2].value.iNumber == 7,
          "one report, with the time and the interface that were sent");
}

void Demonstration::LoseAndRegain()
{
    Step("ne1 is killed, and started again by the laboratory");
    std::uint64_t ulBefore = 0;
    std::uint64_t ulAfter = 0;
    bool bAnswered = Ask(1, UP_TIME, ulBefore).empty();
    Check(bAnswered, "ne1 answers; it is up for " + std::to_string(ulBefore / 100) + " s");
    const int nBreaks = m_Manager.Breaks(1);
    const int nConnects = m_Manager.Connects(1);
    const pid_t process = std::stoi(ReadFile("ne1.pid"));
    Check(kill(process, SIGKILL) == 0, "killed: process " + std::to_string(process));
    const auto begin = steady_clock::now();
    while (m_Manager.Breaks(1) == nBreaks && !Interrupt::HasCome() &&
           steady_clock::now() - begin < std::chrono::seconds(5))
        Interrupt::Sleep(std::chrono::milliseconds(10));
    Check(m_Manager.Breaks(1) == nBreaks + 1, "the break is told");
    const std::string strFailure = Ask(1, UP_TIME, ulAfter);
    Check(!strFailure.empty(), "a question now is refused: " + strFailure);
    Check(m_Manager.WaitConnected(1, 30) && m_Manager.Connects(1) == nConnects + 1, "it is connected again");
    bAnswered = Ask(1, UP_TIME, ulAfter).empty();
    Check(bAnswered && ulAfter < ulBefore,
          "and answers; it is up for " + std::to_string(ulAfter / 100) + " s");
}

void Demonstration::ShowTrace()
{
    Step("What the trace of bytes shows of one get");
    HostLog::KeepTraces();
    std::uint64_t ulUpTime = 0;
    const std::string strFailure = Ask(2, UP_TIME, ulUpTime);
    const std::string strTraces = HostLog::Traces();
    std::istringstream lines(strTraces);
    for (std::string strLine; std::getline(lines, strLine);)
    {
        if (!strLine.empty())
            Say(strLine);
    }
    Check(strFailure.empty() && strTraces.find("Send to ne") != std::string::npos &&
              strTraces.find("AsyncIO RecvData") != std::string::npos,
          "both ways are in it");
}

void Demonstration::ShowCounts()
{
    Say("");
    int nConnects = 0;
    int nBreaks = 0;
    for (int iNeId = 1; iNeId <= m_Manager.Count(); ++iNeId)
    {
        nConnects += m_Manager.Connects(iNeId);
        nBreaks += m_Manager.Breaks(iNeId);
    }
    const SnmpCounts& counts = SnmpProtocol::s_Counts;
    const auto show = [this](std::uint64_t ulCount, const char* pszWhat) {
        Say(std::to_string(ulCount) + pszWhat);
    };
    show(static_cast<std::uint64_t>(nConnects), " connections opened");
    show(static_cast<std::uint64_t>(nBreaks), " broken");
    show(counts.ulSent, " questions sent");
    show(counts.ulAnswered, " answered");
    show(counts.ulUnexpected, " answers that nobody waited for");
    show(counts.ulNotifications, " notifications");
    show(counts.ulConfirmed, " of them answered");
    show(counts.ulMalformed, " messages left out");
    Check(counts.ulSent == counts.ulAnswered + 2,
          "every question but the two with a wrong community was answered");
    Check(counts.ulUnexpected == 0 && counts.ulMalformed == 0 && counts.ulConfirmed == counts.ulNotifications,
          "nothing else has come than was expected");
}

int Demonstration::Run()
{
    Connect();
    ReadSystemGroups();
    AskAsynchronously();
    LeaveOneSilent();
    WalkTable();
    ReceiveInform();
    LoseAndRegain();
    ShowTrace();
    ShowCounts();
    const auto begin = steady_clock::now();
    m_Manager.Stop();
    const std::chrono::duration<double> time = steady_clock::now() - begin;
    Check(time.count() < 10, "the framework has stopped");
    std::printf("\n%d checks, %d failed\n", m_nChecks, m_nFailed);
    return m_nFailed == 0 ? EXIT_ALL_GOOD : EXIT_SOME_FAILED;
}

} // namespace

int Demo(const std::string& strLaboratory)
{
    try
    {
        return Demonstration(strLaboratory).Run();
    }
    catch (const std::exception&)
    {
        if (!Interrupt::HasCome())
            throw;
        std::fprintf(stderr, "nemanager: interrupted\n");
        return EXIT_INTERRUPTED;
    }
}
