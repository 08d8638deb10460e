#include "core/SyncWaits.h"

StopGate& SyncWaits()
{
    // Never destroyed: a thread may be waiting while statics are.
    static auto& gate = *new StopGate("TEAdapterManager::Destroy");
    return gate;
}
