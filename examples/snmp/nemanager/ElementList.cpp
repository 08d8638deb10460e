#include "ElementList.h"

#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <charconv>
#include <filesystem>
#include <fstream>
#include <sstream>

namespace {

const std::string TP4_SCHEME = "tp4:";

template <typename Number>
Number ParseNumber(const std::string& strText, Number least, Number greatest, const std::string& strWhat)
{
    Number number = 0;
    const char* pEnd = strText.data() + strText.size();
    const auto result = std::from_chars(strText.data(), pEnd, number);
    if (result.ec != std::errc() || result.ptr != pEnd || number < least || number > greatest)
        throw UsageError(strWhat + " \"" + strText + "\" is not a number from " + std::to_string(least) +
                         " to " + std::to_string(greatest));
    return number;
}

std::uint32_t Resolve(const std::string& strHost)
{
    addrinfo hints = {};
    hints.ai_family = AF_INET; // the framework's transports know no other
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* pFound = nullptr;
    const int iResult = getaddrinfo(strHost.c_str(), nullptr, &hints, &pFound);
    if (iResult != 0)
        throw UsageError("host \"" + strHost + "\" has no IPv4 address: " + gai_strerror(iResult));
    const std::uint32_t ulIP = ntohl(reinterpret_cast<const sockaddr_in*>(pFound->ai_addr)->sin_addr.s_addr);
    freeaddrinfo(pFound);
    return ulIP;
}

/// @param strText  "ADDRESS/SELECTOR"
SnmpAddress ParseTp4Address(const std::string& strText)
{
    constexpr std::size_t MAX_DIGITS = 80;
    constexpr std::size_t MAX_SELECTOR = 15;
    const std::size_t uSlash = strText.find('/');
    if (uSlash == std::string::npos)
        throw UsageError("\"tp4:" + strText + "\" is no address; it should be like tp4:49000f0102/snmp");
    SnmpAddress address;
    address.eType = TP4_TYPE;
    address.strTp4Address = strText.substr(0, uSlash);
    address.strTp4Tsap = strText.substr(uSlash + 1);
    if (uSlash % 2 != 0 || uSlash > MAX_DIGITS ||
        address.strTp4Address.find_first_not_of("0123456789abcdefABCDEF") != std::string::npos)
        throw UsageError("in \"tp4:" + strText + "\": the address is not 0 to 80 hex digits, in pairs");
    if (address.strTp4Tsap.size() > MAX_SELECTOR)
        throw UsageError("in \"tp4:" + strText + "\": the selector has more than 15 characters");
    return address;
}

bool IsTp4(const std::string& strText)
{
    return strText.rfind(TP4_SCHEME, 0) == 0;
}

SnmpAddress ParseAddress(const std::string& strText)
{
    if (IsTp4(strText))
        return ParseTp4Address(strText.substr(TP4_SCHEME.size()));
    SnmpAddress address;
    const std::size_t uHost = strText.find(':') + 1;
    const std::size_t uPort = strText.rfind(':') + 1;
    const std::string strTransport = strText.substr(0, uHost);
    if ((strTransport != "tcp:" && strTransport != "tls:") || uPort <= uHost + 1)
        throw UsageError("\"" + strText +
                         "\" is no address; it should be like tcp:10.0.0.7:161, tls:host.example:10161 or "
                         "tp4:49000f0102/snmp");
    address.eType = strTransport == "tls:" ? TCP_SSL_TYPE : TCP_TYPE;
    address.usPort =
        ParseNumber<std::uint16_t>(strText.substr(uPort), 1, 65535, "in \"" + strText + "\": the port");
    address.ulIP = Resolve(strText.substr(uHost, uPort - 1 - uHost));
    return address;
}

/// @param bAsked  for this very element, and not by default
void Secure(SnmpAddress& address, const std::string& strAuthority, const std::string& strPeerName,
            bool bAsked)
{
    if (address.eType != TCP_SSL_TYPE)
    {
        if (bAsked)
            throw UsageError(
                "authority and name are for tls: addresses; nothing is secured over tcp: and tp4:");
        return;
    }
    // The reason of a refusal is in the log, which is shown.
    if (!strAuthority.empty() && address.tls.set_authorities(strAuthority.c_str(), nullptr) != 0)
        throw UsageError("the authority \"" + strAuthority + "\" cannot be used");
    if (address.tls.set_peer_name(strPeerName.c_str()) != 0)
        throw UsageError("\"" + strPeerName + "\" is no name that a certificate can be for");
}

ElementSettings ElementFromLine(std::istringstream& words, const ElementDefaults& defaults,
                                const std::filesystem::path& folder)
{
    ElementSettings element;
    ElementDefaults own = defaults;
    bool bSecured = false;
    words >> element.strName >> element.strAddress;
    if (element.strAddress.empty())
        throw UsageError("an address is missing behind the name \"" + element.strName + "\"");
    element.address = ParseAddress(element.strAddress);
    for (std::string strWord; words >> strWord;)
    {
        const std::size_t uEqual = strWord.find('=');
        const std::string strKey = strWord.substr(0, uEqual);
        const std::string strValue = uEqual == std::string::npos ? "" : strWord.substr(uEqual + 1);
        if (strValue.empty())
            throw UsageError("a value is missing behind \"" + strKey + "\"");
        if (strKey == "community")
            own.strCommunity = strValue;
        else if (strKey == "timeout")
            own.nTimeOut = ParseNumber(strValue, 1, 3600, "timeout");
        else if (strKey == "authority")
        {
            own.strAuthority = (folder / strValue).string();
            bSecured = true;
        }
        else if (strKey == "name")
        {
            own.strPeerName = strValue;
            bSecured = true;
        }
        else
            throw UsageError("\"" + strWord + "\" is none of community=, timeout=, authority=, name=");
    }
    element.strCommunity = own.strCommunity;
    element.nTimeOut = own.nTimeOut;
    Secure(element.address, own.strAuthority, own.strPeerName, bSecured);
    return element;
}

} // namespace

ElementSettings ElementFromText(const std::string& strText, const ElementDefaults& defaults)
{
    ElementSettings element;
    // A selector may have one, too.
    const std::size_t uEqual = IsTp4(strText) ? std::string::npos : strText.find('=');
    element.strAddress = uEqual == std::string::npos ? strText : strText.substr(uEqual + 1);
    element.strName = uEqual == std::string::npos ? strText : strText.substr(0, uEqual);
    element.address = ParseAddress(element.strAddress);
    element.strCommunity = defaults.strCommunity;
    element.nTimeOut = defaults.nTimeOut;
    Secure(element.address, defaults.strAuthority, defaults.strPeerName, false);
    return element;
}

std::vector<ElementSettings> ElementsFromFile(const std::string& strFile, const ElementDefaults& defaults)
{
    std::vector<ElementSettings> elements;
    std::ifstream file(strFile);
    std::string strLine;
    for (int iLine = 1; std::getline(file, strLine); ++iLine)
    {
        std::istringstream words(strLine);
        if (strLine.find_first_not_of(" \t\r") == std::string::npos || (words >> std::ws).peek() == '#')
            continue;
        try
        {
            elements.push_back(
                ElementFromLine(words, defaults, std::filesystem::path(strFile).parent_path()));
        }
        catch (const UsageError& error)
        {
            throw UsageError(strFile + ":" + std::to_string(iLine) + ": " + error.what());
        }
    }
    if (!file.eof())
        throw UsageError("the elements file \"" + strFile + "\" cannot be read");
    return elements;
}
