#ifndef TARN_CONNECTION_TARNTCPCONNECTORIMPL_H
#define TARN_CONNECTION_TARNTCPCONNECTORIMPL_H

#include "connection/InetConnectorImpl.h"

#include <ace/SOCK_Connector.h>
#include <ace/SOCK_Stream.h>

/// The TCP transport. Its stream belongs to it and is closed with it; a handle that a caller has stored by
/// set_handle is the caller's.
class TarnTCPConnectorImpl : public InetConnectorImpl
{
public:
    explicit TarnTCPConnectorImpl(TarnConnector* pOwner);
    /// Closes what is still open, without a line in the log.
    ~TarnTCPConnectorImpl() override;

    /// Two elements: IPv4 address (std::uint32_t) and port (std::uint16_t), both in host byte order.
    int InitCommuPara(std::vector<void*>& vctParas) override TARN_EXCLUDES(m_ParameterLock);

private:
    int OpenStream(const ACE_INET_Addr& remoteAddress, const ACE_Time_Value& timeout) override
        TARN_REQUIRES(m_OpenMutex);
    int CloseStream() override TARN_REQUIRES(m_OpenMutex);
    ACE_HANDLE StreamHandle() override TARN_REQUIRES(m_OpenMutex);

    ACE_SOCK_Stream m_Stream TARN_GUARDED_BY(m_OpenMutex);
    ACE_SOCK_Connector m_Connector TARN_GUARDED_BY(m_OpenMutex);
};

#endif
