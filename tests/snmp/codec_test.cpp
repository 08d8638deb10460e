#include "SnmpCodec.h"

#include <tarnadapterframe/AdapterTypes.h>

#include <gtest/gtest.h>

#include <limits>

namespace {

std::string Bytes(const std::string& strHex)
{
    const auto value = SnmpValue::FromText('x', strHex);
    EXPECT_TRUE(value.has_value()) << strHex;
    return value ? value->strBytes : "";
}

const std::uint8_t* Data(const std::string& strBytes)
{
    return reinterpret_cast<const std::uint8_t*>(strBytes.data());
}

SnmpPacket Decode(const std::string& strBytes)
{
    return SnmpDecode(Data(strBytes), strBytes.size());
}

/// Why the bytes are no message.
std::string Refusal(const std::string& strBytes)
{
    try
    {
        Decode(strBytes);
        return "";
    }
    catch (const SnmpMalformed& malformed)
    {
        return malformed.what();
    }
}

// What snmptrap(1) sends for
// 4711 1.3.6.1.6.3.1.1.5.3, then below 1.3.6.1.2.1.1.1: i -129, u 4294967295, c 128, s a"b, x 00ff, o 1.3.4294967295, a 10.0.0.7
const std::string TRAP =
    Bytes("3081C002010104067075626C6963A781B2"
          "020440ABCD1302010002010030"
          "81A3300E06082B060102010103004302"
          "12673017060A2B06010603010104010006092B0601060301010503300E06082B06010201010101"
          "0202FF7F301106082B06010201010102420500FFFFFFFF300E06082B0601020101010341020080"
          "300F06082B06010201010104040361"
          "2262300E06082B06010201010105040200FF301206082B0601020101010606062B8FFFFFFF7F"
          "301006082B0601020101010740040A000007");

TEST(SnmpCodec, ReadsAndWritesWhatAnotherImplementationSends)
{
    const SnmpPacket trap = Decode(TRAP);
    EXPECT_EQ(trap.ePdu, SnmpPdu::TRAP);
    EXPECT_EQ(trap.strCommunity, "public");
    EXPECT_EQ(trap.iRequestId, 0x40ABCD13);
    std::string strText;
    for (const SnmpVarBind& binding : trap.bindings)
        strText += binding.name.Text() + ' ' + binding.value.Text() + '\n';
    EXPECT_EQ(strText, ".1.3.6.1.2.1.1.3.0 4711\n"
                       ".1.3.6.1.6.3.1.1.4.1.0 .1.3.6.1.6.3.1.1.5.3\n"
                       ".1.3.6.1.2.1.1.1.1 -129\n"
                       ".1.3.6.1.2.1.1.1.2 4294967295\n"
                       ".1.3.6.1.2.1.1.1.3 128\n"
                       ".1.3.6.1.2.1.1.1.4 \"a\\\"b\"\n"
                       ".1.3.6.1.2.1.1.1.5 \"00 FF \"\n"
                       ".1.3.6.1.2.1.1.1.6 .1.3.4294967295\n"
                       ".1.3.6.1.2.1.1.1.7 10.0.0.7\n");
    EXPECT_EQ(SnmpEncode(trap), TRAP);
}

TEST(SnmpCodec, KeepsEveryValueAtItsLimits)
{
    const std::pair<char, std::vector<std::string>> texts[] = {
        {'i', {"0", "-1", "127", "128", "-128", "-129", "32767", "8388608", "2147483647", "-2147483648"}},
        {'u', {"0", "127", "128", "65535", "2147483648", "4294967295"}},
        {'C', {"0", "9223372036854775807", "9223372036854775808", "18446744073709551615"}},
        {'t', {"4294967295"}},
        {'o', {".0.0", ".2.999.3", ".1.39.4294967295", ".2.4294967215"}},
        {'a', {"255.255.255.255"}},
    };
    SnmpPacket packet;
    std::vector<std::string> expected;
    for (const auto& [cType, values] : texts)
    {
        for (const std::string& strText : values)
        {
            const auto value = SnmpValue::FromText(cType, strText);
            ASSERT_TRUE(value.has_value()) << cType << strText;
            packet.bindings.push_back({*SnmpOid::FromText("1.3"), *value});
            expected.push_back(strText);
        }
    }
    for (const std::int32_t iId :
         {0, -1, std::numeric_limits<std::int32_t>::min(), std::numeric_limits<std::int32_t>::max()})
    {
        packet.iRequestId = iId;
        const SnmpPacket read = Decode(SnmpEncode(packet));
        EXPECT_EQ(read.iRequestId, iId);
        ASSERT_EQ(read.bindings.size(), expected.size());
        for (std::size_t i = 0; i < expected.size(); ++i)
        {
            EXPECT_EQ(read.bindings[i].value.Text(), expected[i]);
            EXPECT_EQ(read.bindings[i].value.eType, packet.bindings[i].value.eType);
        }
    }
    // The longest name there is, and a message whose lengths take several bytes.
    std::string strLongest = ".1.3";
    for (std::size_t i = 2; i < SnmpOid::MAX_ARCS; ++i)
        strLongest += ".4294967295";
    packet.bindings = {{*SnmpOid::FromText(strLongest), *SnmpValue::FromText('s', std::string(70000, 'x'))}};
    const std::string strLong = SnmpEncode(packet);
    EXPECT_EQ(SnmpFrameLength(Data(strLong), strLong.size()), static_cast<int>(strLong.size()));
    EXPECT_EQ(Decode(strLong).bindings[0].name.Text(), strLongest);
    EXPECT_EQ(Decode(strLong).bindings[0].value.strBytes.size(), 70000U);
}

TEST(SnmpCodec, RefusesTextsThatAreNoNamesOrValues)
{
    for (const char* pszText :
         {"", ".", "1", "1.", "1..3", "1.3.", "1.40", "3.1", "1.3.-1", "1.3.4294967296", "1.3.x", " 1.3"})
        EXPECT_FALSE(SnmpOid::FromText(pszText).has_value()) << pszText;
    std::string strLong = "1.3";
    for (std::size_t i = 2; i <= SnmpOid::MAX_ARCS; ++i)
        strLong += ".1";
    EXPECT_FALSE(SnmpOid::FromText(strLong).has_value());
    for (const auto& [cType, pszText] : {std::pair('i', "2147483648"),
                                         {'u', "-1"},
                                         {'u', "4294967296"},
                                         {'C', "18446744073709551616"},
                                         {'x', "0"},
                                         {'x', "0g"},
                                         {'x', "0 1"},
                                         {'a', "10.0.0"},
                                         {'o', "1"},
                                         {'q', "1"},
                                         {'i', ""}})
        EXPECT_FALSE(SnmpValue::FromText(cType, pszText).has_value()) << cType << pszText;
    const SnmpValue wrong[] = {{SnmpType::GAUGE32, 0, std::uint64_t{1} << 32U, "", {}},
                               {SnmpType::IP_ADDRESS, 0, 0, "abc", {}}};
    for (const SnmpValue& value : wrong)
        EXPECT_THROW(SnmpEncode({"public", SnmpPdu::SET, 1, 0, 0, {{*SnmpOid::FromText("1.3"), value}}}),
                     SnmpMalformed);
    EXPECT_THROW(SnmpEncode({"public", SnmpPdu::GET, 1, 0, 0, {SnmpVarBind()}}), SnmpMalformed);
}

TEST(SnmpCodec, FindsTheEndOfAMessageInAStream)
{
    const std::string strStream = TRAP + TRAP;
    for (std::size_t i = 0; i <= strStream.size(); ++i)
        EXPECT_EQ(SnmpFrameLength(Data(strStream), i), i < TRAP.size() ? 0 : static_cast<int>(TRAP.size()))
            << i;
    const std::pair<const char*, int> heads[] = {
        {"3000", 2},                                 // empty, and somebody else's concern
        {"308100", 3},                               // more length than needed is legal BER
        {"308400000001FF", 7}, {"30840FFFFFFF", -1}, // longer than any message may be
        {"30830FFFFB", 0},                           // as long as one may be
        {"30830FFFFC", -1},    {"3080", -1},         // of indefinite length
        {"3085", -1},                                // of a length that nobody needs
        {"30FF", -1},          {"02", -1},           {"00", -1}, {"B0", -1},
    };
    for (const auto& [pszHead, iLength] : heads)
    {
        const std::string strHead = Bytes(pszHead);
        EXPECT_EQ(SnmpFrameLength(Data(strHead), strHead.size()), iLength) << pszHead;
    }
}

/// An element with its length in one byte.
std::string Element(const std::string& strTag, const std::string& strContent)
{
    return Bytes(strTag) + static_cast<char>(strContent.size()) + strContent;
}

/// An answer with one variable binding, put together from its parts.
std::string Answer(const std::string& strName, const std::string& strValue,
                   const std::string& strVersion = "020101", const std::string& strPdu = "A2",
                   const std::string& strBehind = "")
{
    const std::string strBindings = Element("30", Element("30", Bytes(strName + strValue)));
    const std::string strContent = Bytes("020101020100020100") + strBindings + Bytes(strBehind);
    return Element("30", Bytes(strVersion) + Element("04", "public") + Element(strPdu, strContent));
}

TEST(SnmpCodec, SaysWhatIsWrongWithAMessage)
{
    const std::string strName = "06022B06";
    const std::string strNull = "0500";
    const std::pair<std::string, const char*> messages[] = {
        {Answer(strName, strNull), ""},
        {Answer(strName, "4204FFFFFFFF"), ""},      // without a byte for the sign, which elements leave out
        {Answer("0681022B06", "028200020001"), ""}, // longer lengths than needed
        {Answer(strName, "42050100000000"), "a number of a wrong size"},
        {Answer(strName, "02050000000001"), "a number of a wrong size"},
        {Answer(strName, "0200"), "a number of a wrong size"},
        {Answer(strName, "40020A00"), "an address of a wrong size"},
        {Answer(strName, "0501FF"), "bytes where none belong"},
        {Answer(strName, "0700"), "a value of an unknown type"},
        {Answer(strName, strNull + strNull), "bytes behind a value"},
        {Answer(strName, "0405FF"), "an element that is longer than what it is in"},
        {Answer(strName, "0484FFFFFFFF"), "an element that is longer than what it is in"},
        {Answer(strName, "0480FF0000"), "an element of indefinite length"},
        {Answer(strName, ""), "an element without length"},
        {Answer(strName, "0581"), "an element without length"},
        {Answer(strName, "04840000"), "an element without length"},
        {Answer("0600", strNull), "an object identifier of a wrong size"},
        {Answer("06022B86", strNull), "an object identifier of a wrong size"}, // goes on and does not
        {Answer("06032B8001", strNull), "a wrong object identifier"}, // a number that begins with nothing
        {Answer("06062B9080808000", strNull), "a wrong object identifier"}, // a number of more than 32 bits
        {Answer("02012B", strNull), "no object identifier where one belongs"},
        {Answer(strName, strNull, "020100"), "a version other than 2c"},
        {Answer(strName, strNull, "020103"), "a version other than 2c"},
        {Answer(strName, strNull, "0400"), "no version"},
        {Answer(strName, strNull, "020101", "A9"), "an unknown kind of message"},
        {Answer(strName, strNull, "020101", "A2", "0500"), "bytes behind the variable bindings"},
        {TRAP + '\0', "bytes behind the message"},
        {SnmpEncode({"public", SnmpPdu::RESPONSE, 1, 19, 0, {}}), "an unknown error-status"},
        {SnmpEncode({"public", SnmpPdu::RESPONSE, 1, ADAPTER_ERR_TIMEOUT, 0, {}}), "an unknown error-status"},
        {SnmpEncode({"public", SnmpPdu::GET_BULK, 1, 19, 50, {}}), ""},
    };
    for (const auto& [strBytes, pszReason] : messages)
        EXPECT_EQ(Refusal(strBytes), pszReason) << SnmpValue{SnmpType::OPAQUE, 0, 0, strBytes, {}}.Text();
    for (std::size_t i = 0; i < TRAP.size(); ++i)
        EXPECT_NE(Refusal(TRAP.substr(0, i)), "") << i;
}

} // namespace
