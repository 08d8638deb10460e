#ifndef TARN_CORE_MESSAGEUNIT_H
#define TARN_CORE_MESSAGEUNIT_H

#include "tarnadapterframe/TEMessage.h"
#include "tarnadapterframe/TEMessageInfo.h"
#include "tarnadapterframe/TarnProtocolAdapter.h"

/// Protocol id of the message's adapter; 0 for a message without adapter.
inline std::uint32_t ProtocolIdOf(const TEMessage& message)
{
    const TarnProtocolAdapter* pAdapter = message.ProtocolInstance();
    return pAdapter != nullptr ? pAdapter->GetProtocolAdapterID() : 0;
}

/// Key of the message in the correlation maps.
inline TEMessageUnit UnitOf(const TEMessage& message)
{
    return {message.GetMessageSerial(), ProtocolIdOf(message)};
}

#endif
