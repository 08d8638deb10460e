#include "tarnadapterframe/TarnAsn1Message.h"

#include "asn1/SyncCon.h"
#include "core/ApplicationCall.h"
#include "core/LivingAdapters.h"
#include "core/LogArguments.h"
#include "core/Settings.h"
#include "core/SyncWaits.h"
#include "tarnadapterframe/PSyncHelp.h"
#include "tarnadapterframe/TEAdapterManager.h"
#include "tarnadapterframe/TEMessageAdapter.h"
#include "tarnadapterframe/TarnAdapterTrace.h"
#include "tarnadapterframe/TarnAsn1ProtocolAdapter.h"
#include "tarnadapterframe/TarnAsyncMessageReceiver.h"
#include "tarnadapterframe/TarnTarget.h"

#include <algorithm>
#include <limits>
#include <utility>

namespace {

// Results of a message's handling beside 0.
constexpr int HANDLED = 1;
constexpr int COMPLETED = -6;

} // namespace

TarnAdapterRuntimeClass TarnAsn1Message::classTarnAsn1Message = {"TarnAsn1Message",
                                                                 static_cast<int>(sizeof(TarnAsn1Message)),
                                                                 0xFFFF,
                                                                 &TarnAsn1Message::CreateObject,
                                                                 &TarnAdapterObject::classTarnAdapterObject,
                                                                 nullptr};

namespace {

/// A copy of a target, made by its class; null without one, and when the class throws.
TarnTarget* CloneOf(const TarnTarget* pTarget)
{
    TarnTarget* pClone = nullptr;
    if (pTarget != nullptr)
        CallApplication("Clone", typeid(*pTarget), [&] { pClone = pTarget->Clone(); });
    return pClone;
}

} // namespace

TarnAdapterObject* TarnAsn1Message::CreateObject()
{
    return new TarnAsn1Message;
}

TarnAsn1Message::TarnAsn1Message()
    : TEMessage(TarnAsn1ProtocolAdapter::Instance(), COMMAND_MESSAGE)
{
    RequireSerial();
}

TarnAsn1Message::TarnAsn1Message(const TarnAsn1Message& other)
    : TEMessage(other)
    , m_pTargetId(CloneOf(other.m_pTargetId.get()))
    , m_iResult(other.m_iResult.load())
    , m_eSyncFlag(other.m_eSyncFlag.load())
    , m_pOwnerList(other.m_pOwnerList)
{}

TarnAsn1Message& TarnAsn1Message::operator=(const TarnAsn1Message& other)
{
    if (this == &other)
        return *this;
    // What is registered under the serial that goes.
    TarnAsyncMessageReceiver::RemoveOwn(*this);
    TEAdapterManager::ForgetSourceMessage(*this);
    m_pTargetId.reset(CloneOf(other.m_pTargetId.get()));
    TEMessage::operator=(other);
    m_iResult = other.m_iResult.load();
    m_eSyncFlag = other.m_eSyncFlag.load();
    m_pOwnerList = other.m_pOwnerList;
    return *this;
}

TarnAsn1Message::Forgotten::~Forgotten()
{
    if (m_pMessage != nullptr)
        TEAdapterManager::ForgetSourceMessage(*m_pMessage);
}

TarnAsn1Message::~TarnAsn1Message()
{
    if (m_eSyncFlag == ASYNC_MESSAGE)
        TarnAsyncMessageReceiver::RemoveOwn(*this);
    TEAdapterManager::ForgetSourceMessage(*this);
    if (SyncCon* pSyncCon = m_SyncCon)
        pSyncCon->Release();
}

TarnAdapterRuntimeClass* TarnAsn1Message::GetRuntimeClass() const
{
    return &classTarnAsn1Message;
}

void TarnAsn1Message::SetSyncFlag(EMessageSyncFlag eSyncFlag)
{
    m_eSyncFlag = eSyncFlag;
}

EMessageSyncFlag TarnAsn1Message::GetSyncFlag()
{
    return m_eSyncFlag;
}

int TarnAsn1Message::GetResult() const
{
    return m_iResult;
}

void TarnAsn1Message::SetResult(int iResult)
{
    m_iResult = iResult;
}

void TarnAsn1Message::SetTargetId(const TarnTarget& target)
{
    if (TarnTarget* pClone = CloneOf(&target))
        m_pTargetId.reset(pClone);
}

TarnTarget& TarnAsn1Message::GetTargetId()
{
    if (m_pTargetId == nullptr)
    {
        TarnAdapterFrmtTrace(0, "TarnAsn1Message::GetTargetId,m_pTargetId is NULL");
        m_pTargetId = std::make_unique<TarnTarget>();
    }
    return *m_pTargetId;
}

TEMessageAdapter* TarnAsn1Message::GetMessageAdapter()
{
    const std::vector<TEMessageAdapter*>* pAdapters = nullptr;
    std::uint32_t ulProtocolID = 0;
    CallApplication("GetMessageAdapterVec", typeid(*this), [&] {
        pAdapters = GetMessageAdapterVec();
        if (pAdapters != nullptr)
            ulProtocolID = static_cast<std::uint32_t>(GetTargetId().GetProtocolID());
    });
    if (pAdapters == nullptr)
        return nullptr;
    for (TEMessageAdapter* pAdapter : *pAdapters)
    {
        if (pAdapter == nullptr || !IsLivingAdapter(pAdapter->SinkProtocolInstance(), ulProtocolID))
            continue;
        bool bCanTranslate = false;
        CallApplication("CanTranslate", typeid(*pAdapter),
                        [&] { bCanTranslate = pAdapter->CanTranslate(this); });
        if (bCanTranslate)
            return pAdapter;
    }
    return nullptr;
}

int TarnAsn1Message::HandleMessage()
{
    const EAdapterMessageType eType = GetType();
    int iResult = -1;
    if (eType == COMMAND_MESSAGE)
        CallApplication("HandleCommand", typeid(*this), [&] { iResult = HandleCommand(); });
    else if (eType == RESPONSE_MESSAGE)
        CallApplication("HandleResponse", typeid(*this), [&] { iResult = HandleResponse(); });
    else
    {
        TarnAdapterFrmtTrace(1, "Messsage type error : %d \n", static_cast<int>(eType));
        iResult = ADAPTER_ERR_MSG_TYPE;
    }
    return iResult;
}

int TarnAsn1Message::HandleCommand()
{
    TEMessageAdapter* pAdapter = nullptr;
    CallApplication("GetMessageAdapter", typeid(*this), [&] { pAdapter = GetMessageAdapter(); });
    if (pAdapter == nullptr)
    {
        TarnAdapterFrmtTrace(1, "TarnAsn1Message::HandleCommand,no message adapter!\n");
        ReleaseAsync();
        return ADAPTER_ERR_NO_MSG_ADAPTER;
    }
    int iResult = -1;
    CallApplication("HandleMessage", typeid(*pAdapter), [&] { iResult = pAdapter->HandleMessage(this); });
    if (iResult == 0)
        return 0; // it may have been answered, and be gone
    if (iResult != HANDLED)
        CancelMessage();
    ReleaseAsync();
    return iResult;
}

/// Ends an asynchronous message that gets no answer: it is deleted, its callback with it.
void TarnAsn1Message::ReleaseAsync()
{
    if (SafeSyncFlag() != ASYNC_MESSAGE)
        return;
    TarnAsyncMessageReceiver::RemoveLast(*this); // whatever the flag is when the message is destroyed
    delete this;
}

/// A flag that cannot be told is taken for one of a message that is not the library's to delete.
EMessageSyncFlag TarnAsn1Message::SafeSyncFlag()
{
    EMessageSyncFlag eSyncFlag = SYNC_MESSAGE;
    CallApplication("GetSyncFlag", typeid(*this), [&] { eSyncFlag = GetSyncFlag(); });
    return eSyncFlag;
}

/// The message is its waiting owner's again as soon as that has been told, and is not touched any more.
int TarnAsn1Message::HandleResponse()
{
    switch (SafeSyncFlag())
    {
    case PSYNC_MESSAGE:
        if (PSyncHelp* pOwnerList = std::exchange(m_pOwnerList, nullptr)) // counted once
        {
            bool bAllReceived = false;
            pOwnerList->ReceiveRespMsg(this, bAllReceived);
            if (bAllReceived)
                pOwnerList->Signal();
        }
        break;
    case SYNC_MESSAGE:
        if (SyncCon* pSyncCon = m_SyncCon)
            pSyncCon->Change([](SyncCon& con) { con.iFlag = 1; });
        break;
    case ASYNC_MESSAGE: {
        // Also when the callback ends its thread.
        struct End
        {
            TarnAsn1Message& message;
            ~End()
            {
                TarnAsyncMessageReceiver::RemoveLast(message);
                delete &message;
            }
        };
        const End end{*this};
        AsynCallBack callBack;
        if (TarnAsyncMessageReceiver::Copy(*this, callBack))
            CallApplication("AsynCallBack", typeid(*this), [&] { callBack(this, nullptr, nullptr); });
        break;
    }
    default:
        break;
    }
    return 0;
}

int TarnAsn1Message::HandleReport()
{
    return -1;
}

int TarnAsn1Message::SyncHandleMessage(int nTimeOut)
{
    SetTimeOut(nTimeOut);
    SyncCon* pSyncCon = MakeSyncCon();
    if (pSyncCon == nullptr)
        return ADAPTER_ERR_NO_MEMORY;
    pSyncCon->Change([](SyncCon& con) {
        con.iFlag = 0;
        con.bCancelled = false;
    });
    const SyncWaits::Stay stay([pSyncCon] { pSyncCon->Wake(); }); // until the message is forgotten
    if (!stay)
    {
        TarnAdapterFrmtTrace(1, "%s SyncHandleMessage() TIMEOUT\n", ClassName(*this));
        return ADAPTER_ERR_TIMEOUT;
    }
    // However this thread leaves, an exception or its end included, the message is the caller's again.
    const Forgotten forgotten(*this);
    int iResult = -1;
    CallApplication("HandleMessage", typeid(*this), [&] {
        SetSyncFlag(SYNC_MESSAGE);
        SetType(COMMAND_MESSAGE);
        const SyncWaits::Asking asking;
        iResult = HandleMessage();
    });
    if (iResult != 0)
        return iResult == HANDLED || iResult == COMPLETED ? 0 : iResult;
    return WaitForResponse(*pSyncCon);
}

SyncCon* TarnAsn1Message::MakeSyncCon()
{
    const char* pszFailed = nullptr;
    if (m_SyncCon == nullptr)
        m_SyncCon = SyncCon::Create(pszFailed).release();
    return m_SyncCon;
}

int TarnAsn1Message::WaitForResponse(SyncCon& syncCon)
{
    TarnAdapterFrmtTrace(1, "TarnAsn1Message - %s Sync Wait BEGIN...\n", ClassName(*this));
    const SyncCon::Outcome outcome = syncCon.Wait(
        [this] { return RealTimeOut(); }, [&syncCon] { return syncCon.iFlag != 0 || syncCon.bCancelled; });
    TarnAdapterFrmtTrace(1, "#####%s SyncHandleMessage() iCurtimeout:%d. nRealTimeout:%d.\n",
                         ClassName(*this), outcome.iTicks, outcome.nRealTimeout);
    if (!outcome.bSignalled)
    {
        CancelMessage();
        TarnAdapterFrmtTrace(1, "%s SyncHandleMessage() TIMEOUT\n", ClassName(*this));
        return ADAPTER_ERR_TIMEOUT;
    }
    if (outcome.iFlag != 0)
    {
        TarnAdapterFrmtTrace(1, "TarnAsn1Message - %s Sync Wait OK...\n", ClassName(*this));
        return 0;
    }
    CancelMessage();
    TarnAdapterFrmtTrace(1, "TarnAsn1Message - %s Sync have been canceled....\n", ClassName(*this));
    return ADAPTER_ERR_TIMEOUT;
}

/// The timeout in ticks, scaled by the setting.
int TarnAsn1Message::RealTimeOut() const
{
    const int nTimeOut = GetTimeOut();
    if (nTimeOut <= 0)
        return nTimeOut;
    const double ticks = static_cast<double>(nTimeOut) * static_cast<double>(Settings().nNECmdTimeoutRate);
    return static_cast<int>(std::clamp(ticks, 1.0, static_cast<double>(std::numeric_limits<int>::max())));
}

void TarnAsn1Message::CancelSyncHandle()
{
    CancelMessage();
    SyncCon* pSyncCon = m_SyncCon;
    if (pSyncCon == nullptr)
    {
        TarnAdapterFrmtTrace(1, "m_SyncCon is NULL , MSG:%s", ClassName(*this));
        return;
    }
    pSyncCon->Change([](SyncCon& con) {
        con.iFlag = 0;
        con.bCancelled = true;
    });
}
