#include "connection/CreateTransport.h"

#include "connection/TarnSerialConnectorImpl.h"
#include "connection/TarnTCPConnectorImpl.h"
#include "connection/TarnTCPSSLConnectorImpl.h"
#include "connection/TarnTP4ConnectorImpl.h"
#include "tarnadapterframe/TarnAdapterTrace.h"

#include <new>

namespace {

const char* TransportName(ECommuProtocolType eType)
{
    switch (eType)
    {
    case TCP_TYPE:
        return "TarnTCPConnectorImpl";
    case TP4_TYPE:
        return "TarnTP4ConnectorImpl";
    case SERIAL_TYPE:
        return "TarnSerialConnectorImpl";
    case TCP_SSL_TYPE:
        return "TarnTCPSSLConnectorImpl";
    default:
        return nullptr;
    }
}

std::unique_ptr<TarnConnectorImpl> New(ECommuProtocolType eType, TarnConnector* pOwner)
{
    switch (eType)
    {
    case TCP_TYPE:
        return std::make_unique<TarnTCPConnectorImpl>(pOwner);
    case TP4_TYPE:
        return std::make_unique<TarnTP4ConnectorImpl>(pOwner);
    case SERIAL_TYPE:
        return std::make_unique<TarnSerialConnectorImpl>(pOwner);
    case TCP_SSL_TYPE:
        return std::make_unique<TarnTCPSSLConnectorImpl>(pOwner);
    default:
        return nullptr;
    }
}

} // namespace

bool IsTransportType(ECommuProtocolType eType)
{
    return TransportName(eType) != nullptr;
}

std::unique_ptr<TarnConnectorImpl> CreateTransport(ECommuProtocolType eType, TarnConnector* pOwner)
{
    if (!IsTransportType(eType))
        return nullptr;
    std::unique_ptr<TarnConnectorImpl> pImpl;
    try
    {
        pImpl = New(eType, pOwner);
    }
    catch (const std::bad_alloc&)
    {}
    if (pImpl == nullptr)
        TarnAdapterFrmtTrace(1, "new %s error!\n", TransportName(eType));
    return pImpl;
}
