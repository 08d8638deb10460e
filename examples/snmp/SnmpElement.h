#ifndef SNMP_SNMPELEMENT_H
#define SNMP_SNMPELEMENT_H

#include "SnmpCodec.h"

#include <tarnadapterframe/tarn_ssl.h>
#include <tarnadapterframe/tarnadapterframe.h>

#include <cstdint>
#include <string>

/// Told what happens with elements, on threads of the framework: return soon, and take no lock that a thread holds while it
/// calls the framework.
class SnmpListener
{
public:
    virtual ~SnmpListener() = default;
    virtual void OnConnected(int iNeId) = 0;
    virtual void OnBroken(int iNeId) = 0;
    /// A trap, or an inform, which is answered when this returns true. With one report thread (`nAppProcessRptMsgThreadNum`) one
    /// call at a time, in the order in which they came.
    virtual bool OnNotification(int iNeId, const SnmpPacket& packet) = 0;
};

/// Where an element is.
struct SnmpAddress
{
    ECommuProtocolType eType = TCP_TYPE; ///< or TCP_SSL_TYPE, or TP4_TYPE
    std::uint32_t ulIP = 0;              ///< IPv4, host byte order; not of TP4_TYPE, nor the port
    std::uint16_t usPort = 0;
    TARN_SSL_Option tls;       ///< of TCP_SSL_TYPE
    std::string strTp4Address; ///< of TP4_TYPE: the network address in hex digits
    std::string strTp4Tsap;    ///< and the transport selector
};

/// One element and the connection to it. Register it with TarnConnectorMgr, and unregister it before it is destroyed.
class SnmpElement : public TarnConnector
{
public:
    static constexpr int GROUP = 61; ///< of all SNMP elements; the NE id is the target id

    SnmpElement(int iNeId, const SnmpAddress& address, std::string strCommunity, SnmpListener& listener);

    int NeId() const { return m_iNeId; }
    const std::string& Community() const { return m_strCommunity; }

    int OnConnectOK() override;
    int OnSockBreak() override;

private:
    // Constant after construction.
    const int m_iNeId;
    const std::string m_strCommunity;
    SnmpListener& m_Listener;
};

/// An element in use, which is not destroyed meanwhile: UnRegisterConnector waits for that.
class SnmpElementInUse
{
public:
    explicit SnmpElementInUse(unsigned long ulNeId)
        : SnmpElementInUse(TarnConnectorMgr::Instance()->GetConnectorByID(SnmpElement::GROUP, ulNeId))
    {}
    /// @param pConnector  as the manager has given it out; may be null
    explicit SnmpElementInUse(TarnConnector* pConnector)
        : m_Guard(pConnector)
        , m_pElement(dynamic_cast<SnmpElement*>(pConnector))
    {}

    explicit operator bool() const { return m_pElement != nullptr; }
    SnmpElement* operator->() const { return m_pElement; }
    SnmpElement* Get() const { return m_pElement; }

private:
    const TarnConnectorGuard m_Guard;
    SnmpElement* const m_pElement;
};

#endif
