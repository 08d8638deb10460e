#include "TlsContext.h"

#include "TlsLog.h"
#include "TlsSessions.h"

#include <openssl/err.h>
#include <openssl/pem.h>

#include <sys/stat.h>

#include <algorithm>
#include <mutex>

namespace {

bool Refuse(const std::string& strText)
{
    TlsLog(TARN_LOG_ERROR, strText);
    return false;
}

/// Asked when a private key is protected by a pass phrase: there is nobody to enter one.
int NotePassPhraseAsked(char* /*pBuffer*/, int /*iSize*/, int /*iWriting*/, void* pAsked)
{
    *static_cast<bool*>(pAsked) = true;
    return -1;
}

bool SetVersions(SSL_CTX* pContext, const TlsSettings& settings)
{
    const int iLeast = TlsVersionNumber(settings.strLeastVersion);
    const int iGreatest = TlsVersionNumber(settings.strGreatestVersion);
    if (iLeast <= 0 || iGreatest < 0 || (iGreatest != 0 && iGreatest < iLeast))
        return Refuse("refused the versions \"" + settings.strLeastVersion + "\" to \"" +
                      settings.strGreatestVersion + "\": TLSv1.2 and TLSv1.3 are known");
    return (SSL_CTX_set_min_proto_version(pContext, iLeast) == 1 &&
            SSL_CTX_set_max_proto_version(pContext, iGreatest) == 1) ||
           Refuse("the versions cannot be set: " + TakeOpenSslReason());
}

/// One list names the ciphers of both versions, which OpenSSL keeps apart.
bool SetCiphers(SSL_CTX* pContext, const std::string& strCiphers)
{
    const auto refuse = [&](const std::string& strReason) {
        return Refuse("refused the cipher list \"" + strCiphers + "\": " + strReason);
    };
    constexpr const char* SEPARATORS = ":,; ";
    std::string strOld;
    std::string strNew;
    bool bOldNamed = false; // beside words to OpenSSL, such as "@SECLEVEL=1"
    for (std::size_t uStart = 0;
         (uStart = strCiphers.find_first_not_of(SEPARATORS, uStart)) != std::string::npos;)
    {
        const std::size_t uEnd = std::min(strCiphers.find_first_of(SEPARATORS, uStart), strCiphers.size());
        const std::string strName = strCiphers.substr(uStart, uEnd - uStart);
        uStart = uEnd;
        const std::size_t uTls = strName.find("TLS_");
        if (uTls == 1)
            return refuse("\"" + strName + "\": ciphers of TLS 1.3 can only be named");
        if (uTls == 0 && strName.find("_WITH_") != std::string::npos)
            return refuse("\"" + strName + "\" is one of TLS 1.2, which go by OpenSSL's names");
        bOldNamed |= uTls != 0 && strName.front() != '@';
        std::string& strList = uTls == 0 ? strNew : strOld;
        strList += (strList.empty() ? "" : ":") + strName;
    }
    if (!strNew.empty() && SSL_CTX_set_ciphersuites(pContext, strNew.c_str()) != 1)
        return refuse(TakeOpenSslReason());
    if (!bOldNamed)
        strOld = "DEFAULT" + (strOld.empty() ? "" : ":" + strOld);
    if (SSL_CTX_set_cipher_list(pContext, strOld.c_str()) != 1)
        return refuse(TakeOpenSslReason());
    if (bOldNamed || strNew.empty())
        return true;
    // Only ciphers of TLS 1.3 are named: TLS 1.2 is not meant.
    if (SSL_CTX_get_max_proto_version(pContext) == TLS1_2_VERSION)
        return refuse("none of them is of TLSv1.2");
    return SSL_CTX_set_min_proto_version(pContext, TLS1_3_VERSION) == 1 || refuse(TakeOpenSslReason());
}

bool LoadAuthorities(SSL_CTX* pContext, const TlsSettings& settings)
{
    const std::string& strFile = settings.strAuthorityFile;
    const std::string& strDirectory = settings.strAuthorityDirectory;
    if (strFile.empty() && strDirectory.empty())
        return SSL_CTX_set_default_verify_paths(pContext) == 1 ||
               Refuse("the system's authorities cannot be used: " + TakeOpenSslReason());
    // Whatever is named is trusted, also an authority that another one has certified.
    X509_STORE_set_flags(SSL_CTX_get_cert_store(pContext), X509_V_FLAG_PARTIAL_CHAIN);
    if (!strFile.empty() && SSL_CTX_load_verify_file(pContext, strFile.c_str()) != 1)
        return Refuse("refused the authorities \"" + strFile + "\": " + TakeOpenSslReason());
    struct stat status = {};
    if (!strDirectory.empty() && (stat(strDirectory.c_str(), &status) != 0 || !S_ISDIR(status.st_mode)))
        return Refuse("refused the authorities \"" + strDirectory + "\": it is no directory");
    return strDirectory.empty() || SSL_CTX_load_verify_dir(pContext, strDirectory.c_str()) == 1 ||
           Refuse("refused the authorities \"" + strDirectory + "\": " + TakeOpenSslReason());
}

bool LoadCertificate(SSL_CTX* pContext, const TlsSettings& settings)
{
    if (settings.strCertificateFile.empty())
        return true;
    bool bProtected = false;
    SSL_CTX_set_default_passwd_cb(pContext, &NotePassPhraseAsked);
    SSL_CTX_set_default_passwd_cb_userdata(pContext, &bProtected);
    if (SSL_CTX_use_certificate_chain_file(pContext, settings.strCertificateFile.c_str()) != 1)
        return Refuse("refused the certificate \"" + settings.strCertificateFile +
                      "\": " + TakeOpenSslReason());
    const bool bLoaded =
        SSL_CTX_use_PrivateKey_file(pContext, settings.strKeyFile.c_str(), SSL_FILETYPE_PEM) == 1;
    SSL_CTX_set_default_passwd_cb_userdata(pContext, nullptr);
    SSL_CTX_set_default_passwd_cb(pContext, nullptr);
    if (!bLoaded && bProtected)
    {
        ERR_clear_error();
        return Refuse(
            "refused the private key \"" + settings.strKeyFile +
            "\": it is protected by a pass phrase, which nobody could enter; \"openssl pkey\" takes it off");
    }
    // Loading compares the two as well.
    return (bLoaded && SSL_CTX_check_private_key(pContext) == 1) ||
           Refuse("refused the private key \"" + settings.strKeyFile + "\" for the certificate \"" +
                  settings.strCertificateFile + "\": " + TakeOpenSslReason());
}

void InitOpenSsl()
{
    // OpenSSL would otherwise free its tables at the process's exit, under threads that still use them.
    static std::once_flag s_Once;
    std::call_once(s_Once, [] { OPENSSL_init_ssl(OPENSSL_INIT_NO_ATEXIT, nullptr); });
}

} // namespace

int TlsVersionNumber(const std::string& strVersion)
{
    if (strVersion.empty())
        return 0;
    if (strVersion == "TLSv1.2")
        return TLS1_2_VERSION;
    return strVersion == "TLSv1.3" ? TLS1_3_VERSION : -1;
}

TlsContext MakeTlsContext(const TlsSettings& settings)
{
    InitOpenSsl();
    ERR_clear_error();
    std::unique_ptr<SSL_CTX, TlsContextDeleter> pContext(SSL_CTX_new(TLS_client_method()));
    if (pContext == nullptr)
    {
        Refuse("cannot make a context: " + TakeOpenSslReason());
        return nullptr;
    }
    // A peer that closes without notice has closed all the same; messages tell their own length.
    SSL_CTX_set_options(pContext.get(), SSL_OP_IGNORE_UNEXPECTED_EOF);
    // Idle connections, of which there are thousands, keep no buffers.
    SSL_CTX_set_mode(pContext.get(), SSL_MODE_ENABLE_PARTIAL_WRITE | SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER |
                                         SSL_MODE_RELEASE_BUFFERS);
    TlsSessions::Watch(pContext.get());
    if (!SetVersions(pContext.get(), settings) || !SetCiphers(pContext.get(), settings.strCiphers) ||
        !LoadAuthorities(pContext.get(), settings) || !LoadCertificate(pContext.get(), settings))
        return nullptr;
    return pContext;
}

TlsContext DefaultTlsContext()
{
    static std::mutex s_Mutex;
    static std::weak_ptr<SSL_CTX> s_pContext; // guarded by s_Mutex
    const std::lock_guard<std::mutex> guard(s_Mutex);
    TlsContext pContext = s_pContext.lock();
    if (pContext == nullptr)
    {
        pContext = MakeTlsContext({});
        s_pContext = pContext;
    }
    return pContext;
}
