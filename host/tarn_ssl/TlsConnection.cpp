#include "TlsConnection.h"

#include "OptionState.h"
#include "TlsLog.h"

#include <openssl/err.h>
#include <openssl/x509v3.h>

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <functional>
#include <limits>
#include <system_error>
#include <thread>
#include <utility>

namespace {

// What one record holds at most, see RFC 8446 (5.1).
constexpr std::size_t RECORD_BYTES = 16384;
// What may wait for the socket: a record and some answers of OpenSSL's own. A peer that asks for more of those and takes
// none of them is broken.
constexpr std::size_t MAX_UNSENT_BYTES = 65536;

// What one step reads at most. OpenSSL itself goes on for as long as there is something that is no data, such as key
// updates or requests to begin anew, and a peer may send those without end.
constexpr std::size_t MAX_STEP_BYTES = 65536;

bool IsOver(const TlsConnection::Deadline& deadline)
{
    return deadline.has_value() && TlsConnection::Clock::now() >= *deadline;
}

TlsConnection::Deadline Sooner(const TlsConnection::Deadline& deadline, std::chrono::milliseconds slice)
{
    const auto tSlice = TlsConnection::Clock::now() + slice;
    return deadline.has_value() ? std::min(*deadline, tSlice) : tSlice;
}

bool IsWouldBlock(int iError)
{
    return iError == EWOULDBLOCK || iError == EAGAIN;
}

} // namespace

TlsConnection::TlsConnection(int iSocket, std::string strPeer)
    : m_iSocket(iSocket)
    , m_strPeer(std::move(strPeer))
{}

TlsConnection::~TlsConnection()
{
    // However it ended, the session may be taken up again; OpenSSL would spoil it for want of a good-bye.
    if (m_pSsl != nullptr && m_bOpen && m_iEndError != EPROTO)
        SSL_set_shutdown(m_pSsl.get(), SSL_SENT_SHUTDOWN | SSL_RECEIVED_SHUTDOWN);
    m_pSsl.reset();
    close(m_iSocket);
}

void TlsConnection::Close()
{
    if (m_bClosed.exchange(true))
        return;
    {
        const std::lock_guard<std::mutex> guard(m_Mutex);
        // Says good-bye if nothing else waits to be sent: nobody waits until the socket takes it.
        if (m_pSsl != nullptr && m_bOpen && m_iEndError == 0 && SendUnsent())
        {
            ERR_clear_error();
            SSL_shutdown(m_pSsl.get());
            ERR_clear_error();
        }
    }
    shutdown(m_iSocket, SHUT_RDWR); // wakes whoever waits for the socket
}

// --- OpenSSL's way to the socket -------------------------------------------------------------------------

const BIO_METHOD* TlsConnection::BioMethod()
{
    static const BIO_METHOD* const s_pMethod = [] {
        BIO_METHOD* pMethod = BIO_meth_new(BIO_get_new_index() | BIO_TYPE_SOURCE_SINK, "tarn_ssl socket");
        BIO_meth_set_write_ex(pMethod, &TlsConnection::OnWrite);
        BIO_meth_set_read_ex(pMethod, &TlsConnection::OnRead);
        BIO_meth_set_ctrl(pMethod, &TlsConnection::OnControl);
        return pMethod;
    }();
    return s_pMethod;
}

int TlsConnection::OnWrite(BIO* pBio, const char* pData, std::size_t uLength, std::size_t* puWritten)
{
    auto& connection = *static_cast<TlsConnection*>(BIO_get_data(pBio));
    BIO_clear_retry_flags(pBio);
    *puWritten = uLength;
    const ssize_t iSent = connection.SendUnsent() ? connection.SendToSocket(pData, uLength) : 0;
    if (connection.m_iSocketError != 0)
        return 0;
    const std::size_t uLeft = uLength - static_cast<std::size_t>(iSent);
    if (connection.m_strUnsent.size() - connection.m_uUnsentAt + uLeft > MAX_UNSENT_BYTES)
    {
        connection.m_iSocketError = ENOBUFS;
        return 0;
    }
    connection.m_strUnsent.append(pData + iSent, uLeft);
    return 1;
}

/// @return bytes taken, 0 also when sending has failed, which is left in m_iSocketError
ssize_t TlsConnection::SendToSocket(const char* pData, std::size_t uLength)
{
    ssize_t iSent = -1;
    do
        iSent = send(m_iSocket, pData, uLength, MSG_NOSIGNAL | MSG_DONTWAIT);
    while (iSent < 0 && errno == EINTR);
    if (iSent < 0 && !IsWouldBlock(errno))
        m_iSocketError = errno;
    return std::max<ssize_t>(iSent, 0);
}

int TlsConnection::OnRead(BIO* pBio, char* pData, std::size_t uLength, std::size_t* puRead)
{
    auto& connection = *static_cast<TlsConnection*>(BIO_get_data(pBio));
    BIO_clear_retry_flags(pBio);
    *puRead = 0;
    if (connection.m_uMayRead == 0)
    {
        BIO_set_retry_read(pBio); // the socket is still readable, so it goes on soon
        return 0;
    }
    const int iReceived = connection.ReceivePlain(pData, std::min(uLength, connection.m_uMayRead));
    if (iReceived > 0)
    {
        *puRead = static_cast<std::size_t>(iReceived);
        connection.m_uMayRead -= *puRead;
        return 1;
    }
    if (iReceived == 0)
        connection.m_bPeerHasClosed = true;
    else if (IsWouldBlock(errno))
        BIO_set_retry_read(pBio);
    else
        connection.m_iSocketError = errno;
    return 0;
}

long TlsConnection::OnControl(BIO* pBio, int iCommand, long /*lArgument*/, void* /*pArgument*/)
{
    if (iCommand == BIO_CTRL_EOF)
        return static_cast<TlsConnection*>(BIO_get_data(pBio))->m_bPeerHasClosed ? 1 : 0;
    return iCommand == BIO_CTRL_FLUSH ? 1 : 0;
}

/// Before OpenSSL is called.
void TlsConnection::BeginStep()
{
    ERR_clear_error();
    m_iSocketError = 0;
    m_uMayRead = MAX_STEP_BYTES;
}

/// Hands the socket what it has not taken yet. @return true when nothing is left
bool TlsConnection::SendUnsent()
{
    while (m_uUnsentAt < m_strUnsent.size())
    {
        const ssize_t iSent =
            SendToSocket(m_strUnsent.data() + m_uUnsentAt, m_strUnsent.size() - m_uUnsentAt);
        if (iSent == 0)
            return false;
        m_uUnsentAt += static_cast<std::size_t>(iSent);
    }
    m_uUnsentAt = 0;
    std::string().swap(m_strUnsent);
    return true;
}

// --- the handshake -----------------------------------------------------------------------------------------

struct TlsConnection::Refusal
{
    int iError = 0;
    int iDepth = 0;
    std::string strCertificate;
};

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
    const int iError = SSL_get_error(m_pSsl.get(), iResult);
    if (iError == SSL_ERROR_WANT_READ && m_iSocketError == 0)
        return 1;
    m_bPeerHasClosed |= iError == SSL_ERROR_ZERO_RETURN;
    return FailHandshake();
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
    const int iError = SSL_get_error(m_pSsl.get(), iResult);
    if (iError == SSL_ERROR_WANT_READ && m_iSocketError == 0)
        return 1;
    m_bPeerHasClosed |= iError == SSL_ERROR_ZERO_RETURN;
    return FailHandshake();
}

int TlsConnection::FailHandshake()
{
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

// --- data ----------------------------------------------------------------------------------------------------

int TlsConnection::Receive(char* pData, std::size_t uLength, const Deadline& deadline)
{
    uLength = std::min<std::size_t>(uLength, std::numeric_limits<int>::max());
    if (uLength == 0)
    {
        errno = EINVAL;
        return -1;
    }
    for (;;)
    {
        {
            const std::lock_guard<std::mutex> guard(m_Mutex);
            const int iReceived = ReceiveNow(pData, uLength);
            if (iReceived >= 0 || !IsWouldBlock(errno))
                return iReceived;
        }
        if (IsNonBlocking())
        {
            errno = EWOULDBLOCK;
            return -1;
        }
        // Also when the socket is never silent, with nothing in it that counts.
        if (IsOver(deadline) || !WaitUntilReady(deadline, true))
        {
            errno = ETIME;
            return -1;
        }
    }
}

/// @return bytes; 0 closed by the peer; -1 with errno, EWOULDBLOCK when there are none now
int TlsConnection::ReceiveNow(char* pData, std::size_t uLength)
{
    errno = m_bClosed ? ECANCELED : ENOTCONN;
    if (m_bClosed || !m_bOpen)
        return -1;
    if (m_bEnded)
    {
        errno = m_iEndError;
        return m_iEndError == 0 ? 0 : -1;
    }
    return m_pSsl != nullptr ? ReceiveTls(pData, uLength) : ReceivePlain(pData, uLength);
}

int TlsConnection::ReceivePlain(char* pData, std::size_t uLength)
{
    ssize_t iReceived = -1;
    do
        iReceived = recv(m_iSocket, pData, uLength, MSG_DONTWAIT);
    while (iReceived < 0 && errno == EINTR);
    if (iReceived == 0)
        errno = 0;
    return static_cast<int>(iReceived);
}

int TlsConnection::ReceiveTls(char* pData, std::size_t uLength)
{
    BeginStep();
    std::size_t uReceived = 0;
    // What is left of a record is taken by itself: with a next one behind it there would be a rest again and again, which
    // no descriptor announces, and a peer that never pauses would have the calling thread for ever.
    const bool bRest = SSL_pending(m_pSsl.get()) > 0;
    while (uReceived < uLength && !m_bEnded && !(bRest && uReceived > 0 && SSL_pending(m_pSsl.get()) == 0))
    {
        std::size_t uNow = 0;
        const int iResult = SSL_read_ex(m_pSsl.get(), pData + uReceived, uLength - uReceived, &uNow);
        uReceived += uNow;
        if (iResult == 1)
            continue;
        const int iError = SSL_get_error(m_pSsl.get(), iResult);
        if (iError == SSL_ERROR_WANT_READ)
            break;
        NoteEnd(iError);
    }
    SendUnsent(); // what OpenSSL has answered
    m_bSendAwaitsInput = m_bSendAwaitsInput && IsNegotiating();
    if (uReceived > 0)
        return static_cast<int>(uReceived);
    errno = m_bEnded ? m_iEndError : EWOULDBLOCK;
    return m_bEnded && m_iEndError == 0 ? 0 : -1;
}

/// While a handshake is under way that the peer has asked for in mid-stream (TLS 1.2), only receiving may go on: the peer
/// may still be sending data, which OpenSSL takes from nobody else.
bool TlsConnection::IsNegotiating() const
{
    return SSL_is_init_finished(m_pSsl.get()) == 0 || SSL_renegotiate_pending(m_pSsl.get()) != 0;
}

/// Notes that nothing more can come.
void TlsConnection::NoteEnd(int iSslError)
{
    if (iSslError == SSL_ERROR_ZERO_RETURN)
        End(0);
    else if (m_iSocketError != 0)
        End(m_iSocketError);
    else if (iSslError == SSL_ERROR_SYSCALL)
        End(m_bPeerHasClosed ? 0 : ECONNABORTED);
    else
    {
        TlsLog(TARN_LOG_ERROR, "TLS with " + m_strPeer + " broken: " + HandshakeReason());
        End(EPROTO);
    }
    ERR_clear_error();
}

void TlsConnection::End(int iError)
{
    m_bEnded = true;
    m_iEndError = iError;
    m_bSendAwaitsInput = false;
}

int TlsConnection::Send(const char* pData, std::size_t uLength, const Deadline& deadline, std::size_t& uSent)
{
    uLength = std::min<std::size_t>(uLength, std::numeric_limits<int>::max());
    uSent = 0;
    const bool bNonBlocking = IsNonBlocking();
    for (;;)
    {
        bool bForInput = false;
        {
            const std::lock_guard<std::mutex> guard(m_Mutex);
            errno = m_bClosed ? ECANCELED : ENOTCONN;
            if (m_bClosed || !m_bOpen)
                return -1;
            m_iSocketError = m_iEndError;
            uSent += m_iEndError != 0 ? 0 : SendNow(pData + uSent, uLength - uSent);
            const int iFailed = m_iSocketError != 0 ? m_iSocketError : m_iEndError;
            if (iFailed != 0 && (uSent == 0 || !bNonBlocking))
            {
                errno = iFailed;
                return -1;
            }
            if (bNonBlocking || (uSent == uLength && m_strUnsent.empty()))
                break;
            bForInput = m_bSendAwaitsInput;
        }
        // Somebody who receives may also complete the handshake, so nobody waits long for the socket then.
        constexpr auto SLICE = std::chrono::milliseconds(10);
        if (bForInput && !Negotiate())
            std::this_thread::sleep_for(SLICE);
        else if (!bForInput || m_bSendAwaitsInput)
            WaitUntilReady(bForInput ? Sooner(deadline, SLICE) : deadline, bForInput);
        if (IsOver(deadline))
        {
            errno = ETIME;
            return -1;
        }
    }
    return static_cast<int>(uSent);
}

/// Goes on with a handshake in mid-stream for a sender that waits, since nobody may be receiving meanwhile.
/// @return false when data is in the way, which somebody has to receive first
bool TlsConnection::Negotiate()
{
    const std::lock_guard<std::mutex> guard(m_Mutex);
    if (m_bClosed || m_bEnded)
        return true;
    BeginStep();
    char cFirst = 0;
    const int iResult = SSL_peek(m_pSsl.get(), &cFirst, 1);
    const int iError = SSL_get_error(m_pSsl.get(), iResult);
    if (iResult != 1 && iError != SSL_ERROR_WANT_READ)
        NoteEnd(iError);
    SendUnsent();
    m_bSendAwaitsInput = IsNegotiating();
    return iResult != 1 || !m_bSendAwaitsInput;
}

/// Sends as much as the socket takes. @return bytes taken; a failure is left in m_iSocketError, or ends the connection
std::size_t TlsConnection::SendNow(const char* pData, std::size_t uLength)
{
    std::size_t uSent = 0;
    while (SendUnsent() && uSent < uLength)
    {
        if (m_pSsl == nullptr)
        {
            const ssize_t iSent = SendToSocket(pData + uSent, uLength - uSent);
            if (iSent == 0)
                break;
            uSent += static_cast<std::size_t>(iSent);
            continue;
        }
        m_bSendAwaitsInput = IsNegotiating() && !m_bEnded;
        if (m_bSendAwaitsInput)
            break;
        BeginStep();
        std::size_t uNow = 0;
        const int iResult =
            SSL_write_ex(m_pSsl.get(), pData + uSent, std::min(uLength - uSent, RECORD_BYTES), &uNow);
        uSent += uNow;
        if (iResult == 1)
            continue;
        const int iError = SSL_get_error(m_pSsl.get(), iResult);
        m_bSendAwaitsInput = iError == SSL_ERROR_WANT_READ && !m_bEnded;
        if (!m_bSendAwaitsInput)
        {
            NoteEnd(iError); // OpenSSL does not go on after a failure
            m_iSocketError = m_iEndError != 0 ? m_iEndError : EPIPE;
        }
        break;
    }
    return uSent;
}

bool TlsConnection::HasUnread()
{
    const std::lock_guard<std::mutex> guard(m_Mutex);
    return m_pSsl != nullptr && !m_bClosed && (m_bEnded || SSL_pending(m_pSsl.get()) > 0);
}

bool TlsConnection::HasUnsent()
{
    const std::lock_guard<std::mutex> guard(m_Mutex);
    return m_uUnsentAt < m_strUnsent.size();
}

// --- waiting -------------------------------------------------------------------------------------------------

bool TlsConnection::IsNonBlocking() const
{
    return (fcntl(m_iSocket, F_GETFL) & O_NONBLOCK) != 0;
}

/// Waits until the socket can be read (bForInput), or takes what is unsent, or something has happened to it.
/// @return false when the time is over
bool TlsConnection::WaitUntilReady(const Deadline& deadline, bool bForInput)
{
    bool bForOutput = !bForInput;
    {
        const std::lock_guard<std::mutex> guard(m_Mutex);
        bForOutput = bForOutput || m_uUnsentAt < m_strUnsent.size();
    }
    pollfd ready = {m_iSocket, static_cast<short>((bForInput ? POLLIN : 0) | (bForOutput ? POLLOUT : 0)), 0};
    for (;;)
    {
        int iTimeoutMs = -1;
        if (deadline.has_value())
        {
            const auto left = std::chrono::ceil<std::chrono::milliseconds>(*deadline - Clock::now());
            iTimeoutMs =
                static_cast<int>(std::clamp<std::int64_t>(left.count(), 0, std::numeric_limits<int>::max()));
        }
        const int iReady = poll(&ready, 1, iTimeoutMs);
        if (iReady > 0)
            return true;
        if (iReady < 0 && errno != EINTR)
            return true; // the operation itself will find out
        if (iReady == 0 && Clock::now() >= *deadline)
            return false;
    }
}
