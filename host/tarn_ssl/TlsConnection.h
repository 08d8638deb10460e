#ifndef TARN_HOST_TARN_SSL_TLSCONNECTION_H
#define TARN_HOST_TARN_SSL_TLSCONNECTION_H

#include "TlsContext.h"
#include "TlsSessions.h"

#include <atomic>
#include <chrono>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include <sys/types.h>

/// What the peer of a connection must prove.
struct PeerCheck
{
    bool bCertificate = true;
    bool bName = true;
    std::string strName; ///< host name or IP address
};

/// One open socket and, with TLS, what OpenSSL keeps for it. Owned by its stream and by whoever is inside an operation:
/// the socket's number is not given away before the last of them has left.
///
/// One mutex guards all of OpenSSL's state, and is never held while waiting; what one step takes from the socket under it
/// is bounded, whatever the peer sends. The socket is never waited for inside
/// OpenSSL, whatever its mode. What OpenSSL wants to send and the socket does not take is kept here, so that a record is
/// never cut half-way, receiving never waits for room to send, and sending may be tried again with other bytes.
class TlsConnection
{
public:
    using Clock = std::chrono::steady_clock;
    using Deadline = std::optional<Clock::time_point>; ///< none: without limit

    /// Takes over a connected socket.
    /// @param strPeer  its address, for the log
    TlsConnection(int iSocket, std::string strPeer);
    ~TlsConnection();
    TlsConnection(const TlsConnection&) = delete;
    TlsConnection& operator=(const TlsConnection&) = delete;

    /// The TLS handshake. Without it the connection is plain TCP.
    /// @param pSessions  may be null
    /// @return 0; -1 with errno, and with a line in the log
    int StartTls(SSL_CTX& context, const PeerCheck& check, std::shared_ptr<TlsSessions> pSessions,
                 const Deadline& deadline);
    /// Lets bytes be sent and received.
    void SetOpen() { m_bOpen = true; }
    /// Ends everything on the connection, without waiting. Whoever is inside an operation comes out.
    void Close();

    int Socket() const { return m_iSocket; }
    bool IsClosed() const { return m_bClosed; }

    /// As TARN_SOCK_Stream says.
    int Receive(char* pData, std::size_t uLength, const Deadline& deadline);
    int Send(const char* pData, std::size_t uLength, const Deadline& deadline, std::size_t& uSent);
    bool HasUnread();
    bool HasUnsent();
    bool SendAwaitsInput() const { return m_bSendAwaitsInput; }

private:
    struct SslDeleter
    {
        void operator()(SSL* pSsl) const { SSL_free(pSsl); }
    };
    /// Why the peer's certificate was not accepted.
    struct Refusal
    {
        int iError = 0;
        int iDepth = 0;
        std::string strCertificate;
    };

    // OpenSSL's calls.
    static const BIO_METHOD* BioMethod();
    static int OnWrite(BIO* pBio, const char* pData, std::size_t uLength, std::size_t* puWritten);
    static int OnRead(BIO* pBio, char* pData, std::size_t uLength, std::size_t* puRead);
    static long OnControl(BIO* pBio, int iCommand, long lArgument, void* pArgument);
    static int OnVerify(int iGood, X509_STORE_CTX* pStore);
    static void OnMessage(int iWrite, int iVersion, int iContentType, const void* pData, std::size_t uLength,
                          SSL* pSsl, void* pConnection);

    // Everything below with m_Mutex held.
    bool MakeSsl(SSL_CTX& context, const PeerCheck& check, std::shared_ptr<TlsSessions> pSessions);
    int StepHandshake();
    int StepVerdict();
    int ReceiveNow(char* pData, std::size_t uLength);
    int ReceiveTls(char* pData, std::size_t uLength);
    int ReceivePlain(char* pData, std::size_t uLength);
    std::size_t SendNow(const char* pData, std::size_t uLength);
    bool IsNegotiating() const;
    void BeginStep();
    bool SendUnsent();
    ssize_t SendToSocket(const char* pData, std::size_t uLength);
    int ReceiveForSsl(char* pData, std::size_t uLength);
    std::size_t TakeAhead(char* pData, std::size_t uLength);
    bool HoldsRest() const;
    bool HoldsRecord() const;
    void OpenAhead();
    bool GoOnToData();
    void NoteEnd(int iSslError);
    void End(int iError);
    int AfterStep(int iResult);
    std::string HandshakeReason();
    std::string Describe() const;

    // Without it.
    template <class Step>
    int RunHandshake(const Deadline& deadline, Step step);
    bool Negotiate();
    bool WaitUntilReady(const Deadline& deadline, bool bForInput);
    bool IsNonBlocking() const;
    static bool IsOver(const Deadline& deadline);

    const int m_iSocket;
    const std::string m_strPeer;
    std::atomic<bool> m_bOpen{false};
    std::atomic<bool> m_bClosed{false};
    std::atomic<bool> m_bSendAwaitsInput{false};

    std::mutex m_Mutex;
    // Guarded by m_Mutex.
    std::shared_ptr<TlsSessions> m_pSessions; // before the SSL object, which uses it
    std::unique_ptr<SSL, SslDeleter> m_pSsl;  // null: plain TCP
    std::string m_strUnsent;                  // what the socket has not taken
    std::size_t m_uUnsentAt = 0;              // how much of it has been sent
    bool m_bPeerHasClosed = false;            // the socket has delivered its end
    std::unique_ptr<char[]> m_pAhead;         // received before OpenSSL asked for it; null: nothing
    std::size_t m_uAheadAt = 0;               // how much of it OpenSSL has got
    std::size_t m_uAheadEnd = 0;              // how much there was
    int m_iSocketError = 0;                   // of a call on the socket in this step
    std::size_t m_uMayRead = 0;               // bytes from the socket, in this step
    bool m_bReadsAhead = false;               // in this step
    bool m_bEnded = false;                    // nothing is received any more
    int m_iEndError = 0;                      // why; 0: closed by the peer
    bool m_bCertificateAsked = false;         // by the peer, for this side's
    bool m_bTicketSeen = false;               // the peer has accepted the handshake
    std::string m_strExpected;                // name of the peer
    std::unique_ptr<Refusal> m_pRefusal;
};

#endif
