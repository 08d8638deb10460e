#ifndef TARN_CONNECTION_TARNTP4CONNECTORIMPL_H
#define TARN_CONNECTION_TARNTP4CONNECTORIMPL_H

#include "connection/TarnConnectorImpl.h"
#include "platform/tarnplatform.h"

/// The transport over OSI transport class 4. Its socket is the connection's handle, and belongs to the transport
/// whoever has stored it.
class TarnTP4ConnectorImpl : public TarnConnectorImpl
{
public:
    static constexpr std::uint32_t ADDRESS_BYTES = 40;
    static constexpr std::uint32_t TSAP_BYTES = 16; ///< its closing zero included

    explicit TarnTP4ConnectorImpl(TarnConnector* pOwner);
    /// Closes what is still open, without a line in the log.
    ~TarnTP4ConnectorImpl() override;

    /// Two elements, both texts ended by a zero byte: the network address, 0 to 80 hex digits in pairs, and the
    /// transport selector, at most 15 characters.
    int InitCommuPara(std::vector<void*>& vctParas) override TARN_EXCLUDES(m_ParameterLock);
    /// Reports the address as it was given, in hex digits.
    bool GetCommuPara(ECommuProtocolType& eType, unsigned long& ulIP, unsigned short& usPort,
                      std::string& strFirst, std::string& strSecond, std::string& strThird,
                      unsigned long& ulNumber) override TARN_EXCLUDES(m_ParameterLock);
    /// Closes a connection that is open, and opens it anew. No time-out but the provider's.
    int Connect() override TARN_EXCLUDES(m_OpenMutex, m_ParameterLock);
    int ConnectQueued() override TARN_EXCLUDES(m_OpenMutex, m_ParameterLock);
    int DisConnect() override TARN_EXCLUDES(m_OpenMutex, m_ParameterLock);
    int SendData(const char* pBuf, int iLength) override TARN_EXCLUDES(m_DescriptorGuard);
    int RecvData(char* pBuf, int iLength) override TARN_EXCLUDES(m_DescriptorGuard);

    /// Converts hex digits, in pairs, into at most uMax bytes. @return false, with everything left as it was: null,
    /// or the text is no such digits
    static bool get_sap(const char* pszText, std::uint32_t uMax, std::uint32_t* pLength,
                        unsigned char* pBytes);

    /// Where the connection leads, as the provider takes it.
    struct TransportAddress
    {
        std::uint32_t ulAddressLength = 0;
        unsigned char address[ADDRESS_BYTES] = {};
        std::uint32_t ulTsapLength = 0;
        char szTsap[TSAP_BYTES] = {};
    };
    static SOCKADDR_TP SocketAddress(const TransportAddress& address);

private:
    int ConnectLocked() TARN_REQUIRES(m_OpenMutex) TARN_EXCLUDES(m_ParameterLock);
    SOCKET OpenSocket(int iGroupID, std::uint32_t ulTargetID) TARN_REQUIRES(m_OpenMutex);
    void CloseSocket() TARN_REQUIRES(m_OpenMutex);
    TransportAddress Address() TARN_EXCLUDES(m_ParameterLock);

    TransportAddress m_Address TARN_GUARDED_BY(m_ParameterLock);
    std::string m_strAddressText TARN_GUARDED_BY(m_ParameterLock); // which its bytes were made of
};

#endif
