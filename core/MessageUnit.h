#ifndef TARN_CORE_MESSAGEUNIT_H
#define TARN_CORE_MESSAGEUNIT_H

#include "core/ApplicationCall.h"
#include "tarnadapterframe/TEMessage.h"
#include "tarnadapterframe/TEMessageInfo.h"
#include "tarnadapterframe/TarnProtocolAdapter.h"

/// Protocol id of the message's adapter; 0 for a message without adapter.
inline std::uint32_t ProtocolIdOf(const TEMessage& message)
{
    const TarnProtocolAdapter* pAdapter = message.ProtocolInstance();
    return pAdapter != nullptr ? pAdapter->GetProtocolAdapterID() : 0;
}

/// Sets unit to the message's key in the correlation maps. False when the message could not give its serial.
inline bool GetUnit(const TEMessage& message, TEMessageUnit& unit)
{
    unit = TEMessageUnit(0, ProtocolIdOf(message));
    return CallApplication("GetMessageSerial", typeid(message),
                           [&] { unit.ulSerial = message.GetMessageSerial(); });
}

#endif
