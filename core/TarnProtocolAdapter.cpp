#include "tarnadapterframe/TarnProtocolAdapter.h"

TarnProtocolAdapter::TarnProtocolAdapter(std::uint32_t ulProtocolID)
    : m_ulProtocolID(ulProtocolID)
{}

TarnProtocolAdapter::~TarnProtocolAdapter() = default;

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
