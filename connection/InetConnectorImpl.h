#ifndef TARN_CONNECTION_INETCONNECTORIMPL_H
#define TARN_CONNECTION_INETCONNECTORIMPL_H

#include "connection/TarnConnectorImpl.h"

#include <ace/INET_Addr.h>
#include <ace/Time_Value.h>

/// What the transports over TCP share: the element's address, and the order of opening and closing. The stream is the
/// derived class's; it is opened, closed and asked for its handle with the open/close mutex held.
class InetConnectorImpl : public TarnConnectorImpl
{
public:
    bool GetCommuPara(ECommuProtocolType& eType, unsigned long& ulIP, unsigned short& usPort,
                      std::string& strFirst, std::string& strSecond, std::string& strThird,
                      unsigned long& ulNumber) override TARN_EXCLUDES(m_ParameterLock);
    int Connect() override TARN_EXCLUDES(m_OpenMutex, m_ParameterLock);
    int DisConnect() override TARN_EXCLUDES(m_OpenMutex, m_ParameterLock);

protected:
    /// What sets the lines in the log apart; literals.
    struct LogTexts
    {
        const char* pszBefore;
        const char* pszAfter;
        const char* pszClose;
    };

    InetConnectorImpl(TarnConnector* pOwner, ECommuProtocolType eType, const LogTexts& texts);

    void SetRemoteAddress(std::uint32_t ulIP, std::uint16_t usPort) TARN_EXCLUDES(m_ParameterLock);

    /// Opens the stream. @return negative with errno when it failed
    virtual int OpenStream(const ACE_INET_Addr& remoteAddress, const ACE_Time_Value& timeout)
        TARN_REQUIRES(m_OpenMutex) = 0;
    /// @return 0 closed, also when it was not open
    virtual int CloseStream() TARN_REQUIRES(m_OpenMutex) = 0;
    virtual ACE_HANDLE StreamHandle() TARN_REQUIRES(m_OpenMutex) = 0;

private:
    ACE_INET_Addr RemoteAddress() TARN_EXCLUDES(m_ParameterLock);
    int Open() TARN_REQUIRES(m_OpenMutex);

    const ECommuProtocolType m_eOwnType;
    const LogTexts m_Texts;
    ACE_INET_Addr m_RemoteAddress TARN_GUARDED_BY(m_ParameterLock);
};

#endif
