#include "core/TEMessageTimer.h"

#include "core/ApplicationCall.h"
#include "core/LogArguments.h"
#include "tarnadapterframe/TEAdapterManager.h"
#include "tarnadapterframe/TEMessage.h"
#include "tarnadapterframe/TEMessageAdapter.h"
#include "tarnadapterframe/TarnAdapterTrace.h"
#include "tarnadapterframe/tarnbaseutil.h"

#include <algorithm>
#include <limits>

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
    auto itNext = m_mapMsgInfo.begin();
    while (itNext != m_mapMsgInfo.end())
    {
        const auto it = itNext++;
        TEMessageInfo& info = it->second;
        if (info.pSource == nullptr)
        {
            TarnAdapterFrmtTrace(1, "TEAdapterManager::HandleTimeOut, warning, pSrcMessage=NULL! \n ");
            continue;
        }
        if (!CountDownLocked(info))
            continue;
        TarnAdapterFrmtTrace(2, "HandleTimeOut() del %s[0x%x]\n", ClassName(*info.pSource),
                             Low32(info.pSource));
        UnlinkExpiredSinksLocked(info);
        info.DeleteOwnedMessage();
        // The record itself moves over: nothing is copied and nothing can fail for want of memory.
        mapExpired.insert(m_mapMsgInfo.extract(it));
    }
}

// Takes one tick off an asynchronous source's remaining time. True when it has run out.
bool TEAdapterManager::CountDownLocked(TEMessageInfo& info)
{
    EMessageSyncFlag eSyncFlag = SYNC_MESSAGE;
    CallApplication("GetSyncFlag", typeid(*info.pSource), [&] { eSyncFlag = info.pSource->GetSyncFlag(); });
    if (eSyncFlag != ASYNC_MESSAGE)
        return false;
    constexpr int iSmallest = std::numeric_limits<int>::min() + TEMessageTimer::TICK_SECONDS;
    info.nTimeOut = std::max(info.pSource->GetTimeOut(), iSmallest) - TEMessageTimer::TICK_SECONDS;
    info.pSource->SetTimeOut(info.nTimeOut);
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
