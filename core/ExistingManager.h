#ifndef TARN_CORE_EXISTINGMANAGER_H
#define TARN_CORE_EXISTINGMANAGER_H

#include "core/StopGate.h"

class TEAdapterManager;

/// The adapter manager, if there is one, kept from being destroyed for the lifetime of this: for threads that may be
/// at the end of something while the library is stopped, and that must not bring a new manager about. The stop waits
/// for it, so nothing may be waited for meanwhile but the correlation lock.
class ExistingManager
{
public:
    ExistingManager();
    ExistingManager(const ExistingManager&) = delete;
    ExistingManager& operator=(const ExistingManager&) = delete;

    TEAdapterManager* Get() const { return m_pManager; }

    /// Says which manager there is. Null: waits until nobody uses the last one, nor is inside an adapter of it by
    /// ManagerInCall.
    static void Set(TEAdapterManager* pManager);

private:
    const StopGate::Pass m_Pass;
    TEAdapterManager* const m_pManager;
};

/// The same for a call of an adapter, by a thread that may have been started after the stop had waited for its like. What
/// the call waits for, the stop has let go before it waits for the call.
class ManagerInCall
{
public:
    ManagerInCall();
    ManagerInCall(const ManagerInCall&) = delete;
    ManagerInCall& operator=(const ManagerInCall&) = delete;

    TEAdapterManager* Get() const { return m_pManager; }

private:
    const StopGate::Pass m_Pass;
    TEAdapterManager* const m_pManager;
};

#endif
