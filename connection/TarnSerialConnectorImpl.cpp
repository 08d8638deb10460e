#include "connection/TarnSerialConnectorImpl.h"

#include "asyncio/TEAsyncIOMgrImpl.h"
#include "connection/TESerialSendReactor.h"
#include "connection/TarnConnectorMgrImpl.h"
#include "tarnadapterframe/TarnAdapterTrace.h"

#include <utility>

namespace {

constexpr DWORD WATCH_END_MS = 30'000;

} // namespace

TarnSerialConnectorImpl::TarnSerialConnectorImpl(TarnConnector* pOwner)
    : TarnConnectorImpl(pOwner)
{
    SetCommuProtType(SERIAL_TYPE);
}

TarnSerialConnectorImpl::~TarnSerialConnectorImpl()
{
    Close(nullptr);
    WaitUntilUnused();
}

int TarnSerialConnectorImpl::handle_signal(int /*iSignal*/, siginfo_t* /*pInfo*/, ucontext_t* /*pContext*/)
{
    return 0;
}

int TarnSerialConnectorImpl::InitCommuPara(std::vector<void*>& vctParas)
{
    constexpr std::size_t PARAMETERS = 2;
    if (vctParas.size() != PARAMETERS)
    {
        TarnAdapterFrmtTrace(
            1, "TarnSerialConnectorImpl::InitCommuPara fail, input para vctParas's size(%d) != 2.\n",
            static_cast<int>(vctParas.size()));
        return -1;
    }
    if (vctParas[1] == nullptr)
    {
        TarnAdapterFrmtTrace(0, "TarnSerialConnectorImpl::InitCommuPara, Baudrate error!");
        return -1;
    }
    if (InitTTYInfo() != 0)
    {
        TarnAdapterFrmtTrace(2, "TarnSerialConnectorImpl::InitCommuPara, InitTTYInfo failed.\n");
        return -1;
    }
    const TarnWriteGuard guard(m_ParameterLock);
    if (vctParas[0] != nullptr)
        m_Settings.strPort = static_cast<const char*>(vctParas[0]);
    m_Settings.iBaudRate = *static_cast<const int*>(vctParas[1]);
    return 0;
}

/// Resets the settings of the line, and makes the events for its next opening. @return 0, or -1 without events
int TarnSerialConnectorImpl::InitTTYInfo()
{
    auto pSession = SerialSession::Create(*this);
    if (pSession == nullptr)
        return -1;
    {
        const TarnGuard guard(m_OpenMutex);
        m_pPrepared = std::move(pSession);
    }
    const TarnWriteGuard guard(m_ParameterLock);
    SerialSettings settings;
    settings.strPort = m_Settings.strPort;
    m_Settings = settings;
    return 0;
}

bool TarnSerialConnectorImpl::GetCommuPara(ECommuProtocolType& eType, unsigned long& ulIP,
                                           unsigned short& usPort, std::string& strFirst,
                                           std::string& strSecond, std::string& strThird,
                                           unsigned long& ulNumber)
{
    if (GetCommuProtType() != SERIAL_TYPE)
        return false;
    const SerialSettings settings = LineSettings();
    eType = SERIAL_TYPE;
    ulIP = 0;
    usPort = 0;
    strFirst.clear();
    strSecond.clear();
    strThird = settings.strPort;
    ulNumber = static_cast<std::uint32_t>(settings.iBaudRate);
    return true;
}

SerialSettings TarnSerialConnectorImpl::LineSettings()
{
    const TarnReadGuard guard(m_ParameterLock);
    return m_Settings;
}

std::shared_ptr<SerialSession> TarnSerialConnectorImpl::Session()
{
    const std::lock_guard<std::mutex> guard(m_SessionMutex);
    return m_pSession;
}

void TarnSerialConnectorImpl::SetSession(std::shared_ptr<SerialSession> pSession)
{
    const std::lock_guard<std::mutex> guard(m_SessionMutex);
    m_pSession.swap(pSession); // the old one goes after the lock
}

int TarnSerialConnectorImpl::Connect()
{
    for (;;)
    {
        std::shared_ptr<SerialSession> pEnding;
        {
            const TarnGuard guard(m_OpenMutex);
            pEnding = Session();
            if (pEnding == nullptr)
                return Open();
            if (pEnding->IsConnected())
            {
                // Somebody else has opened it while this attempt waited for its turn.
                SetState(STATE_CONNECTED);
                return 0;
            }
            if (!pEnding->IsWatchThread())
                BeginClosing(); // with the mutex still held: the next session is not this thread's to close
        }
        if (pEnding->IsWatchThread())
        {
            TarnAdapterFrmtTrace(1,
                                 "TarnSerialConnectorImpl::Connect refused, called while the last session's "
                                 "bytes are framed, Group = %d, TargetID = 0x%x\n",
                                 GetGroupID(), GetTargetID());
            return -1;
        }
        FinishClosing(pEnding);
    }
}

int TarnSerialConnectorImpl::Open()
{
    const SerialSettings settings = LineSettings();
    if (settings.iBaudRate <= 0)
    {
        TarnAdapterFrmtTrace(1, "TarnSerialConnectorImpl::Connect error, the baud rate is %d, port %.200s\n",
                             settings.iBaudRate, settings.strPort.c_str());
        return -1;
    }
    auto pSession = m_pPrepared != nullptr ? std::move(m_pPrepared) : SerialSession::Create(*this);
    m_pPrepared.reset();
    if (pSession == nullptr || !pSession->OpenConnection(settings, m_LeftInput))
        return -1;
    SetSession(pSession);
    set_handle(pSession->Descriptor());
    SetState(STATE_CONNECTED);
    RegisterForSending();
    return 0;
}

void TarnSerialConnectorImpl::RegisterForSending()
{
    m_bMuteLogged = false;
    TESerialSendReactor::Instance();
    const auto pReactor = TESerialSendReactor::Existing();
    if (pReactor == nullptr || pReactor->RegisterHandle(this) != 0)
    {
        TarnAdapterFrmtTrace(
            1,
            "TarnSerialConnectorImpl::Connect, the send reactor takes no more lines, nothing "
            "will be sent, Group = %d, TargetID = 0x%x\n",
            GetGroupID(), GetTargetID());
        return;
    }
    // What an earlier session has left goes out now.
    pReactor->AddWriteEvent(this);
}

int TarnSerialConnectorImpl::DisConnect()
{
    return Close(nullptr);
}

void TarnSerialConnectorImpl::CloseSession(std::uint32_t ulSession)
{
    Close(&ulSession);
}

/// Closes the open session, if there is one and it is this one.
int TarnSerialConnectorImpl::Close(const std::uint32_t* pOnlySession)
{
    std::shared_ptr<SerialSession> pSession;
    {
        const TarnGuard guard(m_OpenMutex);
        if (pOnlySession != nullptr && OpenSession() != *pOnlySession)
            return 0;
        pSession = BeginClosing();
    }
    FinishClosing(pSession);
    return 0;
}

/// Has nobody send or be sent to any more, and tells the session's threads that it is over.
/// @return the session, which is to be finished; null when there is none
std::shared_ptr<SerialSession> TarnSerialConnectorImpl::BeginClosing()
{
    if (const auto pReactor = TESerialSendReactor::Existing())
        pReactor->UnRegisterHandle(this);
    TEAsyncIOMgrImpl* pAsyncIOMgr = TEAsyncIOMgrImpl::Existing();
    if (pAsyncIOMgr != nullptr && IsRegistered())
        pAsyncIOMgr->UnregisterHandle(this);
    auto pSession = Session();
    if (pSession != nullptr)
        pSession->End();
    return pSession;
}

/// Waits for the session's watch thread and closes the line, unless another thread does.
void TarnSerialConnectorImpl::FinishClosing(const std::shared_ptr<SerialSession>& pSession)
{
    const bool bWatchEnded = pSession == nullptr || pSession->WaitForWatch(WATCH_END_MS);
    if (!bWatchEnded && !pSession->IsWatchThread())
        TarnAdapterFrmtTrace(1,
                             "TarnSerialConnectorImpl::CloseConnection, the watch thread does not end and is "
                             "left to itself, Group = %d, TargetID = 0x%x\n",
                             GetGroupID(), GetTargetID());
    CloseEnded(pSession, bWatchEnded);
}

void TarnSerialConnectorImpl::CloseEnded(const std::shared_ptr<SerialSession>& pSession, bool bWatchEnded)
{
    const TarnGuard guard(m_OpenMutex);
    if (Session() != pSession)
        return; // another thread has been faster, and the next session may be open
    CloseDescriptor([&pSession] {
        if (pSession != nullptr)
            pSession->CloseConnection();
        return 0;
    });
    if (pSession != nullptr && bWatchEnded)
        m_LeftInput = std::move(pSession->Input());
    // Who opens next waits for a watch thread that has closed its own line.
    if (pSession != nullptr && !pSession->IsWatchThread())
        SetSession(nullptr);
    TarnConnectorMgrImpl::SetClosed(*this);
}

void TarnSerialConnectorImpl::AbortWrite()
{
    if (const auto pSession = Session())
        pSession->AbortWrite();
}

int TarnSerialConnectorImpl::SendData(const char* /*pBuf*/, int /*iLength*/)
{
    return 0;
}

int TarnSerialConnectorImpl::RecvData(char* /*pBuf*/, int /*iLength*/)
{
    return 0;
}
