#ifndef TARN_CONNECTION_TARNTCPSSLCONNECTORIMPL_H
#define TARN_CONNECTION_TARNTCPSSLCONNECTORIMPL_H

#include "connection/InetConnectorImpl.h"
#include "tarnadapterframe/tarn_ssl.h"

/// The TLS transport, on the host's secure-socket library. Receiving and sending never wait: the handle is in
/// non-blocking mode while it is served, and the stream goes by that.
class TarnTCPSSLConnectorImpl : public InetConnectorImpl
{
public:
    explicit TarnTCPSSLConnectorImpl(TarnConnector* pOwner);
    /// Closes what is still open, without a line in the log.
    ~TarnTCPSSLConnectorImpl() override;

    /// At least three elements: IPv4 address (std::uint32_t) and port (std::uint16_t), both in host byte order, and a
    /// TARN_SSL_Option, which is copied.
    int InitCommuPara(std::vector<void*>& vctParas) override TARN_EXCLUDES(m_ParameterLock);
    /// The TARN_SOCK_Stream; as long as the connection lives.
    void* GetSocketStream() override;

    int Read() override;
    int Write() override;
    int SendData(const char* pBuf, int iLength) override TARN_EXCLUDES(m_DescriptorGuard);
    int RecvData(char* pBuf, int iLength) override TARN_EXCLUDES(m_DescriptorGuard);
    bool HasBufferedInput() override;

private:
    int ReceiveOnce(char* pBuf, int iLength, int& iError) override TARN_EXCLUDES(m_DescriptorGuard);
    int OpenStream(const ACE_INET_Addr& remoteAddress, const ACE_Time_Value& timeout) override
        TARN_REQUIRES(m_OpenMutex);
    int CloseStream() override TARN_REQUIRES(m_OpenMutex);
    ACE_HANDLE StreamHandle() override TARN_REQUIRES(m_OpenMutex);

    // Both order themselves.
    TARN_SOCK_Stream m_Stream;
    TARN_SOCK_Connector m_Connector;

    // Touched only from handler calls, one at a time: write events are off until something has been received.
    bool m_bAwaitingInput = false;
};

#endif
