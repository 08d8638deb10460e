#include "core/ReactorLoop.h"

#include "platform/tarnplatform.h"

#include <ace/Reactor.h>
#include <ace/Signal.h>
#include <ace/Thread.h>

#include <cerrno>
#include <csignal>

void RunReactorLoop(ACE_Reactor& reactor, void (*pfnStarted)(void*), void* pArgument)
{
    constexpr DWORD ERROR_PAUSE_MS = 100;
    ACE_Sig_Set signals(true);
    signals.sig_del(SIGINT);
    signals.sig_del(0);
    const ACE_Sig_Guard signalGuard(&signals);
    reactor.owner(ACE_Thread::self());
    pfnStarted(pArgument);
    while (reactor.reactor_event_loop_done() == 0)
    {
        // A reactor that fails at once, again and again, must not take a processor with it.
        if (reactor.handle_events() == -1 && errno != EINTR && reactor.reactor_event_loop_done() == 0)
            Sleep(ERROR_PAUSE_MS);
    }
}
