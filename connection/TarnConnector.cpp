#include "tarnadapterframe/TarnConnector.h"

#include "asyncio/TEAsyncIOMgrImpl.h"
#include "connection/ConnectionPin.h"
#include "connection/ConnectorUses.h"
#include "connection/CreateTransport.h"
#include "connection/TarnConnectorImpl.h"
#include "connection/TarnConnectorMgrImpl.h"
#include "tarnadapterframe/AdapterTypes.h"
#include "tarnadapterframe/TarnAdapterTrace.h"

#include <utility>

TarnConnector::TarnConnector(ECommuProtocolType eType)
    : m_pImpl(CreateTransport(eType, this).release())
    , m_pUses(std::make_shared<ConnectorUses>())
{}

TarnConnector::~TarnConnector()
{
    // Unregistered inside a hook, it did not wait for that hook to return.
    TarnConnectorMgrImpl::WaitForUses(*this);
    TarnConnectorMgrImpl::RetireConnection(ReplaceTransport(nullptr));
}

TarnConnectorImpl* TarnConnector::ReplaceTransport(TarnConnectorImpl* pImpl)
{
    const TarnGuard guard(m_ImplLock);
    return std::exchange(m_pImpl, pImpl);
}

int TarnConnector::InitCommuProtocolType(ECommuProtocolType eType)
{
    TarnConnectorImpl* pNew = CreateTransport(eType, this).release();
    TarnConnectorMgrImpl::RetireConnection(ReplaceTransport(pNew));
    if (eType == UNKOWN_TYPE)
        TarnAdapterFrmtTrace(1, "Init Commutype para error,UNKOWN_TYPE!\n");
    else if (!IsTransportType(eType))
        TarnAdapterFrmtTrace(1, "Init Commutype para Commu Protocol error !\n");
    return pNew != nullptr ? 0 : -1;
}

void* TarnConnector::GetTarnConnectorImpl()
{
    const TarnGuard guard(m_ImplLock);
    return m_pImpl;
}

EConnectState TarnConnector::GetConnState()
{
    const ConnectionPin pImpl(*this, nullptr);
    return pImpl ? pImpl->GetState() : STATE_DISCONNECTED;
}

int TarnConnector::SetConnState(EConnectState eState)
{
    const ConnectionPin pImpl(*this, nullptr);
    if (!pImpl)
        return -1;
    pImpl->SetState(eState);
    return 0;
}

void* TarnConnector::GetHandle()
{
    const ConnectionPin pImpl(*this, nullptr);
    const ACE_HANDLE handle =
        pImpl && pImpl->GetState() == STATE_CONNECTED ? pImpl->GetHandle() : ACE_INVALID_HANDLE;
    return reinterpret_cast<void*>(static_cast<std::intptr_t>(handle));
}

int TarnConnector::SetHandle(void* pHandle)
{
    const ConnectionPin pImpl(*this, nullptr);
    if (!pImpl)
        return -1;
    const auto handle = static_cast<ACE_HANDLE>(reinterpret_cast<std::intptr_t>(pHandle));
    pImpl->set_handle(pImpl->GetState() == STATE_DISCONNECTED ? ACE_INVALID_HANDLE : handle);
    return 0;
}

int TarnConnector::SendToOutBuffer(const char* pData, int iLength)
{
    const ConnectionPin pImpl(*this, "TarnConnector::SendToOutBuffer error, m_pImpl=null\n");
    if (!pImpl)
        return -1;
    if (pData == nullptr)
    {
        TarnAdapterFrmtTrace(2, "TarnConnector::SendToOutBuffer error, input para pData=null\n");
        return ADAPTER_ERR_NULL_DATA;
    }
    if (!pImpl->IsRegistered() || pImpl->GetHandle() == ACE_INVALID_HANDLE)
        return ADAPTER_ERR_INVALID_HANDLE;
    return pImpl->AddAndSendData(pData, iLength);
}

unsigned long TarnConnector::GetTargetID()
{
    const ConnectionPin pImpl(*this, "TarnConnector::GetTargetID error, m_pImpl=null\n");
    return pImpl ? pImpl->GetTargetID() : 0;
}

int TarnConnector::SetTargetID(unsigned long ulTargetID)
{
    const ConnectionPin pImpl(*this, "TarnConnector::SetTargetID error, m_pImpl=null\n");
    if (!pImpl)
        return -1;
    pImpl->SetTargetID(static_cast<std::uint32_t>(ulTargetID));
    return 0;
}

int TarnConnector::SetAdapterProtocolID(unsigned long ulProtocolID)
{
    const ConnectionPin pImpl(*this, "TarnConnector::SetAdapterProtocolType error, m_pImpl=null\n");
    if (!pImpl)
        return -1;
    pImpl->SetAdapterProtocolID(static_cast<std::uint32_t>(ulProtocolID));
    return 0;
}

int TarnConnector::SetControlFlag(int iControlFlag)
{
    const ConnectionPin pImpl(*this, "TarnConnector::SetControlFlag error, m_pImpl=null\n");
    if (!pImpl)
        return -1;
    pImpl->SetControlFlag(iControlFlag);
    return 0;
}

int TarnConnector::GetControlFlag()
{
    const ConnectionPin pImpl(
        *this, "TarnConnector::GetControlFlag, m_pImpl is NULL, maybe have not init commuprotocoltype \n");
    return pImpl ? pImpl->GetControlFlag() : -1;
}

bool TarnConnector::IsControlParaTrue(int iMask)
{
    const ConnectionPin pImpl(
        *this, "TarnConnector::GetControlFlag, m_pImpl is NULL, maybe have not init commuprotocoltype \n");
    return pImpl && pImpl->IsControlParaTrue(iMask);
}

int TarnConnector::SetConnTimeOut(int iSeconds)
{
    const ConnectionPin pImpl(*this, "TarnConnector::SetConnTimeOut error, m_pImpl=null\n");
    if (!pImpl)
        return -1;
    pImpl->SetConnTimeOut(iSeconds);
    return 0;
}

int TarnConnector::SetMaxConnectCount(int iCount)
{
    const ConnectionPin pImpl(*this, "TarnConnector::SetMaxConnectCount error, m_pImpl=null\n");
    if (!pImpl)
        return -1;
    pImpl->SetMaxConnectCount(iCount);
    return 0;
}

int TarnConnector::SetGroupID(int iGroupID)
{
    const ConnectionPin pImpl(*this, "TarnConnector::SetGroupID error, m_pImpl=null\n");
    if (!pImpl)
        return -1;
    pImpl->SetGroupID(iGroupID);
    return 0;
}

int TarnConnector::GetGroupID()
{
    const ConnectionPin pImpl(*this, "TarnConnector::GetGroupID error, m_pImpl=null\n");
    return pImpl ? pImpl->GetGroupID() : -1;
}

int TarnConnector::InitCommuPara(std::vector<void*>& vctParas)
{
    const ConnectionPin pImpl(
        *this, "TarnConnector::InitCommuPara, m_pImpl is NULL, maybe have not init commuprotocoltype \n");
    return pImpl ? pImpl->InitCommuPara(vctParas) : -1;
}

bool TarnConnector::GetCommuPara(ECommuProtocolType& eType, unsigned long& ulIP, unsigned short& usPort,
                                 std::string& strFirst, std::string& strSecond, std::string& strThird,
                                 unsigned long& ulNumber)
{
    const ConnectionPin pImpl(
        *this, "TarnConnector::InitCommuPara, m_pImpl is NULL, maybe have not init commuprotocoltype \n");
    return pImpl && pImpl->GetCommuPara(eType, ulIP, usPort, strFirst, strSecond, strThird, ulNumber);
}

void* TarnConnector::GetSocketStream()
{
    const ConnectionPin pImpl(
        *this, "TarnConnector::GetSocketStream, m_pImpl is NULL, maybe have not init commuprotocoltype \n");
    return pImpl ? pImpl->GetSocketStream() : nullptr;
}

ECommuProtocolType TarnConnector::GetCommuProtType()
{
    const ConnectionPin pImpl(
        *this, "TarnConnector::GetCommuProtType, m_pImpl is NULL, maybe have not init commuprotocoltype \n");
    return pImpl ? pImpl->GetCommuProtType() : UNKOWN_TYPE;
}

int TarnConnector::Connect()
{
    const ConnectionPin pImpl(
        *this, "TarnConnector::Connect, m_pImpl is NULL, maybe have not init commuprotocoltype \n");
    return pImpl ? pImpl->Connect() : -1;
}

int TarnConnector::DisConnect()
{
    const ConnectionPin pImpl(
        *this, "TarnConnector::DisConnect, m_pImpl is NULL, maybe have not init commuprotocoltype \n");
    return pImpl ? pImpl->DisConnect() : -1;
}

int TarnConnector::OnSockBreak()
{
    return 0;
}

int TarnConnector::OnConnectOK()
{
    return 0;
}
