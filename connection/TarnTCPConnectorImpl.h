#ifndef TARN_CONNECTION_TARNTCPCONNECTORIMPL_H
#define TARN_CONNECTION_TARNTCPCONNECTORIMPL_H

#include "connection/TarnConnectorImpl.h"

#include <ace/INET_Addr.h>
#include <ace/SOCK_Connector.h>
#include <ace/SOCK_Stream.h>

/// The TCP transport. Its stream belongs to it and is closed with it; a handle that a caller has stored by
/// set_handle is the caller's.
class TarnTCPConnectorImpl : public TarnConnectorImpl
{
public:
    explicit TarnTCPConnectorImpl(TarnConnector* pOwner);
    /// Closes what is still open, without a line in the log.
    ~TarnTCPConnectorImpl() override;

    /// Two elements: IPv4 address (std::uint32_t) and port (std::uint16_t), both in host byte order.
    int InitCommuPara(std::vector<void*>& vctParas) override TARN_EXCLUDES(m_ParameterLock);
    bool GetCommuPara(ECommuProtocolType& eType, unsigned long& ulIP, unsigned short& usPort,
                      std::string& strFirst, std::string& strSecond, std::string& strThird,
                      unsigned long& ulNumber) override TARN_EXCLUDES(m_ParameterLock);
    int Connect() override TARN_EXCLUDES(m_OpenMutex, m_ParameterLock);
    int DisConnect() override TARN_EXCLUDES(m_OpenMutex, m_ParameterLock);

private:
    ACE_INET_Addr RemoteAddress() TARN_EXCLUDES(m_ParameterLock);
    int Open() TARN_REQUIRES(m_OpenMutex);
    int CloseStream() TARN_REQUIRES(m_OpenMutex);

    ACE_INET_Addr m_RemoteAddress TARN_GUARDED_BY(m_ParameterLock);
    ACE_SOCK_Stream m_Stream TARN_GUARDED_BY(m_OpenMutex);
    ACE_SOCK_Connector m_Connector TARN_GUARDED_BY(m_OpenMutex);
};

#endif
