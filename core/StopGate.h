#ifndef TARN_CORE_STOPGATE_H
#define TARN_CORE_STOPGATE_H

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <mutex>

/// Lets work in until the stop, which shuts the gate and waits for the work inside. Work that comes later, also from
/// a thread that is inside already, is turned away and so cannot wait for what the stop holds.
class StopGate
{
public:
    /// @param pszStop  name of the stop, for the log; a literal
    explicit StopGate(const char* pszStop)
        : m_pszStop(pszStop)
    {}
    StopGate(const StopGate&) = delete;
    StopGate& operator=(const StopGate&) = delete;

    /// Passes the gate for its own lifetime, if it is open; false when it is shut. Never waits.
    class Pass
    {
    public:
        explicit Pass(StopGate& gate)
            : m_Gate(gate)
            , m_bInside(gate.Enter())
        {}
        ~Pass()
        {
            if (m_bInside)
                m_Gate.Leave();
        }
        Pass(const Pass&) = delete;
        Pass& operator=(const Pass&) = delete;

        explicit operator bool() const { return m_bInside; }

    private:
        StopGate& m_Gate;
        const bool m_bInside;
    };

    /// Lets work in again, after a stop.
    void Open();
    /// Shuts the gate, without waiting.
    void Shut();
    /// Shuts the gate and waits until nobody is inside, with a line in the log every second. Not to be
    /// called by somebody inside, nor with a lock held that they may want.
    void ShutAndWait();
    bool IsShut() const;

private:
    bool Enter();
    void Leave();

    const char* const m_pszStop;
    static constexpr std::uint32_t SHUT = 1U << 31U;

    std::mutex m_Mutex;
    std::condition_variable m_Left;
    // How many are inside, and SHUT. An open gate is passed without the mutex; it is opened and shut under it, and a shut
    // one is left under it, so that the one who waits may destroy the gate when nobody is inside.
    std::atomic<std::uint32_t> m_uState{0};
};

#endif
