#include "core/TEMessageTimer.h"

#include "core/ApplicationCall.h"
#include "core/LogArguments.h"
#include "core/StopGate.h"
#include "tarnadapterframe/TEAdapterManager.h"
#include "tarnadapterframe/TEMessage.h"
#include "tarnadapterframe/TEMessageAdapter.h"
#include "tarnadapterframe/TarnAdapterTrace.h"
#include "tarnadapterframe/tarnbaseutil.h"

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
    if (TarnAppIsExit())
        return 0;
    const StopGate::Pass pass(*m_pStopGate);
    if (!pass)
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
    auto it = m_mapMsgInfo.begin();
    while (it != m_mapMsgInfo.end())
    {
        if (!HasExpiredLocked(it->second))
        {
            ++it;
            continue;
        }
        TarnAdapterFrmtTrace(2, "HandleTimeOut() del %s[0x%x]\n", ClassName(*it->second.pSource),
                             Low32(it->second.pSource));
        UnlinkExpiredSinksLocked(it->second);
        // The record itself moves over: nothing is copied and nothing can fail for want of memory. The
        // destructor of a message that it owns may change the map, which therefore is searched anew for the
        // next record.
        const TEMessageUnit unit = it->first;
        auto node = m_mapMsgInfo.extract(it);
        node.mapped().DeleteOwnedMessage();
        mapExpired.insert(std::move(node));
        it = m_mapMsgInfo.upper_bound(unit);
    }
}

// Takes one tick off the remaining time of a record's source if it is an asynchronous one. True when it has
// run out.
bool TEAdapterManager::HasExpiredLocked(TEMessageInfo& info)
{
    if (info.pSource == nullptr)
    {
        TarnAdapterFrmtTrace(1, "TEAdapterManager::HandleTimeOut, warning, pSrcMessage=NULL! \n ");
        return false;
    }
    EMessageSyncFlag eSyncFlag = SYNC_MESSAGE;
    CallApplication("GetSyncFlag", typeid(*info.pSource), [&] { eSyncFlag = info.pSource->GetSyncFlag(); });
    if (eSyncFlag != ASYNC_MESSAGE)
        return false;
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
