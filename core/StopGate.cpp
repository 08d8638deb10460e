#include "core/StopGate.h"

#include "tarnadapterframe/TarnAdapterTrace.h"

#include <chrono>

void StopGate::Open()
{
    const std::lock_guard<std::mutex> guard(m_Mutex);
    m_bShut = false;
}

void StopGate::Shut()
{
    const std::lock_guard<std::mutex> guard(m_Mutex);
    m_bShut = true;
}

void StopGate::ShutAndWait()
{
    std::unique_lock<std::mutex> lock(m_Mutex);
    m_bShut = true;
    while (!m_Left.wait_for(lock, std::chrono::seconds(1), [this] { return m_iInside == 0; }))
    {
        const int iInside = m_iInside;
        lock.unlock(); // the log is the host's
        TarnAdapterFrmtTrace(3, "%s, waiting for %d calls to return\n", m_pszStop, iInside);
        lock.lock();
    }
}

bool StopGate::IsShut()
{
    const std::lock_guard<std::mutex> guard(m_Mutex);
    return m_bShut;
}

bool StopGate::Enter()
{
    const std::lock_guard<std::mutex> guard(m_Mutex);
    if (m_bShut)
        return false;
    ++m_iInside;
    return true;
}

void StopGate::Leave()
{
    const std::lock_guard<std::mutex> guard(m_Mutex);
    --m_iInside;
    m_Left.notify_all();
}
