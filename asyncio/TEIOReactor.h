#ifndef TARN_ASYNCIO_TEIOREACTOR_H
#define TARN_ASYNCIO_TEIOREACTOR_H

#include "asyncio/ReadyQueue.h"
#include "core/StoppableReactor.h"
#include "tarnadapterframe/TarnLock.h"

#include <ace/TP_Reactor.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <vector>

/// The reactor of the I/O threads: ACE's thread-pool reactor with a wait of its own. Any number of threads wait
/// side by side, in epoll(7) and without the reactor's token, so that who wants the token wakes nobody. Handles that
/// the kernel announces are served in the order in which they become ready, whatever their number; those whose write
/// events have just been switched on have every second turn of a thread.
///
/// **One call at a time.** The kernel announces a handle once and then keeps silent about it (EPOLLONESHOT). A call
/// begins by moving the handle from the wait set to the suspend set, and ends by moving it back, each under the token;
/// then the kernel is told what to announce next, unless it has been asked for just that. A thread that comes with an
/// announcement for a handle that is suspended drops it: the end of the call under way asks the kernel again, which
/// looks at the handle anew.
///
/// **Registrations** have a generation each. Announcements carry it, and a call remembers it: a handler may be
/// unregistered and registered again meanwhile, for a new descriptor with the old number, which an old announcement
/// must not serve and an old call must not take down.
///
/// **Handles from FD_SETSIZE on**, which ACE's repository and sets cannot hold, have their place in m_BeyondSets; for the
/// others ACE's own are used. The operations with `_i` are ACE's extension points, called with the token held.
///
/// Timers and notifications with a handler are not served; the reactor of the timer thread is for these.
/// ACE's operations on masks, on wake-ups and on all handles change its sets only: the kernel is not told. Interest is
/// changed by registering and removing, by suspending and resuming single handles, and by the two operations here.
class TEIOReactor : public StoppableReactor<ACE_TP_Reactor>
{
public:
    /// Built only when ReactorDescriptorsAvailable() says so; ACE aborts the process otherwise. When the system gives
    /// no descriptors for the wait, initialized() is false.
    TEIOReactor();
    ~TEIOReactor() override;
    TEIOReactor(const TEIOReactor&) = delete;
    TEIOReactor& operator=(const TEIOReactor&) = delete;

    /// Switches write events of a registered handle on or off. Switching on puts the handle among those that are ready,
    /// without asking the kernel, and wakes one waiting thread unless one is on its way. During a handler
    /// call of the handle the change takes effect when the call ends. Any thread; takes the token, so the caller must
    /// not hold a lock that a thread with the token wants.
    /// @return 1 switched now; 0 nothing to switch, or not registered (any number may be given);
    ///         -1 the token could not be taken
    /// @param pOnly  the handler that means it: nothing is switched for another one that has the number now; null: whoever
    int EnableWriteEvents(ACE_HANDLE handle, const ACE_Event_Handler* pOnly = nullptr);
    int DisableWriteEvents(ACE_HANDLE handle, const ACE_Event_Handler* pOnly = nullptr);

    /// A handler call under way.
    struct Call
    {
        ACE_HANDLE handle = ACE_INVALID_HANDLE;
        std::uint32_t ulGeneration = 0;
        ACE_Event_Handler* pHandler = nullptr; // with a reference
        bool bWrite = false;
        bool bRead = false;
    };
    /// Instead of switching write events on: puts the calling thread, which may be any, into a call of the handle until
    /// EndOwnCall, so that it writes by itself; only if a thread of the reactor would have to be woken for it. Both take the
    /// token, as above.
    /// @param pHandler  must be the handle's
    /// @return false when there is no call: another one is under way, write events are on, a thread of the reactor is being
    ///         woken already, all are busy, or none runs; true: it must be ended
    bool BeginOwnCall(ACE_HANDLE handle, ACE_Event_Handler* pHandler, Call& call);
    void EndOwnCall(const Call& call);

    /// Waits for one handle and makes its calls: handle_output when it may be written and write events are on, then
    /// handle_input when there is something to read. A result above 0 is called again at once, one below 0 drops the
    /// handler for that event.
    /// @param pMaxWait  null, or a second and more: about a second, so that the handles are looked over, see CheckHandles
    /// @return handles served, 0 or 1; -1 with the error (EINTR; ESHUTDOWN when the loops have been ended)
    int handle_events(ACE_Time_Value* pMaxWait = nullptr) override;
    using StoppableReactor::handle_events;

    /// Has one of the waiting threads, or the next that is going to wait, return from handle_events.
    void Wake();

    bool initialized() override;
    /// Ends all waits, now and later, when iStop is not 0. For good: a reactor is not started again.
    void deactivate(int iStop) override;
    /// ACE's token calls it without a handler for whoever has to wait for it, to get the holder out of its wait; here nobody
    /// waits while holding it. @return 0; -1 (ENOTSUP) with a handler
    int notify(ACE_Event_Handler* pHandler = nullptr, ACE_Reactor_Mask mask = ACE_Event_Handler::EXCEPT_MASK,
               ACE_Time_Value* pTimeout = nullptr) override;

protected:
    using ACE_TP_Reactor::register_handler_i;
    using ACE_TP_Reactor::remove_handler_i;
    /// @return 0; -1 with the error: EEXIST another handler has the handle, EPERM no such descriptor can be waited
    ///         for, EBADF, ENOSPC, ...
    int register_handler_i(ACE_HANDLE handle, ACE_Event_Handler* pHandler, ACE_Reactor_Mask mask) override;
    int remove_handler_i(ACE_HANDLE handle, ACE_Reactor_Mask mask) override;
    int suspend_i(ACE_HANDLE handle) override;
    int resume_i(ACE_HANDLE handle) override;
    int is_suspended_i(ACE_HANDLE handle) override;
    ACE_Event_Handler* find_handler_i(ACE_HANDLE handle) override;

private:
    using Set = ACE_Select_Reactor_Handle_Set;

    class TokenGuard;

    /// What ACE's repository and sets would hold of a handle if they could.
    struct HandleBeyondSets
    {
        ACE_Reactor_Mask waitMask = 0;
        ACE_Reactor_Mask suspendMask = 0;
        ACE_Event_Handler* pHandler = nullptr;
    };

    /// What is left to do when write events have been switched: in the wait set, or else nothing.
    struct Switched
    {
        bool bOn = false;
        Call call; // for whom; without a reference
        ReadyQueue::Decision decision;
    };

    bool IsRegistered(const Call& call);
    void Suspend(const Call& call);
    bool BeginCall(const ReadyQueue::Ready& ready, Call& call);
    bool MayGoOn(const Call& call);
    void EndCall(const Call& call, int iStatus, ACE_Reactor_Mask mask);
    void Serve(const ReadyQueue::Ready& ready);

    int SwitchWriteEvents(ACE_HANDLE handle, bool bOn, const ACE_Event_Handler* pOnly);
    int SwitchBits(ACE_HANDLE handle, bool bOn, const ACE_Event_Handler* pOnly, Switched& switched);
    int AddHandler(ACE_HANDLE handle, ACE_Event_Handler* pHandler, ACE_Reactor_Mask mask);
    int AddBeyondSets(ACE_HANDLE handle, ACE_Event_Handler* pHandler, ACE_Reactor_Mask mask);
    int RemoveBeyondSets(ACE_HANDLE handle, ACE_Reactor_Mask mask);
    ACE_Reactor_Mask Bits(Set& set, ACE_HANDLE handle);
    void ChangeBits(Set& set, ACE_HANDLE handle, ACE_Reactor_Mask mask, bool bOn);
    void MoveBits(Set& from, Set& to, ACE_HANDLE handle);
    int Announce(ACE_HANDLE handle);
    void Tell(const ReadyQueue::Decision& decision, ACE_Event_Handler* pHandler);
    void CheckHandles();
    bool DropClosedHandles(std::size_t uMost);

    ReadyQueue m_Ready; // its owner's lock is the token

    TarnThreadMutex m_TokenGate; // taken before the token, see TokenGuard

    // Guarded by the token. From FD_SETSIZE on; grows as handles are registered.
    std::vector<HandleBeyondSets> m_BeyondSets;
    std::size_t m_uNextToCheck = 0;

    std::atomic<std::chrono::steady_clock::time_point> m_tNextCheck;
};

#endif
