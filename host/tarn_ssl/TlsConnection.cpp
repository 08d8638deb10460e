#include "TlsConnection.h"

#include "TlsLog.h"

#include <openssl/err.h>

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <limits>
#include <new>
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

// What is received beyond what OpenSSL asks for, which is the head of a record or the rest of one: small records mostly come
// together. Less than a great record, so that who reads those is free after each.
constexpr std::size_t AHEAD_BYTES = 8192;
constexpr std::size_t RECORD_HEAD_BYTES = 5;
constexpr std::size_t MAX_SEALED_BYTES = RECORD_BYTES + 2048; // see RFC 5246 (6.2.3)

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
    *puRead = connection.TakeAhead(pData, uLength);
    if (*puRead > 0)
        return 1;
    if (connection.m_uMayRead == 0)
    {
        BIO_set_retry_read(pBio); // what the socket still has, or gets, is announced
        return 0;
    }
    const int iReceived = connection.ReceiveForSsl(pData, uLength);
    if (iReceived > 0)
    {
        *puRead = static_cast<std::size_t>(iReceived);
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

/// Receives what OpenSSL has asked for, and what follows it. @return as ReceivePlain
int TlsConnection::ReceiveForSsl(char* pData, std::size_t uLength)
{
    uLength = std::min(uLength, m_uMayRead);
    std::unique_ptr<char[]> pAhead(m_bReadsAhead ? new (std::nothrow) char[AHEAD_BYTES] : nullptr);
    const std::size_t uAhead = pAhead != nullptr ? AHEAD_BYTES : 0;
    iovec parts[] = {{pData, uLength}, {pAhead.get(), uAhead}};
    msghdr message = {};
    message.msg_iov = parts;
    message.msg_iovlen = 2;
    ssize_t iReceived = -1;
    do
        iReceived = recvmsg(m_iSocket, &message, MSG_DONTWAIT);
    while (iReceived < 0 && errno == EINTR);
    const auto uReceived = static_cast<std::size_t>(std::max<ssize_t>(iReceived, 0));
    // A socket that has given less than was wanted has no more.
    m_uMayRead = uReceived < uLength + uAhead ? 0 : m_uMayRead - std::min(m_uMayRead, uReceived);
    if (uReceived > uLength)
    {
        m_pAhead = std::move(pAhead);
        m_uAheadAt = 0;
        m_uAheadEnd = uReceived - uLength;
        return static_cast<int>(uLength);
    }
    const int iError = errno;
    pAhead.reset();
    errno = iReceived == 0 ? 0 : iError;
    return static_cast<int>(iReceived);
}

/// @return bytes given out of what was received ahead, which may be none
std::size_t TlsConnection::TakeAhead(char* pData, std::size_t uLength)
{
    if (m_pAhead == nullptr)
        return 0;
    const std::size_t uTaken = std::min(uLength, m_uAheadEnd - m_uAheadAt);
    std::copy_n(m_pAhead.get() + m_uAheadAt, uTaken, pData);
    m_uAheadAt += uTaken;
    if (m_uAheadAt == m_uAheadEnd)
        m_pAhead.reset(); // idle connections keep no room
    return uTaken;
}

/// Whether OpenSSL, or what is kept for it, holds something that no descriptor announces.
bool TlsConnection::HoldsRest() const
{
    return SSL_pending(m_pSsl.get()) > 0 || HoldsRecord();
}

/// Whether OpenSSL can go on with what was received ahead. It has asked for whole records so far, so that begins with the head
/// of one, or with something that OpenSSL refuses at once.
bool TlsConnection::HoldsRecord() const
{
    if (m_pAhead == nullptr || m_uAheadEnd - m_uAheadAt < RECORD_HEAD_BYTES)
        return false;
    const auto* pHead = reinterpret_cast<const unsigned char*>(m_pAhead.get() + m_uAheadAt);
    const std::size_t uLength = pHead[3] * 256U + pHead[4];
    return pHead[1] != SSL3_VERSION_MAJOR || uLength > MAX_SEALED_BYTES ||
           m_uAheadEnd - m_uAheadAt >= RECORD_HEAD_BYTES + uLength;
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
    m_bReadsAhead = false;
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
    m_bReadsAhead = true;
    std::size_t uReceived = 0;
    // What is left of records is taken by itself: with more from the socket there would be a rest again and again, which no
    // descriptor announces, and a peer that never pauses would have the calling thread for ever.
    if (HoldsRest())
        m_uMayRead = 0;
    while (uReceived < uLength && !m_bEnded)
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
            if (iFailed == 0 && uSent == uLength && m_strUnsent.empty())
                break;
            const bool bNonBlocking = IsNonBlocking();
            if (iFailed != 0 && (uSent == 0 || !bNonBlocking))
            {
                errno = iFailed;
                return -1;
            }
            if (bNonBlocking)
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
    const bool bData = GoOnToData();
    m_bSendAwaitsInput = IsNegotiating();
    return !bData || !m_bSendAwaitsInput;
}

/// Has OpenSSL take, and answer, what comes before data. @return whether there is data
bool TlsConnection::GoOnToData()
{
    char cFirst = 0;
    const int iResult = SSL_peek(m_pSsl.get(), &cFirst, 1);
    const int iError = SSL_get_error(m_pSsl.get(), iResult);
    if (iResult != 1 && iError != SSL_ERROR_WANT_READ)
        NoteEnd(iError);
    SendUnsent();
    return iResult == 1;
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
    if (m_pSsl == nullptr || m_bClosed)
        return false;
    if (!m_bEnded && SSL_pending(m_pSsl.get()) == 0 && HoldsRecord())
        OpenAhead();
    return m_bEnded || SSL_pending(m_pSsl.get()) > 0;
}

/// Has OpenSSL take what was received ahead up to the first data: only so can be told whether there is any.
void TlsConnection::OpenAhead()
{
    BeginStep();
    m_uMayRead = 0;
    GoOnToData();
    m_bSendAwaitsInput = m_bSendAwaitsInput && IsNegotiating();
}

bool TlsConnection::HasUnsent()
{
    const std::lock_guard<std::mutex> guard(m_Mutex);
    return m_uUnsentAt < m_strUnsent.size();
}

// --- waiting -------------------------------------------------------------------------------------------------

bool TlsConnection::IsOver(const Deadline& deadline)
{
    return deadline.has_value() && Clock::now() >= *deadline;
}

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
