#ifndef TARN_TESTS_SUPPORT_AUTHORITY_H
#define TARN_TESTS_SUPPORT_AUTHORITY_H

#include <openssl/x509.h>

#include <memory>
#include <string>
#include <utility>

/// A certificate authority that lives as long as a test, with what it issues in a folder of its own.
class Authority
{
public:
    struct Request
    {
        /// @param strCommonName  name of its holder
        /// @param strFor         alternative names, see x509v3_config(5); may be empty
        /// @param lFrom          validity in days, from today on; with lTo
        /// @param strGuard       pass phrase of the key; empty: none
        Request(std::string strCommonName = "element", std::string strFor = "IP:127.0.0.1", long lFrom = -1,
                long lTo = 1, std::string strGuard = "")
            : strName(std::move(strCommonName))
            , strNames(std::move(strFor))
            , lFromDays(lFrom)
            , lToDays(lTo)
            , strPassPhrase(std::move(strGuard))
        {}

        std::string strName;
        std::string strNames;
        long lFromDays;
        long lToDays;
        std::string strPassPhrase;
    };
    /// Files (PEM).
    struct Issued
    {
        std::string strCertificate;
        std::string strKey;
    };

    explicit Authority(const std::string& strName);
    ~Authority();
    Authority(const Authority&) = delete;
    Authority& operator=(const Authority&) = delete;

    Issued Issue(const Request& request) const;

    /// The authority's certificate (PEM).
    const std::string& File() const { return m_strFile; }
    const std::string& Folder() const { return m_strFolder; }

private:
    std::string m_strFolder;
    std::string m_strFile;
    std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)> m_pKey;
    std::unique_ptr<X509, decltype(&X509_free)> m_pCertificate;
};

#endif
