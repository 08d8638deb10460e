#ifndef MODBUS_MODBUSCODEC_H
#define MODBUS_MODBUSCODEC_H

/// @file
/// Requests and answers of Modbus RTU as bytes. Sources: "MODBUS Application Protocol Specification" V1.1b3 for the functions and their
/// limits, "MODBUS over Serial Line" V1.02 for unit numbers, frames and the CRC.

#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

/// What a request asks for is not to be had: said before anything is sent.
class ModbusRefused : public std::invalid_argument
{
public:
    using std::invalid_argument::invalid_argument;
};

enum class ModbusFunction : std::uint8_t
{
    READ_COILS = 1,
    READ_INPUTS = 2, ///< discrete inputs
    READ_HOLDING = 3,
    READ_REGISTERS = 4, ///< input registers
    WRITE_COIL = 5,
    WRITE_REGISTER = 6,
    WRITE_COILS = 15,
    WRITE_REGISTERS = 16,
};

struct ModbusRequest
{
    int iUnit = 1; ///< 1 to 247; broadcasts, which nobody answers, are not supported
    ModbusFunction eFunction = ModbusFunction::READ_HOLDING;
    int iAddress = 0;                  ///< of the first coil or register, counted from 0
    int iCount = 1;                    ///< of a reading
    std::vector<std::uint16_t> values; ///< of a writing; a coil is set by any value but 0
};

/// The frame of a request, CRC included. Throws ModbusRefused.
std::string ModbusEncode(const ModbusRequest& request);

/// How long the answer at the head of received bytes is: a length, 0 when more bytes are needed, or -1 when it is none: an unknown
/// function, a length that cannot be, a wrong CRC.
int ModbusFrameLength(const std::uint8_t* pData, std::size_t uLength);

/// Outcome of an answer: 0, the device's exception code (1 to 255), or MODBUS_WRONG_ANSWER.
constexpr int MODBUS_WRONG_ANSWER = -71;

/// True when a whole frame may be the answer to a request: of its unit, and of its function.
bool ModbusAnswers(const ModbusRequest& request, const std::uint8_t* pFrame);
/// Reads an answer. @param values  what was read, a coil as 0 or 1  @return the outcome
int ModbusDecode(const ModbusRequest& request, const std::uint8_t* pFrame, std::size_t uLength,
                 std::vector<std::uint16_t>& values);

std::uint16_t ModbusCrc(const std::uint8_t* pData, std::size_t uLength);

#endif
