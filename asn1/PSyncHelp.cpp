#include "tarnadapterframe/PSyncHelp.h"

#include "asn1/SyncCon.h"
#include "core/ApplicationCall.h"
#include "core/ExistingManager.h"
#include "core/SyncWaits.h"
#include "tarnadapterframe/TEAdapterManager.h"
#include "tarnadapterframe/TarnAdapterTrace.h"
#include "tarnadapterframe/TarnAsn1Message.h"

#include <iterator>
#include <utility>

namespace {

constexpr int HANDLED = 1;
constexpr int COMPLETED = -6;
constexpr int SNMP_CLASS_TL_FAILED = -22;
constexpr int NOT_ANSWERED = -8888;

/// Holds the correlation lock for its own lifetime: responses are handled inside it.
class NoResponses
{
public:
    NoResponses() TARN_NO_THREAD_SAFETY_ANALYSIS
    {
        if (m_Manager.Get() != nullptr)
            m_Manager.Get()->AcquireMsgMapMtx();
    }
    ~NoResponses() TARN_NO_THREAD_SAFETY_ANALYSIS
    {
        if (m_Manager.Get() != nullptr)
            m_Manager.Get()->ReleaseMsgMapMtx();
    }
    NoResponses(const NoResponses&) = delete;
    NoResponses& operator=(const NoResponses&) = delete;

private:
    const ExistingManager m_Manager;
};

} // namespace

PSyncHelp::PSyncHelp() = default;

PSyncHelp::~PSyncHelp()
{
    if (SyncCon* pSyncCon = m_SyncCon)
        pSyncCon->Release();
}

void PSyncHelp::SetTimeOut(int nSeconds)
{
    const TarnWriteGuard guard(m_TimeOutLock);
    m_nTimeOut = nSeconds;
}

int PSyncHelp::GetTimeOut()
{
    const TarnReadGuard guard(m_TimeOutLock);
    return m_nTimeOut;
}

/// @return false when the message does not take its flag: it must not be sent
bool PSyncHelp::Prepare(TarnAsn1Message& message, int iResult)
{
    const bool bFlagged =
        CallApplication("SetSyncFlag", typeid(message), [&] { message.SetSyncFlag(PSYNC_MESSAGE); });
    message.SetType(COMMAND_MESSAGE);
    message.SetResult(iResult);
    message.m_pOwnerList = this;
    return bFlagged;
}

int PSyncHelp::SendOne(TarnAsn1Message& message)
{
    TarnAsn1Message::Forgotten forgotten(message); // whatever it has announced before it failed
    int iResult = -1;
    CallApplication("HandleMessage", typeid(message), [&] { iResult = message.HandleMessage(); });
    if (iResult == 0)
        forgotten.Dismiss();
    return iResult;
}

bool PSyncHelp::MakeSyncCon(const char*& pszFailed)
{
    if (m_SyncCon == nullptr)
        m_SyncCon = SyncCon::Create(pszFailed).release();
    return m_SyncCon != nullptr;
}

void PSyncHelp::ResetCount()
{
    const TarnGuard guard(m_ListMutex);
    m_nReceived = 0;
    m_bWaiting = false;
}

int PSyncHelp::AsynSendAsn1Message(TarnAsn1Message* pMessage, void* pUserData1, void* pUserData2,
                                   void* pUserData3, void* pUserData4)
{
    if (pMessage == nullptr)
    {
        TarnAdapterFrmtTrace(1, "PSyncHelp::AsynSendAsn1Message fail, input para pMessage=NULL\n");
        return -1;
    }
    if (!Prepare(*pMessage, ADAPTER_ERR_TIMEOUT))
        return -1;
    const char* pszFailed = nullptr;
    if (!MakeSyncCon(pszFailed))
        return ADAPTER_ERR_NO_MEMORY;
    // Made before it is sent: then nothing can fail any more.
    std::list<MsgContext> lstNew;
    const bool bMade = WithMemory("PSyncHelp::AsynSendAsn1Message", false, [&] {
        lstNew.push_back({pMessage, pUserData1, pUserData2, pUserData3, pUserData4});
        return true;
    });
    if (!bMade)
        return ADAPTER_ERR_NO_MEMORY;
    const int iResult = SendOne(*pMessage);
    if (iResult == HANDLED)
        delete pMessage;
    else if (iResult == 0)
    {
        const TarnGuard guard(m_ListMutex);
        m_lstMessages.splice(m_lstMessages.end(), lstNew);
    }
    else if (iResult == COMPLETED)
    {
        const TarnGuard guard(m_ListMutex);
        pMessage->SetResult(0);
        m_lstMessages.splice(m_lstMessages.end(), lstNew);
        ++m_nReceived;
    }
    else
    {
        const TarnGuard guard(m_ListMutex);
        m_nReceived -= pMessage->m_pOwnerList == nullptr ? 1 : 0; // answered, and then failed
        return iResult;
    }
    return 0;
}

int PSyncHelp::AsyncSendAsn1MessageList(const std::list<MsgContext>& lstMessages, void* /*pUnused1*/,
                                        void* /*pUnused2*/, void* /*pUnused3*/, void* /*pUnused4*/)
{
    for (const MsgContext& context : lstMessages)
    {
        if (context.pAsn1Msg == nullptr)
        {
            TarnAdapterFrmtTrace(1, "AsyncSendAsn1MessageList : msgList holds a NULL message.\n");
            return -1;
        }
    }
    const bool bTaken = WithMemory("PSyncHelp::AsyncSendAsn1MessageList", false, [&] {
        std::list<MsgContext> lstNew = lstMessages;
        const TarnGuard guard(m_ListMutex);
        m_lstMessages.swap(lstNew);
        m_nReceived = 0;
        return true;
    });
    if (!bTaken)
        return -1;
    if (lstMessages.empty())
    {
        TarnAdapterFrmtTrace(1, "AsyncSendAsn1MessageList : msgList is empty.\n");
        return 0;
    }
    const char* pszFailed = nullptr;
    if (!MakeSyncCon(pszFailed))
    {
        lstMessages.front().pAsn1Msg->SetResult(ADAPTER_ERR_NO_MEMORY);
        TarnAdapterFrmtTrace(1, "AsyncSendAsn1MessageList : new %s fail.\n", pszFailed);
        return -1;
    }
    return SendList(lstMessages);
}

/// @param lstMessages  the caller's list, which no answer touches
int PSyncHelp::SendList(const std::list<MsgContext>& lstMessages)
{
    std::size_t uSent = 0;
    for (auto it = lstMessages.begin(); it != lstMessages.end(); ++it)
    {
        TarnAsn1Message& message = *it->pAsn1Msg;
        const int iResult = Prepare(message, NOT_ANSWERED) ? SendOne(message) : -1;
        if (iResult == 0)
        {
            ++uSent;
            continue;
        }
        if (iResult == SNMP_CLASS_TL_FAILED)
            return AbandonList(lstMessages, std::next(it), iResult);
        message.CancelMessage();
        message.SetResult(iResult);
        TarnAdapterFrmtTrace(3, "AsyncSendAsn1MessageList : get a error %d.%d,%d.\n", iResult,
                             static_cast<int>(uSent), CountFailed(message));
    }
    if (uSent == lstMessages.size())
        return 0;
    if (uSent != 0)
        return 1;
    ResetCount();
    return -1;
}

/// Counts a message as answered, unless an answer has come before it failed. @return how many are
int PSyncHelp::CountFailed(TarnAsn1Message& message)
{
    const TarnGuard guard(m_ListMutex);
    m_nReceived += std::exchange(message.m_pOwnerList, nullptr) != nullptr ? 1 : 0;
    return m_nReceived;
}

/// Forgets the messages of a list up to the one that failed.
int PSyncHelp::AbandonList(const std::list<MsgContext>& lstMessages,
                           std::list<MsgContext>::const_iterator itRest, int iResult)
{
    for (auto it = lstMessages.begin(); it != itRest; ++it)
        it->pAsn1Msg->CancelMessage();
    lstMessages.front().pAsn1Msg->SetResult(iResult);
    ResetCount();
    TarnAdapterFrmtTrace(1, "AsyncSendAsn1MessageList : get SNMP_CLASS_TL_FAILED fail.%d\n", iResult);
    return -1;
}

void PSyncHelp::ReceiveRespMsg(TarnAsn1Message* /*pMessage*/, bool& bAllReceived)
{
    const TarnGuard guard(m_ListMutex);
    ++m_nReceived;
    if (!m_bWaiting || m_nReceived != static_cast<int>(m_lstMessages.size()))
        return;
    m_nReceived = 0;
    bAllReceived = true;
}

int PSyncHelp::Signal()
{
    if (SyncCon* pSyncCon = m_SyncCon)
        pSyncCon->Change([](SyncCon& con) { con.iFlag = 1; });
    return 0;
}

/// When the waiting thread is ended, nobody answers the messages any more, which may go with it.
struct PSyncHelp::ForgetAtEnd
{
    PSyncHelp& help;
    bool bDone = false;

    ~ForgetAtEnd()
    {
        if (bDone)
            return;
        const NoResponses noResponses;
        const TarnGuard guard(help.m_ListMutex);
        for (const MsgContext& context : help.m_lstMessages)
            const TarnAsn1Message::Forgotten forgotten(*context.pAsn1Msg);
    }
};

int PSyncHelp::Waiting(int nTimeOut, std::list<MsgContext>& lstOut)
{
    const SyncWaits::Stay stay([this] {
        if (SyncCon* pSyncCon = m_SyncCon)
            pSyncCon->Wake();
    }); // until the messages are forgotten
    SetTimeOut(nTimeOut);
    {
        // Whoever has counted the last answer has left the message and this object before they are the caller's.
        const NoResponses noResponses;
        const TarnGuard guard(m_ListMutex);
        if (static_cast<int>(m_lstMessages.size()) == m_nReceived)
        {
            lstOut = std::exchange(m_lstMessages, {});
            m_nReceived = 0;
            m_bWaiting = false;
            return 0;
        }
        m_bWaiting = true;
    }
    TarnAdapterFrmtTrace(3, "PSyncHelp::Waiting begin-----------------------");
    SyncCon* pSyncCon = m_SyncCon;
    if (pSyncCon == nullptr)
    {
        TarnAdapterFrmtTrace(1, "PSyncHelp::Waiting , NULL m_SyncCon");
        return 1;
    }
    ForgetAtEnd forgetAtEnd{*this};
    SyncCon::Outcome outcome = {false, 0, 0, 0};
    if (stay)
        outcome =
            pSyncCon->Wait([this] { return GetTimeOut(); }, [pSyncCon] { return pSyncCon->iFlag != 0; });
    TarnAdapterFrmtTrace(3, "#####PSyncHelp::Waiting iCurtimeout:%d. nRealTimeout:%d.\n", outcome.iTicks,
                         outcome.nRealTimeout);
    TarnAdapterFrmtTrace(3, "PSyncHelp::Waiting end-------------------------");
    {
        const TarnGuard guard(m_ListMutex);
        lstOut = std::exchange(m_lstMessages, {});
    }
    // Also waits for an answer that is being delivered, to the Signal that follows it.
    for (const MsgContext& context : lstOut)
        context.pAsn1Msg->CancelMessage();
    forgetAtEnd.bDone = true;
    ResetCount();
    pSyncCon->Change([](SyncCon& con) { con.iFlag = 0; });
    return outcome.bSignalled ? 0 : 1;
}

int PSyncHelp::ClearAsn1Msg()
{
    std::list<MsgContext> lstMessages;
    {
        const NoResponses noResponses;
        {
            const TarnGuard guard(m_ListMutex);
            m_nReceived = 0;
            m_bWaiting = false;
            lstMessages.swap(m_lstMessages);
        }
        for (const MsgContext& context : lstMessages)
            context.pAsn1Msg->CancelMessage();
    }
    // Nobody can find them any more. Their destructors are the application's, and run without lock.
    for (const MsgContext& context : lstMessages)
        delete context.pAsn1Msg;
    return 0;
}
