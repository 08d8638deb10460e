#include "connection/TarnConnectorImpl.h"

#include "asyncio/TEAsyncIOMgrImpl.h"
#include "connection/HandlerCall.h"
#include "connection/TarnConnectorMgrImpl.h"
#include "core/ApplicationCall.h"
#include "core/LogArguments.h"
#include "platform/tarnplatform.h"
#include "tarnadapterframe/TarnAdapterTrace.h"
#include "tarnadapterframe/tarnbaseutil.h"

#include <cerrno>

namespace {

constexpr std::size_t OUT_QUEUE_BYTES = 10'240'000;
// How often in a row the reactor is asked to call again at once: it does so on the same thread and without
// looking at other connections, so some elements that keep sending would hold all I/O threads.
constexpr int MAX_REPEATS = 16;

} // namespace

/// Holds a reference for its own lifetime.
class TarnConnectorImpl::Reference
{
public:
    explicit Reference(TarnConnectorImpl& connection)
        : m_Connection(connection)
    {
        m_Connection.IncRef();
    }
    ~Reference() { m_Connection.DecRef(); }
    Reference(const Reference&) = delete;
    Reference& operator=(const Reference&) = delete;

private:
    TarnConnectorImpl& m_Connection;
};

TarnConnectorImpl::TarnConnectorImpl(TarnConnector* /*pOwner*/)
    : ACE_Event_Handler(nullptr, 0)
    , m_pOutQueue(std::make_unique<OutQueue>(OUT_QUEUE_BYTES, OUT_QUEUE_BYTES))
    , m_Hooks([this](HookEvent eEvent) { DeliverHook(eEvent); })
{
    reference_counting_policy().value(Reference_Counting_Policy::ENABLED);
}

TarnConnectorImpl::~TarnConnectorImpl()
{
    WaitUntilUnused();
    DiscardOutput();
}

void TarnConnectorImpl::WaitUntilUnused()
{
    constexpr DWORD POLL_MS = 1000;
    constexpr int PASSES_PER_DUMP = 10;
    for (int iPass = 1; !IsUnused(); ++iPass)
    {
        // Pins are mostly those of short calls.
        const bool bReferred = GetRefCount() > m_nAbandoned;
        if (!bReferred && WaitUntilUnpinned(std::chrono::milliseconds(POLL_MS)))
            continue;
        TarnAdapterFrmtTrace(1, "while ~TarnConnectorImpl(), Refcount = %d,GroupId = %d,TargetID = 0x%x\n",
                             GetRefCount(), GetGroupID(), GetTargetID());
        if (iPass % PASSES_PER_DUMP == 0)
            DumpRefThreadInfo();
        if (bReferred)
            Sleep(POLL_MS);
    }
}

int TarnConnectorImpl::handle_input(ACE_HANDLE /*handle*/)
{
    const Reference reference(*this);
    HandlerCall call(*this);
    if (call.Session() == 0)
        return 0; // unregistered between the reactor's look and this call
    if (HasFailedBefore(call))
        return BreakFromOutput(call);
    const int iRead = TryRead();
    return iRead < 0 ? BreakFromInput(call) : BoundRepeats(iRead);
}

int TarnConnectorImpl::BoundRepeats(int iResult)
{
    if (iResult == 0)
        m_nRepeats = 0;
    else if (++m_nRepeats >= MAX_REPEATS && !HasBufferedInput())
    {
        m_nRepeats = 0;
        return 0; // if there is more to read, the kernel announces it again, behind the others
    }
    return iResult;
}

int TarnConnectorImpl::handle_output(ACE_HANDLE /*handle*/)
{
    const Reference reference(*this);
    HandlerCall call(*this);
    if (call.Session() == 0)
        return 0;
    int iWritten = HasFailedBefore(call) ? -1 : TryWrite();
    if (iWritten == -1)
        return BreakFromOutput(call);
    if (iWritten == 0)
        iWritten = WriteLastTime();
    if (iWritten == -1)
        return Break(call, nullptr);
    // While the rest of much is sent the calls are for writing, so reading has a turn here. And nobody announces what the
    // connection or its transport holds already.
    const int iRead = iWritten == 0 && !HasBufferedInput() ? 0 : ReadBuffered();
    return iRead < 0 ? BreakFromInput(call) : 0;
}

/// Reads once, and on while the connection or its transport holds received bytes.
int TarnConnectorImpl::ReadBuffered()
{
    int iRead = 0;
    do
        iRead = TryRead();
    while (iRead > 0 && HasBufferedInput());
    return iRead;
}

/// Sends what has been queued meanwhile and switches write events off. Under the send lock: whoever queues a
/// block later finds the flag clear and switches them on again.
int TarnConnectorImpl::WriteLastTime()
{
    const TarnGuard guard(m_SendLock);
    const int iWritten = TryWrite();
    if (iWritten == MORE_LATER)
        return iWritten;
    SwitchWriteEvents(false);
    if (iWritten == 0)
        m_bWritePending = false;
    return iWritten;
}

/// What handle_output does, in a call by a thread that is none of the I/O threads: it must not get into the adapter's
/// framing or into hooks, since nobody knows what locks it holds. @return whether there is more to do, for an I/O thread
bool TarnConnectorImpl::WriteByItself()
{
    const HandlerCall call(*this);
    if (call.Session() == 0)
        return false;
    const int iWritten = TryWrite();
    if (iWritten == -1)
    {
        m_iWriteError = errno;
        m_ulFailedSession = call.Session();
    }
    const TarnGuard guard(m_SendLock);
    m_bWritePending = iWritten != 0 || !m_pOutQueue->is_empty();
    return m_bWritePending || HasBufferedInput();
}

/// Whether a thread that wrote by itself has failed in the call's opening; errno says how.
bool TarnConnectorImpl::HasFailedBefore(const HandlerCall& call)
{
    if (m_ulFailedSession != call.Session())
        return false;
    errno = m_iWriteError;
    return true;
}

int TarnConnectorImpl::TryRead()
{
    return WithMemory("TarnConnectorImpl::Read", -1, [this] { return Read(); });
}

int TarnConnectorImpl::TryWrite()
{
    return WithMemory("TarnConnectorImpl::Write", -1, [this] { return Write(); });
}

int TarnConnectorImpl::BreakFromOutput(HandlerCall& call)
{
    TarnAdapterFrmtTrace(3, "TarnConnectorImpl::handle_output : Write error(%d),handle(0x%x)\n", errno,
                         GetHandle());
    SwitchWriteEvents(false);
    return Break(call, "TarnConnectorImpl::handle_output : DisConnect\n");
}

int TarnConnectorImpl::BreakFromInput(HandlerCall& call)
{
    TarnAdapterFrmtTrace(3, "TarnConnectorImpl::handle_input : Read error(%d),handle(0x%x)\n", errno,
                         GetHandle());
    return Break(call, nullptr);
}

/// Ends the session that a handler call was made for, unless somebody else does.
/// @param pszDisConnectText  logged before the connection is closed; may be null
int TarnConnectorImpl::Break(HandlerCall& call, const char* pszDisConnectText)
{
    m_Ahead = {}; // lost with the session
    call.LeaveBuffers();
    if (ClaimBreak(call.Session(), BreakTold::YES) == BreakClaim::NOT_MINE)
        return 0; // whoever ends it unregisters it
    if (TEAsyncIOMgrImpl* pAsyncIOMgr = TEAsyncIOMgrImpl::Existing())
        pAsyncIOMgr->UnregisterSession(this, call.Session());
    if (IsControlParaTrue(AUTO_CONNECT))
    {
        if (pszDisConnectText != nullptr)
            TarnAdapterFrmtTrace(3, "%s", pszDisConnectText);
        CloseSession(call.Session());
    }
    PostBroken(HookEvent::BROKEN_RECONNECT);
    return BROKEN;
}

void TarnConnectorImpl::BreakUnserved(std::uint32_t ulSession)
{
    if (ClaimBreak(ulSession, BreakTold::YES) == BreakClaim::NOT_MINE)
        return;
    CloseSession(ulSession);
    PostBroken(HookEvent::BROKEN_RECONNECT);
}

void TarnConnectorImpl::BreakServed()
{
    const std::uint32_t ulSession = ServedSession();
    if (ClaimBreak(ulSession, BreakTold::YES) == BreakClaim::NOT_MINE)
        return;
    if (TEAsyncIOMgrImpl* pAsyncIOMgr = TEAsyncIOMgrImpl::Existing())
        pAsyncIOMgr->UnregisterSession(this, ulSession);
    if (IsControlParaTrue(AUTO_CONNECT))
        CloseSession(ulSession);
    PostBroken(HookEvent::BROKEN_RECONNECT);
}

void TarnConnectorImpl::DeliverHook(HookEvent eEvent)
{
    TarnConnectorMgrImpl* pConnectorMgr = TarnConnectorMgrImpl::Existing();
    if (pConnectorMgr == nullptr)
        return;
    int iResult = 0;
    if (eEvent == HookEvent::OPENED)
        pConnectorMgr->OnConnectOK(GetGroupID(), GetTargetID(), &iResult, this);
    else if (pConnectorMgr->OnSockBreak(GetGroupID(), GetTargetID(), &iResult, this) &&
             eEvent == HookEvent::BROKEN_RECONNECT && !TarnAppIsExit())
        pConnectorMgr->EnqueueReadyConnQueue(this, true);
}

int TarnConnectorImpl::handle_timeout(const ACE_Time_Value& /*currentTime*/, const void* /*pArg*/)
{
    return 0;
}

/// The reactor calls it with its token held, so no lock may be taken here that somebody holds while he wants the
/// token. It does so for UnregisterHandle, and when it finds a descriptor closed, both with the full mask: a
/// handler call that fails has unregistered the connection before it returns.
int TarnConnectorImpl::handle_close(ACE_HANDLE handle, ACE_Reactor_Mask mask)
{
    const Reference reference(*this);
    const auto uMask = static_cast<unsigned>(mask);
    TarnAdapterFrmtTrace(1, "Close handle mask : 0x%x  handle 0x%x\n", uMask, handle);
    if (mask != ACE_Event_Handler::ALL_EVENTS_MASK)
        BreakServed();
    else if (!IsServed())
        TarnAdapterFrmtTrace(1, "TarnConnectorImpl::handle_close, because of unregister handle\n");
    else if (TEAsyncIOMgrImpl* pAsyncIOMgr = TEAsyncIOMgrImpl::Existing())
    {
        // Not by UnregisterHandle, which notes the end first.
        TarnAdapterFrmtTrace(1, "TarnConnectorImpl::handle_close, the descriptor was closed while in use\n");
        pAsyncIOMgr->ReportDropped(*this);
        ReleaseReactorReference();
    }
    TarnAdapterFrmtTrace(1, "time:%d, handle 0x%x close mask: 0x%x.\n", AsInt(GetTickCount()), handle, uMask);
    return 0;
}

void* TarnConnectorImpl::GetSocketStream()
{
    TarnAdapterFrmtTrace(1, "TarnConnectorImpl::GetSocketStream is NULL \n");
    return nullptr;
}
