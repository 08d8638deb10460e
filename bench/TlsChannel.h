#ifndef TARN_BENCH_TLSCHANNEL_H
#define TARN_BENCH_TLSCHANNEL_H

/// @file
/// What the element and the hand-written client of the TLS yardstick have in common: one thread, a level-triggered epoll, and
/// OpenSSL on non-blocking sockets. A wake-up mostly takes one recv and one send: OpenSSL reads ahead, and what has been
/// gathered is written together.

#include "Yardstick.h"

#include <openssl/err.h>
#include <openssl/ssl.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <memory>

namespace yardstick {

inline std::uint32_t NumberAt(const char* p)
{
    std::uint32_t ul = 0;
    std::memcpy(&ul, p, sizeof(ul));
    return ntohl(ul);
}

/// @return bytes of the whole frame at p; 0: it is not complete yet; -1: it cannot be one
inline long FrameBytes(const char* p, std::size_t uLength)
{
    if (uLength < 4)
        return 0;
    const std::uint32_t ulRest = NumberAt(p);
    if (ulRest < 4 || ulRest > 4 + MAX_PAYLOAD)
        return -1;
    return uLength >= ulRest + 4 ? static_cast<long>(ulRest) + 4 : 0;
}

inline sockaddr_in Loopback(int iPort)
{
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(iPort));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

struct ContextDeleter
{
    void operator()(SSL_CTX* pContext) const { SSL_CTX_free(pContext); }
};
using Context = std::unique_ptr<SSL_CTX, ContextDeleter>;

/// Versions and ciphers are OpenSSL's own choice. Ends the process when there is none.
inline Context MakeContext(const SSL_METHOD* pMethod)
{
    constexpr std::size_t AHEAD_BYTES = 65536;
    Context pContext(SSL_CTX_new(pMethod));
    if (pContext == nullptr)
    {
        ERR_print_errors_fp(stderr);
        std::exit(1);
    }
    SSL_CTX_set_min_proto_version(pContext.get(), TLS1_2_VERSION);
    SSL_CTX_set_options(pContext.get(), SSL_OP_IGNORE_UNEXPECTED_EOF | SSL_OP_NO_RENEGOTIATION);
    SSL_CTX_set_mode(pContext.get(), SSL_MODE_ENABLE_PARTIAL_WRITE | SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER);
    SSL_CTX_set_read_ahead(pContext.get(), 1);
    SSL_CTX_set_default_read_buffer_len(pContext.get(), AHEAD_BYTES);
    return pContext;
}

/// One connection. Owns its socket, which is what epoll announces.
class TlsChannel
{
public:
    enum class State
    {
        HANDSHAKE,
        OPEN,
        FAILED, ///< the handshake has
    };
    enum class Input
    {
        DRY,  ///< epoll announces what comes next
        MORE, ///< OpenSSL holds bytes that nobody announces: to be called again
        BROKEN,
    };

    /// Takes over a non-blocking socket, which may still be connecting. SSL_set_accept_state or the like is the caller's.
    TlsChannel(SSL_CTX* pContext, int iSocket, int iEpoll)
        : m_pSsl(SSL_new(pContext))
        , m_iSocket(iSocket)
        , m_iEpoll(iEpoll)
    {
        const int iOne = 1;
        setsockopt(iSocket, IPPROTO_TCP, TCP_NODELAY, &iOne, sizeof(iOne));
        SSL_set_fd(m_pSsl.get(), iSocket);
        Tell(EPOLL_CTL_ADD);
    }
    ~TlsChannel() { close(m_iSocket); }
    TlsChannel(const TlsChannel&) = delete;
    TlsChannel& operator=(const TlsChannel&) = delete;

    SSL* Ssl() const { return m_pSsl.get(); }
    State Now() const { return m_eState; }

    /// Goes on with the handshake. @return the state that it is in then
    State Handshake()
    {
        m_bAwaitOutput = false;
        ERR_clear_error();
        const int iResult = SSL_do_handshake(m_pSsl.get());
        if (iResult == 1)
            m_eState = State::OPEN;
        else if (!Await(iResult))
            m_eState = State::FAILED;
        Want(m_bAwaitOutput ? EPOLLOUT : EPOLLIN);
        return m_eState;
    }

    /// Reads what there is, at most a scratch full, and hands out the whole frames: onFrame(const char*, std::size_t).
    template <class OnFrame>
    Input Receive(OnFrame onFrame)
    {
        std::vector<char>& scratch = Scratch();
        std::size_t uHave = m_Rest.size();
        std::copy(m_Rest.begin(), m_Rest.end(), scratch.begin());
        Input eInput = Input::MORE;
        while (uHave + RECORD_BYTES <= scratch.size())
        {
            ERR_clear_error();
            std::size_t uNow = 0;
            const int iResult =
                SSL_read_ex(m_pSsl.get(), scratch.data() + uHave, scratch.size() - uHave, &uNow);
            uHave += uNow;
            if (iResult != 1)
            {
                eInput = Await(iResult) ? Input::DRY : Input::BROKEN;
                break;
            }
            if (SSL_has_pending(m_pSsl.get()) == 0)
            {
                eInput = Input::DRY; // without a recv that finds nothing
                break;
            }
        }
        std::size_t uAt = 0;
        long iFrame = 0;
        while ((iFrame = FrameBytes(scratch.data() + uAt, uHave - uAt)) > 0)
        {
            onFrame(scratch.data() + uAt, static_cast<std::size_t>(iFrame));
            uAt += static_cast<std::size_t>(iFrame);
        }
        m_Rest.assign(scratch.data() + uAt, scratch.data() + uHave);
        return iFrame < 0 ? Input::BROKEN : eInput;
    }

    /// To be sent by the next Flush; only appended to.
    std::vector<char>& Output() { return m_Output; }
    /// A peer that does not read is not read from.
    bool MayReceive() const { return m_Output.size() - m_uSent < MAX_UNSENT_BYTES; }

    /// Sends as much as the socket takes, and sees to being announced. @return false: broken
    bool Flush()
    {
        m_bAwaitOutput = false;
        while (m_uSent < m_Output.size())
        {
            ERR_clear_error();
            std::size_t uNow = 0;
            const int iResult =
                SSL_write_ex(m_pSsl.get(), m_Output.data() + m_uSent, m_Output.size() - m_uSent, &uNow);
            m_uSent += uNow;
            if (iResult == 1)
                continue;
            if (!Await(iResult))
                return false;
            break;
        }
        if (m_uSent == m_Output.size())
        {
            m_Output.clear();
            m_uSent = 0;
        }
        Want((MayReceive() ? EPOLLIN : 0U) | (m_bAwaitOutput ? EPOLLOUT : 0U));
        return true;
    }

private:
    static constexpr std::size_t RECORD_BYTES = 16384;
    static constexpr std::size_t SCRATCH_BYTES = 256 * 1024;
    static constexpr std::size_t MAX_UNSENT_BYTES = 4 << 20;

    struct SslDeleter
    {
        void operator()(SSL* pSsl) const { SSL_free(pSsl); }
    };

    /// One thread, so one for all.
    static std::vector<char>& Scratch()
    {
        static std::vector<char> scratch(SCRATCH_BYTES + MAX_PAYLOAD + HEAD_BYTES);
        return scratch;
    }

    /// After a call of OpenSSL's that did not succeed. @return false: broken, or closed by the peer
    bool Await(int iResult)
    {
        const int iError = SSL_get_error(m_pSsl.get(), iResult);
        m_bAwaitOutput |= iError == SSL_ERROR_WANT_WRITE;
        return iError == SSL_ERROR_WANT_READ || iError == SSL_ERROR_WANT_WRITE;
    }

    void Want(std::uint32_t uWanted)
    {
        if (uWanted == m_uWanted)
            return;
        m_uWanted = uWanted;
        Tell(EPOLL_CTL_MOD);
    }

    void Tell(int iOperation)
    {
        epoll_event event{};
        event.events = m_uWanted;
        event.data.fd = m_iSocket;
        epoll_ctl(m_iEpoll, iOperation, m_iSocket, &event);
    }

    const std::unique_ptr<SSL, SslDeleter> m_pSsl;
    const int m_iSocket;
    const int m_iEpoll;
    State m_eState = State::HANDSHAKE;
    std::uint32_t m_uWanted = EPOLLIN | EPOLLOUT;
    bool m_bAwaitOutput = false;
    std::vector<char> m_Rest; // of an incomplete frame
    std::vector<char> m_Output;
    std::size_t m_uSent = 0; // of m_Output
};

} // namespace yardstick

#endif
