#include "tarnadapterframe/TarnProtocolAdapter.h"

#include "core/LivingAdapters.h"

#include <atomic>
#include <mutex>
#include <unordered_set>

namespace {

struct LivingAdapters
{
    std::mutex mutex;                                        // a leaf
    std::unordered_set<const TarnProtocolAdapter*> adapters; // guarded by the mutex
    std::atomic<std::uint64_t> uGone{0};                     // counted within the mutex
};

// Never destroyed: adapters of the host may be statics.
LivingAdapters& Living()
{
    static auto& living = *new LivingAdapters;
    return living;
}

} // namespace

bool IsLivingAdapter(const TarnProtocolAdapter* pAdapter, std::uint32_t ulProtocolID)
{
    // Each thread mostly asks for the same one, for every message that it sends.
    struct Found
    {
        std::uint64_t uGone = 0;
        const TarnProtocolAdapter* pAdapter = nullptr;
        std::uint32_t ulProtocolID = 0;
    };
    thread_local Found t_Found;
    LivingAdapters& living = Living();
    if (pAdapter != nullptr && t_Found.pAdapter == pAdapter && t_Found.uGone == living.uGone)
        return t_Found.ulProtocolID == ulProtocolID;
    const std::lock_guard<std::mutex> guard(living.mutex);
    if (living.adapters.count(pAdapter) == 0)
        return false;
    t_Found = {living.uGone, pAdapter, pAdapter->GetProtocolAdapterID()};
    return t_Found.ulProtocolID == ulProtocolID;
}

TarnProtocolAdapter::TarnProtocolAdapter(std::uint32_t ulProtocolID)
    : m_ulProtocolID(ulProtocolID)
{
    const std::lock_guard<std::mutex> guard(Living().mutex);
    Living().adapters.insert(this);
}

TarnProtocolAdapter::~TarnProtocolAdapter()
{
    const std::lock_guard<std::mutex> guard(Living().mutex);
    Living().adapters.erase(this);
    ++Living().uGone;
}

std::uint32_t TarnProtocolAdapter::RequireMessageSerial()
{
    const TarnGuard guard(m_SerialLock);
    return ++m_ulSerialCounter;
}

int TarnProtocolAdapter::CancelMessage(TEMessage* /*pMessage*/)
{
    return -1;
}

int TarnProtocolAdapter::HandleMessage(TEMessage* /*pMessage*/)
{
    return -1;
}

int TarnProtocolAdapter::SendMessage(void* /*pParam*/, TEMessage* /*pMessage*/)
{
    return -1;
}

int TarnProtocolAdapter::SendMessage(TEMessage* /*pMessage*/)
{
    return -1;
}

int TarnProtocolAdapter::CheckMessageValid(void* /*pHandle*/, std::vector<unsigned char>& /*data*/)
{
    return -1;
}

std::uint32_t TarnProtocolAdapter::GetProtocolAdapterID() const
{
    return m_ulProtocolID;
}
