#ifndef TARN_CORE_REACTORLOOP_H
#define TARN_CORE_REACTORLOOP_H

#include <ace/config-all.h>

#include <functional>

ACE_BEGIN_VERSIONED_NAMESPACE_DECL
class ACE_Reactor;
ACE_END_VERSIONED_NAMESPACE_DECL

/// A select reactor whose timers follow a steady clock, so that a change of the system's time moves none. The
/// caller owns it. @return null when it cannot be created
ACE_Reactor* NewTimerReactor();

/// Runs a reactor's event loop on the calling thread until it is ended, with all signals but SIGINT blocked.
/// @param started    called once the thread owns the reactor
/// @param afterEach  called after each event, without the reactor's token; may be empty
void RunReactorLoop(ACE_Reactor& reactor, const std::function<void()>& started,
                    const std::function<void()>& afterEach = {});

#endif
