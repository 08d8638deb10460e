#include "Commands.h"

#include "Interrupt.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <ctime>
#include <mutex>

namespace {

using std::chrono::steady_clock;

/// Asks all elements at once, each with a callback, and shows what came last.
class Table
{
public:
    Table(Manager& manager, std::vector<SnmpOid> names)
        : m_Manager(manager)
        , m_Names(std::move(names))
        , m_Rows(static_cast<std::size_t>(manager.Count()))
    {}
    ~Table() { TakeBackAll(); }
    Table(const Table&) = delete;
    Table& operator=(const Table&) = delete;

    /// Asks every element that is connected and does not owe an answer.
    void Ask();
    bool IsEverythingAnswered();
    bool HasFailed();

    void PrintLines(); ///< of what has come since the last call
    void Draw();       ///< over the whole terminal

private:
    struct Row
    {
        std::vector<std::string> values;
        std::string strState = "connecting";
        std::uint32_t ulAsked = 0; ///< serial of the question under way; 0: none
        bool bNews = false;
        bool bGood = false;
        std::string strTime;
    };

    static int OnAnswer(TEMessage* pMessage, void* pTable, void* pRow);
    void Settle(Row& row, const std::string& strFailure);
    void TakeBackAll();

    Manager& m_Manager;
    const std::vector<SnmpOid> m_Names;
    // Guarded by m_Mutex, which is not held while a question is sent: its callback may come at once.
    std::vector<Row> m_Rows;
    std::mutex m_Mutex;
    std::condition_variable m_Answered;
};

std::string Now()
{
    const std::time_t now = std::time(nullptr);
    std::tm local = {};
    localtime_r(&now, &local);
    char szText[16] = {};
    std::strftime(szText, sizeof(szText), "%H:%M:%S", &local);
    return szText;
}

void Table::Settle(Row& row, const std::string& strFailure)
{
    row.bGood = strFailure.empty();
    row.strState = row.bGood ? "ok" : strFailure;
    row.strTime = Now();
    row.bNews = true;
    row.ulAsked = 0;
}

/// On a response thread, or for a question that has expired on the timer thread.
int Table::OnAnswer(TEMessage* pMessage, void* pTable, void* pRow)
{
    auto& table = *static_cast<Table*>(pTable);
    auto& row = *static_cast<Row*>(pRow);
    const auto& question = *static_cast<SnmpGet*>(pMessage);
    // Within the lock to the end: who takes the questions back destroys the table when there are none.
    const std::lock_guard<std::mutex> guard(table.m_Mutex);
    table.Settle(row, Failure(0, question));
    if (row.bGood)
    {
        row.values.clear();
        for (const SnmpVarBind& binding : question.Answer().bindings)
            row.values.push_back(binding.value.Text());
    }
    table.m_Answered.notify_all();
    return 0;
}

void Table::Ask()
{
    for (int iNeId = 1; iNeId <= m_Manager.Count(); ++iNeId)
    {
        Row& row = m_Rows[static_cast<std::size_t>(iNeId - 1)];
        const bool bConnected = m_Manager.IsConnected(iNeId);
        auto pQuestion = std::make_unique<SnmpGet>(iNeId, m_Names);
        // Counted down in steps of 5 seconds, so that less would not be waited for in full.
        pQuestion->SetTimeOut((m_Manager.Settings(iNeId).nTimeOut + 4) / 5 * 5);
        {
            const std::lock_guard<std::mutex> guard(m_Mutex);
            if (row.ulAsked != 0)
                continue;
            if (!bConnected)
            {
                Settle(row, "not connected");
                continue;
            }
            row.ulAsked = pQuestion->GetMessageSerial();
        }
        new AsynCallBack(pQuestion.get(), &OnAnswer, this, &row); // the registry's
        const int iResult =
            pQuestion.release()->HandleMessage(); // deletes the message, at the latest when it is answered
        if (iResult == 0)
            continue;
        const std::lock_guard<std::mutex> guard(m_Mutex);
        Settle(row, iResult == ADAPTER_ERR_INVALID_HANDLE ? "not connected" : "not sent");
    }
}

bool Table::IsEverythingAnswered()
{
    const std::lock_guard<std::mutex> guard(m_Mutex);
    return std::all_of(m_Rows.begin(), m_Rows.end(), [](const Row& row) { return row.ulAsked == 0; });
}

bool Table::HasFailed()
{
    const std::lock_guard<std::mutex> guard(m_Mutex);
    return !std::all_of(m_Rows.begin(), m_Rows.end(), [](const Row& row) { return row.bGood; });
}

/// Nobody may answer into a table that is gone.
void Table::TakeBackAll()
{
    for (Row& row : m_Rows)
    {
        std::unique_lock<std::mutex> lock(m_Mutex);
        const std::uint32_t ulAsked = row.ulAsked;
        lock.unlock();
        const bool bTaken = ulAsked != 0 && SnmpMessage::TakeBack(ulAsked);
        lock.lock();
        if (bTaken)
            row.ulAsked = 0;
        m_Answered.wait(lock, [&row] { return row.ulAsked == 0; }); // its callback is under way
    }
}

void Table::PrintLines()
{
    const std::lock_guard<std::mutex> guard(m_Mutex);
    for (std::size_t uRow = 0; uRow < m_Rows.size(); ++uRow)
    {
        Row& row = m_Rows[uRow];
        if (!std::exchange(row.bNews, false))
            continue;
        const std::string& strName = m_Manager.Name(static_cast<int>(uRow) + 1);
        if (!row.bGood)
            std::printf("%s %s: %s\n", row.strTime.c_str(), strName.c_str(), row.strState.c_str());
        for (std::size_t i = 0; row.bGood && i < m_Names.size() && i < row.values.size(); ++i)
            std::printf("%s %s %s = %s\n", row.strTime.c_str(), strName.c_str(), m_Names[i].Text().c_str(),
                        row.values[i].c_str());
    }
    std::fflush(stdout);
}

/// Left-aligned, in exactly so many columns. Bytes that are no printable ASCII do not reach the terminal.
std::string Cell(std::string strText, std::size_t uWidth)
{
    std::replace_if(
        strText.begin(), strText.end(), [](char c) { return c < ' ' || c > '~'; }, '.');
    strText.resize(std::min(strText.size(), uWidth));
    strText.resize(uWidth, ' ');
    return strText + ' ';
}

void Table::Draw()
{
    winsize size = {};
    ioctl(STDOUT_FILENO, TIOCGWINSZ, &size);
    if (size.ws_col == 0)
        size.ws_col = 80;
    if (size.ws_row == 0)
        size.ws_row = 24;
    constexpr std::size_t NAME = 12;
    constexpr std::size_t STATE = 14;
    constexpr std::size_t TIME = 8;
    constexpr std::size_t FIXED = NAME + STATE + TIME + 4;
    const std::size_t uRest = size.ws_col > FIXED ? size.ws_col - FIXED : 0;
    const std::size_t uValue = std::max<std::size_t>(9, uRest / m_Names.size()) - 1; // and a blank

    std::string strScreen = "\033[H" + Cell("element", NAME) + Cell("state", STATE) + Cell("time", TIME);
    for (const SnmpOid& name : m_Names)
    {
        // The end of a name tells more than its beginning.
        const std::string strName = name.Text();
        strScreen +=
            Cell(strName.size() <= uValue ? strName : strName.substr(strName.size() - uValue), uValue);
    }
    const std::lock_guard<std::mutex> guard(m_Mutex);
    // A line for the names, and the last one for what does not fit: the screen must not scroll.
    const std::size_t uFitting = size.ws_row > 2 ? size.ws_row - 2U : 1;
    for (std::size_t uRow = 0; uRow < m_Rows.size() && uRow < uFitting; ++uRow)
    {
        const Row& row = m_Rows[uRow];
        strScreen += "\033[K\n" + Cell(m_Manager.Name(static_cast<int>(uRow) + 1), NAME) +
                     Cell(row.strState, STATE) + Cell(row.strTime, TIME);
        for (const std::string& strValue : row.values)
            strScreen += Cell(strValue, uValue);
    }
    if (m_Rows.size() > uFitting)
        strScreen += "\033[K\n... and " + std::to_string(m_Rows.size() - uFitting) + " more";
    strScreen += "\033[K\033[J";
    std::fwrite(strScreen.data(), 1, strScreen.size(), stdout);
    std::fflush(stdout);
}

} // namespace

int Watch(Manager& manager, const std::vector<SnmpOid>& names, double dInterval, int nRounds)
{
    const bool bTerminal = isatty(STDOUT_FILENO) != 0;
    const auto show = [bTerminal](Table& table) { bTerminal ? table.Draw() : table.PrintLines(); };
    const std::chrono::milliseconds interval(static_cast<int>(dInterval * 1000));
    int nTimeOut = 0;
    for (int iNeId = 1; iNeId <= manager.Count(); ++iNeId)
        nTimeOut = std::max(nTimeOut, manager.Settings(iNeId).nTimeOut);
    manager.WaitConnected(0, nTimeOut);
    Table table(manager, names);
    if (bTerminal)
        std::printf("\033[2J");
    for (int i = 0; (nRounds == 0 || i < nRounds) && !Interrupt::HasCome(); ++i)
    {
        table.Ask();
        const auto next = steady_clock::now() + interval;
        // The last round ends with its answers. Elements that do not answer are given up when their time is over.
        const bool bLast = i + 1 == nRounds;
        while (!Interrupt::HasCome() && (bLast ? !table.IsEverythingAnswered() : steady_clock::now() < next))
        {
            show(table);
            Interrupt::Sleep(std::chrono::milliseconds(100));
        }
    }
    show(table);
    if (bTerminal)
        std::printf("\n");
    if (Interrupt::HasCome())
        return EXIT_INTERRUPTED;
    return table.HasFailed() ? EXIT_SOME_FAILED : EXIT_ALL_GOOD;
}
