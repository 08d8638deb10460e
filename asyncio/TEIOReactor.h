#ifndef TARN_ASYNCIO_TEIOREACTOR_H
#define TARN_ASYNCIO_TEIOREACTOR_H

#include "core/StoppableReactor.h"

#include <ace/TP_Reactor.h>

#include <sys/select.h>

#include <array>
#include <cstdint>

/// The reactor of the I/O threads: ACE's thread-pool reactor, with write interest that is switched in place,
/// even service for all connections, and registrations that an old handler call cannot take down.
///
/// One thread waits, the leader; the others wait for the reactor's token. A handle is not dispatched again
/// while one of its handler calls runs. The operations with `_i`, and clear_dispatch_mask, are ACE's
/// extension points; ACE calls them with the token held.
class TEIOReactor : public StoppableReactor<ACE_TP_Reactor>
{
public:
    /// Built only when ReactorDescriptorsAvailable() says so; ACE aborts the process otherwise.
    TEIOReactor();

    /// Switches write events of a registered handle on or off, without waking anybody but the leader, which
    /// waits again with the new interest. During a handler call of the handle the change takes effect when
    /// the call ends. Any thread; takes the token, so the caller must not hold a lock that a thread with the
    /// token wants.
    /// @return 1 switched now; 0 nothing to switch, or not registered (any number may be given);
    ///         -1 the token could not be taken
    int EnableWriteEvents(ACE_HANDLE handle);
    int DisableWriteEvents(ACE_HANDLE handle);

    /// Wakes the leader, in one system call where ACE takes five: each time somebody wants the token. With a
    /// handler it is ACE's notification.
    int notify(ACE_Event_Handler* pHandler = nullptr, ACE_Reactor_Mask mask = ACE_Event_Handler::EXCEPT_MASK,
               ACE_Time_Value* pTimeout = nullptr) override;

protected:
    // ACE forgets every remembered ready handle after each event and waits again from the lowest one up, so
    // that busy low handles starve the others. Here only the given handle is forgotten.
    void clear_dispatch_mask(ACE_HANDLE handle, ACE_Reactor_Mask mask) override;

    // ACE blocks all signals around this; the I/O threads have them blocked already.
    int any_ready(ACE_Select_Reactor_Handle_Set& waitSet) override;

    // After a handler call ACE drops or resumes the handle when the same handler is still registered for it.
    // That is not enough: the handler may have been unregistered and registered again meanwhile, for a new
    // descriptor with the old number. Each registration has a generation, remembered when a call begins.
    using ACE_TP_Reactor::register_handler_i;
    using ACE_TP_Reactor::remove_handler_i;
    int register_handler_i(ACE_HANDLE handle, ACE_Event_Handler* pHandler, ACE_Reactor_Mask mask) override;
    int remove_handler_i(ACE_HANDLE handle, ACE_Reactor_Mask mask) override;
    int suspend_i(ACE_HANDLE handle) override;
    int resume_i(ACE_HANDLE handle) override;

private:
    int SwitchWriteEvents(ACE_HANDLE handle, bool bOn);
    bool IsStaleCall(ACE_HANDLE handle) const;

    const ACE_HANDLE m_WakeHandle;
    // Guarded by the token. By handle; only handles that handler_rep_ knows are looked up.
    std::array<std::uint32_t, FD_SETSIZE> m_Generation{};
};

#endif
