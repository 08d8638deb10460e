#include "TlsConnection.h"

#include "OptionState.h"
#include "TlsLog.h"

#include <openssl/err.h>
#include <openssl/x509v3.h>

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <functional>
#include <system_error>
#include <utility>

namespace {

/// What OpenSSL prints, fit for one line of the log: it comes from the peer.
std::string Printed(const std::function<bool(BIO*)>& print)
{
    constexpr std::size_t MAX_LENGTH = 300;
    const std::unique_ptr<BIO, decltype(&BIO_free)> pBio(BIO_new(BIO_s_mem()), &BIO_free);
    if (pBio == nullptr || !print(pBio.get()))
        return "?";
    char* pText = nullptr;
    const auto uLength = static_cast<std::size_t>(BIO_get_mem_data(pBio.get(), &pText));
    std::string strText(pText, std::min(uLength, MAX_LENGTH));
    std::replace_if(
        strText.begin(), strText.end(), [](unsigned char c) { return c < ' ' || c > '~'; }, '?');
    return uLength > MAX_LENGTH ? strText + "..." : strText;
}

std::string NameText(const X509_NAME* pName)
{
    return Printed([pName](BIO* pBio) { return X509_NAME_print_ex(pBio, pName, 0, XN_FLAG_ONELINE) >= 0; });
}

std::string TimeText(const ASN1_TIME* pTime)
{
    tm parts = {};
    char szText[32] = "?";
    if (ASN1_TIME_to_tm(pTime, &parts) == 1)
        std::strftime(szText, sizeof(szText), "%Y-%m-%d %H:%M:%S UTC", &parts);
    return szText;
}

/// The names that a certificate is for.
std::string AlternativeNames(X509* pCertificate)
{
    const int iAt = X509_get_ext_by_NID(pCertificate, NID_subject_alt_name, -1);
    if (iAt < 0)
        return "no alternative names";
    X509_EXTENSION* pNames = X509_get_ext(pCertificate, iAt);
    return Printed([pNames](BIO* pBio) { return X509V3_EXT_print(pBio, pNames, 0, 0) == 1; });
}

std::string CertificateText(X509* pCertificate, int iError)
{
    std::string strText = "\"" + NameText(X509_get_subject_name(pCertificate)) + "\", issued by \"" +
                          NameText(X509_get_issuer_name(pCertificate)) + "\"";
    if (iError == X509_V_ERR_CERT_HAS_EXPIRED || iError == X509_V_ERR_CERT_NOT_YET_VALID)
        strText += ", valid from " + TimeText(X509_get0_notBefore(pCertificate)) + " to " +
                   TimeText(X509_get0_notAfter(pCertificate));
    if (iError == X509_V_ERR_HOSTNAME_MISMATCH || iError == X509_V_ERR_IP_ADDRESS_MISMATCH)
        strText += ", for " + AlternativeNames(pCertificate);
    return strText;
}

} // namespace

/// Notes the first thing that is wrong with the peer's chain; OpenSSL then refuses it.
int TlsConnection::OnVerify(int iGood, X509_STORE_CTX* pStore)
{
    const auto* pSsl =
        static_cast<SSL*>(X509_STORE_CTX_get_ex_data(pStore, SSL_get_ex_data_X509_STORE_CTX_idx()));
    auto& connection = *static_cast<TlsConnection*>(SSL_get_app_data(pSsl));
    if (iGood != 0 || connection.m_pRefusal != nullptr)
        return iGood;
    connection.m_pRefusal = std::make_unique<Refusal>();
    Refusal& refusal = *connection.m_pRefusal;
    refusal.iError = X509_STORE_CTX_get_error(pStore);
    refusal.iDepth = X509_STORE_CTX_get_error_depth(pStore);
    X509* pCertificate = X509_STORE_CTX_get_current_cert(pStore);
    refusal.strCertificate = pCertificate != nullptr ? CertificateText(pCertificate, refusal.iError) : "?";
    return 0;
}

void TlsConnection::OnMessage(int iWrite, int /*iVersion*/, int iContentType, const void* pData,
                              std::size_t uLength, SSL* /*pSsl*/, void* pConnection)
{
    if (iWrite != 0 || iContentType != SSL3_RT_HANDSHAKE || uLength == 0)
        return;
    auto& connection = *static_cast<TlsConnection*>(pConnection);
    const unsigned char ucType = *static_cast<const unsigned char*>(pData);
    connection.m_bCertificateAsked |= ucType == SSL3_MT_CERTIFICATE_REQUEST;
    connection.m_bTicketSeen |= ucType == SSL3_MT_NEWSESSION_TICKET;
}

bool TlsConnection::MakeSsl(SSL_CTX& context, const PeerCheck& check, std::shared_ptr<TlsSessions> pSessions)
{
    ERR_clear_error();
    m_pSsl.reset(SSL_new(&context));
    BIO* pBio = m_pSsl != nullptr ? BIO_new(BioMethod()) : nullptr;
    if (pBio == nullptr)
        return false;
    m_strExpected = check.strName;
    BIO_set_data(pBio, this);
    BIO_set_init(pBio, 1);
    SSL* pSsl = m_pSsl.get();
    SSL_set_bio(pSsl, pBio, pBio);
    SSL_set_app_data(pSsl, this);
    SSL_set_connect_state(pSsl);
    SSL_set_msg_callback(pSsl, &TlsConnection::OnMessage);
    SSL_set_msg_callback_arg(pSsl, this);
    SSL_set_verify(pSsl, check.bCertificate ? SSL_VERIFY_PEER : SSL_VERIFY_NONE,
                   check.bCertificate ? &TlsConnection::OnVerify : nullptr);
    const bool bIpAddress = IsIpAddress(check.strName);
    if (!bIpAddress && SSL_set_tlsext_host_name(pSsl, check.strName.c_str()) != 1)
        return false;
    if (check.bCertificate && check.bName)
    {
        X509_VERIFY_PARAM* pParameters = SSL_get0_param(pSsl);
        X509_VERIFY_PARAM_set_hostflags(pParameters, X509_CHECK_FLAG_NO_PARTIAL_WILDCARDS);
        if ((bIpAddress ? X509_VERIFY_PARAM_set1_ip_asc(pParameters, check.strName.c_str())
                        : X509_VERIFY_PARAM_set1_host(pParameters, check.strName.c_str(), 0)) != 1)
            return false;
    }
    m_pSessions = std::move(pSessions);
    if (m_pSessions != nullptr)
        m_pSessions->Attach(pSsl);
    return true;
}

int TlsConnection::StartTls(SSL_CTX& context, const PeerCheck& check, std::shared_ptr<TlsSessions> pSessions,
                            const Deadline& deadline)
{
    const auto tStart = Clock::now();
    {
        const std::lock_guard<std::mutex> guard(m_Mutex);
        if (!MakeSsl(context, check, std::move(pSessions)))
        {
            TlsLog(TARN_LOG_RESOURCE, "TLS with " + m_strPeer + " cannot be started: " + TakeOpenSslReason());
            errno = ENOMEM;
            return -1;
        }
    }
    if (RunHandshake(deadline, [this] { return StepHandshake(); }) != 0)
    {
        const int iError = errno;
        if (m_pSessions != nullptr)
            m_pSessions->Forget(); // it may have been the session that the peer did not like
        errno = iError;
        return -1;
    }
    {
        const std::lock_guard<std::mutex> guard(m_Mutex);
        if (m_pSessions != nullptr && SSL_session_reused(m_pSsl.get()) == 0)
            m_pSessions->NoteVerified();
        if (check.bCertificate && SSL_get0_peer_certificate(m_pSsl.get()) == nullptr)
        {
            TlsLog(TARN_LOG_ERROR, "TLS with " + m_strPeer + " refused: the peer has shown no certificate");
            errno = EPROTO;
            return -1;
        }
        TlsLog(TARN_LOG_INFO, "TLS with " + m_strPeer + ": " + Describe());
        if (!m_bCertificateAsked || SSL_version(m_pSsl.get()) != TLS1_3_VERSION)
            return 0;
    }
    // In TLS 1.3 this side is done before the peer has looked at its certificate. What the peer thinks of it is worth
    // a short wait: a connection that is opened, announced and refused costs everybody more.
    constexpr auto LEAST_WAIT = std::chrono::milliseconds(250);
    const auto tVerdict = Clock::now() + std::max<Clock::duration>(LEAST_WAIT, 2 * (Clock::now() - tStart));
    const bool bAll = deadline.has_value() && *deadline < tVerdict;
    const int iVerdict = RunHandshake(bAll ? deadline : Deadline(tVerdict), [this] { return StepVerdict(); });
    return iVerdict == 0 || errno == ETIME ? 0 : -1; // no word of it is no refusal
}

/// Repeats a step until it has an outcome. @return 0; -1 with errno, logged but for a time that is over in the verdict
template <class Step>
int TlsConnection::RunHandshake(const Deadline& deadline, Step step)
{
    for (;;)
    {
        bool bOutput = false;
        bool bLate = false;
        {
            const std::lock_guard<std::mutex> guard(m_Mutex);
            if (m_bClosed)
            {
                errno = ECANCELED;
                return -1;
            }
            const int iStep = step();
            if (iStep <= 0)
                return iStep;
            // Also when the socket is never silent.
            bLate = IsOver(deadline);
            bOutput = m_uUnsentAt < m_strUnsent.size();
        }
        if (!bLate && WaitUntilReady(deadline, true))
            continue;
        const std::lock_guard<std::mutex> guard(m_Mutex);
        if (!SSL_is_init_finished(m_pSsl.get()))
            TlsLog(TARN_LOG_ERROR, "TLS with " + m_strPeer + " failed: no " +
                                       (bOutput ? "room to send" : "answer") + " in time, in the state \"" +
                                       SSL_state_string_long(m_pSsl.get()) + "\"");
        errno = ETIME;
        return -1;
    }
}

/// @return 0 done, 1 to be gone on with when the socket is ready, -1 failed
int TlsConnection::StepHandshake()
{
    BeginStep();
    const int iResult = SSL_do_handshake(m_pSsl.get());
    if (iResult == 1)
        return 0;
    SendUnsent();
    return AfterStep(iResult);
}

/// Looks for what the peer says of this side's certificate: a ticket or data means yes, an alert no.
int TlsConnection::StepVerdict()
{
    BeginStep();
    char cFirst = 0;
    const int iResult = SSL_peek(m_pSsl.get(), &cFirst, 1);
    SendUnsent();
    if (iResult == 1 || m_bTicketSeen)
        return 0;
    return AfterStep(iResult);
}

/// @return 1 to be gone on with, -1 failed, which is logged
int TlsConnection::AfterStep(int iResult)
{
    const int iSslError = SSL_get_error(m_pSsl.get(), iResult);
    if (iSslError == SSL_ERROR_WANT_READ && m_iSocketError == 0)
        return 1;
    m_bPeerHasClosed |= iSslError == SSL_ERROR_ZERO_RETURN;
    const int iError = m_iSocketError;
    TlsLog(TARN_LOG_ERROR, "TLS with " + m_strPeer + " failed: " + HandshakeReason());
    errno = iError != 0 ? iError : EPROTO;
    return -1;
}

std::string TlsConnection::HandshakeReason()
{
    if (m_pRefusal != nullptr)
    {
        ERR_clear_error();
        const bool bName = m_pRefusal->iError == X509_V_ERR_HOSTNAME_MISMATCH ||
                           m_pRefusal->iError == X509_V_ERR_IP_ADDRESS_MISMATCH;
        return "the peer's certificate is refused: " +
               std::string(X509_verify_cert_error_string(m_pRefusal->iError)) +
               (bName ? ", expected " + m_strExpected : std::string()) + "; " +
               (m_pRefusal->iDepth == 0 ? "its certificate " : "the certificate above it ") +
               m_pRefusal->strCertificate;
    }
    const unsigned long ulError = ERR_peek_error();
    if (ulError == 0 && m_iSocketError == 0)
        return m_bPeerHasClosed ? "the peer has closed the connection" : "unknown reason";
    if (ulError == 0)
        return std::generic_category().message(m_iSocketError);
    const int iReason = ERR_GET_LIB(ulError) == ERR_LIB_SSL ? ERR_GET_REASON(ulError) : 0;
    constexpr int ALERTS = 256;
    std::string strReason = TakeOpenSslReason();
    if (iReason >= SSL_AD_REASON_OFFSET && iReason < SSL_AD_REASON_OFFSET + ALERTS)
        return "the peer refuses, with the alert: " + strReason;
    if (iReason == SSL_R_WRONG_VERSION_NUMBER || iReason == SSL_R_HTTP_REQUEST)
        return strReason + "; the peer may not speak TLS at all";
    return strReason;
}

std::string TlsConnection::Describe() const
{
    SSL* pSsl = m_pSsl.get();
    X509* pCertificate = SSL_get0_peer_certificate(pSsl);
    return std::string(SSL_get_version(pSsl)) + ", " + SSL_get_cipher_name(pSsl) +
           (SSL_session_reused(pSsl) != 0 ? ", session taken up" : "") +
           (pCertificate != nullptr ? ", certificate " + CertificateText(pCertificate, X509_V_OK) : "");
}
