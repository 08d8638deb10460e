#ifndef TARN_PLATFORM_WAITABLE_H
#define TARN_PLATFORM_WAITABLE_H

#include "platform/KernelObject.h"

#include <condition_variable>
#include <mutex>
#include <vector>

/// An object that threads wait for. All of them share one lock, a leaf: they are few, and a wait for many looks at
/// them as of one moment.
class Waitable : public KernelObject
{
public:
    Waitable(bool bManualReset, bool bSignalled)
        : m_bManualReset(bManualReset)
        , m_bSignalled(bSignalled)
    {}

    void Signal();
    void Reset();
    bool IsSignalled() const;
    void OnClosed() override;

    /// Waits for any one of them, the first of those signalled. @return as WaitForMultipleObjects
    static DWORD WaitForAny(const std::vector<std::shared_ptr<Waitable>>& objects, DWORD dwMilliseconds);

private:
    struct Waiter
    {
        std::condition_variable woken;
    };
    class Registration;

    static std::mutex& Mutex();
    static DWORD Look(const std::vector<std::shared_ptr<Waitable>>& objects);
    void Wake();

    const bool m_bManualReset;
    // Guarded by Mutex().
    bool m_bSignalled;
    bool m_bClosed = false;
    std::vector<Waiter*> m_Waiters;
};

#endif
