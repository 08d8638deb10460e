// For libFuzzer: whatever an element sends, framing and decoding end, stay within the bytes, and agree with each other.

#include "SnmpCodec.h"

#include <cstdio>
#include <cstdlib>

namespace {

void Require(bool bHolds, const char* pszWhat)
{
    if (bHolds)
        return;
    std::fprintf(stderr, "does not hold: %s\n", pszWhat);
    std::abort();
}

void Examine(const std::uint8_t* pData, std::size_t uLength)
{
    const SnmpPacket packet = SnmpDecode(pData, uLength);
    Require(SnmpFrameLength(pData, uLength) == static_cast<int>(uLength),
            "what can be decoded is one message");
    Require(SnmpPduOf(pData, uLength) == packet.ePdu, "its kind is seen without decoding");
    const std::string strBytes = SnmpEncode(packet);
    const auto* pBytes = reinterpret_cast<const std::uint8_t*>(strBytes.data());
    Require(SnmpEncode(SnmpDecode(pBytes, strBytes.size())) == strBytes, "it survives the way out and in");
    for (const SnmpVarBind& binding : packet.bindings)
        Require(SnmpOid::FromText(binding.name.Text()) == binding.name && !binding.value.Text().empty(),
                "it can be shown");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* pData, std::size_t uLength)
{
    // As a stream, message by message.
    for (std::size_t uDone = 0; uDone < uLength;)
    {
        const int iLength = SnmpFrameLength(pData + uDone, uLength - uDone);
        Require(iLength >= -1 && iLength <= static_cast<int>(uLength - uDone),
                "a message lies within the stream");
        if (iLength <= 0)
            break;
        try
        {
            Examine(pData + uDone, static_cast<std::size_t>(iLength));
        }
        catch (const SnmpMalformed&)
        {}
        uDone += static_cast<std::size_t>(iLength);
    }
    // And as they are.
    try
    {
        SnmpDecode(pData, uLength);
    }
    catch (const SnmpMalformed&)
    {}
    return 0;
}
