#include "core/ExistingManager.h"

#include <atomic>

namespace {

std::atomic<TEAdapterManager*> g_pManager{nullptr};

// Never destroyed: messages may be statics of the host, and threads may outlive the statics.
StopGate& Uses()
{
    static auto& gate = *new StopGate("TEAdapterManager::Destroy");
    return gate;
}

StopGate& Calls()
{
    static auto& gate = *new StopGate("TEAdapterManager::Destroy");
    return gate;
}

} // namespace

ExistingManager::ExistingManager()
    : m_Pass(Uses())
    , m_pManager(m_Pass ? g_pManager.load() : nullptr)
{}

ManagerInCall::ManagerInCall()
    : m_Pass(Calls())
    , m_pManager(m_Pass ? ExistingManager().Get() : nullptr)
{}

void ExistingManager::Set(TEAdapterManager* pManager)
{
    if (pManager == nullptr)
    {
        Uses().ShutAndWait();
        Calls().ShutAndWait();
    }
    g_pManager = pManager;
    if (pManager == nullptr)
        return;
    Uses().Open();
    Calls().Open();
}
