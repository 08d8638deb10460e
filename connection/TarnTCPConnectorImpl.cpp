#include "connection/TarnTCPConnectorImpl.h"

#include "tarnadapterframe/TarnAdapterTrace.h"

#include <sys/socket.h>

#include <cerrno>

TarnTCPConnectorImpl::TarnTCPConnectorImpl(TarnConnector* pOwner)
    : InetConnectorImpl(pOwner, TCP_TYPE, {"", "", ""})
{}

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
    SetRemoteAddress(*static_cast<const std::uint32_t*>(vctParas[0]),
                     *static_cast<const std::uint16_t*>(vctParas[1]));
    return 0;
}

int TarnTCPConnectorImpl::OpenStream(const ACE_INET_Addr& remoteAddress, const ACE_Time_Value& timeout)
{
    // Made here: the connector's own would not be close-on-exec.
    m_Stream.set_handle(socket(remoteAddress.get_type(), SOCK_STREAM | SOCK_CLOEXEC, 0));
    return m_Connector.connect(m_Stream, remoteAddress, &timeout, ACE_Addr::sap_any, 0, 0, 0, 0);
}

int TarnTCPConnectorImpl::CloseStream()
{
    // Whatever close(2) reports, the descriptor is closed, unless there was none.
    return m_Stream.close() == 0 || errno == EINTR || errno == EIO ? 0 : -1;
}

ACE_HANDLE TarnTCPConnectorImpl::StreamHandle()
{
    return m_Stream.get_handle();
}
