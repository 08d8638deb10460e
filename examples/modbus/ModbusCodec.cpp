#include "ModbusCodec.h"

namespace {

constexpr std::size_t HEAD_BYTES = 2; // unit, function
constexpr std::size_t CRC_BYTES = 2;
constexpr std::uint8_t EXCEPTION = 0x80;
constexpr std::size_t EXCEPTION_BYTES = 5;
constexpr std::size_t WRITTEN_BYTES = 8;
constexpr std::size_t BITS = 8;
constexpr std::uint16_t COIL_ON = 0xFF00;

bool IsReading(ModbusFunction eFunction)
{
    return eFunction <= ModbusFunction::READ_REGISTERS;
}

bool AreBits(ModbusFunction eFunction)
{
    return eFunction <= ModbusFunction::READ_INPUTS || eFunction == ModbusFunction::WRITE_COIL ||
           eFunction == ModbusFunction::WRITE_COILS;
}

/// How many coils or registers a request is about.
std::size_t Quantity(const ModbusRequest& request)
{
    return IsReading(request.eFunction) ? static_cast<std::size_t>(request.iCount) : request.values.size();
}

/// The bytes that so many values take.
std::size_t ByteCount(ModbusFunction eFunction, std::size_t uValues)
{
    return AreBits(eFunction) ? (uValues + BITS - 1) / BITS : uValues * 2;
}

std::size_t MostValues(ModbusFunction eFunction)
{
    switch (eFunction)
    {
    case ModbusFunction::READ_COILS:
    case ModbusFunction::READ_INPUTS:
        return 2000;
    case ModbusFunction::READ_HOLDING:
    case ModbusFunction::READ_REGISTERS:
        return 125;
    case ModbusFunction::WRITE_COILS:
        return 1968;
    case ModbusFunction::WRITE_REGISTERS:
        return 123;
    default:
        return 1;
    }
}

void Check(const ModbusRequest& request)
{
    constexpr int LAST_UNIT = 247;
    constexpr int ADDRESSES = 65536;
    const std::size_t uMost = MostValues(request.eFunction);
    if (request.iUnit < 1 || request.iUnit > LAST_UNIT)
        throw ModbusRefused("the unit is not from 1 to 247");
    if (request.iCount < 0 || Quantity(request) < 1 || Quantity(request) > uMost)
        throw ModbusRefused("the number of values is not from 1 to " + std::to_string(uMost));
    if (request.iAddress < 0 || request.iAddress + static_cast<int>(Quantity(request)) > ADDRESSES)
        throw ModbusRefused("there is no such address: the last one is 65535");
}

void Append(std::string& strFrame, std::size_t uNumber)
{
    strFrame += static_cast<char>(uNumber >> 8U & 0xFFU);
    strFrame += static_cast<char>(uNumber & 0xFFU);
}

void AppendValues(std::string& strFrame, const ModbusRequest& request)
{
    const std::vector<std::uint16_t>& values = request.values;
    Append(strFrame, values.size());
    const std::size_t uBytes = ByteCount(request.eFunction, values.size());
    strFrame += static_cast<char>(uBytes);
    if (!AreBits(request.eFunction))
    {
        for (const std::uint16_t uValue : values)
            Append(strFrame, uValue);
        return;
    }
    std::string strBits(uBytes, '\0');
    for (std::size_t i = 0; i < values.size(); ++i)
        if (values[i] != 0)
            strBits[i / BITS] = static_cast<char>(strBits[i / BITS] | 1 << i % BITS);
    strFrame += strBits;
}

} // namespace

std::uint16_t ModbusCrc(const std::uint8_t* pData, std::size_t uLength)
{
    constexpr unsigned POLYNOMIAL = 0xA001; // appendix B of the serial line specification
    unsigned uCrc = 0xFFFF;
    for (std::size_t i = 0; i < uLength; ++i)
    {
        uCrc ^= pData[i];
        for (std::size_t iBit = 0; iBit < BITS; ++iBit)
            uCrc = (uCrc & 1U) != 0 ? uCrc >> 1U ^ POLYNOMIAL : uCrc >> 1U;
    }
    return static_cast<std::uint16_t>(uCrc);
}

std::string ModbusEncode(const ModbusRequest& request)
{
    Check(request);
    std::string strFrame = {static_cast<char>(request.iUnit), static_cast<char>(request.eFunction)};
    Append(strFrame, static_cast<std::size_t>(request.iAddress));
    switch (request.eFunction)
    {
    case ModbusFunction::WRITE_COIL:
        Append(strFrame, request.values[0] != 0 ? COIL_ON : 0);
        break;
    case ModbusFunction::WRITE_REGISTER:
        Append(strFrame, request.values[0]);
        break;
    case ModbusFunction::WRITE_COILS:
    case ModbusFunction::WRITE_REGISTERS:
        AppendValues(strFrame, request);
        break;
    default:
        Append(strFrame, static_cast<std::size_t>(request.iCount));
    }
    const std::uint16_t uCrc =
        ModbusCrc(reinterpret_cast<const std::uint8_t*>(strFrame.data()), strFrame.size());
    strFrame += static_cast<char>(uCrc & 0xFFU); // the only number whose low byte goes first
    strFrame += static_cast<char>(uCrc >> 8U);
    return strFrame;
}

/// @return 0 when it cannot be told yet, -1 when there is no such answer
static int AnnouncedLength(const std::uint8_t* pData, std::size_t uLength)
{
    constexpr std::uint8_t MOST_BYTES = 250;
    if (uLength < HEAD_BYTES)
        return 0;
    if ((pData[1] & EXCEPTION) != 0)
        return EXCEPTION_BYTES;
    switch (static_cast<ModbusFunction>(pData[1]))
    {
    case ModbusFunction::READ_COILS:
    case ModbusFunction::READ_INPUTS:
    case ModbusFunction::READ_HOLDING:
    case ModbusFunction::READ_REGISTERS:
        if (uLength == HEAD_BYTES)
            return 0;
        if (pData[2] == 0 || pData[2] > MOST_BYTES)
            return -1;
        return static_cast<int>(HEAD_BYTES + 1 + pData[2] + CRC_BYTES);
    case ModbusFunction::WRITE_COIL:
    case ModbusFunction::WRITE_REGISTER:
    case ModbusFunction::WRITE_COILS:
    case ModbusFunction::WRITE_REGISTERS:
        return WRITTEN_BYTES;
    default:
        return -1;
    }
}

int ModbusFrameLength(const std::uint8_t* pData, std::size_t uLength)
{
    const int iLength = AnnouncedLength(pData, uLength);
    if (iLength <= 0 || uLength < static_cast<std::size_t>(iLength))
        return iLength < 0 ? -1 : 0;
    const std::size_t uChecked = static_cast<std::size_t>(iLength) - CRC_BYTES;
    const std::uint16_t uCrc = ModbusCrc(pData, uChecked);
    const bool bIntact = pData[uChecked] == (uCrc & 0xFFU) && pData[uChecked + 1] == uCrc >> 8U;
    return bIntact ? iLength : -1;
}

bool ModbusAnswers(const ModbusRequest& request, const std::uint8_t* pFrame)
{
    return pFrame[0] == request.iUnit &&
           (pFrame[1] & ~EXCEPTION) == static_cast<std::uint8_t>(request.eFunction);
}

int ModbusDecode(const ModbusRequest& request, const std::uint8_t* pFrame, std::size_t uLength,
                 std::vector<std::uint16_t>& values)
{
    values.clear();
    if (!ModbusAnswers(request, pFrame))
        return MODBUS_WRONG_ANSWER;
    if ((pFrame[1] & EXCEPTION) != 0)
        return pFrame[2] != 0 ? pFrame[2] : MODBUS_WRONG_ANSWER;
    const auto number = [pFrame](std::size_t uAt) {
        return static_cast<std::uint16_t>(pFrame[uAt] << 8U | pFrame[uAt + 1]);
    };
    if (!IsReading(request.eFunction))
    {
        // The head of the request comes back.
        const std::string strRequest = ModbusEncode(request);
        const bool bSame =
            uLength == WRITTEN_BYTES &&
            strRequest.compare(0, WRITTEN_BYTES - CRC_BYTES, reinterpret_cast<const char*>(pFrame),
                               WRITTEN_BYTES - CRC_BYTES) == 0;
        return bSame ? 0 : MODBUS_WRONG_ANSWER;
    }
    const std::size_t uValues = Quantity(request);
    if (pFrame[2] != ByteCount(request.eFunction, uValues))
        return MODBUS_WRONG_ANSWER;
    const std::uint8_t* pValues = pFrame + HEAD_BYTES + 1;
    for (std::size_t i = 0; i < uValues; ++i)
        values.push_back(AreBits(request.eFunction)
                             ? static_cast<std::uint16_t>(pValues[i / BITS] >> i % BITS & 1)
                             : number(HEAD_BYTES + 1 + 2 * i));
    return 0;
}
