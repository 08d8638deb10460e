#include "connection/TarnTCPSSLConnectorImpl.h"

#include "connection/WouldBlock.h"
#include "tarnadapterframe/TarnAdapterTrace.h"

#include <cerrno>

namespace {

/// Logs what connections are going to be secured with.
void DumpOption(const TARN_SSL_Option& option)
{
    const auto text = [](bool bValue) { return bValue ? "true" : "false"; };
    // A longer list would leave no room for the line.
    TarnAdapterFrmtTrace(1,
                         "TarnAdapter option info: \n\tenable_auth_peer=%s\n\tenable_port_adapt=%s\n\t"
                         "enable_ssl=%s\n\tenable_session_reuse=%s\n\tsession_timeout=%d\n\tversion=%s\n\t"
                         "cipherlist=%.1700s\n\n",
                         text(option.enable_auth_peer()), text(option.enable_port_adapt()),
                         text(option.enable_ssl()), text(option.enable_session_reuse()),
                         option.get_session_timeout(), option.get_version(), option.get_cipherlist());
}

} // namespace

TarnTCPSSLConnectorImpl::TarnTCPSSLConnectorImpl(TarnConnector* pOwner)
    : InetConnectorImpl(pOwner, TCP_SSL_TYPE, {"SSL connect:", "SSL connect: ", "SSL "})
    , m_Stream(nullptr)
{}

TarnTCPSSLConnectorImpl::~TarnTCPSSLConnectorImpl()
{
    WaitUntilUnused();
}

int TarnTCPSSLConnectorImpl::InitCommuPara(std::vector<void*>& vctParas)
{
    constexpr std::size_t PARAMETERS = 3;
    if (vctParas.size() < PARAMETERS)
    {
        TarnAdapterFrmtTrace(1, "TarnTCPSSLConnectorImpl::InitCommuPara(), error, vctParas.size(%d) error\n",
                             static_cast<int>(vctParas.size()));
        return -1;
    }
    if (vctParas[0] == nullptr)
    {
        TarnAdapterFrmtTrace(1, "TarnTCPSSLConnectorImpl::InitCommuPara(), ulIP is NULL\n");
        return -2;
    }
    if (vctParas[1] == nullptr)
    {
        TarnAdapterFrmtTrace(1, "TarnTCPSSLConnectorImpl::InitCommuPara(), usPort is NULL\n");
        return -2;
    }
    const auto ulIP = *static_cast<const std::uint32_t*>(vctParas[0]);
    const auto usPort = *static_cast<const std::uint16_t*>(vctParas[1]);
    SetRemoteAddress(ulIP, usPort);
    TarnAdapterFrmtTrace(3, "TarnTCPSSLConnectorImpl::InitCommuPara connect address(0x%x,%d)(TWO_PARAM)\n",
                         ulIP, static_cast<int>(usPort));
    if (vctParas[2] == nullptr)
    {
        TarnAdapterFrmtTrace(1, "TarnTCPSSLConnectorImpl::InitCommuPara(), third Param is NULL\n");
        return -2;
    }
    const TARN_SSL_Option option(*static_cast<const TARN_SSL_Option*>(vctParas[2]));
    DumpOption(option);
    m_Connector.set_ssl_option(option);
    return 0;
}

int TarnTCPSSLConnectorImpl::OpenStream(const ACE_INET_Addr& remoteAddress, const ACE_Time_Value& timeout)
{
    return m_Connector.connect(m_Stream, remoteAddress, &timeout);
}

int TarnTCPSSLConnectorImpl::CloseStream()
{
    return m_Stream.close();
}

ACE_HANDLE TarnTCPSSLConnectorImpl::StreamHandle()
{
    return m_Stream.get_handle();
}

void* TarnTCPSSLConnectorImpl::GetSocketStream()
{
    TarnAdapterFrmtTrace(1, "TarnTCPSSLConnectorImpl::GetSocketStream\n");
    return &m_Stream;
}

bool TarnTCPSSLConnectorImpl::HasBufferedInput()
{
    return TarnConnectorImpl::HasBufferedInput() || m_Stream.has_unread();
}

int TarnTCPSSLConnectorImpl::Read()
{
    int iRead = 0;
    // What no descriptor announces, such as the peer's good-bye behind its last bytes, is read here and now.
    do
        iRead = TarnConnectorImpl::Read();
    while (iRead == 0 && m_Stream.has_unread());
    if (iRead < 0)
        return iRead;
    const bool bMaySendAgain = m_bAwaitingInput && !m_Stream.send_awaits_input();
    if (bMaySendAgain)
        m_bAwaitingInput = false;
    // Also for answers of the TLS layer's own, which the socket has not taken.
    if (bMaySendAgain || m_Stream.has_unsent())
        SwitchWriteEvents(true);
    return iRead;
}

int TarnTCPSSLConnectorImpl::Write()
{
    const int iWritten = TarnConnectorImpl::Write();
    if (iWritten == MORE_LATER && m_Stream.send_awaits_input())
    {
        // The socket has room and would be announced for ever.
        m_bAwaitingInput = true;
        SwitchWriteEvents(false);
    }
    // After more later there is a turn of reading as well, which takes what the handshake has left behind.
    return iWritten == 0 && (m_Stream.has_unsent() || m_Stream.has_unread()) ? MORE_LATER : iWritten;
}

int TarnTCPSSLConnectorImpl::SendData(const char* pBuf, int iLength)
{
    if (pBuf == nullptr)
    {
        TarnAdapterFrmtTrace(1, "TarnConnectorImpl::SendData fail, input para pBuf=NULL\n");
        return -1;
    }
    TarnAdapterFrmtTrace(3, "Begin sending data to SSL socket...\n");
    int iSent = -1;
    int iError = EBADF;
    {
        const DescriptorGuard::Use use(m_DescriptorGuard);
        if (UsableHandle() != ACE_INVALID_HANDLE)
        {
            iSent = m_Stream.send_n(pBuf, static_cast<std::size_t>(iLength), nullptr, nullptr);
            iError = errno;
        }
    }
    TarnAdapterFrmtTrace(3, "Finish sending data to SSL socket...\n");
    errno = iError;
    return iSent;
}

int TarnTCPSSLConnectorImpl::RecvData(char* pBuf, int iLength)
{
    if (pBuf == nullptr)
    {
        TarnAdapterFrmtTrace(1, "TarnTCPSSLConnectorImpl::RecvData fail, input para pBuf=NULL\n");
        return -1;
    }
    TarnAdapterFrmtTrace(3, "Begin recv (len=%d) data from SSL socket...\n", iLength);
    int iError = 0;
    const int iReceived = ReceiveAhead(pBuf, iLength, iError);
    TarnAdapterFrmtTrace(3, "Finish recv (ret=%d) data from SSL socket...\n", iReceived);
    if (iReceived > 0)
        return iReceived;
    if (iReceived < 0 && IsWouldBlock(iError))
        return 0;
    if (iReceived == 0)
        TarnAdapterFrmtTrace(1, "SSL Port close ; errno : %d \n", iError);
    else
        TarnAdapterFrmtTrace(1, "SSL recv: %d, errno=%d, Group = %d, TargetID = 0x%x\n", iReceived, iError,
                             GetGroupID(), GetTargetID());
    errno = iError;
    return -1;
}

int TarnTCPSSLConnectorImpl::ReceiveOnce(char* pBuf, int iLength, int& iError)
{
    const ACE_Time_Value timeout(60);
    iError = EBADF;
    const DescriptorGuard::Use use(m_DescriptorGuard);
    if (UsableHandle() == ACE_INVALID_HANDLE)
        return -1;
    const int iReceived = m_Stream.recv(pBuf, static_cast<std::size_t>(iLength), &timeout);
    iError = errno;
    return iReceived;
}
