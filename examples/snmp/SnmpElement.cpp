#include "SnmpElement.h"

#include "SnmpMessages.h"

#include <utility>

SnmpElement::SnmpElement(int iNeId, const SnmpAddress& address, std::string strCommunity,
                         SnmpListener& listener)
    : TarnConnector(address.eType)
    , m_iNeId(iNeId)
    , m_strCommunity(std::move(strCommunity))
    , m_Listener(listener)
{
    SetGroupID(GROUP);
    SetTargetID(static_cast<unsigned long>(iNeId));
    SetAdapterProtocolID(SNMP_PROTOCOL);
    SnmpAddress copy = address; // the parameters are pointers to what may be changed
    std::vector<void*> parameters = {&copy.ulIP, &copy.usPort};
    if (address.eType == TCP_SSL_TYPE)
        parameters.push_back(&copy.tls);
    else if (address.eType == TP4_TYPE)
        parameters = {copy.strTp4Address.data(), copy.strTp4Tsap.data()};
    InitCommuPara(parameters);
}

int SnmpElement::OnConnectOK()
{
    m_Listener.OnConnected(m_iNeId);
    return 0;
}

int SnmpElement::OnSockBreak()
{
    m_Listener.OnBroken(m_iNeId);
    return 0;
}
