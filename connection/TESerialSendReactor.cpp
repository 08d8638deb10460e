#include "connection/TESerialSendReactor.h"

#include "connection/TarnConnectorMgrImpl.h"
#include "connection/TarnSerialConnectorImpl.h"
#include "core/ApplicationCall.h"
#include "tarnadapterframe/TarnAdapterTrace.h"

#include <algorithm>
#include <mutex>
#include <new>
#include <utility>

namespace {

constexpr DWORD LEAVE_MS = 30'000;
constexpr DWORD ABORTED_LEAVE_MS = 5'000;
constexpr DWORD FAILED_WAIT_MS = 1'000;

/// Ticks start again at 0 some day.
bool IsDue(DWORD dwDue, DWORD dwNow)
{
    return static_cast<std::int32_t>(dwDue - dwNow) <= 0;
}

/// The reactor that there is. Never destroyed: threads may outlive the statics.
struct TheReactor
{
    std::mutex mutex; // a leaf
    std::shared_ptr<TESerialSendReactor> pReactor;

    static TheReactor& Instance()
    {
        static auto& instance = *new TheReactor;
        return instance;
    }
    void Set(std::shared_ptr<TESerialSendReactor> pNew)
    {
        const std::lock_guard<std::mutex> guard(mutex);
        pReactor.swap(pNew); // the old one goes after the lock
    }
};

/// Exists from the library's load on.
TarnRWThreadMutex& InstanceLock()
{
    static auto& lock = *new TarnRWThreadMutex;
    return lock;
}
[[maybe_unused]] const TarnRWThreadMutex& g_InstanceLock = InstanceLock();

void CloseIfOpen(HANDLE& handle)
{
    if (handle != nullptr)
        CloseHandle(handle);
    handle = nullptr;
}

} // namespace

std::shared_ptr<TESerialSendReactor> TESerialSendReactor::Existing()
{
    const std::lock_guard<std::mutex> guard(TheReactor::Instance().mutex);
    return TheReactor::Instance().pReactor;
}

TESerialSendReactor* TESerialSendReactor::Instance()
{
    if (const auto pReactor = Existing())
        return pReactor.get();
    const TarnWriteGuard guard(InstanceLock());
    if (const auto pReactor = Existing())
        return pReactor.get();
    return WithMemory("TESerialSendReactor::Instance", static_cast<TESerialSendReactor*>(nullptr), [] {
        std::shared_ptr<TESerialSendReactor> pReactor(new TESerialSendReactor,
                                                      [](const TESerialSendReactor* pLast) { delete pLast; });
        TheReactor::Instance().Set(pReactor);
        return pReactor.get();
    });
}

void TESerialSendReactor::Destroy()
{
    const TarnWriteGuard guard(InstanceLock());
    const auto pReactor = Existing();
    if (pReactor == nullptr)
        return;
    const bool bEnded = pReactor->Leave();
    TheReactor::Instance().Set(nullptr);
    if (!bEnded)
        new (std::nothrow) std::shared_ptr<TESerialSendReactor>(pReactor); // its thread's, for good
}

TESerialSendReactor::~TESerialSendReactor()
{
    const TarnWriteGuard guard(m_EntryLock);
    for (Entry& entry : m_aEntries)
        CloseIfOpen(entry.hEvent);
    CloseIfOpen(m_hThread);
    CloseIfOpen(m_hExited);
}

int TESerialSendReactor::Start()
{
    const TarnWriteGuard guard(m_EntryLock);
    if (m_hThread != nullptr)
        return 0;
    HANDLE hChange = CreateEventA(nullptr, TRUE, FALSE, nullptr);
    m_hExited = CreateEventA(nullptr, TRUE, FALSE, nullptr);
    m_hQuit = CreateEventA(nullptr, TRUE, FALSE, nullptr);
    if (hChange != nullptr && m_hExited != nullptr && m_hQuit != nullptr)
    {
        m_aEntries[QUIT] = {m_hQuit, nullptr, true};
        m_aEntries[CHANGE] = {hChange, nullptr, true};
        m_nEntries = std::max(m_nEntries, FIRST);
        RebuildLocked(); // before there is a thread, with the connections that are registered already
        m_hThread = CreateThread(nullptr, 0, &TESerialSendReactor::ThreadProc, this, 0, &m_dwThreadId);
    }
    m_bStarted = m_hThread != nullptr;
    if (m_bStarted)
        return 0;
    m_aEntries[QUIT] = m_aEntries[CHANGE] = {};
    CloseIfOpen(hChange);
    CloseIfOpen(m_hExited);
    CloseIfOpen(m_hQuit);
    m_nWait = 0;
    return -1;
}

bool TESerialSendReactor::Leave()
{
    HANDLE hQuit = nullptr;
    {
        const TarnReadGuard guard(m_EntryLock);
        hQuit = m_aEntries[QUIT].hEvent;
    }
    if (hQuit == nullptr)
        return true;
    if (WaitForSingleObject(m_hThread, 0) == WAIT_OBJECT_0)
        return true; // told before
    if (m_bGivenUp)
        return false;
    m_bStarted = false;
    SetEvent(hQuit);
    TarnAdapterFrmtTrace(1, "Now serial reactor is to leave.\n");
    if (WaitForSingleObject(m_hExited, LEAVE_MS) != WAIT_OBJECT_0)
    {
        TarnAdapterFrmtTrace(1, "Now waitting serial reactor to leave is timeout.\n");
        AbortDrain();
        if (WaitForSingleObject(m_hExited, ABORTED_LEAVE_MS) != WAIT_OBJECT_0)
        {
            TarnAdapterFrmtTrace(
                1, "TESerialSendReactor::Leave, the send thread does not end and is left to itself\n");
            m_bGivenUp = true;
            return false;
        }
    }
    WaitForSingleObject(m_hThread, INFINITE); // it has nothing left to do
    return true;
}

void TESerialSendReactor::AbortDrain()
{
    const TarnReadGuard guard(m_EntryLock);
    if (m_pDraining != nullptr)
        m_pDraining->AbortWrite();
}

int TESerialSendReactor::RegisterHandle(TarnSerialConnectorImpl* pSerialIOHandle)
{
    if (pSerialIOHandle == nullptr)
    {
        TarnAdapterFrmtTrace(1,
                             "TESerialSendReactor::RegisterHandle fail, input para pSerialIOHandle=NULL\n");
        return -1;
    }
    HANDLE hChange = nullptr;
    {
        const TarnWriteGuard guard(m_EntryLock);
        const int iEntry =
            std::max(m_nEntries, FIRST); // the thread's own have their places before it is started
        if (iEntry >= static_cast<int>(m_aEntries.size()))
            return -1;
        HANDLE hEvent = CreateEventA(nullptr, TRUE, FALSE, nullptr);
        if (hEvent == nullptr)
            return -1;
        m_aEntries[static_cast<std::size_t>(iEntry)] = {hEvent, pSerialIOHandle, true};
        m_nEntries = iEntry + 1;
        hChange = m_aEntries[CHANGE].hEvent;
    }
    if (hChange != nullptr)
        SetEvent(hChange);
    return 0;
}

int TESerialSendReactor::UnRegisterHandle(TarnSerialConnectorImpl* pSerialIOHandle)
{
    if (pSerialIOHandle == nullptr)
    {
        TarnAdapterFrmtTrace(1,
                             "TESerialSendReactor::UnRegisterHandle fail, input para pSerialIOHandle=NULL\n");
        return -1;
    }
    HANDLE hChange = nullptr;
    {
        const TarnWriteGuard guard(m_EntryLock);
        const Entry* pEntry = FindActiveLocked(pSerialIOHandle);
        if (pEntry == nullptr)
            return -1;
        m_aEntries[static_cast<std::size_t>(pEntry - m_aEntries.data())].bActive = false;
        hChange = m_aEntries[CHANGE].hEvent;
        if (hChange == nullptr)
            RebuildLocked(); // there is no thread that would
    }
    if (hChange != nullptr)
        SetEvent(hChange);
    return 0;
}

const TESerialSendReactor::Entry*
TESerialSendReactor::FindActiveLocked(const TarnSerialConnectorImpl* pConnector) const
{
    for (int i = FIRST; i < m_nEntries; ++i)
    {
        const Entry& entry = m_aEntries[static_cast<std::size_t>(i)];
        if (entry.pConnector == pConnector && entry.bActive)
            return &entry;
    }
    return nullptr;
}

int TESerialSendReactor::AddWriteEvent(const TarnSerialConnectorImpl* pSerialIOHandle)
{
    if (pSerialIOHandle == nullptr)
    {
        TarnAdapterFrmtTrace(1, "TESerialSendReactor::AddWriteEvent fail, input para pSerialIOHandle=NULL\n");
        return -1;
    }
    const TarnReadGuard guard(m_EntryLock);
    const Entry* pEntry = FindActiveLocked(pSerialIOHandle);
    return pEntry != nullptr && SetEvent(pEntry->hEvent) != FALSE ? 0 : -1;
}

bool TESerialSendReactor::IsServing(const TarnSerialConnectorImpl* pSerialIOHandle)
{
    const TarnReadGuard guard(m_EntryLock);
    return m_bStarted && FindActiveLocked(pSerialIOHandle) != nullptr;
}

DWORD TESerialSendReactor::ThreadProc(void* pReactor)
{
    if (pReactor == nullptr)
        return static_cast<DWORD>(-1);
    auto& reactor = *static_cast<TESerialSendReactor*>(pReactor);
    // Also when a trace callback ends the thread.
    struct Leaving
    {
        TESerialSendReactor& reactor;
        ~Leaving()
        {
            reactor.m_bStarted = false;
            SetEvent(reactor.m_hExited);
        }
    };
    const Leaving leaving{reactor};
    reactor.SendLoop();
    return 0;
}

void TESerialSendReactor::SendLoop()
{
    for (;;)
    {
        const DWORD dwWoken =
            WaitForMultipleObjects(static_cast<DWORD>(m_nWait), m_aWait.data(), FALSE, WaitForLater());
        RaiseLater(); // before the line that was found may ask again, so that the others have their turn first
        if (dwWoken == WAIT_OBJECT_0 + QUIT)
            return;
        if (dwWoken == WAIT_OBJECT_0 + CHANGE)
            RebuildHandles();
        else if (dwWoken < WAIT_OBJECT_0 + static_cast<DWORD>(m_nWait))
            ProcessWriteEvent(static_cast<int>(dwWoken - WAIT_OBJECT_0));
        else if (dwWoken == WAIT_FAILED)
            Sleep(FAILED_WAIT_MS); // without memory
    }
}

/// Notes that a line asks for another turn.
void TESerialSendReactor::SendLater(TarnSerialConnectorImpl* pConnector, DWORD dwLaterMs)
{
    const bool bNoted = WithMemory("TESerialSendReactor::SendLater", false, [&] {
        m_Later[pConnector] = GetTickCount() + dwLaterMs;
        return true;
    });
    if (!bNoted)
        AddWriteEvent(pConnector);
}

/// Milliseconds until the first of those who asked for another turn gets it.
DWORD TESerialSendReactor::WaitForLater() const
{
    DWORD dwWait = INFINITE;
    const DWORD dwNow = GetTickCount();
    for (const auto& [pConnector, dwDue] : m_Later)
        dwWait = std::min(dwWait, IsDue(dwDue, dwNow) ? 0 : dwDue - dwNow);
    return dwWait;
}

void TESerialSendReactor::RaiseLater()
{
    const DWORD dwNow = GetTickCount();
    for (auto it = m_Later.begin(); it != m_Later.end();)
    {
        if (!IsDue(it->second, dwNow))
        {
            ++it;
            continue;
        }
        AddWriteEvent(it->first); // not found, when it has been unregistered
        it = m_Later.erase(it);
    }
}

void TESerialSendReactor::RebuildHandles()
{
    ResetEvent(m_aWait[CHANGE]);
    const TarnWriteGuard guard(m_EntryLock);
    RebuildLocked();
}

void TESerialSendReactor::RebuildLocked()
{
    m_aWait = {};
    std::size_t uKept = 0;
    for (std::size_t i = 0; i < static_cast<std::size_t>(m_nEntries); ++i)
    {
        Entry entry = std::exchange(m_aEntries[i], {});
        if (!entry.bActive && static_cast<int>(i) >= FIRST)
        {
            CloseIfOpen(entry.hEvent);
            continue;
        }
        m_aWait[uKept] = entry.hEvent;
        m_aEntries[uKept++] = entry;
    }
    m_nEntries = static_cast<int>(uKept);
    m_nWait = m_nEntries;
}

int TESerialSendReactor::ProcessWriteEvent(int iIndex)
{
    if (iIndex < FIRST || iIndex >= m_nWait)
        return -1;
    const HANDLE hEvent = m_aWait[static_cast<std::size_t>(iIndex)];
    ResetEvent(hEvent);
    TarnSerialConnectorImpl* pConnector = TakeConnector(iIndex, hEvent);
    if (pConnector == nullptr)
        return 0;
    DWORD dwLaterMs = 0;
    if (pConnector->WriteOutQueue(dwLaterMs) == TarnSerialConnectorImpl::SEND_LATER)
        SendLater(pConnector, dwLaterMs);
    ReleaseConnector(pConnector);
    return 0;
}

/// The connection of an entry, with a reference, or null when it has been unregistered.
TarnSerialConnectorImpl* TESerialSendReactor::TakeConnector(int iIndex, HANDLE hEvent)
{
    const TarnWriteGuard guard(m_EntryLock);
    const Entry& entry = m_aEntries[static_cast<std::size_t>(iIndex)];
    if (!entry.bActive || entry.hEvent != hEvent)
        return nullptr;
    if (entry.pConnector == nullptr)
        TarnAdapterFrmtTrace(1, "TESerialSendReactor::ProcessWriteEvent, get NULL TarnSerialConnectorImpl\n");
    else
        TarnConnectorMgrImpl::UseConnectorImplAndIncRef(entry.pConnector);
    m_pDraining = entry.pConnector;
    return entry.pConnector;
}

void TESerialSendReactor::ReleaseConnector(TarnSerialConnectorImpl* pConnector)
{
    {
        const TarnWriteGuard guard(m_EntryLock);
        m_pDraining = nullptr;
    }
    TarnConnectorMgrImpl::ReleaseConnectorImplDecRef(pConnector);
}
