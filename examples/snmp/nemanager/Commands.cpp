#include "Commands.h"

#include "Interrupt.h"

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <optional>

namespace {

void Print(const std::string& strElement, const SnmpVarBind& binding)
{
    std::printf("%s %s = %s\n", strElement.c_str(), binding.name.Text().c_str(),
                binding.value.Text().c_str());
}

/// @return the exit code that a failure makes
int Report(const std::string& strElement, const std::string& strFailure)
{
    if (Interrupt::HasCome())
        return EXIT_INTERRUPTED;
    if (strFailure.empty())
        return EXIT_ALL_GOOD;
    std::fflush(stdout); // so that lines stay in order where both go to the same place
    std::fprintf(stderr, "%s: %s\n", strElement.c_str(), strFailure.c_str());
    return EXIT_SOME_FAILED;
}

int Answered(Manager& manager, int iNeId, int iResult, const SnmpMessage& message)
{
    const int iCode = Report(manager.Name(iNeId), Failure(iResult, message));
    if (iCode != EXIT_ALL_GOOD)
        return iCode;
    for (const SnmpVarBind& binding : message.Answer().bindings)
        Print(manager.Name(iNeId), binding);
    return EXIT_ALL_GOOD;
}

std::string WhenNotConnected(const Manager& manager, int iNeId)
{
    const int nTimeOut = manager.Settings(iNeId).nTimeOut;
    if (manager.WaitConnected(iNeId, nTimeOut))
        return {};
    return "no connection to " + manager.Settings(iNeId).strAddress + " within " + std::to_string(nTimeOut) +
           " s; the log shows the attempts (--verbose)";
}

/// Does something with each element, one after the other. @return the worst exit code
template <typename Do>
int ForEach(Manager& manager, const Do& doIt)
{
    int iCode = EXIT_ALL_GOOD;
    for (int iNeId = 1; iNeId <= manager.Count(); ++iNeId)
    {
        if (Interrupt::HasCome())
            return EXIT_INTERRUPTED;
        const int iConnected = Report(manager.Name(iNeId), WhenNotConnected(manager, iNeId));
        iCode = std::max(iCode, iConnected != EXIT_ALL_GOOD ? iConnected : doIt(iNeId));
    }
    return iCode;
}

/// Tells on a terminal that long work goes on.
class Progress
{
public:
    ~Progress()
    {
        if (m_bShown)
            std::fprintf(stderr, "\r\033[K");
    }
    void Count()
    {
        // Where the values go to the same terminal, they are what one sees.
        if (++m_nValues % 1000 != 0 || isatty(STDERR_FILENO) == 0 || isatty(STDOUT_FILENO) != 0)
            return;
        m_bShown = true;
        std::fprintf(stderr, "\r%d values", m_nValues);
    }

private:
    int m_nValues = 0;
    bool m_bShown = false;
};

} // namespace

SnmpGet& QuestionList::Add(int iNeId, const std::vector<SnmpOid>& names)
{
    m_Questions.push_back(std::make_unique<SnmpGet>(iNeId, names));
    return *m_Questions.back();
}

int QuestionList::Ask(int nTimeOut)
{
    std::list<MsgContext> contexts;
    for (const auto& pQuestion : m_Questions)
        contexts.push_back({pQuestion.get(), nullptr, nullptr, nullptr, nullptr});
    PSyncHelp exchange;
    const int iSent = exchange.AsyncSendAsn1MessageList(contexts, nullptr, nullptr, nullptr, nullptr);
    // Also when none was sent: it ends the exchange.
    const int iAnswered = exchange.Waiting(iSent == -1 ? 0 : nTimeOut, contexts);
    return iSent == -1 ? -1 : iAnswered;
}

int Get(Manager& manager, const std::vector<SnmpOid>& names)
{
    if (manager.Count() == 1)
        return ForEach(manager, [&](int iNeId) {
            SnmpGet question(iNeId, names);
            const int iResult = question.SyncHandleMessage(manager.Settings(iNeId).nTimeOut);
            return Answered(manager, iNeId, iResult, question);
        });
    int nTimeOut = 0;
    for (int iNeId = 1; iNeId <= manager.Count(); ++iNeId)
        nTimeOut = std::max(nTimeOut, manager.Settings(iNeId).nTimeOut);
    manager.WaitConnected(0, nTimeOut);
    QuestionList list;
    for (int iNeId = 1; iNeId <= manager.Count(); ++iNeId)
        list.Add(iNeId, names);
    list.Ask(nTimeOut);
    int iCode = EXIT_ALL_GOOD;
    for (int iNeId = 1; iNeId <= manager.Count(); ++iNeId)
        iCode = std::max(iCode,
                         Answered(manager, iNeId, 0, *list.Questions()[static_cast<std::size_t>(iNeId - 1)]));
    return iCode;
}

std::string WalkElement(Manager& manager, int iNeId, const SnmpOid& root, int nMaxRepetitions,
                        const std::function<void(const SnmpVarBind&)>& take)
{
    SnmpOid last = root;
    while (!Interrupt::HasCome())
    {
        SnmpGetBulk question(iNeId, last, nMaxRepetitions);
        const int iResult = question.SyncHandleMessage(manager.Settings(iNeId).nTimeOut);
        if (std::string strFailure = Failure(iResult, question); !strFailure.empty())
            return strFailure;
        if (question.Answer().bindings.empty())
            return "an answer without values";
        for (const SnmpVarBind& binding : question.Answer().bindings)
        {
            if (binding.value.IsMissing() || !binding.name.IsBelow(root))
                return {};
            if (!(last < binding.name))
                return "the element does not go on: " + binding.name.Text() + " comes after " + last.Text();
            take(binding);
            last = binding.name;
        }
    }
    return "interrupted";
}

int Walk(Manager& manager, const SnmpOid& root, int nMaxRepetitions)
{
    return ForEach(manager, [&](int iNeId) {
        bool bAny = false;
        std::string strFailure;
        {
            Progress progress;
            strFailure = WalkElement(manager, iNeId, root, nMaxRepetitions, [&](const SnmpVarBind& binding) {
                bAny = true;
                Print(manager.Name(iNeId), binding);
                progress.Count();
            });
        }
        if (bAny || !strFailure.empty())
            return Report(manager.Name(iNeId), strFailure);
        // Nothing is below the name of a single value.
        SnmpGet question(iNeId, {root});
        const int iResult = question.SyncHandleMessage(manager.Settings(iNeId).nTimeOut);
        return Answered(manager, iNeId, iResult, question);
    });
}

int Listen()
{
    while (!Interrupt::HasCome())
        Interrupt::Sleep(std::chrono::hours(1));
    return EXIT_INTERRUPTED;
}

int Set(Manager& manager, const std::vector<SnmpVarBind>& values)
{
    return ForEach(manager, [&](int iNeId) {
        SnmpSet question(iNeId, values);
        const int iResult = question.SyncHandleMessage(manager.Settings(iNeId).nTimeOut);
        return Answered(manager, iNeId, iResult, question);
    });
}
