#include "SnmpCodec.h"

#include <libtasn1.h>

#include <limits>

namespace {

constexpr std::uint8_t SEQUENCE = 0x30;
constexpr std::int32_t VERSION_2C = 1;
constexpr std::int32_t MAX_ERROR_STATUS = 18; // RFC 3416, section 3
// Encoded numbers of up to 32 bits, 7 bits a byte.
constexpr std::size_t MAX_OID_BYTES = SnmpOid::MAX_ARCS * 5;
// Decimal numbers and their dots.
constexpr std::size_t MAX_OID_TEXT = SnmpOid::MAX_ARCS * 11 + 16;

void Require(bool bHolds, const char* pszElse)
{
    if (!bHolds)
        throw SnmpMalformed(pszElse);
}

/// Elements one after the other, which end where the bytes end. RFC 3417, section 8: lengths are definite and tags are
/// single bytes.
class BerReader
{
public:
    BerReader(const std::uint8_t* pData, std::size_t uLength)
        : m_pData(pData)
        , m_uLength(uLength)
    {}

    bool IsEmpty() const { return m_uLength == 0; }
    std::uint8_t Tag() const { return IsEmpty() ? std::uint8_t{0} : m_pData[0]; }

    /// Takes the next element. @return what is in it
    BerReader Next()
    {
        Require(m_uLength >= 2 && m_uLength <= SNMP_MAX_MESSAGE, "an element without length");
        const auto iRest = static_cast<int>(m_uLength - 1);
        int iLengthBytes = 0;
        const long iContent = asn1_get_length_der(m_pData + 1, iRest, &iLengthBytes);
        Require(iContent != -1, "an element of indefinite length");
        // Of a length that is cut short the library takes what there is.
        Require(m_pData[1] < 0x80 || iLengthBytes == 1 + (m_pData[1] & 0x7F), "an element without length");
        Require(iContent >= 0 && iContent <= iRest - iLengthBytes,
                "an element that is longer than what it is in");
        m_pHead = m_pData;
        const BerReader content(m_pData + 1 + iLengthBytes, static_cast<std::size_t>(iContent));
        m_pData = content.m_pData + content.m_uLength;
        m_uLength -= 1 + static_cast<std::size_t>(iLengthBytes + iContent);
        return content;
    }
    BerReader Next(std::uint8_t ucTag, const char* pszElse)
    {
        Require(Tag() == ucTag, pszElse);
        return Next();
    }
    BerReader Next(SnmpType eType, const char* pszElse)
    {
        return Next(static_cast<std::uint8_t>(eType), pszElse);
    }

    /// A number with sign, of 32 bits.
    std::int32_t Number() const
    {
        Require(m_uLength >= 1 && m_uLength <= 4, "a number of a wrong size");
        std::uint32_t ulNumber = m_pData[0] < 0x80 ? 0 : std::numeric_limits<std::uint32_t>::max();
        for (std::size_t i = 0; i < m_uLength; ++i)
            ulNumber = ulNumber << 8U | m_pData[i];
        return static_cast<std::int32_t>(ulNumber);
    }
    /// A number of at most uBytes bytes without sign; one more when that is zero. Elements are known to leave it out.
    std::uint64_t Unsigned(std::size_t uBytes) const
    {
        Require(m_uLength >= 1 && (m_uLength <= uBytes || (m_uLength == uBytes + 1 && m_pData[0] == 0)),
                "a number of a wrong size");
        std::uint64_t ulNumber = 0;
        for (std::size_t i = 0; i < m_uLength; ++i)
            ulNumber = ulNumber << 8U | m_pData[i];
        return ulNumber;
    }
    std::string Bytes() const { return {reinterpret_cast<const char*>(m_pData), m_uLength}; }

    /// Takes an object identifier.
    SnmpOid Oid()
    {
        const BerReader content = Next(SnmpType::OBJECT_ID, "no object identifier where one belongs");
        Require(content.m_uLength >= 1 && content.m_uLength <= MAX_OID_BYTES &&
                    content.m_pData[content.m_uLength - 1] < 0x80,
                "an object identifier of a wrong size");
        char szText[MAX_OID_TEXT] = {};
        int iTaken = 0;
        const auto* pLength = m_pHead + 1;
        const int iResult = asn1_get_object_id_der(pLength, static_cast<int>(m_pData - pLength), &iTaken,
                                                   szText, static_cast<int>(sizeof(szText)));
        const auto oid = iResult == ASN1_SUCCESS ? SnmpOid::FromText(szText) : std::nullopt;
        Require(oid.has_value(), "a wrong object identifier");
        return *oid;
    }

private:
    const std::uint8_t* m_pData;
    std::size_t m_uLength;
    const std::uint8_t* m_pHead = nullptr; // of the element that was taken last
};

SnmpValue ReadValue(BerReader& reader)
{
    SnmpValue value;
    value.eType = static_cast<SnmpType>(reader.Tag());
    if (value.eType == SnmpType::OBJECT_ID)
    {
        value.oid = reader.Oid();
        return value;
    }
    const BerReader content = reader.Next();
    switch (value.eType)
    {
    case SnmpType::INTEGER:
        value.iNumber = content.Number();
        break;
    case SnmpType::COUNTER32:
    case SnmpType::GAUGE32:
    case SnmpType::TIME_TICKS:
        value.ulNumber = content.Unsigned(4);
        break;
    case SnmpType::COUNTER64:
        value.ulNumber = content.Unsigned(8);
        break;
    case SnmpType::OCTET_STRING:
    case SnmpType::OPAQUE:
    case SnmpType::IP_ADDRESS:
        value.strBytes = content.Bytes();
        Require(value.eType != SnmpType::IP_ADDRESS || value.strBytes.size() == 4,
                "an address of a wrong size");
        break;
    case SnmpType::NULL_VALUE:
    case SnmpType::NO_SUCH_OBJECT:
    case SnmpType::NO_SUCH_INSTANCE:
    case SnmpType::END_OF_MIB_VIEW:
        Require(content.IsEmpty(), "bytes where none belong");
        break;
    default:
        throw SnmpMalformed("a value of an unknown type");
    }
    return value;
}

/// Takes what stands in front of the PDU. @return what is in the message
BerReader Open(const std::uint8_t* pData, std::size_t uLength, std::string* pstrCommunity)
{
    BerReader outside(pData, uLength);
    BerReader message = outside.Next(SEQUENCE, "no SNMP message");
    Require(outside.IsEmpty(), "bytes behind the message");
    Require(message.Next(SnmpType::INTEGER, "no version").Number() == VERSION_2C, "a version other than 2c");
    const BerReader community = message.Next(SnmpType::OCTET_STRING, "no community");
    if (pstrCommunity != nullptr)
        *pstrCommunity = community.Bytes();
    return message;
}

SnmpPdu PduOf(const BerReader& message)
{
    const auto ePdu = static_cast<SnmpPdu>(message.Tag());
    switch (ePdu)
    {
    case SnmpPdu::GET:
    case SnmpPdu::GET_NEXT:
    case SnmpPdu::RESPONSE:
    case SnmpPdu::SET:
    case SnmpPdu::GET_BULK:
    case SnmpPdu::INFORM:
    case SnmpPdu::TRAP:
    case SnmpPdu::REPORT:
        return ePdu;
    }
    throw SnmpMalformed("an unknown kind of message");
}

std::string Element(std::uint8_t ucTag, const std::string& strContent)
{
    unsigned char length[sizeof(unsigned long) + 1] = {};
    int iLengthBytes = static_cast<int>(sizeof(length));
    asn1_length_der(strContent.size(), length, &iLengthBytes);
    std::string strElement(1, static_cast<char>(ucTag));
    strElement.append(reinterpret_cast<const char*>(length), static_cast<std::size_t>(iLengthBytes));
    return strElement + strContent;
}

/// The fewest bytes that keep value and sign.
std::string Number(std::uint8_t ucTag, std::int32_t iNumber)
{
    std::string strBytes;
    bool bMore = true;
    while (bMore)
    {
        const auto cByte = static_cast<char>(iNumber & 0xFF);
        strBytes.insert(strBytes.begin(), cByte);
        iNumber >>= 8;
        bMore = (cByte & 0x80) == 0 ? iNumber != 0 : iNumber != -1;
    }
    return Element(ucTag, strBytes);
}

/// The same of a number without sign.
std::string Unsigned(std::uint8_t ucTag, std::uint64_t ulNumber)
{
    std::string strBytes;
    do
        strBytes.insert(strBytes.begin(), static_cast<char>(ulNumber & 0xFFU));
    while ((ulNumber >>= 8U) != 0);
    if ((strBytes[0] & 0x80) != 0)
        strBytes.insert(strBytes.begin(), '\0');
    return Element(ucTag, strBytes);
}

std::string Oid(const SnmpOid& oid)
{
    unsigned char der[MAX_OID_BYTES + 8] = {};
    int iLength = static_cast<int>(sizeof(der));
    const std::string strText = oid.Text();
    if (strText.empty() || asn1_object_id_der(strText.c_str() + 1, der, &iLength, 0) != ASN1_SUCCESS)
        throw SnmpMalformed("an object identifier that cannot be sent");
    return {reinterpret_cast<const char*>(der), static_cast<std::size_t>(iLength)};
}

std::string Value(const SnmpValue& value)
{
    const auto ucTag = static_cast<std::uint8_t>(value.eType);
    switch (value.eType)
    {
    case SnmpType::INTEGER:
        return Number(ucTag, value.iNumber);
    case SnmpType::COUNTER32:
    case SnmpType::GAUGE32:
    case SnmpType::TIME_TICKS:
        Require(value.ulNumber <= std::numeric_limits<std::uint32_t>::max(), "a number that is too large");
        return Unsigned(ucTag, value.ulNumber);
    case SnmpType::COUNTER64:
        return Unsigned(ucTag, value.ulNumber);
    case SnmpType::IP_ADDRESS:
        Require(value.strBytes.size() == 4, "an address of a wrong size");
        return Element(ucTag, value.strBytes);
    case SnmpType::OBJECT_ID:
        return Oid(value.oid);
    default:
        return Element(ucTag, value.strBytes);
    }
}

} // namespace

int SnmpFrameLength(const std::uint8_t* pData, std::size_t uLength)
{
    if (uLength == 0)
        return 0;
    if (pData[0] != SEQUENCE)
        return -1;
    if (uLength < 2)
        return 0;
    std::size_t uContent = pData[1];
    std::size_t uHead = 2;
    if (uContent >= 0x80) // so many bytes of length follow; none: an indefinite length
    {
        const std::size_t uLengthBytes = uContent - 0x80;
        if (uLengthBytes == 0 || uLengthBytes > 4)
            return -1;
        uHead += uLengthBytes;
        if (uLength < uHead)
            return 0;
        uContent = 0;
        for (std::size_t i = 2; i < uHead; ++i)
            uContent = uContent << 8U | pData[i];
    }
    if (uHead + uContent > SNMP_MAX_MESSAGE)
        return -1;
    return uLength < uHead + uContent ? 0 : static_cast<int>(uHead + uContent);
}

SnmpPdu SnmpPduOf(const std::uint8_t* pData, std::size_t uLength)
{
    return PduOf(Open(pData, uLength, nullptr));
}

SnmpPacket SnmpDecode(const std::uint8_t* pData, std::size_t uLength)
{
    SnmpPacket packet;
    BerReader message = Open(pData, uLength, &packet.strCommunity);
    packet.ePdu = PduOf(message);
    BerReader pdu = message.Next();
    Require(message.IsEmpty(), "bytes behind the PDU");
    packet.iRequestId = pdu.Next(SnmpType::INTEGER, "no request-id").Number();
    packet.iErrorStatus = pdu.Next(SnmpType::INTEGER, "no error-status").Number();
    packet.iErrorIndex = pdu.Next(SnmpType::INTEGER, "no error-index").Number();
    // The numbers have a meaning of their own in questions for several values.
    Require(packet.ePdu == SnmpPdu::GET_BULK ||
                (packet.iErrorStatus >= 0 && packet.iErrorStatus <= MAX_ERROR_STATUS),
            "an unknown error-status");
    BerReader bindings = pdu.Next(SEQUENCE, "no variable bindings");
    Require(pdu.IsEmpty(), "bytes behind the variable bindings");
    while (!bindings.IsEmpty())
    {
        BerReader binding = bindings.Next(SEQUENCE, "a variable binding that is none");
        SnmpVarBind& bind = packet.bindings.emplace_back();
        bind.name = binding.Oid();
        bind.value = ReadValue(binding);
        Require(binding.IsEmpty(), "bytes behind a value");
    }
    return packet;
}

std::string SnmpEncode(const SnmpPacket& packet)
{
    std::string strBindings;
    for (const SnmpVarBind& binding : packet.bindings)
        strBindings += Element(SEQUENCE, Oid(binding.name) + Value(binding.value));
    constexpr auto INTEGER = static_cast<std::uint8_t>(SnmpType::INTEGER);
    const std::string strPdu = Number(INTEGER, packet.iRequestId) + Number(INTEGER, packet.iErrorStatus) +
                               Number(INTEGER, packet.iErrorIndex) + Element(SEQUENCE, strBindings);
    return Element(SEQUENCE,
                   Number(INTEGER, VERSION_2C) +
                       Element(static_cast<std::uint8_t>(SnmpType::OCTET_STRING), packet.strCommunity) +
                       Element(static_cast<std::uint8_t>(packet.ePdu), strPdu));
}
