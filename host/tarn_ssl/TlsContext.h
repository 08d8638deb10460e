#ifndef TARN_HOST_TARN_SSL_TLSCONTEXT_H
#define TARN_HOST_TARN_SSL_TLSCONTEXT_H

#include <openssl/ssl.h>

#include <memory>
#include <string>

/// What a context is made of.
struct TlsSettings
{
    std::string strLeastVersion = "TLSv1.2";
    std::string strGreatestVersion; ///< empty: whatever there is
    std::string strCiphers = "DEFAULT";
    std::string strAuthorityFile; ///< both empty: the system's authorities
    std::string strAuthorityDirectory;
    std::string strCertificateFile; ///< empty: none
    std::string strKeyFile;
};

struct TlsContextDeleter
{
    void operator()(SSL_CTX* pContext) const { SSL_CTX_free(pContext); }
};

/// Certificates, authorities and ciphers as OpenSSL holds them; shared by all connections with the same settings.
/// Not changed once it has been made, so any number of threads may use it.
using TlsContext = std::shared_ptr<SSL_CTX>;

/// Reads the files and makes a context. Null, with a line in the log that says why, when something of it is not good.
TlsContext MakeTlsContext(const TlsSettings& settings);

/// The context of new options; made once and shared as long as somebody uses it.
TlsContext DefaultTlsContext();

/// The number of a version as it is named in options, see SSL_CTX_set_min_proto_version(3); 0 for an empty text, -1 for
/// an unknown one.
int TlsVersionNumber(const std::string& strVersion);

#endif
