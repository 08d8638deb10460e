#ifndef TARN_CONNECTION_CREATETRANSPORT_H
#define TARN_CONNECTION_CREATETRANSPORT_H

#include "tarnadapterframe/ConnectionTypes.h"

#include <memory>

class TarnConnector;
class TarnConnectorImpl;

/// True for the types that name a transport.
bool IsTransportType(ECommuProtocolType eType);

/// Creates the transport of a type. Null, with a line in the log, when it cannot be created; null without one
/// for a type that names none.
std::unique_ptr<TarnConnectorImpl> CreateTransport(ECommuProtocolType eType, TarnConnector* pOwner);

#endif
