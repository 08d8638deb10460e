#include "support/Authority.h"

#include <gtest/gtest.h>

#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>

namespace {

std::atomic<long> g_lSerial{1};

X509* NewCertificate(EVP_PKEY* pKey, const Authority::Request& request)
{
    constexpr long DAY = 86400;
    X509* pCertificate = X509_new();
    X509_set_version(pCertificate, X509_VERSION_3);
    ASN1_INTEGER_set(X509_get_serialNumber(pCertificate), g_lSerial++);
    X509_gmtime_adj(X509_getm_notBefore(pCertificate), request.lFromDays * DAY);
    X509_gmtime_adj(X509_getm_notAfter(pCertificate), request.lToDays * DAY);
    X509_NAME_add_entry_by_txt(X509_get_subject_name(pCertificate), "CN", MBSTRING_UTF8,
                               reinterpret_cast<const unsigned char*>(request.strName.c_str()), -1, -1, 0);
    EXPECT_EQ(X509_set_pubkey(pCertificate, pKey), 1);
    return pCertificate;
}

void AddExtension(X509* pCertificate, int iNid, const std::string& strValue)
{
    X509_EXTENSION* pExtension = X509V3_EXT_conf_nid(nullptr, nullptr, iNid, strValue.c_str());
    EXPECT_EQ(X509_add_ext(pCertificate, pExtension, -1), 1) << strValue;
    X509_EXTENSION_free(pExtension);
}

void WriteFile(const std::string& strFile, const std::function<int(FILE*)>& write)
{
    FILE* pFile = std::fopen(strFile.c_str(), "w");
    EXPECT_EQ(write(pFile), 1) << strFile;
    std::fclose(pFile);
}

} // namespace

Authority::Authority(const std::string& strName)
    : m_pKey(EVP_EC_gen("P-256"), &EVP_PKEY_free)
    , m_pCertificate(NewCertificate(m_pKey.get(), {strName, "", -1000, 1000, ""}), &X509_free)
{
    std::string strTemplate = (std::filesystem::temp_directory_path() / "tarn-authority-XXXXXX").string();
    m_strFolder = mkdtemp(strTemplate.data());
    m_strFile = m_strFolder + "/authority.pem";
    X509* pCertificate = m_pCertificate.get();
    X509_set_issuer_name(pCertificate, X509_get_subject_name(pCertificate));
    AddExtension(pCertificate, NID_basic_constraints, "critical,CA:TRUE");
    EXPECT_GT(X509_sign(pCertificate, m_pKey.get(), EVP_sha256()), 0);
    WriteFile(m_strFile, [&](FILE* pFile) { return PEM_write_X509(pFile, pCertificate); });
}

Authority::~Authority()
{
    std::filesystem::remove_all(m_strFolder);
}

Authority::Issued Authority::Issue(const Request& request) const
{
    const std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)> pKey(EVP_EC_gen("P-256"), &EVP_PKEY_free);
    const std::unique_ptr<X509, decltype(&X509_free)> pCertificate(NewCertificate(pKey.get(), request),
                                                                   &X509_free);
    X509_set_issuer_name(pCertificate.get(), X509_get_subject_name(m_pCertificate.get()));
    if (!request.strNames.empty())
        AddExtension(pCertificate.get(), NID_subject_alt_name, request.strNames);
    EXPECT_GT(X509_sign(pCertificate.get(), m_pKey.get(), EVP_sha256()), 0);
    const std::string strStem = m_strFolder + "/" + std::to_string(g_lSerial);
    const Issued issued = {strStem + ".pem", strStem + ".key"};
    WriteFile(issued.strCertificate, [&](FILE* pFile) { return PEM_write_X509(pFile, pCertificate.get()); });
    const std::string& strPhrase = request.strPassPhrase;
    WriteFile(issued.strKey, [&](FILE* pFile) {
        return PEM_write_PKCS8PrivateKey(pFile, pKey.get(), strPhrase.empty() ? nullptr : EVP_aes_256_cbc(),
                                         strPhrase.data(), static_cast<int>(strPhrase.size()), nullptr,
                                         nullptr);
    });
    return issued;
}
