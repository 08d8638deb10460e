#include "connection/TarnTCPConnectorImpl.h"

#include "connection/TarnConnectorMgrImpl.h"
#include "connection/TcpSocket.h"
#include "tarnadapterframe/TarnAdapterTrace.h"

#include <ace/Time_Value.h>

#include <cerrno>

TarnTCPConnectorImpl::TarnTCPConnectorImpl(TarnConnector* pOwner)
    : TarnConnectorImpl(pOwner)
    , m_RemoteAddress(static_cast<u_short>(0), static_cast<ACE_UINT32>(INADDR_ANY)) // else it would be IPv6
{
    SetCommuProtType(TCP_TYPE);
}

TarnTCPConnectorImpl::~TarnTCPConnectorImpl()
{
    WaitUntilUnused();
    m_Stream.close();
}

int TarnTCPConnectorImpl::InitCommuPara(std::vector<void*>& vctParas)
{
    constexpr std::size_t PARAMETERS = 2;
    if (vctParas.size() != PARAMETERS)
    {
        TarnAdapterFrmtTrace(1, "TarnTCPConnectorImpl::InitCommuPara error, vctParas.size(%d) != 2\n",
                             static_cast<int>(vctParas.size()));
        return -1;
    }
    if (vctParas[0] == nullptr || vctParas[1] == nullptr)
    {
        TarnAdapterFrmtTrace(1, "TarnTCPConnectorImpl::InitCommuPara error, address or port is NULL\n");
        return -2;
    }
    const auto ulIP = *static_cast<const std::uint32_t*>(vctParas[0]);
    const auto usPort = *static_cast<const std::uint16_t*>(vctParas[1]);
    const TarnWriteGuard guard(m_ParameterLock);
    m_RemoteAddress = ACE_INET_Addr(usPort, ulIP);
    return 0;
}

bool TarnTCPConnectorImpl::GetCommuPara(ECommuProtocolType& eType, unsigned long& ulIP,
                                        unsigned short& usPort, std::string& strFirst, std::string& strSecond,
                                        std::string& strThird, unsigned long& ulNumber)
{
    if (GetCommuProtType() != TCP_TYPE)
        return false;
    const ACE_INET_Addr remoteAddress = RemoteAddress();
    eType = TCP_TYPE;
    ulIP = remoteAddress.get_ip_address();
    usPort = remoteAddress.get_port_number();
    strFirst.clear();
    strSecond.clear();
    strThird.clear();
    ulNumber = 0;
    return true;
}

ACE_INET_Addr TarnTCPConnectorImpl::RemoteAddress()
{
    const TarnReadGuard guard(m_ParameterLock);
    return m_RemoteAddress;
}

int TarnTCPConnectorImpl::Connect()
{
    const TarnGuard guard(m_OpenMutex);
    if (GetHandle() != ACE_INVALID_HANDLE)
    {
        // Somebody else has opened it while this attempt waited for its turn.
        SetState(STATE_CONNECTED);
        return 0;
    }
    TarnAdapterFrmtTrace(1, "Before Connect,GRPID=%d,TargetID = 0x%x\n", GetGroupID(), GetTargetID());
    if (Open() == -1)
    {
        const int iError = errno;
        TarnAdapterFrmtTrace(1, "After Connect, connect fail, Group = %d ,TARGETID = 0x%x, errno=%d\n",
                             GetGroupID(), GetTargetID(), iError);
        m_Stream.close();
        return -1;
    }
    set_handle(m_Stream.get_handle());
    SetState(STATE_CONNECTED);
    TarnAdapterFrmtTrace(1, "Connectted Target,Group = %d,(ID= 0x%x) ok!\n", GetGroupID(), GetTargetID());
    return 0;
}

/// Opens the stream. @return 0, or -1 with errno
int TarnTCPConnectorImpl::Open()
{
    // On a stream that has a handle the connector would do nothing and succeed.
    m_Stream.close();
    const ACE_Time_Value timeout(GetConnTimeOut(), 0);
    if (m_Connector.connect(m_Stream, RemoteAddress(), &timeout, ACE_Addr::sap_any, 0, 0, 0, 0) < 0)
        return -1;
    if (IsConnectedToItself(m_Stream.get_handle()))
    {
        errno = ECONNREFUSED;
        return -1;
    }
    PrepareTcpSocket(m_Stream.get_handle());
    return 0;
}

int TarnTCPConnectorImpl::CloseStream()
{
    // Whatever close(2) reports, the descriptor is closed, unless there was none.
    return m_Stream.close() == 0 || errno == EINTR || errno == EIO ? 0 : -1;
}

int TarnTCPConnectorImpl::DisConnect()
{
    const TarnGuard guard(m_OpenMutex);
    if (CloseDescriptor([this]() TARN_NO_THREAD_SAFETY_ANALYSIS { return CloseStream(); }) != 0)
        return -1;
    const ACE_INET_Addr remoteAddress = RemoteAddress();
    TarnAdapterFrmtTrace(1, "Close Connect,Group=%d,(ID=0x%x),IP=%s,port=%d\n", GetGroupID(), GetTargetID(),
                         PeerText(remoteAddress).c_str(), static_cast<int>(remoteAddress.get_port_number()));
    TarnConnectorMgrImpl::SetClosed(*this);
    return 0;
}
