#ifndef MODBUS_MODBUSMESSAGE_H
#define MODBUS_MODBUSMESSAGE_H

#include "ModbusCodec.h"

#include <tarnadapterframe/tarnadapterframe.h>

#include <vector>

/// Protocol id of the adapter in targets and registrations. Ids are the host's to give; 1 is the framework's.
constexpr std::uint32_t MODBUS_PROTOCOL = 71;

/// A request to a unit on a line, sent in any of the ways of TarnAsn1Message. Its result (GetResult), once it is answered:
///
/// | result | meaning |
/// |---|---|
/// | 0 | Values() has what was read |
/// | 1 to 255 | the device's exception code |
/// | MODBUS_WRONG_ANSWER | the device has answered something else than was asked |
/// | ADAPTER_ERR_TIMEOUT | it was silent for the line's response time |
/// | ADAPTER_ERR_INVALID_HANDLE | the line was closed, or could not be sent on |
///
/// Sending it gives ADAPTER_ERR_INVALID_HANDLE when there is no such line.
class ModbusMessage : public TarnAsn1Message
{
public:
    static TarnAdapterRuntimeClass classModbusMessage;
    TarnAdapterRuntimeClass* GetRuntimeClass() const override { return &classModbusMessage; }
    std::vector<TEMessageAdapter*>* GetMessageAdapterVec() override { return &s_Adapters; }

    /// Throws ModbusRefused for what no device would take.
    ModbusMessage(int iLine, const ModbusRequest& request);

    const ModbusRequest& Request() const { return m_Request; }
    const std::vector<std::uint16_t>& Values() const { return m_Values; }
    /// By whoever brings the answer, before it is delivered.
    void SetValues(std::vector<std::uint16_t> values) { m_Values = std::move(values); }

    static std::vector<TEMessageAdapter*> s_Adapters; // filled by a registrar

private:
    ModbusRequest m_Request;
    std::vector<std::uint16_t> m_Values;
};

#endif
