#include "core/ExistingManager.h"

#include "tarnadapterframe/TarnAdapterTrace.h"

#include <chrono>
#include <condition_variable>
#include <mutex>

namespace {

struct Uses
{
    std::mutex mutex; // a leaf
    std::condition_variable left;
    // Guarded by the mutex.
    TEAdapterManager* pManager = nullptr;
    int nInside = 0;
};

// Never destroyed: messages may be statics of the host.
Uses& TheUses()
{
    static auto& uses = *new Uses;
    return uses;
}

} // namespace

ExistingManager::ExistingManager()
{
    Uses& uses = TheUses();
    const std::lock_guard<std::mutex> guard(uses.mutex);
    m_pManager = uses.pManager;
    uses.nInside += m_pManager != nullptr ? 1 : 0;
}

ExistingManager::~ExistingManager()
{
    if (m_pManager == nullptr)
        return;
    Uses& uses = TheUses();
    const std::lock_guard<std::mutex> guard(uses.mutex);
    --uses.nInside;
    uses.left.notify_all();
}

void ExistingManager::Set(TEAdapterManager* pManager)
{
    Uses& uses = TheUses();
    std::unique_lock<std::mutex> lock(uses.mutex);
    uses.pManager = pManager;
    if (pManager != nullptr)
        return;
    while (!uses.left.wait_for(lock, std::chrono::seconds(1), [&] { return uses.nInside == 0; }))
    {
        const int nInside = uses.nInside;
        lock.unlock();
        TarnAdapterFrmtTrace(3, "TEAdapterManager::Destroy, waiting for %d users of the manager\n", nInside);
        lock.lock();
    }
}
