#include "core/TEMessageTimer.h"

#include "core/ApplicationCall.h"
#include "core/LogArguments.h"
#include "core/StopGate.h"
#include "tarnadapterframe/TEAdapterManager.h"
#include "tarnadapterframe/TEMessage.h"
#include "tarnadapterframe/TEMessageAdapter.h"
#include "tarnadapterframe/TarnAdapterTrace.h"
#include "tarnadapterframe/tarnbaseutil.h"

#include <iterator>
#include <utility>

TEMessageTimer::TEMessageTimer()
    : ACE_Event_Handler(nullptr, 0)
{}

int TEMessageTimer::handle_timeout(const ACE_Time_Value& currentTime, const void* pArg)
{
    TEAdapterManager* pManager = TEAdapterManager::Instance();
    return pManager != nullptr ? pManager->HandleTimeOut(currentTime, pArg) : 0;
}

int TEAdapterManager::HandleTimeOut(const ACE_Time_Value& /*currentTime*/, const void* /*pArg*/)
{
    // First of all: the stop must not pass while the host is asked, who may be the first to use some singleton.
    const StopGate::Pass pass(*m_pTickGate);
    if (!pass || TarnAppIsExit())
        return 0;

    MapMsgInfo mapExpired;
    CollectExpired(mapExpired);

    // Outside the lock: the adapters may delete messages and call any operation of the manager, and a slow
    // one holds up only the next tick.
    for (auto& [unit, info] : mapExpired)
    {
        if (info.pMsgAdapter == nullptr)
            continue;
        CallApplication("HandleAsyncError", typeid(*info.pMsgAdapter), [&info = info] {
            info.pMsgAdapter->HandleAsyncError(info.pSource, info.pUserData, ADAPTER_ERR_TIMEOUT);
        });
    }
    return 0;
}

// Moves every record whose time has run out from the map to mapExpired, with the links of its sink messages.
void TEAdapterManager::CollectExpired(MapMsgInfo& mapExpired)
{
    const TarnGuard guard(m_MsgMapMtx);
    for (auto it = m_mapMsgInfo.begin(); it != m_mapMsgInfo.end();)
    {
        const TEMessageUnit unit = it->first;
        if (!IsAsynchronousLocked(it) || !HasExpiredLocked(it->second))
        {
            it = it != m_mapMsgInfo.end() ? std::next(it) : m_mapMsgInfo.upper_bound(unit);
            continue;
        }
        TarnAdapterFrmtTrace(2, "HandleTimeOut() del %s[0x%x]\n", ClassName(*it->second.pSource),
                             Low32(it->second.pSource));
        UnlinkExpiredSinksLocked(it->second);
        // The record itself moves over: nothing is copied and nothing can fail for want of memory. The
        // destructor of a message that it owns may change the map, which therefore is searched anew for the
        // next record.
        auto node = m_mapMsgInfo.extract(it);
        node.mapped().DeleteOwnedMessage();
        mapExpired.insert(std::move(node));
        it = m_mapMsgInfo.upper_bound(unit);
    }
}

// Whether a record's source is an asynchronous one. The source is asked, which may change the map: afterwards `it`
// stands at the record again, or at the end when the record is gone.
bool TEAdapterManager::IsAsynchronousLocked(MapMsgInfo::iterator& it)
{
    TEMessage* pSource = it->second.pSource;
    if (pSource == nullptr)
    {
        TarnAdapterFrmtTrace(1, "TEAdapterManager::HandleTimeOut, warning, pSrcMessage=NULL! \n ");
        return false;
    }
    const TEMessageUnit unit = it->first;
    const std::uint64_t uErased = m_uErasedInfos;
    EMessageSyncFlag eSyncFlag = SYNC_MESSAGE;
    CallApplication("GetSyncFlag", typeid(*pSource), [&] { eSyncFlag = pSource->GetSyncFlag(); });
    if (m_uErasedInfos != uErased)
        it = m_mapMsgInfo.find(unit);
    return it != m_mapMsgInfo.end() && it->second.pSource == pSource && eSyncFlag == ASYNC_MESSAGE;
}

// Takes one tick off the remaining time of a record's source. True when it has run out.
bool TEAdapterManager::HasExpiredLocked(TEMessageInfo& info)
{
    info.nTimeOut = info.pSource->CountDown(TEMessageTimer::TICK_SECONDS);
    return info.nTimeOut < 0;
}

void TEAdapterManager::UnlinkExpiredSinksLocked(const TEMessageInfo& info)
{
    for (const TEMessageUnit& sinkUnit : info.lstSinkUnit)
    {
        if (m_mapSinkToSource.erase(sinkUnit) == 0)
            TarnAdapterFrmtTrace(2, "TEAdapterManager::HandleTimeOut, not found sink message in map.\n");
    }
}
