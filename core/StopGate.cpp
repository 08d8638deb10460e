#include "core/StopGate.h"

#include "tarnadapterframe/TarnAdapterTrace.h"

#include <chrono>

void StopGate::Open()
{
    const std::lock_guard<std::mutex> guard(m_Mutex);
    m_uState &= ~SHUT;
}

void StopGate::Shut()
{
    const std::lock_guard<std::mutex> guard(m_Mutex);
    m_uState |= SHUT;
}

void StopGate::ShutAndWait()
{
    std::unique_lock<std::mutex> lock(m_Mutex);
    m_uState |= SHUT;
    while (!m_Left.wait_for(lock, std::chrono::seconds(1), [this] { return m_uState == SHUT; }))
    {
        const auto iInside = static_cast<int>(m_uState & ~SHUT);
        lock.unlock(); // the log is the host's
        TarnAdapterFrmtTrace(3, "%s, waiting for %d calls to return\n", m_pszStop, iInside);
        lock.lock();
    }
}

bool StopGate::IsShut() const
{
    return (m_uState & SHUT) != 0;
}

bool StopGate::Enter()
{
    std::uint32_t uState = m_uState;
    while ((uState & SHUT) == 0)
        if (m_uState.compare_exchange_weak(uState, uState + 1))
            return true;
    return false;
}

void StopGate::Leave()
{
    std::uint32_t uState = m_uState;
    while ((uState & SHUT) == 0)
        if (m_uState.compare_exchange_weak(uState, uState - 1))
            return;
    const std::lock_guard<std::mutex> guard(m_Mutex);
    --m_uState;
    m_Left.notify_all();
}
