#ifndef SNMP_SNMPTYPES_H
#define SNMP_SNMPTYPES_H

/// @file
/// What SNMP messages carry (RFC 3416): names, values, and pairs of both.

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

/// The name of a managed object: an object identifier. Ordered as a walk visits names.
class SnmpOid
{
public:
    static constexpr std::size_t MAX_ARCS = 128; // RFC 3416, 4.1

    SnmpOid() = default;
    /// Numbers separated by dots, one in front does not count. Nothing for any other text, or for numbers that no object
    /// identifier has.
    static std::optional<SnmpOid> FromText(std::string_view text);

    /// With a dot in front, as snmpget(1) shows it with -On.
    std::string Text() const;
    bool IsBelow(const SnmpOid& root) const;

    bool operator==(const SnmpOid& other) const { return m_Arcs == other.m_Arcs; }
    bool operator<(const SnmpOid& other) const { return m_Arcs < other.m_Arcs; }

private:
    std::vector<std::uint32_t> m_Arcs;
};

/// The types of values, by their BER tags.
enum class SnmpType : std::uint8_t
{
    INTEGER = 0x02,
    OCTET_STRING = 0x04,
    NULL_VALUE = 0x05, ///< in questions
    OBJECT_ID = 0x06,
    IP_ADDRESS = 0x40,
    COUNTER32 = 0x41,
    GAUGE32 = 0x42,
    TIME_TICKS = 0x43, ///< hundredths of a second
    OPAQUE = 0x44,
    COUNTER64 = 0x46,
    // In place of a value, in answers.
    NO_SUCH_OBJECT = 0x80,
    NO_SUCH_INSTANCE = 0x81,
    END_OF_MIB_VIEW = 0x82,
};

struct SnmpValue
{
    SnmpType eType = SnmpType::NULL_VALUE;
    std::int32_t iNumber = 0;   ///< of INTEGER
    std::uint64_t ulNumber = 0; ///< of COUNTER32, GAUGE32, TIME_TICKS, COUNTER64
    std::string strBytes;       ///< of OCTET_STRING, OPAQUE, IP_ADDRESS (4 bytes)
    SnmpOid oid;                ///< of OBJECT_ID

    /// From the letter of snmpset(1): i INTEGER, u Gauge32, c Counter32, t TimeTicks, C Counter64, s text, x hex digits, o object
    /// identifier, a IPv4 address. Nothing when the text is no value of the type.
    static std::optional<SnmpValue> FromText(char cType, const std::string& strText);

    /// Whether it stands in place of a value that is not there.
    bool IsMissing() const { return eType >= SnmpType::NO_SUCH_OBJECT; }
    /// As snmpget(1) shows it with -Oqn and -Ot: no type, text in quotation marks, other bytes in hex. An OPAQUE is shown in
    /// hex, whatever is wrapped in it.
    std::string Text() const;
};

struct SnmpVarBind
{
    SnmpOid name;
    SnmpValue value;
};

#endif
