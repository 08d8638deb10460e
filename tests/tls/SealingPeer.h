#ifndef TARN_TESTS_TLS_SEALINGPEER_H
#define TARN_TESTS_TLS_SEALINGPEER_H

#include "support/Authority.h"
#include "support/Listener.h"

#include <openssl/ssl.h>

#include <memory>
#include <string>
#include <thread>

/// The peer of one TLS connection, whose records the test gets sealed, to send them together, in pieces, or with something
/// else behind them.
class SealingPeer
{
public:
    explicit SealingPeer(const Authority::Issued& issued, int iVersion = TLS1_3_VERSION)
        : m_pContext(SSL_CTX_new(TLS_server_method()), &SSL_CTX_free)
        , m_pSsl(nullptr, &SSL_free)
    {
        SSL_CTX_set_min_proto_version(m_pContext.get(), iVersion);
        SSL_CTX_set_max_proto_version(m_pContext.get(), iVersion);
        EXPECT_EQ(SSL_CTX_use_certificate_chain_file(m_pContext.get(), issued.strCertificate.c_str()), 1);
        EXPECT_EQ(SSL_CTX_use_PrivateKey_file(m_pContext.get(), issued.strKey.c_str(), SSL_FILETYPE_PEM), 1);
        m_pSsl.reset(SSL_new(m_pContext.get()));
        m_Accepter = std::thread([this] { Accept(); });
    }
    ~SealingPeer()
    {
        Accepted();
        close(m_iSocket);
    }
    SealingPeer(const SealingPeer&) = delete;
    SealingPeer& operator=(const SealingPeer&) = delete;

    std::uint16_t Port() const { return m_Listener.Port(); }

    /// The record, or records, of a text. Records are numbered: they are to be sent in the order in which they are sealed.
    std::string Seal(const std::string& strText)
    {
        Accepted();
        EXPECT_EQ(SSL_write(m_pSsl.get(), strText.data(), static_cast<int>(strText.size())),
                  static_cast<int>(strText.size()));
        return TakeSealed();
    }
    /// New keys (TLS 1.3): a record without data.
    std::string SealKeyUpdate()
    {
        Accepted();
        EXPECT_EQ(SSL_key_update(m_pSsl.get(), SSL_KEY_UPDATE_NOT_REQUESTED), 1);
        EXPECT_EQ(SSL_do_handshake(m_pSsl.get()), 1);
        return TakeSealed();
    }
    /// The good-bye.
    std::string SealEnd()
    {
        Accepted();
        SSL_shutdown(m_pSsl.get());
        return TakeSealed();
    }
    void Send(const std::string& strBytes) const
    {
        EXPECT_EQ(send(m_iSocket, strBytes.data(), strBytes.size(), MSG_NOSIGNAL),
                  static_cast<ssize_t>(strBytes.size()));
    }

private:
    void Accept()
    {
        m_iSocket = m_Listener.Accept();
        SSL_set_fd(m_pSsl.get(), m_iSocket);
        EXPECT_EQ(SSL_accept(m_pSsl.get()), 1);
        SSL_set0_wbio(m_pSsl.get(), BIO_new(BIO_s_mem()));
    }
    /// Waits until there is a connection.
    void Accepted()
    {
        if (m_Accepter.joinable())
            m_Accepter.join();
    }
    std::string TakeSealed() const
    {
        BIO* pBio = SSL_get_wbio(m_pSsl.get());
        char* pSealed = nullptr;
        const auto uLength = static_cast<std::size_t>(BIO_get_mem_data(pBio, &pSealed));
        std::string strSealed(pSealed, uLength);
        BIO_reset(pBio);
        return strSealed;
    }

    const Listener m_Listener;
    const std::unique_ptr<SSL_CTX, decltype(&SSL_CTX_free)> m_pContext;
    std::unique_ptr<SSL, decltype(&SSL_free)> m_pSsl;
    int m_iSocket = -1;
    std::thread m_Accepter;
};

#endif
