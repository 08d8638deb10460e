#include "core/ReactorLoop.h"

#include "core/ActiveThreads.h"
#include "core/ReactorDescriptors.h"
#include "core/StoppableReactor.h"
#include "platform/tarnplatform.h"

#include <ace/High_Res_Timer.h>
#include <ace/Reactor.h>
#include <ace/Select_Reactor.h>
#include <ace/Signal.h>
#include <ace/Thread.h>
#include <ace/Timer_Queue.h>

#include <cerrno>
#include <csignal>
#include <memory>
#include <new>

ACE_Reactor* NewTimerReactor()
{
    if (!ReactorDescriptorsAvailable())
        return nullptr;
    std::unique_ptr<ACE_Select_Reactor> pImpl(new (std::nothrow) StoppableReactor<ACE_Select_Reactor>);
    if (pImpl == nullptr || pImpl->initialized() == 0)
        return nullptr;
    auto* pReactor = new (std::nothrow) ACE_Reactor(pImpl.get(), true);
    if (pReactor == nullptr)
        return nullptr;
    static_cast<void>(pImpl.release()); // the front deletes it
    pReactor->timer_queue()->gettimeofday(&ACE_High_Res_Timer::gettimeofday_hr);
    return pReactor;
}

void RunReactorLoop(ACE_Reactor& reactor, const std::function<void()>& started,
                    const std::function<void()>& afterEach)
{
    constexpr DWORD ERROR_PAUSE_MS = 100;
    ACE_Sig_Set signals(true);
    signals.sig_del(SIGINT);
    signals.sig_del(0);
    const ACE_Sig_Guard signalGuard(&signals);
    reactor.owner(ACE_Thread::self());
    started();
    for (;;)
    {
        ActiveThreads::AwaitTurn();
        if (reactor.reactor_event_loop_done() != 0)
            return;
        // A reactor that fails at once, again and again, must not take a processor with it.
        if (reactor.handle_events() == -1 && errno != EINTR && reactor.reactor_event_loop_done() == 0)
            Sleep(ERROR_PAUSE_MS);
        if (afterEach)
            afterEach();
    }
}
