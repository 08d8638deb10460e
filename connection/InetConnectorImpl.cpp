#include "connection/InetConnectorImpl.h"

#include "connection/TarnConnectorMgrImpl.h"
#include "connection/TcpSocket.h"
#include "tarnadapterframe/TarnAdapterTrace.h"

#include <cerrno>

InetConnectorImpl::InetConnectorImpl(TarnConnector* pOwner, ECommuProtocolType eType, const LogTexts& texts)
    : TarnConnectorImpl(pOwner)
    , m_eOwnType(eType)
    , m_Texts(texts)
    , m_RemoteAddress(static_cast<u_short>(0), static_cast<ACE_UINT32>(INADDR_ANY)) // else it would be IPv6
{
    SetCommuProtType(eType);
}

void InetConnectorImpl::SetRemoteAddress(std::uint32_t ulIP, std::uint16_t usPort)
{
    const TarnWriteGuard guard(m_ParameterLock);
    m_RemoteAddress = ACE_INET_Addr(usPort, ulIP);
}

ACE_INET_Addr InetConnectorImpl::RemoteAddress()
{
    const TarnReadGuard guard(m_ParameterLock);
    return m_RemoteAddress;
}

bool InetConnectorImpl::GetCommuPara(ECommuProtocolType& eType, unsigned long& ulIP, unsigned short& usPort,
                                     std::string& strFirst, std::string& strSecond, std::string& strThird,
                                     unsigned long& ulNumber)
{
    if (GetCommuProtType() != m_eOwnType)
        return false;
    const ACE_INET_Addr remoteAddress = RemoteAddress();
    eType = m_eOwnType;
    ulIP = remoteAddress.get_ip_address();
    usPort = remoteAddress.get_port_number();
    strFirst.clear();
    strSecond.clear();
    strThird.clear();
    ulNumber = 0;
    return true;
}

int InetConnectorImpl::Connect()
{
    const TarnGuard guard(m_OpenMutex);
    if (GetHandle() != ACE_INVALID_HANDLE)
    {
        // Somebody else has opened it while this attempt waited for its turn.
        SetState(STATE_CONNECTED);
        return 0;
    }
    TarnAdapterFrmtTrace(1, "%sBefore Connect,GRPID=%d,TargetID = 0x%x\n", m_Texts.pszBefore, GetGroupID(),
                         GetTargetID());
    if (Open() == -1)
    {
        const int iError = errno;
        TarnAdapterFrmtTrace(1, "%sAfter Connect, connect fail, Group = %d ,TARGETID = 0x%x, errno=%d\n",
                             m_Texts.pszAfter, GetGroupID(), GetTargetID(), iError);
        CloseStream();
        return -1;
    }
    set_handle(StreamHandle());
    SetState(STATE_CONNECTED);
    TarnAdapterFrmtTrace(1, "%sConnectted Target,Group = %d,(ID= 0x%x) ok!\n", m_Texts.pszAfter, GetGroupID(),
                         GetTargetID());
    return 0;
}

/// @return 0, or -1 with errno
int InetConnectorImpl::Open()
{
    // On a stream that has a handle a connector may do nothing and succeed.
    CloseStream();
    if (OpenStream(RemoteAddress(), ACE_Time_Value(GetConnTimeOut(), 0)) < 0)
        return -1;
    if (IsConnectedToItself(StreamHandle()))
    {
        errno = ECONNREFUSED;
        return -1;
    }
    PrepareTcpSocket(StreamHandle());
    return 0;
}

int InetConnectorImpl::DisConnect()
{
    const TarnGuard guard(m_OpenMutex);
    if (CloseDescriptor([this]() TARN_NO_THREAD_SAFETY_ANALYSIS { return CloseStream(); }) != 0)
        return -1;
    const ACE_INET_Addr remoteAddress = RemoteAddress();
    TarnAdapterFrmtTrace(1, "Close %sConnect,Group=%d,(ID=0x%x),IP=%s,port=%d\n", m_Texts.pszClose,
                         GetGroupID(), GetTargetID(), PeerText(remoteAddress).c_str(),
                         static_cast<int>(remoteAddress.get_port_number()));
    TarnConnectorMgrImpl::SetClosed(*this);
    return 0;
}
