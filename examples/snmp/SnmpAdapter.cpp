#include "SnmpAdapter.h"

#include <algorithm>
#include <memory>
#include <utility>

namespace {

/// Whether an answer has values for what was asked (RFC 3416, section 4.2).
bool Answers(const SnmpPacket& question, const SnmpPacket& answer)
{
    if (answer.iErrorStatus != 0 || question.ePdu == SnmpPdu::GET_BULK)
        return true;
    const auto sameName = [](const SnmpVarBind& one, const SnmpVarBind& other) {
        return one.name == other.name;
    };
    return question.bindings.size() == answer.bindings.size() &&
           (question.ePdu == SnmpPdu::GET_NEXT ||
            std::equal(question.bindings.begin(), question.bindings.end(), answer.bindings.begin(),
                       sameName));
}

void LeaveOut(int iNeId, const char* pszReason)
{
    ++SnmpProtocol::s_Counts.ulMalformed;
    TarnAdapterFrmtTrace(2, "SNMP element %d: a message is left out: %s\n", iNeId, pszReason);
}

} // namespace

SnmpCounts SnmpProtocol::s_Counts;

SnmpProtocol::SnmpProtocol()
    : TarnProtocolAdapter(SNMP_PROTOCOL)
{}

int SnmpProtocol::CheckMessageValid(void* /*pHandle*/, std::vector<unsigned char>& data)
{
    int iNeId = 0;
    {
        // Not longer than this: who unregisters the element waits for its users, and handing a message on may wait for him.
        std::size_t uStale = 0;
        const SnmpElementInUse element(TarnConnectorMgr::GetFramedConnector(uStale));
        if (!element)
            return -1;   // unregistered meanwhile
        if (uStale != 0) // half a message from before a break: consumed, and not handed on
            return static_cast<int>(uStale);
        iNeId = element->NeId();
    }
    const int iLength = SnmpFrameLength(data.data(), data.size());
    if (iLength < 0)
        LeaveOut(iNeId, "no SNMP message begins like this");
    if (iLength <= 0)
        return iLength;
    // What is sent the framework traces; where one message ends in what is received, only its adapter knows.
    TraceHexData(reinterpret_cast<const char*>(data.data()), iLength, TARN_TRACE_ASYNC_IO_RECV, 0);
    HandOn(iNeId, data.data(), static_cast<std::size_t>(iLength));
    return iLength;
}

/// Decoding takes its time, so it is left to the thread that handles the message: this one serves other elements, too.
void SnmpProtocol::HandOn(int iNeId, const unsigned char* pData, std::size_t uLength)
try
{
    TEAsyncIOMgr* pAsyncIO = TEAsyncIOMgr::Instance();
    const SnmpPdu ePdu = SnmpPduOf(pData, uLength);
    if (ePdu == SnmpPdu::RESPONSE)
        pAsyncIO->AddResponse(std::make_unique<SnmpAnswer>(this, iNeId, pData, uLength));
    else if (ePdu == SnmpPdu::TRAP || ePdu == SnmpPdu::INFORM)
        pAsyncIO->AddReport(std::make_unique<SnmpNotification>(this, iNeId, pData, uLength));
    else
        throw SnmpMalformed("elements do not ask");
}
catch (const SnmpMalformed& malformed)
{
    LeaveOut(iNeId, malformed.what()); // the next message begins behind it all the same
}

int SnmpProtocol::SendMessage(void* pElement, TEMessage* pRequest)
{
    const std::string& strBytes = static_cast<SnmpRequest*>(pRequest)->Bytes();
    const int iResult = static_cast<SnmpElement*>(pElement)->SendToOutBuffer(
        strBytes.data(), static_cast<int>(strBytes.size()));
    s_Counts.ulSent += iResult == 0 ? 1 : 0;
    return iResult;
}

SnmpMessageAdapter::SnmpMessageAdapter()
    : TEMessageAdapter(TarnAsn1ProtocolAdapter::Instance(), nullptr)
{}

SnmpMessageAdapter& SnmpMessageAdapter::Instance()
{
    static SnmpMessageAdapter s_Adapter;
    return s_Adapter;
}

static const TEInitMessageAdapter s_registrar(&SnmpMessage::s_Adapters, &SnmpMessageAdapter::Instance());

void SnmpMessageAdapter::Use(SnmpProtocol* pProtocol, SnmpListener* pListener)
{
    m_pSinkAdapter = pProtocol;
    m_pListener = pListener;
}

bool SnmpMessageAdapter::CanTranslate(TEMessage* pMessage)
{
    return dynamic_cast<SnmpMessage*>(pMessage) != nullptr;
}

int SnmpMessageAdapter::HandleMessage(TEMessage* pMessage)
{
    auto* pSource = static_cast<SnmpMessage*>(pMessage); // CanTranslate has seen to that
    const SnmpElementInUse element(pSource->GetTargetId().GetNeId());
    if (!element)
        return ADAPTER_ERR_INVALID_HANDLE;
    SnmpRequest request(SinkProtocolInstance(), pSource->Question(), *element.Get());
    TEAdapterManager* pManager = TEAdapterManager::Instance();
    const TEMessageUnit source(pSource->GetMessageSerial(), SrcProtocolInstance()->GetProtocolAdapterID());
    pSource->SetAnswer({}); // it may have been sent before
    {
        const TEMsgMapGuard guard; // so that it does not expire half announced
        RegisterPrivateMessage(pSource, this, nullptr, pSource->GetTimeOut());
        RegisterMessage(pSource, &request);
    }
    const int iResult = SinkProtocolInstance()->SendMessage(element.Get(), &request);
    if (iResult == 0)
        return 0; // the answer may have come, and the source be gone
    const TEMsgMapGuard guard;
    bool bThere = false;
    pManager->FindSrcMsgInfo(source, bThere);
    if (!bThere)
        return 0; // it has expired, and HandleAsyncError has told so
    pManager->UnRegisterSourceMessage(pSource);
    return iResult;
}

int SnmpMessageAdapter::HandleResponse(TEMessage* pSource, TEMessage* pSink, void* /*pUserData*/,
                                       bool /*bFlag*/)
{
    auto* pQuestion = static_cast<SnmpMessage*>(pSource);
    SnmpPacket& answer = static_cast<SnmpAnswer*>(pSink)->Packet();
    pQuestion->SetResult(Answers(pQuestion->Question(), answer) ? answer.iErrorStatus : SNMP_WRONG_ANSWER);
    pQuestion->SetAnswer(std::move(answer));
    pQuestion->SetType(RESPONSE_MESSAGE);
    return 0;
}

int SnmpMessageAdapter::HandleReport(TEMessage* pMessage)
{
    auto* pNotification = static_cast<SnmpNotification*>(pMessage);
    return m_pListener->OnNotification(pNotification->NeId(), pNotification->Packet()) ? 0 : -1;
}

/// Nobody has answered: the application's callback is told, by the result.
int SnmpMessageAdapter::HandleAsyncError(TEMessage* pSource, void* /*pUserData*/, EAdapterError eError)
{
    auto* pQuestion = static_cast<SnmpMessage*>(pSource);
    pQuestion->SetResult(eError);
    pQuestion->SetType(RESPONSE_MESSAGE);
    return pQuestion->HandleMessage(); // which deletes it
}

bool SnmpMessage::TakeBack(std::uint32_t ulSerial)
{
    std::unique_ptr<TEMessage> pSource;
    const TEMsgMapGuard guard;
    TEAdapterManager* pManager = TEAdapterManager::Instance();
    bool bFound = false;
    const std::uint32_t ulAsn1 = TarnAsn1ProtocolAdapter::Instance()->GetProtocolAdapterID();
    const auto record = pManager->FindSrcMsgInfo(TEMessageUnit(ulSerial, ulAsn1), bFound);
    if (!bFound)
        return false;
    pSource.reset(record->second.pSource); // deleted, as is its callback, when the lock has been released
    pManager->UnRegisterSourceMessage(pSource.get());
    return true;
}

SnmpRequest::SnmpRequest(TarnProtocolAdapter* pProtocol, SnmpPacket question, const SnmpElement& element)
    : SnmpSinkMessage(pProtocol)
{
    RequireSerial();
    question.iRequestId = static_cast<std::int32_t>(GetMessageSerial());
    if (question.strCommunity.empty())
        question.strCommunity = element.Community();
    m_strBytes = SnmpEncode(question);
}

SnmpReceived::SnmpReceived(TarnProtocolAdapter* pProtocol, int iNeId, const unsigned char* pData,
                           std::size_t uLength)
    : SnmpSinkMessage(pProtocol, RESPONSE_MESSAGE)
    , m_iNeId(iNeId)
    , m_Bytes(pData, pData + uLength)
{}

int SnmpReceived::HandleMessage()
try
{
    m_Packet = SnmpDecode(m_Bytes.data(), m_Bytes.size());
    m_ulSerial = static_cast<std::uint32_t>(m_Packet.iRequestId);
    return HandlePacket();
}
catch (const SnmpMalformed& malformed)
{
    LeaveOut(m_iNeId, malformed.what());
    return -1;
}

/// The record of the question that this answers: one that was put to the element that answers.
TEAdapterManager::MapMsgInfo::iterator SnmpAnswer::FindQuestionLocked(bool& bFound) const
{
    TEAdapterManager* pManager = TEAdapterManager::Instance();
    TEAdapterManager::MapMsgInfo::iterator record;
    const auto link = pManager->FindSrcMsgUnit(TEMessageUnit(GetMessageSerial(), SNMP_PROTOCOL), bFound);
    if (!bFound)
        return record;
    record = pManager->FindSrcMsgInfo(link->second, bFound);
    if (bFound)
    {
        auto* pQuestion = static_cast<SnmpMessage*>(record->second.pSource);
        bFound = pQuestion->GetTargetId().GetNeId() == static_cast<unsigned long>(NeId());
    }
    return record;
}

int SnmpAnswer::HandlePacket()
{
    SnmpMessage* pQuestion = nullptr;
    bool bAsync = false;
    {
        const TEMsgMapGuard guard;
        bool bFound = false;
        const auto record = FindQuestionLocked(bFound);
        if (!bFound)
        {
            ++SnmpProtocol::s_Counts.ulUnexpected;
            return 0; // too late, or never asked
        }
        ++SnmpProtocol::s_Counts.ulAnswered;
        pQuestion = static_cast<SnmpMessage*>(record->second.pSource);
        bAsync = pQuestion->GetSyncFlag() == ASYNC_MESSAGE;
        record->second.pMsgAdapter->HandleResponse(pQuestion, this, record->second.pUserData, bAsync);
        TEAdapterManager::Instance()->UnRegisterSourceMessage(pQuestion);
        if (!bAsync)
            pQuestion
                ->HandleMessage(); // its sender waits, and may destroy it as soon as the lock is released
    }
    if (bAsync)
        pQuestion->HandleMessage(); // ours alone; it calls the callback, and deletes itself
    return 0;
}

int SnmpNotification::HandlePacket()
{
    ++SnmpProtocol::s_Counts.ulNotifications;
    SnmpPacket answer = Packet();
    if (SnmpMessageAdapter::Instance().HandleReport(this) != 0 || answer.ePdu != SnmpPdu::INFORM)
        return 0;
    answer.ePdu = SnmpPdu::RESPONSE;
    const SnmpElementInUse element(static_cast<unsigned long>(NeId()));
    const std::string strBytes = SnmpEncode(answer);
    if (element && element->SendToOutBuffer(strBytes.data(), static_cast<int>(strBytes.size())) == 0)
        ++SnmpProtocol::s_Counts.ulConfirmed;
    return 0;
}
