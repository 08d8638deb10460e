#include "core/SyncWaits.h"

#include <utility>

namespace {

thread_local int t_nAsking = 0;

} // namespace

SyncWaits& SyncWaits::Instance()
{
    // Never destroyed: a thread may be waiting while statics are.
    static auto& waits = *new SyncWaits;
    return waits;
}

SyncWaits::Stay::Stay(std::function<void()> wake)
    : m_Pass(Instance().m_Gate)
    , m_Wake(std::move(wake))
{
    if (!m_Pass)
        return;
    SyncWaits& waits = Instance();
    const std::lock_guard<std::mutex> guard(waits.m_Mutex);
    m_pNext = waits.m_pStays;
    m_ppSelf = &waits.m_pStays;
    if (m_pNext != nullptr)
        m_pNext->m_ppSelf = &m_pNext;
    waits.m_pStays = this;
}

SyncWaits::Stay::~Stay()
{
    if (!m_Pass)
        return;
    const std::lock_guard<std::mutex> guard(Instance().m_Mutex);
    *m_ppSelf = m_pNext;
    if (m_pNext != nullptr)
        m_pNext->m_ppSelf = m_ppSelf;
}

SyncWaits::Asking::Asking()
{
    ++t_nAsking;
}

SyncWaits::Asking::~Asking()
{
    --t_nAsking;
}

bool SyncWaits::IsAsking()
{
    return t_nAsking != 0;
}

void SyncWaits::Open()
{
    m_Gate.Open();
}

void SyncWaits::Shut()
{
    // First: a stay that is not in the list yet looks at the gate before it waits.
    m_Gate.Shut();
    const std::lock_guard<std::mutex> guard(m_Mutex);
    for (const Stay* pStay = m_pStays; pStay != nullptr; pStay = pStay->m_pNext)
        pStay->m_Wake();
}

void SyncWaits::ShutAndWait()
{
    Shut();
    m_Gate.ShutAndWait();
}

bool SyncWaits::IsShut()
{
    return m_Gate.IsShut();
}
