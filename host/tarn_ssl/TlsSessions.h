#ifndef TARN_HOST_TARN_SSL_TLSSESSIONS_H
#define TARN_HOST_TARN_SSL_TLSSESSIONS_H

#include <openssl/ssl.h>

#include <chrono>
#include <memory>
#include <mutex>
#include <string>

/// The session that the next connection to the same peer may take up. Connections and their connector share it: a peer
/// hands sessions out any time, on the thread that receives then.
class TlsSessions
{
public:
    /// @param strPeer  address of the peer whose sessions are kept
    TlsSessions(std::string strPeer, std::chrono::seconds lifetime);

    /// Makes a context's connections hand their sessions to what Attach has given them.
    static void Watch(SSL_CTX* pContext);
    /// Has a connection's sessions kept here, and offers it the one there is. Must live as long as the connection.
    void Attach(SSL* pSsl);
    /// The peer has proved anew who it is: sessions are good for their lifetime from now on.
    void NoteVerified();
    void Forget();

    const std::string& Peer() const { return m_strPeer; }

private:
    struct SessionDeleter
    {
        void operator()(SSL_SESSION* pSession) const { SSL_SESSION_free(pSession); }
    };
    using Session = std::unique_ptr<SSL_SESSION, SessionDeleter>;

    static int Keep(SSL* pSsl, SSL_SESSION* pSession);
    Session Take();

    const std::string m_strPeer;
    const std::chrono::seconds m_Lifetime;
    std::mutex m_Mutex;                                // a leaf
    Session m_pSession;                                // guarded by m_Mutex
    std::chrono::steady_clock::time_point m_tVerified; // guarded by m_Mutex: the peer proved who it is
};

#endif
