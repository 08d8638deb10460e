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
    m_nTimeOut = nTimeOut;
}

int TEMessage::GetTimeOut() const
{
    return m_nTimeOut;
}

int TEMessage::CountDown(int nSeconds)
{
    int nBefore = m_nTimeOut;
    int nLeft = 0;
    do
        nLeft = std::max(nBefore, std::numeric_limits<int>::min() + nSeconds) - nSeconds;
    while (!m_nTimeOut.compare_exchange_weak(nBefore, nLeft));
    return nLeft;
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
