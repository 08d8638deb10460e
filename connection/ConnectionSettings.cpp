#include "connection/TarnConnectorImpl.h"

void TarnConnectorImpl::SetConnTimeOut(int iSeconds)
{
    const TarnWriteGuard guard(m_ParameterLock);
    m_iConnTimeOut = iSeconds;
}

int TarnConnectorImpl::GetConnTimeOut()
{
    const TarnReadGuard guard(m_ParameterLock);
    return m_iConnTimeOut;
}

void TarnConnectorImpl::SetConnectCount(int iCount)
{
    const TarnWriteGuard guard(m_ParameterLock);
    m_iConnectCount = iCount;
}

int TarnConnectorImpl::GetConnectCount()
{
    const TarnWriteGuard guard(m_ParameterLock);
    return m_iConnectCount;
}

void TarnConnectorImpl::IncConnectCount()
{
    const TarnWriteGuard guard(m_ParameterLock);
    ++m_iConnectCount;
}

void TarnConnectorImpl::SetMaxConnectCount(int iCount)
{
    const TarnWriteGuard guard(m_ParameterLock);
    m_iMaxConnectCount = iCount;
}

int TarnConnectorImpl::GetMaxConnectCount()
{
    const TarnReadGuard guard(m_ParameterLock);
    return m_iMaxConnectCount;
}

void TarnConnectorImpl::SetGroupID(int iGroupID)
{
    const TarnWriteGuard guard(m_ParameterLock);
    m_iGroupID = iGroupID;
}

int TarnConnectorImpl::GetGroupID()
{
    const TarnReadGuard guard(m_ParameterLock);
    return m_iGroupID;
}

void TarnConnectorImpl::SetTargetID(std::uint32_t ulTargetID)
{
    const TarnWriteGuard guard(m_ParameterLock);
    m_ulTargetID = ulTargetID;
}

std::uint32_t TarnConnectorImpl::GetTargetID()
{
    const TarnReadGuard guard(m_ParameterLock);
    return m_ulTargetID;
}

void TarnConnectorImpl::SetControlFlag(int iControlFlag)
{
    const TarnWriteGuard guard(m_ParameterLock);
    m_iControlFlag = iControlFlag;
}

int TarnConnectorImpl::GetControlFlag()
{
    const TarnReadGuard guard(m_ParameterLock);
    return m_iControlFlag;
}

void TarnConnectorImpl::ChangeControlFlag(int iSet, int iClear)
{
    const TarnWriteGuard guard(m_ParameterLock);
    m_iControlFlag = (m_iControlFlag & ~iClear) | iSet;
}

bool TarnConnectorImpl::IsControlParaTrue(int iMask) const
{
    const TarnReadGuard guard(m_ParameterLock);
    return (m_iControlFlag & iMask) != 0;
}

void TarnConnectorImpl::SetCommuProtType(ECommuProtocolType eType)
{
    const TarnWriteGuard guard(m_ParameterLock);
    m_eProtocolType = eType;
}

ECommuProtocolType TarnConnectorImpl::GetCommuProtType()
{
    const TarnReadGuard guard(m_ParameterLock);
    return m_eProtocolType;
}

void TarnConnectorImpl::SetAdapterProtocolID(std::uint32_t ulProtocolID)
{
    m_ulAdapterProtocolID = ulProtocolID;
}

EConnectState TarnConnectorImpl::GetState()
{
    const TarnReadGuard guard(m_StateLock);
    return m_eState;
}

void TarnConnectorImpl::SetState(EConnectState eState)
{
    const TarnWriteGuard guard(m_StateLock);
    m_eState = eState;
}

void TarnConnectorImpl::SetDisconnectedUnlessOpen()
{
    // Whoever opens the connection stores the handle before he sets the state.
    const TarnWriteGuard guard(m_StateLock);
    if (GetHandle() == ACE_INVALID_HANDLE)
        m_eState = STATE_DISCONNECTED;
}

void TarnConnectorImpl::SetDisconnectedIfConnected()
{
    const TarnWriteGuard guard(m_StateLock);
    if (m_eState == STATE_CONNECTED && GetHandle() == ACE_INVALID_HANDLE)
        m_eState = STATE_DISCONNECTED;
}
