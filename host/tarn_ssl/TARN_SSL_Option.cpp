#include "OptionState.h"
#include "TlsLog.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cctype>
#include <utility>

namespace {

const char* OrEmpty(const char* pszText)
{
    return pszText != nullptr ? pszText : "";
}

/// Letters, digits, hyphens and dots, see RFC 1123 (2.1); underscores are in use as well. The last part is no number, or
/// it would be an IP address that is none.
bool IsHostName(const std::string& strName)
{
    constexpr std::size_t MAX_LENGTH = 253;
    const std::size_t uLastPart = strName.rfind('.') + 1;
    return strName.find_first_not_of("0123456789", uLastPart) != std::string::npos &&
           strName.find("..") == std::string::npos && strName.size() <= MAX_LENGTH &&
           strName.front() != '.' && strName.front() != '-' &&
           std::all_of(strName.begin(), strName.end(), [](unsigned char c) {
               return std::isalnum(c) != 0 || c == '-' || c == '.' || c == '_';
           });
}

} // namespace

bool IsIpAddress(const std::string& strName)
{
    in6_addr address = {};
    return inet_pton(AF_INET, strName.c_str(), &address) == 1 ||
           inet_pton(AF_INET6, strName.c_str(), &address) == 1;
}

/// Takes over settings that a context can be made with.
int TARN_SSL_Option::State::Change(const TlsSettings& newSettings)
{
    TlsContext pNew = MakeTlsContext(newSettings);
    if (pNew == nullptr)
        return -1;
    settings = newSettings;
    pContext = std::move(pNew);
    return 0;
}

TARN_SSL_Option::TARN_SSL_Option()
    : m_pState(std::make_unique<State>())
{}

TARN_SSL_Option::TARN_SSL_Option(const TARN_SSL_Option& other)
    : m_pState(std::make_unique<State>(*other.m_pState))
{}

TARN_SSL_Option& TARN_SSL_Option::operator=(const TARN_SSL_Option& other)
{
    *m_pState = *other.m_pState;
    return *this;
}

TARN_SSL_Option::~TARN_SSL_Option() = default;

void TARN_SSL_Option::set_ssl(bool bEnable)
{
    m_pState->bSsl = bEnable;
}

bool TARN_SSL_Option::enable_ssl() const
{
    return m_pState->bSsl;
}

void TARN_SSL_Option::set_auth_peer(bool bEnable)
{
    m_pState->bAuthPeer = bEnable;
}

bool TARN_SSL_Option::enable_auth_peer() const
{
    return m_pState->bAuthPeer;
}

void TARN_SSL_Option::set_check_name(bool bEnable)
{
    m_pState->bCheckName = bEnable;
}

bool TARN_SSL_Option::enable_check_name() const
{
    return m_pState->bCheckName;
}

int TARN_SSL_Option::set_peer_name(const char* pszName)
{
    const std::string strName = OrEmpty(pszName);
    if (!strName.empty() && !IsIpAddress(strName) && !IsHostName(strName))
    {
        TlsLog(TARN_LOG_ERROR,
               "refused the peer name \"" + strName + "\": it is neither a host name nor an IP address");
        return -1;
    }
    m_pState->strPeerName = strName;
    return 0;
}

const char* TARN_SSL_Option::get_peer_name() const
{
    return m_pState->strPeerName.c_str();
}

int TARN_SSL_Option::set_authorities(const char* pszFile, const char* pszDirectory)
{
    TlsSettings settings = m_pState->settings;
    settings.strAuthorityFile = OrEmpty(pszFile);
    settings.strAuthorityDirectory = OrEmpty(pszDirectory);
    return m_pState->Change(settings);
}

int TARN_SSL_Option::set_certificate(const char* pszCertificateFile, const char* pszKeyFile)
{
    TlsSettings settings = m_pState->settings;
    settings.strCertificateFile = OrEmpty(pszCertificateFile);
    settings.strKeyFile = OrEmpty(pszKeyFile);
    if (settings.strCertificateFile.empty() != settings.strKeyFile.empty())
    {
        TlsLog(TARN_LOG_ERROR, "refused the certificate \"" + settings.strCertificateFile +
                                   "\" with the private key \"" + settings.strKeyFile +
                                   "\": one does not go without the other");
        return -1;
    }
    return m_pState->Change(settings);
}

int TARN_SSL_Option::set_version(const char* pszLeast, const char* pszGreatest)
{
    TlsSettings settings = m_pState->settings;
    settings.strLeastVersion = OrEmpty(pszLeast);
    settings.strGreatestVersion = OrEmpty(pszGreatest);
    return m_pState->Change(settings);
}

const char* TARN_SSL_Option::get_version() const
{
    return m_pState->settings.strLeastVersion.c_str();
}

int TARN_SSL_Option::set_cipherlist(const char* pszCiphers)
{
    TlsSettings settings = m_pState->settings;
    settings.strCiphers = OrEmpty(pszCiphers);
    if (settings.strCiphers.empty())
        settings.strCiphers = TlsSettings().strCiphers;
    return m_pState->Change(settings);
}

const char* TARN_SSL_Option::get_cipherlist() const
{
    return m_pState->settings.strCiphers.c_str();
}

void TARN_SSL_Option::set_session_reuse(bool bEnable)
{
    m_pState->bSessionReuse = bEnable;
}

bool TARN_SSL_Option::enable_session_reuse() const
{
    return m_pState->bSessionReuse;
}

void TARN_SSL_Option::set_session_timeout(int iSeconds)
{
    m_pState->iSessionTimeout = std::max(0, iSeconds);
}

int TARN_SSL_Option::get_session_timeout() const
{
    return m_pState->iSessionTimeout;
}

void TARN_SSL_Option::set_port_adapt(bool bEnable)
{
    m_pState->bPortAdapt = bEnable;
}

bool TARN_SSL_Option::enable_port_adapt() const
{
    return m_pState->bPortAdapt;
}
