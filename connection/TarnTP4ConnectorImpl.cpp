#include "connection/TarnTP4ConnectorImpl.h"

#include "connection/TarnConnectorMgrImpl.h"
#include "connection/WouldBlock.h"
#include "core/LogArguments.h"
#include "tarnadapterframe/TarnAdapterTrace.h"

#include <sys/socket.h>

#include <cerrno>
#include <charconv>
#include <cstring>

namespace {

/// Closes a socket; a failure shows in errno only.
void Close(SOCKET hSocket)
{
    if (closesocket(hSocket) == SOCKET_ERROR)
        errno = WSAGetLastError();
}

} // namespace

TarnTP4ConnectorImpl::TarnTP4ConnectorImpl(TarnConnector* pOwner)
    : TarnConnectorImpl(pOwner)
{
    SetCommuProtType(TP4_TYPE);
}

TarnTP4ConnectorImpl::~TarnTP4ConnectorImpl()
{
    WaitUntilUnused();
    if (GetHandle() != ACE_INVALID_HANDLE)
        closesocket(GetHandle());
}

bool TarnTP4ConnectorImpl::get_sap(const char* pszText, std::uint32_t uMax, std::uint32_t* pLength,
                                   unsigned char* pBytes)
{
    constexpr int HEX = 16;
    if (pszText == nullptr || pLength == nullptr || pBytes == nullptr)
    {
        TarnAdapterFrmtTrace(1, "get_sap, input para error, s = 0x%x, p_len = 0x%x, addr = 0x%x\n",
                             Low32(pszText), Low32(pLength), Low32(pBytes));
        return false;
    }
    const std::size_t uDigits = std::strlen(pszText);
    if (uDigits % 2 != 0 || uDigits > std::size_t{2} * uMax ||
        std::strspn(pszText, "0123456789abcdefABCDEF") != uDigits)
        return false;
    *pLength = static_cast<std::uint32_t>(uDigits / 2);
    for (std::uint32_t i = 0; i < *pLength; ++i)
        std::from_chars(pszText + std::size_t{2} * i, pszText + std::size_t{2} * i + 2, pBytes[i], HEX);
    return true;
}

int TarnTP4ConnectorImpl::InitCommuPara(std::vector<void*>& vctParas)
{
    constexpr std::size_t PARAMETERS = 2;
    if (vctParas.size() != PARAMETERS)
    {
        TarnAdapterFrmtTrace(1, "TarnTP4ConnectorImpl::Init vctParas's size is incorrect.\n");
        return -1;
    }
    const auto* pszAddress = static_cast<const char*>(vctParas[0]);
    const auto* pszTsap = static_cast<const char*>(vctParas[1]);
    TransportAddress given;
    if (!get_sap(pszAddress, ADDRESS_BYTES, &given.ulAddressLength, given.address))
    {
        TarnAdapterFrmtTrace(1, "TarnTP4ConnectorImpl::Init vctParas's TP4Address is invalid.\n");
        return -1;
    }
    const TarnWriteGuard guard(m_ParameterLock);
    m_strAddressText = pszAddress;
    m_Address.ulAddressLength = given.ulAddressLength;
    std::memcpy(m_Address.address, given.address, ADDRESS_BYTES);
    if (pszTsap == nullptr || strnlen(pszTsap, TSAP_BYTES) == TSAP_BYTES)
    {
        TarnAdapterFrmtTrace(1, "TarnTP4ConnectorImpl::Init vctParas's TP4TSAP is invalid.\n");
        return -1;
    }
    m_Address.ulTsapLength = static_cast<std::uint32_t>(std::strlen(pszTsap));
    std::memcpy(m_Address.szTsap, pszTsap, m_Address.ulTsapLength + 1);
    return 0;
}

bool TarnTP4ConnectorImpl::GetCommuPara(ECommuProtocolType& eType, unsigned long& ulIP,
                                        unsigned short& usPort, std::string& strFirst, std::string& strSecond,
                                        std::string& strThird, unsigned long& ulNumber)
{
    if (GetCommuProtType() != TP4_TYPE)
        return false;
    const TarnReadGuard guard(m_ParameterLock);
    eType = TP4_TYPE;
    ulIP = 0;
    usPort = 0;
    strFirst = m_strAddressText;
    strSecond = m_Address.szTsap;
    strThird.clear();
    ulNumber = 0;
    return true;
}

TarnTP4ConnectorImpl::TransportAddress TarnTP4ConnectorImpl::Address()
{
    const TarnReadGuard guard(m_ParameterLock);
    return m_Address;
}

SOCKADDR_TP TarnTP4ConnectorImpl::SocketAddress(const TransportAddress& address)
{
    static_assert(ADDRESS_BYTES + TSAP_BYTES <= ISO_MAX_ADDR_LENGTH);
    SOCKADDR_TP result = {};
    result.tp_family = AF_ISO;
    result.tp_addr_type = ISO_HIERARCHICAL;
    result.tp_taddr_len = static_cast<WORD>(address.ulTsapLength + address.ulAddressLength);
    result.tp_tsel_len = static_cast<WORD>(address.ulTsapLength);
    std::memcpy(result.tp_addr, address.szTsap, address.ulTsapLength);
    std::memcpy(result.tp_addr + address.ulTsapLength, address.address, address.ulAddressLength);
    return result;
}

int TarnTP4ConnectorImpl::ConnectQueued()
{
    const TarnGuard guard(m_OpenMutex);
    if (GetHandle() == ACE_INVALID_HANDLE)
        return ConnectLocked();
    // Somebody else has opened it while this attempt waited for its turn.
    SetState(STATE_CONNECTED);
    return 0;
}

int TarnTP4ConnectorImpl::Connect()
{
    const TarnGuard guard(m_OpenMutex);
    return ConnectLocked();
}

int TarnTP4ConnectorImpl::ConnectLocked()
{
    const int iGroupID = GetGroupID();
    const std::uint32_t ulTargetID = GetTargetID();
    TarnAdapterFrmtTrace(1, "Before Connect,GRPID = %d,TargetID = 0x%x\n", iGroupID, ulTargetID);
    if (GetHandle() != ACE_INVALID_HANDLE)
    {
        TarnAdapterFrmtTrace(1,
                             "TarnTP4Connector::Connect the socket is opened, so close it first! Group = "
                             "%d,TARGETID = 0x%x.\n",
                             iGroupID, ulTargetID);
        CloseSocket();
    }
    const SOCKET hSocket = OpenSocket(iGroupID, ulTargetID);
    if (hSocket == INVALID_SOCKET)
    {
        const int iError = errno;
        SetDisconnectedIfConnected(); // or nothing would ever open again what has been closed here
        errno = iError;
        return -1;
    }
    set_handle(hSocket);
    TarnAdapterFrmtTrace(1, "Connectted Target,Group = %d,(TARGETID= 0x%x) ok!\n", iGroupID, ulTargetID);
    SetState(STATE_CONNECTED);
    return 0;
}

/// @return a connected socket; INVALID_SOCKET with errno, logged
SOCKET TarnTP4ConnectorImpl::OpenSocket(int iGroupID, std::uint32_t ulTargetID)
{
    const SOCKET hSocket = WSASocketA(AF_ISO, SOCK_SEQPACKET, ISOPROTO_TP4, nullptr, 0, 0);
    if (hSocket == INVALID_SOCKET)
    {
        const int iError = WSAGetLastError();
        TarnAdapterFrmtTrace(
            1, "TarnTP4Connector::Connect Create the socket failed,Group = %d,TARGETID = 0x%x,errno is %d.\n",
            iGroupID, ulTargetID, iError);
        errno = iError;
        return INVALID_SOCKET;
    }
    const SOCKADDR_TP address = SocketAddress(Address());
    if (WSAConnect(hSocket, reinterpret_cast<const sockaddr*>(&address), sizeof(address), nullptr, nullptr,
                   nullptr, nullptr) == 0)
        return hSocket;
    errno = WSAGetLastError();
    Close(hSocket);
    const int iError = errno;
    TarnAdapterFrmtTrace(1, "After Connect, connect fail, Group = %d ,TARGETID = 0x%x,errno is: %d \n",
                         iGroupID, ulTargetID, iError);
    errno = iError;
    return INVALID_SOCKET;
}

/// Closes the socket and forgets it; whoever serves it is told that it is over.
void TarnTP4ConnectorImpl::CloseSocket()
{
    CloseDescriptor([this] {
        Close(GetHandle());
        return 0;
    });
}

int TarnTP4ConnectorImpl::DisConnect()
{
    const TarnGuard guard(m_OpenMutex);
    if (GetHandle() == ACE_INVALID_HANDLE)
        TarnAdapterFrmtTrace(1,
                             "TarnTP4Connector::DisConnect, the socket broken already!Group = %d,TARGETID = "
                             "0x%x.\n",
                             GetGroupID(), GetTargetID());
    else
        CloseSocket();
    TarnConnectorMgrImpl::SetClosed(*this);
    return 0;
}

int TarnTP4ConnectorImpl::SendData(const char* pBuf, int iLength)
{
    if (pBuf == nullptr)
        return -1;
    int iError = 0;
    const int iSent = SendAll(pBuf, iLength, iError);
    if (iSent >= 0)
        return iSent;
    TarnAdapterFrmtTrace(1, "TarnTP4ConnectorImpl(handle:0x%x) SendData error number is :%d when write -1\n",
                         GetHandle(), iError);
    errno = iError;
    return -1;
}

int TarnTP4ConnectorImpl::RecvData(char* pBuf, int iLength)
{
    if (pBuf == nullptr)
        return -1;
    int iError = 0;
    const int iReceived = ReceiveOnce(pBuf, iLength, iError);
    if (iReceived > 0)
        return iReceived;
    if (iReceived < 0 && IsWouldBlock(iError))
        return 0;
    if (iReceived == 0)
        TarnAdapterFrmtTrace(1, " Port close ; errno : %d \n", iError);
    else
        TarnAdapterFrmtTrace(1, " recv : %d errno : %d \n", iReceived, iError);
    errno = iError;
    return -1;
}
