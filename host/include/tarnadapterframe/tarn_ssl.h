#ifndef TARNADAPTERFRAME_TARN_SSL_H
#define TARNADAPTERFRAME_TARN_SSL_H

/// @file
/// The host's secure-socket library: client connections over TLS 1.2 and 1.3 (RFC 5246, RFC 8446), or over plain TCP
/// through the same classes. An adapter needs TARN_SSL_Option, which it gives to a connector of type TCP_SSL_TYPE;
/// the framework does the rest. docs/tls.md tells how certificates, authorities and names are set up, and what each
/// refusal in the log means. The log's tag is "tarn_ssl".

#include <ace/Addr.h>
#include <ace/Time_Value.h>
#include <ace/os_include/sys/os_types.h>

#include <cstddef>
#include <memory>

#if defined(_WIN32)
#define TARN_SSL_API
#else
#define TARN_SSL_API __attribute__((visibility("default")))
#endif

/// Reserved for hosts; the framework passes null.
class TARN_Lmt_SOCK_Stream;

/// How a connection is secured. A new option verifies the peer's certificate against the system's authorities and
/// against the IP address that is connected to, and offers TLS 1.2 and 1.3.
///
/// A value: copies are cheap, share what has been loaded from files, and may be changed independently, for example
/// to give each of many connections its own peer name. Files are read when they are set, and again when another setter
/// that may fail is called; certificates in a directory when they are looked for. Who replaces files sets them anew and
/// gives the option to the connections again.
///
/// Setters that may fail refuse a bad value with -1 and a line in the log that says why; the option is then as it was.
/// One option is for one thread at a time.
class TARN_SSL_API TARN_SSL_Option
{
public:
    TARN_SSL_Option();
    TARN_SSL_Option(const TARN_SSL_Option& other);
    TARN_SSL_Option& operator=(const TARN_SSL_Option& other);
    ~TARN_SSL_Option();

    /// TLS, or plain TCP. True in a new option.
    void set_ssl(bool bEnable);
    bool enable_ssl() const;

    /// Whether the peer must prove who it is: a certificate of an authority that is trusted, valid today, for the name
    /// that is expected (an alternative name of the certificate; its common name counts when it has no alternative
    /// DNS name, and never for an IP address). True in a new option; without, anybody may answer and read what is sent.
    void set_auth_peer(bool bEnable);
    bool enable_auth_peer() const;

    /// With peer authentication: whether the certificate must be for the expected name, or any certificate of a
    /// trusted authority will do. True in a new option.
    void set_check_name(bool bEnable);
    bool enable_check_name() const;

    /// The name that the peer's certificate must be for: a host name, which is also sent to the peer (SNI, RFC 6066),
    /// or an IP address. Null or empty, as in a new option: the IP address that is connected to.
    /// @return 0, -1 for a text that is neither
    int set_peer_name(const char* pszName);
    const char* get_peer_name() const;

    /// The authorities that are trusted: certificates (PEM) in one file, or a directory of them as openssl-rehash(1)
    /// prepares it. Either may be null, or both: the system's authorities, as in a new option.
    /// Whatever is named is trusted, also an authority that another one has certified.
    /// @return 0, -1 when the file cannot be read or holds no certificate, or the directory is none
    int set_authorities(const char* pszFile, const char* pszDirectory);

    /// This side's certificate, for peers that ask for one: a file (PEM) with the certificate and the ones between it
    /// and its authority, and a file with its private key (PEM, not protected by a pass phrase). Both null: none, as
    /// in a new option.
    /// @return 0, -1 when a file cannot be used, the key is protected, or it is not that certificate's
    int set_certificate(const char* pszCertificateFile, const char* pszKeyFile);

    /// The least version, "TLSv1.2" (as in a new option) or "TLSv1.3", and the greatest; null: whatever there is.
    /// @return 0, -1 for any other text, or a greatest below the least
    int set_version(const char* pszLeast, const char* pszGreatest = nullptr);
    /// The least version.
    const char* get_version() const;

    /// The ciphers that may be used, in OpenSSL's notation (openssl-ciphers(1)), separated by colons. Those of TLS 1.3
    /// are named, by names that begin with "TLS_"; without any, all of TLS 1.3 may be used, and with nothing else, TLS 1.2 may
    /// not. Unknown ones of TLS 1.2 are left out. "DEFAULT" in a new option, and for null or an empty text.
    /// @return 0, -1 when no cipher is left, or one of TLS 1.3 is not known
    int set_cipherlist(const char* pszCiphers);
    const char* get_cipherlist() const;

    /// Whether a connection that is opened again takes up its last session, which spares both sides most of the
    /// handshake. True in a new option.
    void set_session_reuse(bool bEnable);
    bool enable_session_reuse() const;

    /// Seconds after which a session is not taken up any more, at least 0; 300 in a new option. The peer may have
    /// forgotten it earlier, which costs nothing. Counted from the last time that the peer's certificate was verified,
    /// which it is not when a session is taken up.
    void set_session_timeout(int iSeconds);
    int get_session_timeout() const;

    /// Carried and reported, without effect. False in a new option.
    void set_port_adapt(bool bEnable);
    bool enable_port_adapt() const;

private:
    friend class TARN_SOCK_Connector;
    struct State;
    std::unique_ptr<State> m_pState;
};

/// A connection, once TARN_SOCK_Connector has opened it.
///
/// All operations may be called from any thread, several at once; what several send at once is sent in any order.
/// Closing wins: whoever receives, sends or is in the handshake meanwhile returns; a TCP connection that is being opened is
/// closed when it is there.
///
/// On a handle in non-blocking mode (O_NONBLOCK) nothing waits.
class TARN_SSL_API TARN_SOCK_Stream
{
public:
    explicit TARN_SOCK_Stream(TARN_Lmt_SOCK_Stream* pUnused = nullptr);
    /// Closes.
    virtual ~TARN_SOCK_Stream();
    TARN_SOCK_Stream(const TARN_SOCK_Stream&) = delete;
    TARN_SOCK_Stream& operator=(const TARN_SOCK_Stream&) = delete;

    /// The socket, for waiting on it, not for reading or writing; ACE_INVALID_HANDLE when there is none.
    ACE_HANDLE get_handle() const;
    /// Closes the connection, if it is open; the peer is told if it takes that at once. @return 0
    int close();
    /// Sends all bytes, or on a handle in non-blocking mode those that the connection takes now, which may be none.
    /// A few that have been taken may still wait inside, see has_unsent.
    /// @param pTimeout  longest wait from now on; null: without limit
    /// @param puSent    receives the number of bytes taken, also on failure; may be null
    /// @return bytes taken; -1 with errno: ETIME, or what broke the connection. In non-blocking mode bytes that were
    ///         taken before it broke are returned first
    int send_n(const void* pData, std::size_t uLength, const ACE_Time_Value* pTimeout = nullptr,
               std::size_t* puSent = nullptr) const;
    /// Receives what there is, at most uLength bytes.
    /// @param pTimeout  longest wait for the first byte; null: without limit
    /// @param uLength   at least 1
    /// @return bytes received; 0 closed by the peer; -1 with errno: EWOULDBLOCK (non-blocking mode, nothing there),
    ///         ETIME, or what broke the connection
    int recv(char* pData, std::size_t uLength, const ACE_Time_Value* pTimeout = nullptr) const;

    /// Whether the next recv returns something that the handle does not announce: decrypted bytes, or the end of the
    /// connection.
    bool has_unread() const;
    /// Whether taken bytes wait for the socket to become writable. The next send_n, also of no bytes, sends them.
    bool has_unsent() const;
    /// Whether sending waits for something to be received first, as while the peer negotiates anew (TLS 1.2).
    bool send_awaits_input() const;

private:
    friend class TARN_SOCK_Connector;
    struct State;
    const std::unique_ptr<State> m_pState;
};

/// Opens connections, one at a time, with the option it was given last; without one, as a new option says. It keeps
/// the session of the last connection, for the next one to the same address.
class TARN_SSL_API TARN_SOCK_Connector
{
public:
    TARN_SOCK_Connector();
    ~TARN_SOCK_Connector();
    TARN_SOCK_Connector(const TARN_SOCK_Connector&) = delete;
    TARN_SOCK_Connector& operator=(const TARN_SOCK_Connector&) = delete;

    /// For the connections that are opened from now on; one that is being opened may get it already.
    void set_ssl_option(const TARN_SSL_Option& option);

    /// Opens the stream, closing what it held: TCP connection and TLS handshake. The handle is in blocking mode.
    /// @param remote    an ACE_INET_Addr
    /// @param pTimeout  for everything together; null: without limit. With a time of 0 nothing can be opened (EAGAIN)
    /// @return 0; -1 with errno: ETIME in time nothing came of it; EPROTO the TLS handshake failed or a certificate
    ///         was refused, with the reason in the log; ECANCELED the stream was closed meanwhile; or what connect(2)
    ///         says
    int connect(TARN_SOCK_Stream& stream, const ACE_Addr& remote, const ACE_Time_Value* pTimeout = nullptr);

private:
    struct State;
    const std::unique_ptr<State> m_pState;
};

#endif
