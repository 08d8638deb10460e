#ifndef TARN_CORE_REACTORLOOP_H
#define TARN_CORE_REACTORLOOP_H

#include <ace/config-all.h>

ACE_BEGIN_VERSIONED_NAMESPACE_DECL
class ACE_Reactor;
ACE_END_VERSIONED_NAMESPACE_DECL

/// Runs a reactor's event loop on the calling thread until it is ended, with all signals but SIGINT blocked.
/// @param pfnStarted  called with pArgument when the thread owns the reactor
void RunReactorLoop(ACE_Reactor& reactor, void (*pfnStarted)(void*), void* pArgument);

#endif
