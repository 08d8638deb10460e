#ifndef TARN_CORE_SYNCWAITS_H
#define TARN_CORE_SYNCWAITS_H

#include "core/StopGate.h"

/// Passed by threads that send and wait for the answers, in ticks of a second at most: from before the request is sent
/// until it is forgotten. The stop shuts it first, which the waits see at their next tick, and waits for them before
/// anything that they use is gone; the next start opens it.
StopGate& SyncWaits();

#endif
