// Whatever a line brings: the framing neither reads beyond it nor finds an answer that is longer than what is there, and what it finds is
// decoded for every kind of request. The first byte chooses the request.

#include "ModbusCodec.h"

#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* pData, std::size_t uLength)
{
    constexpr ModbusFunction FUNCTIONS[] = {ModbusFunction::READ_COILS,   ModbusFunction::READ_INPUTS,
                                            ModbusFunction::READ_HOLDING, ModbusFunction::READ_REGISTERS,
                                            ModbusFunction::WRITE_COIL,   ModbusFunction::WRITE_REGISTER,
                                            ModbusFunction::WRITE_COILS,  ModbusFunction::WRITE_REGISTERS};
    if (uLength == 0)
        return 0;
    ModbusRequest request = {1, FUNCTIONS[pData[0] & 7U], 0, 1 + (pData[0] >> 3U), {}};
    if (request.eFunction >= ModbusFunction::WRITE_COIL)
        request.values = {1};
    const std::vector<std::uint8_t> bytes(pData + 1, pData + uLength); // so that reading beyond it is seen
    const int iLength = ModbusFrameLength(bytes.data(), bytes.size());
    if (iLength > static_cast<int>(bytes.size()) || iLength < -1)
        std::abort();
    if (iLength <= 0)
        return 0;
    std::vector<std::uint16_t> values;
    const int iResult = ModbusDecode(request, bytes.data(), static_cast<std::size_t>(iLength), values);
    if (iResult == 0 && request.values.empty() && values.size() != static_cast<std::size_t>(request.iCount))
        std::abort();
    return 0;
}
