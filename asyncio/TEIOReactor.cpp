#include "asyncio/TEIOReactor.h"

#include "core/ActiveThreads.h"

#include <ace/Event_Handler.h>
#include <ace/Guard_T.h>
#include <ace/Time_Value.h>

#include <sys/select.h>

#include <algorithm>
#include <cerrno>
#include <new>

namespace {

constexpr ACE_Reactor_Mask READ = ACE_Event_Handler::READ_MASK;
constexpr ACE_Reactor_Mask WRITE = ACE_Event_Handler::WRITE_MASK;

bool IsBeyondSets(ACE_HANDLE handle)
{
    return handle >= FD_SETSIZE;
}

/// Place of a handle that is beyond the sets.
std::size_t Place(ACE_HANDLE handle)
{
    return static_cast<std::size_t>(handle - FD_SETSIZE);
}

/// The error with which a call has failed that says so by -1.
int Fail(int iError)
{
    errno = iError;
    return -1;
}

// The reactor that is removing a handler on this thread, inside handle_close perhaps, with its token held; else null.
thread_local const TEIOReactor* t_pTelling = nullptr;

} // namespace

/// Holds the reactor's token for its own lifetime.
///
/// ACE's token is handed to the first thread of its queue, and nobody can take it until that thread runs. Once two threads
/// wait, each hand-over costs a switch of threads, and the queue does not empty while they keep coming. So users of the
/// reactor's own operations queue at an ordinary mutex first, and mostly find the token free. Not a thread that may hold the
/// token already by one of ACE's operations (register_handler, remove_handler), which do not come by here: they call
/// handle_close, which may come back here.
class TEIOReactor::TokenGuard
{
public:
    explicit TokenGuard(TEIOReactor& reactor)
        : m_Reactor(reactor)
        , m_Gate(t_pTelling != &reactor ? &reactor.m_TokenGate : nullptr)
        , m_bOwned(reactor.token_.acquire() != -1) // 1 after a wait
    {}
    ~TokenGuard()
    {
        if (m_bOwned)
            m_Reactor.token_.release();
    }
    TokenGuard(const TokenGuard&) = delete;
    TokenGuard& operator=(const TokenGuard&) = delete;

    explicit operator bool() const { return m_bOwned; }

private:
    // By itself, so that it is left also when the thread is ended in its wait for the token.
    class Gate
    {
    public:
        explicit Gate(TarnThreadMutex* pMutex) TARN_NO_THREAD_SAFETY_ANALYSIS : m_pMutex(pMutex)
        {
            if (m_pMutex != nullptr)
                m_pMutex->acquire();
        }
        ~Gate() TARN_NO_THREAD_SAFETY_ANALYSIS
        {
            if (m_pMutex != nullptr)
                m_pMutex->release();
        }
        Gate(const Gate&) = delete;
        Gate& operator=(const Gate&) = delete;

    private:
        TarnThreadMutex* const m_pMutex;
    };

    TEIOReactor& m_Reactor;
    const Gate m_Gate;
    const bool m_bOwned;
};

TEIOReactor::TEIOReactor()
    : m_tNextCheck(std::chrono::steady_clock::time_point())
{}

TEIOReactor::~TEIOReactor()
{
    // As ACE does with those in its repository.
    const TokenGuard guard(*this);
    for (std::size_t u = 0; u < m_BeyondSets.size(); ++u)
        if (m_BeyondSets[u].pHandler != nullptr)
            remove_handler_i(static_cast<ACE_HANDLE>(u) + FD_SETSIZE, ACE_Event_Handler::ALL_EVENTS_MASK);
}

bool TEIOReactor::initialized()
{
    return m_Ready.IsOpen() && StoppableReactor::initialized();
}

// ---------------------------------------------------------------------------------------------------------
// Waiting

int TEIOReactor::handle_events(ACE_Time_Value* pMaxWait)
{
    constexpr int LONGEST_WAIT_MS = 1000;
    if (deactivated() != 0)
        return Fail(ESHUTDOWN);
    CheckHandles();
    int iWaitMs = LONGEST_WAIT_MS;
    if (pMaxWait != nullptr && *pMaxWait < ACE_Time_Value(1))
        iWaitMs = static_cast<int>((pMaxWait->usec() + 999) / 1000);
    ReadyQueue::Ready ready;
    const int iReady = m_Ready.Wait(iWaitMs, ready);
    if (iReady == 1)
        Serve(ready);
    return iReady;
}

void TEIOReactor::Wake()
{
    m_Ready.Wake();
}

void TEIOReactor::deactivate(int iStop)
{
    StoppableReactor::deactivate(iStop);
    if (iStop != 0)
        m_Ready.Stop();
}

int TEIOReactor::notify(ACE_Event_Handler* pHandler, ACE_Reactor_Mask /*mask*/, ACE_Time_Value* /*pTimeout*/)
{
    return pHandler == nullptr ? 0 : Fail(ENOTSUP);
}

// ---------------------------------------------------------------------------------------------------------
// Handler calls

void TEIOReactor::Serve(const ReadyQueue::Ready& ready)
{
    const ActiveThreads::Turn turn;
    Call call;
    if (!BeginCall(ready, call))
        return;
    // At its end also when the thread is ended inside.
    struct Ending
    {
        TEIOReactor& reactor;
        const Call& call;
        int iStatus = 0;
        ACE_Reactor_Mask mask = WRITE;
        ~Ending() { reactor.EndCall(call, iStatus, mask); }
    } ending{*this, call};
    if (call.bWrite)
    {
        do
            ending.iStatus = call.pHandler->handle_output(call.handle);
        while (ending.iStatus > 0);
        if (ending.iStatus < 0 || !call.bRead || !MayGoOn(call))
            return;
    }
    ending.mask = READ;
    do
        ending.iStatus = call.pHandler->handle_input(call.handle);
    while (ending.iStatus > 0);
}

/// @return false when there is nothing to call
bool TEIOReactor::BeginCall(const ReadyQueue::Ready& ready, Call& call)
{
    call.handle = ready.handle;
    call.ulGeneration = ready.ulGeneration;
    const TokenGuard guard(*this);
    m_Ready.NoteAnnounced(ready);
    call.pHandler = find_handler_i(call.handle);
    if (!guard || call.pHandler == nullptr || !IsRegistered(call))
        return false;
    const ACE_Reactor_Mask waiting = Bits(wait_set_, call.handle);
    if (waiting == 0)
        return false; // suspended
    call.bRead = (waiting & ready.mask & READ) != 0;
    call.bWrite = (waiting & ready.mask & WRITE) != 0;
    if (!call.bRead && !call.bWrite)
    {
        Announce(call.handle); // for what has been switched off meanwhile
        return false;
    }
    Suspend(call);
    return true;
}

/// Within the token: from now on the call is under way.
void TEIOReactor::Suspend(const Call& call)
{
    suspend_i(call.handle);
    call.pHandler->add_reference();
}

bool TEIOReactor::BeginOwnCall(ACE_HANDLE handle, ACE_Event_Handler* pHandler, Call& call)
{
    if (!m_Ready.IsSleeping())
        return false;
    const TokenGuard guard(*this);
    if (!guard || find_handler_i(handle) != pHandler || Bits(wait_set_, handle) != READ)
        return false;
    call = {handle, m_Ready.Generation(handle), pHandler, true, false};
    Suspend(call);
    return true;
}

void TEIOReactor::EndOwnCall(const Call& call)
{
    EndCall(call, 0, WRITE);
}

/// Within the token.
bool TEIOReactor::IsRegistered(const Call& call)
{
    return m_Ready.Generation(call.handle) == call.ulGeneration &&
           find_handler_i(call.handle) == call.pHandler;
}

/// Between two calls for one announcement.
bool TEIOReactor::MayGoOn(const Call& call)
{
    const TokenGuard guard(*this);
    return guard && IsRegistered(call);
}

void TEIOReactor::EndCall(const Call& call, int iStatus, ACE_Reactor_Mask mask)
{
    ReadyQueue::Decision decision;
    {
        const TokenGuard guard(*this);
        if (guard && iStatus < 0 && IsRegistered(call))
            remove_handler_i(call.handle, mask);
        if (guard && IsRegistered(call))
        {
            MoveBits(suspend_set_, wait_set_, call.handle);
            decision = m_Ready.DecideIfNew(call.handle, Bits(wait_set_, call.handle));
        }
    }
    Tell(decision, call.pHandler);
    call.pHandler->remove_reference(); // which may delete it
}

// ---------------------------------------------------------------------------------------------------------
// Interest

int TEIOReactor::EnableWriteEvents(ACE_HANDLE handle, const ACE_Event_Handler* pOnly)
{
    return SwitchWriteEvents(handle, true, pOnly);
}

int TEIOReactor::DisableWriteEvents(ACE_HANDLE handle, const ACE_Event_Handler* pOnly)
{
    return SwitchWriteEvents(handle, false, pOnly);
}

int TEIOReactor::SwitchWriteEvents(ACE_HANDLE handle, bool bOn, const ACE_Event_Handler* pOnly)
{
    Switched switched;
    const int iSwitched = SwitchBits(handle, bOn, pOnly, switched);
    if (!switched.bOn)
        Tell(switched.decision, switched.call.pHandler);
    // Mostly it can be written, so it is called without asking the kernel. If the socket takes no more, write events are
    // still on when the call ends, and the kernel is asked then.
    else if (!m_Ready.Post({handle, switched.call.ulGeneration, WRITE, true}))
    {
        const TokenGuard guard(*this);
        if (guard && IsRegistered(switched.call))
            Announce(handle);
    }
    return iSwitched;
}

/// @param switched  set to what is to be told without the token
int TEIOReactor::SwitchBits(ACE_HANDLE handle, bool bOn, const ACE_Event_Handler* pOnly, Switched& switched)
{
    const TokenGuard guard(*this);
    if (!guard)
        return -1;
    // First of all: it knows the range of handles, the sets do not.
    ACE_Event_Handler* pHandler = find_handler_i(handle);
    if (pHandler == nullptr || (pOnly != nullptr && pHandler != pOnly))
        return 0;
    const bool bWaiting = (Bits(wait_set_, handle) & READ) != 0;
    Set& set = bWaiting ? wait_set_ : suspend_set_;
    const ACE_Reactor_Mask bits = Bits(set, handle);
    if ((bits & READ) == 0 || ((bits & WRITE) != 0) == bOn)
        return 0;
    ChangeBits(set, handle, WRITE, bOn);
    if (!bWaiting)
        return 1;
    switched.bOn = bOn;
    switched.call = {handle, m_Ready.Generation(handle), pHandler, false, false};
    if (!bOn)
        switched.decision = m_Ready.DecideIfNew(handle, Bits(wait_set_, handle));
    return 1;
}

ACE_Reactor_Mask TEIOReactor::Bits(Set& set, ACE_HANDLE handle)
{
    if (IsBeyondSets(handle))
        return &set == &wait_set_ ? m_BeyondSets[Place(handle)].waitMask
                                  : m_BeyondSets[Place(handle)].suspendMask;
    return (set.rd_mask_.is_set(handle) != 0 ? READ : 0) | (set.wr_mask_.is_set(handle) != 0 ? WRITE : 0);
}

void TEIOReactor::ChangeBits(Set& set, ACE_HANDLE handle, ACE_Reactor_Mask mask, bool bOn)
{
    if (IsBeyondSets(handle))
    {
        HandleBeyondSets& record = m_BeyondSets[Place(handle)];
        ACE_Reactor_Mask& bits = &set == &wait_set_ ? record.waitMask : record.suspendMask;
        bits = bOn ? bits | mask : bits & ~mask;
        return;
    }
    const auto change = [handle, bOn](ACE_Handle_Set& handles) {
        if (bOn)
            handles.set_bit(handle);
        else
            handles.clr_bit(handle);
    };
    if ((mask & READ) != 0)
        change(set.rd_mask_);
    if ((mask & WRITE) != 0)
        change(set.wr_mask_);
}

void TEIOReactor::MoveBits(Set& from, Set& to, ACE_HANDLE handle)
{
    const ACE_Reactor_Mask bits = Bits(from, handle);
    ChangeBits(to, handle, bits, true);
    ChangeBits(from, handle, bits, false);
}

/// Has the kernel announce of a handle what its bits in the wait set say. A handle that the kernel does not know any more
/// has been closed behind the reactor's back and is dropped. Within the token.
int TEIOReactor::Announce(ACE_HANDLE handle)
{
    const int iResult = m_Ready.Tell(m_Ready.Decide(handle, Bits(wait_set_, handle)));
    if (iResult != 0)
        remove_handler_i(handle, ACE_Event_Handler::ALL_EVENTS_MASK);
    return iResult;
}

/// The same for what has been decided within the token and is told without it: who is woken by it may want it.
void TEIOReactor::Tell(const ReadyQueue::Decision& decision, ACE_Event_Handler* pHandler)
{
    if (m_Ready.Tell(decision) == 0)
        return;
    const TokenGuard guard(*this);
    if (guard && IsRegistered({decision.handle, decision.ulGeneration, pHandler, false, false}))
        remove_handler_i(decision.handle, ACE_Event_Handler::ALL_EVENTS_MASK);
}

int TEIOReactor::suspend_i(ACE_HANDLE handle)
{
    if (find_handler_i(handle) == nullptr)
        return -1;
    // The kernel is not told: an announcement for a suspended handle is dropped, and it makes no second one.
    MoveBits(wait_set_, suspend_set_, handle);
    return 0;
}

int TEIOReactor::resume_i(ACE_HANDLE handle)
{
    if (find_handler_i(handle) == nullptr)
        return -1;
    MoveBits(suspend_set_, wait_set_, handle);
    return Announce(handle);
}

int TEIOReactor::is_suspended_i(ACE_HANDLE handle)
{
    return find_handler_i(handle) != nullptr && Bits(suspend_set_, handle) != 0 ? 1 : 0;
}

// ---------------------------------------------------------------------------------------------------------
// Registrations

ACE_Event_Handler* TEIOReactor::find_handler_i(ACE_HANDLE handle)
{
    if (!IsBeyondSets(handle))
        return handler_rep_.find(handle);
    return Place(handle) < m_BeyondSets.size() ? m_BeyondSets[Place(handle)].pHandler : nullptr;
}

int TEIOReactor::register_handler_i(ACE_HANDLE handle, ACE_Event_Handler* pHandler, ACE_Reactor_Mask mask)
{
    if (pHandler == nullptr || handle < 0)
        return Fail(EINVAL);
    const ACE_Event_Handler* pRegistered = find_handler_i(handle);
    if (pRegistered != nullptr && pRegistered != pHandler)
        return Fail(EEXIST);
    if (pRegistered == nullptr)
        return AddHandler(handle, pHandler, mask);
    const bool bSuspended = is_suspended_i(handle) != 0;
    ChangeBits(bSuspended ? suspend_set_ : wait_set_, handle, mask & (READ | WRITE), true);
    return bSuspended ? 0 : Announce(handle);
}

int TEIOReactor::AddHandler(ACE_HANDLE handle, ACE_Event_Handler* pHandler, ACE_Reactor_Mask mask)
{
    // First: it knows which descriptors there are.
    if (m_Ready.Add(handle, mask) != 0)
        return -1;
    const int iResult = IsBeyondSets(handle) ? AddBeyondSets(handle, pHandler, mask)
                                             : ACE_TP_Reactor::register_handler_i(handle, pHandler, mask);
    if (iResult == 0)
        return 0;
    const int iError = errno;
    m_Ready.Remove(handle);
    return Fail(iError);
}

int TEIOReactor::remove_handler_i(ACE_HANDLE handle, ACE_Reactor_Mask mask)
{
    struct Telling
    {
        const TEIOReactor* const pOuter = t_pTelling;
        explicit Telling(const TEIOReactor* pReactor) { t_pTelling = pReactor; }
        ~Telling() { t_pTelling = pOuter; }
    } const telling(this);
    if (find_handler_i(handle) == nullptr)
        return Fail(ENOENT);
    const ACE_Reactor_Mask bits = Bits(wait_set_, handle) | Bits(suspend_set_, handle);
    if ((bits & ~mask) == 0)
        m_Ready.Remove(handle);
    const int iResult = IsBeyondSets(handle) ? RemoveBeyondSets(handle, mask)
                                             : ACE_TP_Reactor::remove_handler_i(handle, mask);
    if ((bits & ~mask) != 0 && find_handler_i(handle) != nullptr && Bits(wait_set_, handle) != 0)
        Announce(handle);
    return iResult;
}

int TEIOReactor::AddBeyondSets(ACE_HANDLE handle, ACE_Event_Handler* pHandler, ACE_Reactor_Mask mask)
{
    try
    {
        m_BeyondSets.resize(std::max(m_BeyondSets.size(), Place(handle) + 1));
    }
    catch (const std::bad_alloc&)
    {
        return Fail(ENOMEM);
    }
    m_BeyondSets[Place(handle)] = {mask & (READ | WRITE), 0, pHandler};
    pHandler->add_reference();
    return 0;
}

/// As ACE's repository does.
int TEIOReactor::RemoveBeyondSets(ACE_HANDLE handle, ACE_Reactor_Mask mask)
{
    ChangeBits(wait_set_, handle, mask, false);
    ChangeBits(suspend_set_, handle, mask, false);
    HandleBeyondSets& record = m_BeyondSets[Place(handle)];
    ACE_Event_Handler* pHandler = record.pHandler;
    const bool bGone = (record.waitMask | record.suspendMask) == 0;
    if (bGone)
        record.pHandler = nullptr;
    if ((mask & ACE_Event_Handler::DONT_CALL) == 0)
        pHandler->handle_close(handle, mask);
    if (bGone)
        pHandler->remove_reference();
    return 0;
}

// ---------------------------------------------------------------------------------------------------------
// Descriptors closed behind the reactor's back

/// The kernel forgets a descriptor that is closed, silently. So the handles are looked over, a part of them each
/// second: with N handles a closed one is found after 1 + N / HANDLES_A_SECOND seconds.
void TEIOReactor::CheckHandles()
{
    constexpr auto INTERVAL = std::chrono::seconds(1);
    constexpr std::size_t HANDLES_AT_ONCE = 16;
    constexpr std::size_t HANDLES_A_SECOND = 1024;
    const auto tNow = std::chrono::steady_clock::now();
    auto tNext = m_tNextCheck.load();
    if (tNow < tNext || !m_tNextCheck.compare_exchange_strong(tNext, tNow + INTERVAL))
        return;
    for (std::size_t u = 0; u < HANDLES_A_SECOND && DropClosedHandles(HANDLES_AT_ONCE); u += HANDLES_AT_ONCE)
    {}
}

/// Asks the kernel for the next handles. @return false at the end of the handles
bool TEIOReactor::DropClosedHandles(std::size_t uMost)
{
    const TokenGuard guard(*this);
    for (; uMost > 0 && m_uNextToCheck < m_Ready.Handles(); ++m_uNextToCheck)
    {
        const auto handle = static_cast<ACE_HANDLE>(m_uNextToCheck);
        if (find_handler_i(handle) == nullptr || Bits(wait_set_, handle) == 0)
            continue;
        Announce(handle);
        --uMost;
    }
    if (m_uNextToCheck < m_Ready.Handles())
        return true;
    m_uNextToCheck = 0;
    return false;
}
