#include "tarnadapterframe/TEMessageInfo.h"

#include "core/LogArguments.h"
#include "core/MessageUnit.h"
#include "tarnadapterframe/TarnAdapterTrace.h"

TEMessageUnit::TEMessageUnit(std::uint32_t ulMsgSerial, std::uint32_t ulMsgProtocolID)
    : ulSerial(ulMsgSerial)
    , ulProtocolID(ulMsgProtocolID)
{}

bool TEMessageUnit::operator==(const TEMessageUnit& other) const
{
    return ulSerial == other.ulSerial && ulProtocolID == other.ulProtocolID && ulReserved == other.ulReserved;
}

TEMessageInfo::TEMessageInfo(TEMessage* pSourceMsg, TEMessageAdapter* pAdapter, TEMessage* pSink,
                             int nSeconds)
    : pSource(pSourceMsg)
    , nTimeOut(nSeconds)
    , pMsgAdapter(pAdapter)
{
    TEMessageUnit unit;
    if (pSink != nullptr && GetUnit(*pSink, unit))
        lstSinkUnit.push_back(unit);
}

TEMessageInfo::TEMessageInfo(const TEMessageInfo& other)
    : pSource(other.pSource)
    , lstSinkUnit(other.lstSinkUnit)
    , pUserData(other.pUserData)
    , nTimeOut(other.nTimeOut)
    , pMsgAdapter(other.pMsgAdapter)
{}

TEMessageInfo& TEMessageInfo::operator=(const TEMessageInfo& other)
{
    if (this == &other)
        return *this;
    lstSinkUnit = other.lstSinkUnit;
    pSource = other.pSource;
    pUserData = other.pUserData;
    nTimeOut = other.nTimeOut;
    pMsgAdapter = other.pMsgAdapter;
    DeleteOwnedMessage();
    return *this;
}

TEMessageInfo::~TEMessageInfo()
{
    pSource = nullptr;
    pUserData = nullptr;
    pMsgAdapter = nullptr;
    DeleteOwnedMessage();
}

std::size_t TEMessageInfo::GetSinkMessageCount() const
{
    return lstSinkUnit.size();
}

void TEMessageInfo::AddSinkMessage(const TEMessageUnit& unit)
{
    lstSinkUnit.push_back(unit);
}

void TEMessageInfo::DeleteSinkMessage(const TEMessageUnit& unit)
{
    lstSinkUnit.remove(unit);
}

void TEMessageInfo::SetUserData(void* pData)
{
    if (pData == nullptr)
    {
        TarnAdapterFrmtTrace(1, "TEMessageInfo::SetUserData fail, input para pUserData=null");
        return;
    }
    pUserData = pData;
}

void TEMessageInfo::DeleteOwnedMessage()
{
    if (pOwnedMsg == nullptr)
        return;
    TarnAdapterFrmtTrace(2, "~TEMessageInfo() del %s[0x%x]\n", ClassName(*pOwnedMsg), Low32(pOwnedMsg));
    // Forgotten first: its destructor may come back to this record.
    const TEMessage* pMessage = pOwnedMsg;
    pOwnedMsg = nullptr;
    delete pMessage;
}
