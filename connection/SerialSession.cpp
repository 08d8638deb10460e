#include "connection/SerialSession.h"

#include "connection/TarnSerialConnectorImpl.h"
#include "tarnadapterframe/TarnAdapterTrace.h"

#include <list>
#include <mutex>
#include <new>
#include <vector>

namespace {

constexpr DWORD POLL_MS = 1'000;
constexpr DWORD PURGE_ALL = PURGE_TXABORT | PURGE_RXABORT | PURGE_TXCLEAR | PURGE_RXCLEAR;

/// The sessions whose watch threads may be running, for the stop.
struct OpenSessions
{
    std::mutex mutex; // a leaf
    std::list<std::weak_ptr<SerialSession>> sessions;
};

OpenSessions& Sessions()
{
    static auto& sessions = *new OpenSessions; // threads may outlive the statics
    return sessions;
}

void CloseIfOpen(HANDLE& handle)
{
    if (handle != nullptr && handle != INVALID_HANDLE_VALUE)
        CloseHandle(handle);
    handle = nullptr;
}

int LastError()
{
    return static_cast<int>(GetLastError());
}

} // namespace

std::shared_ptr<SerialSession> SerialSession::Create(TarnSerialConnectorImpl& connection)
{
    try
    {
        std::shared_ptr<SerialSession> pSession(new SerialSession(connection));
        return pSession->CreateEvents() ? pSession : nullptr;
    }
    catch (const std::bad_alloc&)
    {
        return nullptr;
    }
}

SerialSession::SerialSession(TarnSerialConnectorImpl& connection)
    : m_Connection(connection)
{}

SerialSession::~SerialSession()
{
    if (m_hPort != INVALID_HANDLE_VALUE)
        CloseHandle(m_hPort); // closed already, as a rule
    CloseIfOpen(m_hWatchThread);
    for (HANDLE* pEvent : {&m_hStarted, &m_hWatchEnded, &m_hCommEvent, &m_Write.hEvent, &m_Read.hEvent})
        CloseIfOpen(*pEvent);
}

bool SerialSession::CreateEvents()
{
    m_hWatchEnded = CreateEventA(nullptr, TRUE, FALSE, nullptr);
    m_Write.hEvent = CreateEventA(nullptr, FALSE, FALSE, nullptr);
    m_Read.hEvent = CreateEventA(nullptr, FALSE, FALSE, nullptr);
    return m_hWatchEnded != nullptr && m_Write.hEvent != nullptr && m_Read.hEvent != nullptr;
}

bool SerialSession::OpenConnection(const SerialSettings& settings, InputBuffer& leftOver)
{
    m_hPort = CreateFileA(settings.strPort.c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING,
                          FILE_ATTRIBUTE_NORMAL | FILE_FLAG_OVERLAPPED, nullptr);
    if (m_hPort == INVALID_HANDLE_VALUE)
    {
        TarnAdapterFrmtTrace(1,
                             "TarnSerialConnectorImpl::OpenConnection, cannot open port %.200s, errno=%d\n",
                             settings.strPort.c_str(), LastError());
        return false;
    }
    if (!SetLine(settings))
    {
        TarnAdapterFrmtTrace(
            1, "TarnSerialConnectorImpl::OpenConnection, cannot set port %.200s to %d baud, errno=%d\n",
            settings.strPort.c_str(), settings.iBaudRate, LastError());
        ClosePort();
        return false;
    }
    m_Input = std::move(leftOver);
    leftOver = InputBuffer();
    m_Input.BeginSession();
    m_bConnected = true;
    if (!StartWatch())
    {
        TarnAdapterFrmtTrace(
            1, "TarnSerialConnectorImpl::OpenConnection, cannot start the watch thread, errno=%d\n",
            LastError());
        m_bConnected = false;
        leftOver = std::move(m_Input);
        ClosePort();
        return false;
    }
    EscapeCommFunction(m_hPort, SETDTR);
    return true;
}

bool SerialSession::SetLine(const SerialSettings& settings)
{
    constexpr DWORD QUEUE_BYTES = 1024;
    constexpr DWORD READ_TOTAL_MS = 1000;
    constexpr int WRITE_RATE = 19200; // a byte may take twice as long as it does at this rate
    SetCommMask(m_hPort, EV_RXCHAR);
    SetupComm(m_hPort, QUEUE_BYTES, QUEUE_BYTES);
    PurgeComm(m_hPort, PURGE_ALL);
    const COMMTIMEOUTS timeouts = {MAXDWORD, 0, READ_TOTAL_MS,
                                   static_cast<DWORD>(WRITE_RATE / settings.iBaudRate), 0};
    SetCommTimeouts(m_hPort, &timeouts);
    return SetupConnection(settings);
}

bool SerialSession::SetupConnection(const SerialSettings& settings)
{
    constexpr DWORD DTR_DSR = 1;
    constexpr DWORD RTS_CTS = 2;
    constexpr DWORD XON_XOFF = 4;
    constexpr WORD XON_XOFF_LIMIT = 100;
    DCB line = {};
    line.DCBlength = sizeof(DCB);
    GetCommState(m_hPort, &line);
    line.BaudRate = static_cast<DWORD>(settings.iBaudRate);
    line.ByteSize = settings.byteSize;
    line.Parity = settings.parity;
    line.StopBits = settings.stopBits;
    const bool bDtr = (settings.dwFlowControl & DTR_DSR) != 0;
    line.fOutxDsrFlow = bDtr ? 1 : 0;
    line.fDtrControl = bDtr ? DTR_CONTROL_HANDSHAKE : DTR_CONTROL_ENABLE;
    const bool bRts = (settings.dwFlowControl & RTS_CTS) != 0;
    line.fOutxCtsFlow = bRts ? 1 : 0;
    line.fRtsControl = bRts ? RTS_CONTROL_HANDSHAKE : RTS_CONTROL_ENABLE;
    const bool bXon = (settings.dwFlowControl & XON_XOFF) != 0;
    line.fInX = bXon ? 1 : 0;
    line.fOutX = bXon ? 1 : 0;
    line.XonChar = 0x11;
    line.XoffChar = 0x13;
    line.XonLim = XON_XOFF_LIMIT;
    line.XoffLim = XON_XOFF_LIMIT;
    line.fBinary = 1;
    line.fParity = 1;
    return SetCommState(m_hPort, &line) != FALSE;
}

/// Starts the watch thread and waits until it runs.
bool SerialSession::StartWatch()
{
    m_hStarted = CreateEventA(nullptr, FALSE, FALSE, nullptr);
    if (m_hStarted == nullptr)
        return false;
    m_Connection.Pin(); // given back by the thread
    try
    {
        std::list<std::weak_ptr<SerialSession>> entry = {weak_from_this()};
        auto pArgument = std::make_unique<std::shared_ptr<SerialSession>>(shared_from_this());
        m_hWatchThread =
            CreateThread(nullptr, 0, &SerialSession::CommWatchThrdProc, pArgument.get(), 0, nullptr);
        if (m_hWatchThread != nullptr)
        {
            static_cast<void>(pArgument.release()); // the thread's now
            WaitForSingleObject(m_hStarted, INFINITE);
            const std::lock_guard<std::mutex> guard(Sessions().mutex);
            auto& sessions = Sessions().sessions;
            sessions.remove_if([](const std::weak_ptr<SerialSession>& pOther) { return pOther.expired(); });
            sessions.splice(sessions.end(), entry);
        }
    }
    catch (const std::bad_alloc&)
    {}
    if (m_hWatchThread == nullptr)
        m_Connection.Unpin();
    CloseIfOpen(m_hStarted);
    return m_hWatchThread != nullptr;
}

void SerialSession::End()
{
    m_bConnected = false;
    SetCommMask(m_hPort, 0);
    AbortWrite();
    SetEvent(m_hCommEvent);
}

bool SerialSession::WaitForWatch(DWORD dwMilliseconds)
{
    // From its last event on the thread has nothing to wait for.
    return m_hWatchThread == nullptr ||
           (!IsWatchThread() && WaitForSingleObject(m_hWatchEnded, dwMilliseconds) == WAIT_OBJECT_0 &&
            WaitForSingleObject(m_hWatchThread, dwMilliseconds) == WAIT_OBJECT_0);
}

void SerialSession::CloseConnection()
{
    EscapeCommFunction(m_hPort, CLRDTR);
    PurgeComm(m_hPort, PURGE_ALL);
    ClosePort();
}

/// The handle is kept: what still uses it is refused.
void SerialSession::ClosePort()
{
    CloseHandle(m_hPort);
}

void SerialSession::EndAllWatches()
{
    std::vector<std::shared_ptr<SerialSession>> sessions;
    {
        const std::lock_guard<std::mutex> guard(Sessions().mutex);
        for (const auto& pWeak : Sessions().sessions)
            if (auto pSession = pWeak.lock())
                sessions.push_back(std::move(pSession));
    }
    for (const auto& pSession : sessions)
        pSession->End();
    for (const auto& pSession : sessions)
        while (!pSession->IsWatchThread() && !pSession->WaitForWatch(POLL_MS))
            TarnAdapterFrmtTrace(
                3, "SerialSession::EndAllWatches, waiting for the watch thread of a serial line to quit\n");
}
