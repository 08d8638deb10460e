#include "Manager.h"

#include "Interrupt.h"

#include <chrono>
#include <cstdio>
#include <stdexcept>
#include <utility>

Manager::Manager(std::vector<ElementSettings> elements, std::function<void(const std::string&)> tell)
    : m_Settings(std::move(elements))
    , m_Tell(std::move(tell))
    , m_States(m_Settings.size())
{}

Manager::~Manager()
{
    Stop();
}

void Manager::Start()
{
    if (tarnadapter::Init() != 0)
        throw std::runtime_error("the adapter framework could not be started; its log says why");
    m_bRunning = true;
    auto* pProtocol = new SnmpProtocol;
    if (TEAdapterManager::Instance()->RegisterProtocolAdapter(SNMP_PROTOCOL, pProtocol, true) != 0)
        throw std::runtime_error("the I/O of the adapter framework could not be started; its log says why");
    SnmpListener& listener = *this;
    SnmpMessageAdapter::Instance().Use(pProtocol, &listener);
    for (int iNeId = 1; iNeId <= Count(); ++iNeId)
    {
        const ElementSettings& settings = Settings(iNeId);
        m_Elements.push_back(
            std::make_unique<SnmpElement>(iNeId, settings.address, settings.strCommunity, listener));
        m_Elements.back()->SetConnTimeOut(settings.nTimeOut); // which is what the end waits for, too
        TarnConnectorMgr::Instance()->RegisterConnector(m_Elements.back().get(), false, 0);
    }
}

void Manager::Stop()
{
    if (!std::exchange(m_bRunning, false))
        return;
    // All attempts to connect end at the same time, and not one after the other.
    TarnConnectorMgr::Instance()->StopConnectThreads();
    for (const auto& pElement : m_Elements)
        TarnConnectorMgr::Instance()->UnRegisterConnector(SnmpElement::GROUP, pElement->GetTargetID());
    TEAdapterManager::Instance()->UnRegisterProtocolAdapter(SNMP_PROTOCOL);
    tarnadapter::Fini();
    m_Elements.clear();
}

Manager::State Manager::Read(int iNeId) const
{
    const std::lock_guard<std::mutex> guard(m_Mutex);
    return m_States[static_cast<std::size_t>(iNeId - 1)];
}

bool Manager::IsConnected(int iNeId) const
{
    return Read(iNeId).bConnected;
}

bool Manager::WaitConnected(int iNeId, int nSeconds) const
{
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(nSeconds);
    const auto bConnected = [&] {
        if (iNeId != 0)
            return m_States[static_cast<std::size_t>(iNeId - 1)].bConnected;
        for (const State& state : m_States)
        {
            if (!state.bConnected)
                return false;
        }
        return true;
    };
    std::unique_lock<std::mutex> lock(m_Mutex);
    while (!bConnected() && std::chrono::steady_clock::now() < deadline && !Interrupt::HasCome())
        m_Changed.wait_for(lock, std::chrono::milliseconds(100)); // an interrupt notifies nobody
    return bConnected();
}

void Manager::Tell(const std::string& strLine) const
{
    if (m_Tell)
        m_Tell(strLine);
}

void Manager::OnConnected(int iNeId)
{
    const std::lock_guard<std::mutex> guard(m_Mutex);
    State& state = m_States[static_cast<std::size_t>(iNeId - 1)];
    state.bConnected = true;
    ++state.nConnects;
    m_Changed.notify_all();
    Tell(Name(iNeId) + " connected (" + Settings(iNeId).strAddress + ")");
}

void Manager::OnBroken(int iNeId)
{
    const std::lock_guard<std::mutex> guard(m_Mutex);
    State& state = m_States[static_cast<std::size_t>(iNeId - 1)];
    state.bConnected = false;
    ++state.nBreaks;
    Tell(Name(iNeId) + " disconnected (" + Settings(iNeId).strAddress + ")");
}

bool Manager::OnNotification(int iNeId, const SnmpPacket& packet)
{
    const std::lock_guard<std::mutex> guard(m_Mutex);
    std::string strLine = Name(iNeId) + (packet.ePdu == SnmpPdu::INFORM ? " informs:" : " traps:");
    for (const SnmpVarBind& binding : packet.bindings)
        strLine += ' ' + binding.name.Text() + " = " + binding.value.Text() + ';';
    strLine.pop_back();
    Tell(strLine);
    State& state = m_States[static_cast<std::size_t>(iNeId - 1)];
    ++state.nNotifications;
    state.lastNotification = packet;
    return true;
}

std::string Failure(int iResult, const SnmpMessage& message)
{
    static constexpr const char* ERRORS[] = {"noError",
                                             "tooBig",
                                             "noSuchName",
                                             "badValue",
                                             "readOnly",
                                             "genErr",
                                             "noAccess",
                                             "wrongType",
                                             "wrongLength",
                                             "wrongEncoding",
                                             "wrongValue",
                                             "noCreation",
                                             "inconsistentValue",
                                             "resourceUnavailable",
                                             "commitFailed",
                                             "undoFailed",
                                             "authorizationError",
                                             "notWritable",
                                             "inconsistentName"}; // RFC 3416, section 3
    constexpr int COUNT = static_cast<int>(sizeof(ERRORS) / sizeof(ERRORS[0]));
    if (iResult == 0 && message.GetResult() == 0)
        return {};
    const int iOutcome = iResult != 0 ? iResult : message.GetResult();
    if (iOutcome == ADAPTER_ERR_INVALID_HANDLE)
        return "not connected";
    if (iOutcome == ADAPTER_ERR_TIMEOUT || iOutcome == PSYNC_UNANSWERED)
        return "no answer";
    if (iOutcome == SNMP_WRONG_ANSWER)
        return "an answer to something else";
    if (iOutcome <= 0 || iOutcome >= COUNT)
    {
        char szNumber[16] = {};
        std::snprintf(szNumber, sizeof(szNumber), iOutcome < 0 ? "%d" : "0x%x",
                      static_cast<unsigned>(iOutcome));
        return std::string("failed with ") + szNumber;
    }
    const auto uIndex = static_cast<std::size_t>(message.Answer().iErrorIndex);
    const auto& bindings = message.Question().bindings;
    const std::string strWhere =
        uIndex >= 1 && uIndex <= bindings.size() ? bindings[uIndex - 1].name.Text() : "";
    return strWhere + (strWhere.empty() ? "" : ": ") + ERRORS[iOutcome];
}
