#include "ModbusCodec.h"

#include <gtest/gtest.h>

#include <string>

namespace {

std::string Bytes(std::initializer_list<int> numbers)
{
    std::string strBytes;
    for (const int iNumber : numbers)
        strBytes += static_cast<char>(iNumber);
    return strBytes;
}

std::string WithCrc(std::string strFrame)
{
    const std::uint16_t uCrc =
        ModbusCrc(reinterpret_cast<const std::uint8_t*>(strFrame.data()), strFrame.size());
    strFrame += static_cast<char>(uCrc & 0xFFU);
    strFrame += static_cast<char>(uCrc >> 8U);
    return strFrame;
}

int LengthOf(const std::string& strBytes)
{
    return ModbusFrameLength(reinterpret_cast<const std::uint8_t*>(strBytes.data()), strBytes.size());
}

int Decode(const ModbusRequest& request, const std::string& strFrame, std::vector<std::uint16_t>& values)
{
    return ModbusDecode(request, reinterpret_cast<const std::uint8_t*>(strFrame.data()), strFrame.size(),
                        values);
}

} // namespace

TEST(ModbusCodec, RequestsAreThoseOfTheSpecifications)
{
    // The examples of the application protocol, sections 6.1, 6.3, 6.5 and 6.11, 6.12.
    using Function = ModbusFunction;
    EXPECT_EQ(ModbusEncode({1, Function::READ_COILS, 19, 19, {}}), WithCrc(Bytes({1, 1, 0, 0x13, 0, 0x13})));
    EXPECT_EQ(ModbusEncode({17, Function::READ_HOLDING, 107, 3, {}}),
              Bytes({17, 3, 0, 0x6B, 0, 3, 0x76, 0x87}));
    EXPECT_EQ(ModbusEncode({1, Function::WRITE_COIL, 172, 1, {1}}), WithCrc(Bytes({1, 5, 0, 0xAC, 0xFF, 0})));
    EXPECT_EQ(ModbusEncode({1, Function::WRITE_COILS, 19, 1, {1, 0, 1, 1, 0, 0, 1, 1, 1, 0}}),
              WithCrc(Bytes({1, 15, 0, 0x13, 0, 10, 2, 0xCD, 1})));
    EXPECT_EQ(ModbusEncode({1, Function::WRITE_REGISTERS, 1, 1, {10, 0x102}}),
              WithCrc(Bytes({1, 16, 0, 1, 0, 2, 4, 0, 10, 1, 2})));
}

TEST(ModbusCodec, WhatNoDeviceWouldTakeIsRefused)
{
    using Function = ModbusFunction;
    const ModbusRequest refused[] = {
        {0, Function::READ_COILS, 0, 1, {}},
        {248, Function::READ_COILS, 0, 1, {}},
        {1, Function::READ_COILS, -1, 1, {}},
        {1, Function::READ_COILS, 65535, 2, {}},
        {1, Function::READ_COILS, 0, 0, {}},
        {1, Function::READ_COILS, 0, -7, {}},
        {1, Function::READ_INPUTS, 0, 2001, {}},
        {1, Function::READ_REGISTERS, 0, 126, {}},
        {1, Function::WRITE_REGISTER, 0, 1, {}},
        {1, Function::WRITE_COIL, 0, 1, {1, 1}},
        {1, Function::WRITE_COILS, 0, 1, std::vector<std::uint16_t>(1969)},
        {1, Function::WRITE_REGISTERS, 0, 1, std::vector<std::uint16_t>(124)},
    };
    for (const ModbusRequest& request : refused)
        EXPECT_THROW(ModbusEncode(request), ModbusRefused) << request.iAddress << ' ' << request.iCount;
    EXPECT_EQ(ModbusEncode({247, Function::READ_HOLDING, 65535, 1, {}}).size(), 8U);
    EXPECT_EQ(ModbusEncode({1, Function::WRITE_REGISTERS, 0, 1, std::vector<std::uint16_t>(123)}).size(),
              255U);
}

TEST(ModbusCodec, AnAnswerIsCutByItsLengthAndItsCrc)
{
    const std::string frames[] = {WithCrc(Bytes({1, 1, 3, 0xCD, 0x6B, 5})), WithCrc(Bytes({1, 3, 2, 1, 2})),
                                  WithCrc(Bytes({1, 0x83, 2})), WithCrc(Bytes({1, 16, 0, 1, 0, 2}))};
    for (const std::string& strFrame : frames)
    {
        for (std::size_t u = 0; u < strFrame.size(); ++u)
        {
            EXPECT_EQ(LengthOf(strFrame.substr(0, u)), 0);
            std::string strDisturbed = strFrame;
            strDisturbed[u] = static_cast<char>(strDisturbed[u] ^ 1);
            EXPECT_LE(LengthOf(strDisturbed), 0) << u;
        }
        EXPECT_EQ(LengthOf(strFrame + "more"), static_cast<int>(strFrame.size()));
    }
    EXPECT_EQ(LengthOf(Bytes({1, 7})), -1);
    EXPECT_EQ(LengthOf(Bytes({1, 3, 0})), -1);
    EXPECT_EQ(LengthOf(Bytes({1, 3, 251})), -1);
}

TEST(ModbusCodec, AnswersAreReadAndWrongOnesTold)
{
    std::vector<std::uint16_t> values;
    const ModbusRequest coils = {1, ModbusFunction::READ_COILS, 19, 10, {}};
    EXPECT_EQ(Decode(coils, WithCrc(Bytes({1, 1, 2, 0xCD, 1})), values), 0);
    EXPECT_EQ(values, (std::vector<std::uint16_t>{1, 0, 1, 1, 0, 0, 1, 1, 1, 0}));
    EXPECT_EQ(Decode(coils, WithCrc(Bytes({1, 1, 3, 0xCD, 1, 0})), values), MODBUS_WRONG_ANSWER);
    EXPECT_EQ(Decode(coils, WithCrc(Bytes({2, 1, 2, 0xCD, 1})), values), MODBUS_WRONG_ANSWER);
    EXPECT_EQ(Decode(coils, WithCrc(Bytes({1, 0x81, 2})), values), 2);
    const ModbusRequest registers = {1, ModbusFunction::READ_REGISTERS, 0, 2, {}};
    EXPECT_EQ(Decode(registers, WithCrc(Bytes({1, 4, 4, 0xFF, 0xFE, 0, 1})), values), 0);
    EXPECT_EQ(values, (std::vector<std::uint16_t>{0xFFFE, 1}));
    const ModbusRequest write = {1, ModbusFunction::WRITE_REGISTER, 5, 1, {7}};
    EXPECT_EQ(Decode(write, ModbusEncode(write), values), 0);
    EXPECT_EQ(Decode(write, WithCrc(Bytes({1, 6, 0, 5, 0, 8})), values), MODBUS_WRONG_ANSWER);
}
