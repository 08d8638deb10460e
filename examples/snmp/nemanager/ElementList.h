#ifndef NEMANAGER_ELEMENTLIST_H
#define NEMANAGER_ELEMENTLIST_H

#include "SnmpElement.h"

#include <stdexcept>
#include <string>
#include <vector>

/// What the user has given is wrong; what() tells him.
class UsageError : public std::runtime_error
{
public:
    using std::runtime_error::runtime_error;
};

struct ElementSettings
{
    std::string strName;
    std::string strAddress; ///< as it was given
    SnmpAddress address;
    std::string strCommunity = "public";
    int nTimeOut = 5; ///< seconds that an answer may take
};

/// What holds for elements that do not say otherwise.
struct ElementDefaults
{
    std::string strCommunity = "public";
    int nTimeOut = 5;
    std::string strAuthority; ///< file of certificates; empty: the system's
    std::string strPeerName;  ///< that a certificate must be for; empty: the IP address
};

/// From "[NAME=]tcp:HOST:PORT", "[NAME=]tls:HOST:PORT" or "[NAME=]tp4:ADDRESS/SELECTOR". Throws UsageError.
ElementSettings ElementFromText(const std::string& strText, const ElementDefaults& defaults);

/// From a file with an element a line, for example
///
///     # name  address             settings
///     ne1     tcp:10.0.0.7:161    community=public timeout=3
///     ne3     tls:ne3:10161       authority=ca.pem name=ne3.example
///     ne4     tp4:49000f0102/snmp
///
/// where files are looked for beside this one. Throws UsageError, with file and line.
std::vector<ElementSettings> ElementsFromFile(const std::string& strFile, const ElementDefaults& defaults);

#endif
