#include "core/SyncWaits.h"

#include "tarnadapterframe/TarnAdapterTrace.h"

#include <chrono>
#include <condition_variable>
#include <mutex>

namespace {

struct Waits
{
    std::mutex mutex; // a leaf
    std::condition_variable left;
    // Guarded by the mutex.
    bool bShut = false;
    int nInside = 0;
};

// Never destroyed: a thread may be waiting while statics are.
Waits& TheWaits()
{
    static auto& waits = *new Waits;
    return waits;
}

} // namespace

SyncWaits::Inside::Inside()
{
    Waits& waits = TheWaits();
    const std::lock_guard<std::mutex> guard(waits.mutex);
    m_bAdmitted = !waits.bShut;
    waits.nInside += m_bAdmitted ? 1 : 0;
}

SyncWaits::Inside::~Inside()
{
    if (!m_bAdmitted)
        return;
    Waits& waits = TheWaits();
    const std::lock_guard<std::mutex> guard(waits.mutex);
    --waits.nInside;
    waits.left.notify_all();
}

bool SyncWaits::IsStopping()
{
    Waits& waits = TheWaits();
    const std::lock_guard<std::mutex> guard(waits.mutex);
    return waits.bShut;
}

void SyncWaits::Open()
{
    Waits& waits = TheWaits();
    const std::lock_guard<std::mutex> guard(waits.mutex);
    waits.bShut = false;
}

void SyncWaits::Shut()
{
    Waits& waits = TheWaits();
    const std::lock_guard<std::mutex> guard(waits.mutex);
    waits.bShut = true;
}

void SyncWaits::WaitUntilNone()
{
    Waits& waits = TheWaits();
    std::unique_lock<std::mutex> lock(waits.mutex);
    while (!waits.left.wait_for(lock, std::chrono::seconds(1), [&] { return waits.nInside == 0; }))
    {
        const int nInside = waits.nInside;
        lock.unlock();
        TarnAdapterFrmtTrace(3, "TEAdapterManager::Destroy, waiting for %d threads that wait for answers\n",
                             nInside);
        lock.lock();
    }
}
