#include "tarnadapterframe/TarnProtocolAdapter.h"

#include "core/LivingAdapters.h"

#include <mutex>
#include <unordered_set>

namespace {

struct LivingAdapters
{
    std::mutex mutex;                                        // a leaf
    std::unordered_set<const TarnProtocolAdapter*> adapters; // guarded by the mutex
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
    const std::lock_guard<std::mutex> guard(Living().mutex);
    return Living().adapters.count(pAdapter) != 0 && pAdapter->GetProtocolAdapterID() == ulProtocolID;
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
