#ifndef TARN_CORE_SYNCWAITS_H
#define TARN_CORE_SYNCWAITS_H

#include "core/StopGate.h"

#include <functional>
#include <mutex>

/// The threads that send and wait for the answers, in ticks of a second at most. The stop turns new ones away first
/// of all, wakes those that wait, and waits until they have left before anything that they use is gone; the next
/// start lets them in again.
///
/// Any thread. Lock order: m_Mutex, then what a wake takes, then the gate's own.
class SyncWaits
{
public:
    static SyncWaits& Instance();

    SyncWaits(const SyncWaits&) = delete;
    SyncWaits& operator=(const SyncWaits&) = delete;

    /// One thread's stay, from before the request is sent until it is forgotten.
    class Stay
    {
    public:
        /// @param wake  makes the thread look whether the waits are shut; called with m_Mutex held, by the thread that
        ///              shuts them, while this object lives
        explicit Stay(std::function<void()> wake);
        ~Stay();
        Stay(const Stay&) = delete;
        Stay& operator=(const Stay&) = delete;

        /// False when the waits are shut.
        explicit operator bool() const { return static_cast<bool>(m_Pass); }

    private:
        friend class SyncWaits;
        const StopGate::Pass m_Pass;
        const std::function<void()> m_Wake;
        Stay* m_pNext = nullptr; // guarded by m_Mutex, as the next
        Stay** m_ppSelf = nullptr;
    };

    /// While one lives, the calling thread sends the request for whose answer it is going to wait: what it does by itself
    /// instead of waking a thread for it delays nobody.
    class Asking
    {
    public:
        Asking();
        ~Asking();
        Asking(const Asking&) = delete;
        Asking& operator=(const Asking&) = delete;
    };
    /// Of the calling thread.
    static bool IsAsking();

    void Open();
    /// Turns away and wakes, without waiting.
    void Shut();
    /// Shuts and waits until all have left. Not to be called during a stay.
    void ShutAndWait();
    bool IsShut();

private:
    SyncWaits() = default;

    StopGate m_Gate{"TEAdapterManager::Destroy"};
    std::mutex m_Mutex;
    Stay* m_pStays = nullptr; // guarded by m_Mutex: linked through the stays, so that a stay needs no memory
};

#endif
