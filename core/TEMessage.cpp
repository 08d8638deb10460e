#include "tarnadapterframe/TEMessage.h"

#include "core/ApplicationCall.h"
#include "core/MessageUnit.h"
#include "tarnadapterframe/TarnProtocolAdapter.h"

#include <algorithm>
#include <limits>

TEMsgUserData::~TEMsgUserData() = default;

TEMessage::TEMessage(TarnProtocolAdapter* pProtocolAdapter, EAdapterMessageType eType, int nTimeOut)
    : m_eType(eType)
    , m_pProtocolAdapter(pProtocolAdapter)
    , m_nTimeOut(nTimeOut)
{}

TEMessage::TEMessage(const TEMessage& other)
    : TarnAdapterObject(other)
    , m_ulSerial(other.m_ulSerial)
    , m_eType(other.m_eType.load())
    , m_pProtocolAdapter(other.m_pProtocolAdapter)
    , m_nTimeOut(other.GetTimeOut())
{}

TEMessage& TEMessage::operator=(const TEMessage& other)
{
    if (this == &other)
        return *this;
    m_ulSerial = other.m_ulSerial;
    m_eType = other.m_eType.load();
    m_pProtocolAdapter = other.m_pProtocolAdapter;
    // One lock after the other, never both: two threads may assign the same two messages crosswise.
    SetTimeOut(other.GetTimeOut());
    return *this;
}

TEMessage::~TEMessage() = default;

int TEMessage::GetCommandCount()
{
    return 0;
}

void TEMessage::SetSyncFlag(EMessageSyncFlag /*eSyncFlag*/) {}

EMessageSyncFlag TEMessage::GetSyncFlag()
{
    return SYNC_MESSAGE;
}

std::uint32_t TEMessage::GetMessageSerial() const
{
    return m_ulSerial;
}

std::vector<TEMessageAdapter*>* TEMessage::GetMessageAdapterVec()
{
    return nullptr;
}

int TEMessage::HandleMessage()
{
    return 0;
}

void TEMessage::RequireSerial()
{
    std::uint32_t ulSerial = 0;
    if (m_pProtocolAdapter != nullptr)
        CallApplication("RequireMessageSerial", typeid(*m_pProtocolAdapter),
                        [&] { ulSerial = m_pProtocolAdapter->RequireMessageSerial(); });
    m_ulSerial = ulSerial;
}

TarnProtocolAdapter* TEMessage::ProtocolInstance() const
{
    return m_pProtocolAdapter;
}

EAdapterMessageType TEMessage::GetType() const
{
    return m_eType;
}

void TEMessage::SetType(EAdapterMessageType eType)
{
    m_eType = eType;
}

void TEMessage::SetTimeOut(int nTimeOut)
{
    const TarnWriteGuard guard(m_TimeOutLock);
    m_nTimeOut = nTimeOut;
}

int TEMessage::GetTimeOut() const
{
    const TarnReadGuard guard(m_TimeOutLock);
    return m_nTimeOut;
}

int TEMessage::CountDown(int nSeconds)
{
    const TarnWriteGuard guard(m_TimeOutLock);
    m_nTimeOut = std::max(m_nTimeOut, std::numeric_limits<int>::min() + nSeconds) - nSeconds;
    return m_nTimeOut;
}

int TEMessage::CancelMessage()
{
    int iResult = -1;
    if (m_pProtocolAdapter != nullptr)
        CallApplication("CancelMessage", typeid(*m_pProtocolAdapter),
                        [&] { iResult = m_pProtocolAdapter->CancelMessage(this); });
    return iResult;
}

bool TEMessage::operator==(const TEMessage& other) const
{
    TEMessageUnit unit;
    TEMessageUnit otherUnit;
    return GetUnit(*this, unit) && GetUnit(other, otherUnit) && unit == otherUnit;
}
