#include "ModbusAdapter.h"

#include <memory>
#include <utility>

std::vector<TEMessageAdapter*> ModbusMessage::s_Adapters;

// The log shows this name. CancelMessage wants TarnAsn1Message's record among the bases.
TarnAdapterRuntimeClass ModbusMessage::classModbusMessage = {
    "ModbusMessage", static_cast<int>(sizeof(ModbusMessage)), 0xFFFF,
    nullptr,         &TarnAsn1Message::classTarnAsn1Message,  nullptr};

static const TARN_ADAPTER_CLASSINIT s_initMessage(&ModbusMessage::classModbusMessage);

ModbusMessage::ModbusMessage(int iLine, const ModbusRequest& request)
    : m_Request(request)
{
    ModbusEncode(request); // what it refuses, it refuses here
    TarnAsn1Target target(iLine);
    target.SetProtocolID(MODBUS_PROTOCOL);
    SetTargetId(target);
}

namespace {

/// A line in use, which is not destroyed meanwhile.
class LineInUse
{
public:
    explicit LineInUse(TarnConnector* pConnector)
        : m_Guard(pConnector)
        , m_pLine(dynamic_cast<ModbusLine*>(pConnector))
    {}
    explicit LineInUse(unsigned long ulLine)
        : LineInUse(TarnConnectorMgr::Instance()->GetConnectorByID(ModbusLine::GROUP, ulLine))
    {}

    explicit operator bool() const { return m_pLine != nullptr; }
    ModbusLine* operator->() const { return m_pLine; }

private:
    const TarnConnectorGuard m_Guard;
    ModbusLine* const m_pLine;
};

} // namespace

void ModbusDeliver(std::uint32_t ulSinkSerial, int iResult, std::vector<std::uint16_t> values)
{
    ModbusMessage* pSource = nullptr;
    bool bAsync = false;
    {
        const TEMsgMapGuard guard;
        TEAdapterManager* pManager = TEAdapterManager::Instance();
        bool bFound = false;
        const auto link = pManager->FindSrcMsgUnit(TEMessageUnit(ulSinkSerial, MODBUS_PROTOCOL), bFound);
        if (!bFound)
            return;
        const auto record = pManager->FindSrcMsgInfo(link->second, bFound);
        if (!bFound)
            return;
        pSource = static_cast<ModbusMessage*>(record->second.pSource);
        bAsync = pSource->GetSyncFlag() == ASYNC_MESSAGE;
        pSource->SetResult(iResult);
        pSource->SetValues(std::move(values));
        pSource->SetType(RESPONSE_MESSAGE);
        pManager->UnRegisterSourceMessage(pSource);
        if (!bAsync)
            pSource->HandleMessage(); // its sender waits, and may destroy it as soon as the lock is released
    }
    if (bAsync)
        pSource->HandleMessage(); // ours alone; it calls the callback, and deletes itself
}

ModbusTimer& ModbusTimer::Instance()
{
    static ModbusTimer s_Timer;
    return s_Timer;
}

void ModbusTimer::Start()
{
    const std::lock_guard<std::mutex> guard(m_Mutex);
    if (!std::exchange(m_bStop, false))
        return;
    m_Thread = std::thread([this] { Run(); });
}

void ModbusTimer::Stop()
{
    {
        const std::lock_guard<std::mutex> guard(m_Mutex);
        if (std::exchange(m_bStop, true))
            return;
        m_Times.clear();
        m_Changed.notify_one();
    }
    m_Thread.join();
}

void ModbusTimer::At(ModbusLine::Clock::time_point when, int iLine)
{
    const std::lock_guard<std::mutex> guard(m_Mutex);
    m_Times.emplace(when, iLine);
    m_Changed.notify_one();
}

void ModbusTimer::Run()
{
    std::unique_lock<std::mutex> lock(m_Mutex);
    while (!m_bStop)
    {
        if (m_Times.empty())
            m_Changed.wait(lock);
        else if (const auto first = m_Times.begin(); ModbusLine::Clock::now() < first->first)
            m_Changed.wait_until(lock, ModbusLine::Clock::time_point(first->first));
        else
        {
            const int iLine = first->second;
            m_Times.erase(first);
            lock.unlock();
            ComeBy(iLine);
            lock.lock();
        }
    }
}

void ModbusTimer::ComeBy(int iLine)
{
    bool bReopen = false;
    {
        const LineInUse line(static_cast<unsigned long>(iLine));
        if (!line)
            return;
        const int nBefore = line->Silences();
        line->CheckSilence();
        bReopen = line->Silences() > nBefore && line->Silences() % SILENCES_TO_REOPEN == 0;
    }
    if (!bReopen)
        return;
    const auto ulLine = static_cast<unsigned long>(iLine);
    TarnConnectorMgr::Instance()->RequestDisConnect(ModbusLine::GROUP, ulLine);
    TarnConnectorMgr::Instance()->RequestConnect(ModbusLine::GROUP, ulLine);
}

int ModbusProtocol::CheckMessageValid(void* /*pHandle*/, std::vector<unsigned char>& data)
{
    std::size_t uStale = 0;
    int iLength = 0;
    std::optional<ModbusTurn> answered;
    {
        const LineInUse line(TarnConnectorMgr::GetFramedConnector(uStale));
        if (!line)
            return -1;   // unregistered meanwhile
        if (uStale != 0) // half an answer from before the line was closed
            return static_cast<int>(uStale);
        iLength = ModbusFrameLength(data.data(), data.size());
        if (iLength <= 0)
            return iLength; // for -1 all that was received is discarded
        answered = line->TakeAnswered(data.data());
        line->GoOn();
    }
    if (answered)
        TEAsyncIOMgr::Instance()->AddResponse(std::make_unique<ModbusAnswer>(
            this, std::move(*answered), data.data(), static_cast<std::size_t>(iLength)));
    return iLength;
}

int ModbusAnswer::HandleMessage()
{
    std::vector<std::uint16_t> values;
    const int iResult = ModbusDecode(m_Turn.request, m_Frame.data(), m_Frame.size(), values);
    ModbusDeliver(m_Turn.ulSerial, iResult, std::move(values));
    return 0;
}

ModbusMessageAdapter::ModbusMessageAdapter()
    : TEMessageAdapter(TarnAsn1ProtocolAdapter::Instance(), nullptr)
{}

ModbusMessageAdapter& ModbusMessageAdapter::Instance()
{
    static ModbusMessageAdapter s_Adapter;
    return s_Adapter;
}

static const TEInitMessageAdapter s_registrar(&ModbusMessage::s_Adapters, &ModbusMessageAdapter::Instance());

bool ModbusMessageAdapter::CanTranslate(TEMessage* pMessage)
{
    return dynamic_cast<ModbusMessage*>(pMessage) != nullptr;
}

int ModbusMessageAdapter::HandleMessage(TEMessage* pMessage)
{
    auto* pSource = static_cast<ModbusMessage*>(pMessage); // CanTranslate has seen to that
    const LineInUse line(pSource->GetTargetId().GetNeId());
    if (!line)
        return ADAPTER_ERR_INVALID_HANDLE;
    ModbusSinkMessage sink(SinkProtocolInstance());
    sink.RequireSerial();
    ModbusTurn turn = {sink.GetMessageSerial(), pSource->Request(), ModbusEncode(pSource->Request())};
    pSource->SetValues({}); // it may have been sent before
    {
        const TEMsgMapGuard guard; // so that it does not expire half announced
        RegisterPrivateMessage(pSource, this, nullptr, pSource->GetTimeOut());
        RegisterMessage(pSource, &sink);
    }
    line->Ask(std::move(turn)); // answered, refused or silent, it is delivered; it may be gone already
    return 0;
}

/// Its time was over before its turn came, or before the line's response time was: the application's callback is told, by the result.
int ModbusMessageAdapter::HandleAsyncError(TEMessage* pSource, void* /*pUserData*/, EAdapterError eError)
{
    auto* pMessage = static_cast<ModbusMessage*>(pSource);
    pMessage->SetResult(eError);
    pMessage->SetType(RESPONSE_MESSAGE);
    return pMessage->HandleMessage(); // which deletes it
}
