#include "SnmpTypes.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cctype>
#include <charconv>
#include <limits>

namespace {

/// A whole decimal number of the range, and nothing else.
template <typename Number>
std::optional<Number> ParseNumber(std::string_view text, Number greatest = std::numeric_limits<Number>::max())
{
    Number number = 0;
    const auto [pEnd, eError] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (eError != std::errc() || pEnd != text.data() + text.size() || number > greatest)
        return std::nullopt;
    return number;
}

std::optional<std::string> ParseHex(const std::string& strText)
{
    std::string strBytes;
    for (std::size_t i = 0; i < strText.size(); i += 2)
    {
        unsigned uByte = 0;
        const char* pDigits = strText.data() + i;
        const auto [pEnd, eError] = std::from_chars(pDigits, pDigits + 2, uByte, 16);
        if (i + 2 > strText.size() || eError != std::errc() || pEnd != pDigits + 2)
            return std::nullopt;
        strBytes.push_back(static_cast<char>(uByte));
    }
    return strBytes;
}

std::optional<std::string> ParseAddress(const std::string& strText)
{
    char address[4] = {};
    if (inet_pton(AF_INET, strText.c_str(), address) != 1)
        return std::nullopt;
    return std::string(address, sizeof(address));
}

std::optional<SnmpValue> IntegerFromText(const std::string& strText)
{
    const auto iNumber = ParseNumber<std::int32_t>(strText);
    if (!iNumber)
        return std::nullopt;
    SnmpValue value;
    value.eType = SnmpType::INTEGER;
    value.iNumber = *iNumber;
    return value;
}

std::optional<SnmpValue> UnsignedFromText(SnmpType eType, const std::string& strText,
                                          std::uint64_t ulGreatest)
{
    const auto ulNumber = ParseNumber<std::uint64_t>(strText, ulGreatest);
    if (!ulNumber)
        return std::nullopt;
    SnmpValue value;
    value.eType = eType;
    value.ulNumber = *ulNumber;
    return value;
}

std::optional<SnmpValue> BytesValue(SnmpType eType, const std::optional<std::string>& strBytes)
{
    if (!strBytes)
        return std::nullopt;
    SnmpValue value;
    value.eType = eType;
    value.strBytes = *strBytes;
    return value;
}

std::optional<SnmpValue> OidFromText(const std::string& strText)
{
    const auto oid = SnmpOid::FromText(strText);
    if (!oid)
        return std::nullopt;
    SnmpValue value;
    value.eType = SnmpType::OBJECT_ID;
    value.oid = *oid;
    return value;
}

bool IsPrintable(const std::string& strBytes)
{
    return std::all_of(strBytes.begin(), strBytes.end(), [](char c) {
        const auto uc = static_cast<unsigned char>(c);
        return std::isprint(uc) != 0 || std::isspace(uc) != 0;
    });
}

std::string Quoted(const std::string& strBytes)
{
    std::string strText = "\"";
    for (const char c : strBytes)
    {
        if (c == '"' || c == '\\')
            strText += '\\';
        strText += c;
    }
    return strText + '"';
}

std::string Hex(const std::string& strBytes)
{
    static constexpr char DIGITS[] = "0123456789ABCDEF";
    std::string strText = "\"";
    for (const char c : strBytes)
    {
        const auto uc = static_cast<unsigned char>(c);
        strText += DIGITS[uc >> 4U];
        strText += DIGITS[uc & 15U];
        strText += ' ';
    }
    return strText + '"';
}

} // namespace

std::optional<SnmpOid> SnmpOid::FromText(std::string_view text)
{
    SnmpOid oid;
    if (!text.empty() && text.front() == '.')
        text.remove_prefix(1);
    for (bool bMore = true; bMore;)
    {
        const std::size_t uDot = text.find('.');
        const auto ulArc = ParseNumber<std::uint32_t>(text.substr(0, uDot));
        if (!ulArc || oid.m_Arcs.size() == MAX_ARCS)
            return std::nullopt;
        oid.m_Arcs.push_back(*ulArc);
        bMore = uDot != std::string_view::npos;
        text.remove_prefix(bMore ? uDot + 1 : text.size());
    }
    // The first two share one number on the wire.
    if (oid.m_Arcs.size() < 2 || oid.m_Arcs[0] > 2 || (oid.m_Arcs[0] < 2 && oid.m_Arcs[1] > 39))
        return std::nullopt;
    return oid;
}

std::string SnmpOid::Text() const
{
    std::string strText;
    for (const std::uint32_t ulArc : m_Arcs)
        strText += '.' + std::to_string(ulArc);
    return strText;
}

bool SnmpOid::IsBelow(const SnmpOid& root) const
{
    return m_Arcs.size() > root.m_Arcs.size() &&
           std::equal(root.m_Arcs.begin(), root.m_Arcs.end(), m_Arcs.begin());
}

std::optional<SnmpValue> SnmpValue::FromText(char cType, const std::string& strText)
{
    constexpr std::uint64_t MAX32 = std::numeric_limits<std::uint32_t>::max();
    switch (cType)
    {
    case 'i':
        return IntegerFromText(strText);
    case 'u':
        return UnsignedFromText(SnmpType::GAUGE32, strText, MAX32);
    case 'c':
        return UnsignedFromText(SnmpType::COUNTER32, strText, MAX32);
    case 't':
        return UnsignedFromText(SnmpType::TIME_TICKS, strText, MAX32);
    case 'C':
        return UnsignedFromText(SnmpType::COUNTER64, strText, std::numeric_limits<std::uint64_t>::max());
    case 's':
        return BytesValue(SnmpType::OCTET_STRING, strText);
    case 'x':
        return BytesValue(SnmpType::OCTET_STRING, ParseHex(strText));
    case 'a':
        return BytesValue(SnmpType::IP_ADDRESS, ParseAddress(strText));
    case 'o':
        return OidFromText(strText);
    default:
        return std::nullopt;
    }
}

std::string SnmpValue::Text() const
{
    switch (eType)
    {
    case SnmpType::INTEGER:
        return std::to_string(iNumber);
    case SnmpType::OCTET_STRING:
        return IsPrintable(strBytes) ? Quoted(strBytes) : Hex(strBytes);
    case SnmpType::OPAQUE:
        return Hex(strBytes);
    case SnmpType::NULL_VALUE:
        return "NULL";
    case SnmpType::OBJECT_ID:
        return oid.Text();
    case SnmpType::IP_ADDRESS: {
        char szText[INET_ADDRSTRLEN] = {};
        return strBytes.size() == 4 && inet_ntop(AF_INET, strBytes.data(), szText, sizeof(szText)) != nullptr
                   ? szText
                   : Hex(strBytes);
    }
    case SnmpType::COUNTER32:
    case SnmpType::GAUGE32:
    case SnmpType::TIME_TICKS:
    case SnmpType::COUNTER64:
        return std::to_string(ulNumber);
    case SnmpType::NO_SUCH_OBJECT:
        return "No Such Object available on this agent at this OID";
    case SnmpType::NO_SUCH_INSTANCE:
        return "No Such Instance currently exists at this OID";
    case SnmpType::END_OF_MIB_VIEW:
        return "No more variables left in this MIB View (It is past the end of the MIB tree)";
    }
    return {};
}
