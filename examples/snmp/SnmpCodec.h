#ifndef SNMP_SNMPCODEC_H
#define SNMP_SNMPCODEC_H

/// @file
/// SNMP v2c messages (RFC 1901, RFC 3416) as bytes, and where one ends in a stream (RFC 3430). Everything here is free
/// of state and may be called from any thread, with whatever an element has sent.

#include "SnmpTypes.h"

#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

/// The kinds of messages, by their BER tags.
enum class SnmpPdu : std::uint8_t
{
    GET = 0xA0,
    GET_NEXT = 0xA1,
    RESPONSE = 0xA2,
    SET = 0xA3,
    GET_BULK = 0xA5,
    INFORM = 0xA6,
    TRAP = 0xA7,
    REPORT = 0xA8,
};

struct SnmpPacket
{
    std::string strCommunity;
    SnmpPdu ePdu = SnmpPdu::GET;
    std::int32_t iRequestId = 0;
    std::int32_t iErrorStatus = 0; ///< of GET_BULK: non-repeaters
    std::int32_t iErrorIndex = 0;  ///< counted from 1; of GET_BULK: max-repetitions
    std::vector<SnmpVarBind> bindings;
};

/// Bytes are no SNMP v2c message; what() says why.
class SnmpMalformed : public std::runtime_error
{
public:
    using std::runtime_error::runtime_error;
};

/// Longest message that is taken from an element. One value may fill hundreds of kilobytes, so it is far more than elements
/// must support.
constexpr std::size_t SNMP_MAX_MESSAGE = std::size_t{1} << 20U;

/// Looks for a whole message at the head of a stream.
/// @return its length; 0 when bytes are missing; -1 when no message begins like this
int SnmpFrameLength(const std::uint8_t* pData, std::size_t uLength);

/// What kind of message it is, with no more reading than that takes. Throws SnmpMalformed.
SnmpPdu SnmpPduOf(const std::uint8_t* pData, std::size_t uLength);

/// Throws SnmpMalformed.
SnmpPacket SnmpDecode(const std::uint8_t* pData, std::size_t uLength);
std::string SnmpEncode(const SnmpPacket& packet);

#endif
