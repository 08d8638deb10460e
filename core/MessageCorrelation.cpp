#include "core/ApplicationCall.h"
#include "core/CorrelationHold.h"
#include "core/CorrelationSpares.h"
#include "core/ExistingManager.h"
#include "core/MessageUnit.h"
#include "tarnadapterframe/TEAdapterManager.h"
#include "tarnadapterframe/TarnAdapterTrace.h"

#include <atomic>

namespace {

// The application has put records of its own into the map, of whatever message.
std::atomic<bool> s_bRecordsByHand{false};

} // namespace

int TEAdapterManager::RegisterPrivateMessage(TEMessage* pSource, TEMessageAdapter* pMsgAdapter,
                                             void* pUserData, int nTimeOut)
{
    if (pSource == nullptr)
    {
        TarnAdapterFrmtTrace(2, "TEAdapterManager::RegisterPrivateMessage fail, input para pSource=NULL\n");
        return -1;
    }
    if (pMsgAdapter == nullptr)
    {
        TarnAdapterFrmtTrace(2,
                             "TEAdapterManager::RegisterPrivateMessage fail, input para pMsgAdapter=NULL\n");
        return -1;
    }
    TEMessageUnit sourceUnit;
    if (!GetUnit(*pSource, sourceUnit))
        return -1;
    return WithMemory("TEAdapterManager::RegisterPrivateMessage", -1, [&] {
        const TarnGuard guard(m_MsgMapMtx);
        const auto it =
            m_pSpares->infos
                .Insert(m_mapMsgInfo, sourceUnit, TEMessageInfo(pSource, pMsgAdapter, nullptr, nTimeOut))
                .first;
        pSource->m_bMayBeSource = true;
        if (pUserData != nullptr)
            it->second.SetUserData(pUserData);
        return 0;
    });
}

int TEAdapterManager::RegisterMessage(TEMessage* pSource, TEMessage* pSink)
{
    if (pSource == nullptr || pSink == nullptr)
    {
        TarnAdapterFrmtTrace(2,
                             "TEAdapterManager::RegisterMessage fail, input para pSource or pSink is NULL\n");
        return -1;
    }
    TEMessageUnit sourceUnit;
    TEMessageUnit sinkUnit;
    if (!GetUnit(*pSource, sourceUnit) || !GetUnit(*pSink, sinkUnit))
        return -1;
    return WithMemory("TEAdapterManager::RegisterMessage", -1, [&] {
        const TarnGuard guard(m_MsgMapMtx);
        auto it = m_mapMsgInfo.find(sourceUnit);
        const bool bNewSource = it == m_mapMsgInfo.end();
        if (bNewSource)
        {
            TarnAdapterFrmtTrace(3, "TEAdapterManager::RegisterMessage, cannot find source msg in the map\n");
            it = m_pSpares->infos.Insert(m_mapMsgInfo, sourceUnit, TEMessageInfo()).first;
            it->second.pSource = pSource;
            pSource->m_bMayBeSource = true;
        }
        bool bNewLink = false;
        try
        {
            bNewLink = m_pSpares->links.Insert(m_mapSinkToSource, sinkUnit, sourceUnit).second;
            m_pSpares->Append(it->second, sinkUnit);
        }
        catch (...)
        {
            // Whoever is told that it failed may delete both messages.
            if (bNewLink)
                m_mapSinkToSource.erase(sinkUnit);
            if (bNewSource)
                m_mapMsgInfo.erase(it);
            throw;
        }
        return 0;
    });
}

int TEAdapterManager::UnRegisterSourceMessage(TEMessage* pSource)
{
    if (pSource == nullptr)
    {
        TarnAdapterFrmtTrace(2, "TEAdapterManager::UnRegisterSourceMessage fail, input para pSource=null\n");
        return -1;
    }
    TEMessageUnit sourceUnit;
    if (!GetUnit(*pSource, sourceUnit))
        return -1;

    const TarnGuard guard(m_MsgMapMtx);
    const auto it = m_mapMsgInfo.find(sourceUnit);
    if (it == m_mapMsgInfo.end())
    {
        TarnAdapterFrmtTrace(2,
                             "TEAdapterManager::UnRegisterSourceMessage, not found source message in map.\n");
        return 0;
    }
    if (it->second.pSource == pSource)
        pSource->m_bMayBeSource = false;
    EraseSourceLocked(it);
    return 0;
}

void TEAdapterManager::ForgetSourceMessage(const TEMessage& source)
{
    if (!source.m_bMayBeSource && !s_bRecordsByHand)
        return;
    const ExistingManager manager;
    TEAdapterManager* pManager = manager.Get();
    TEMessageUnit sourceUnit;
    if (pManager == nullptr || !GetUnit(source, sourceUnit))
        return;
    const TarnGuard guard(pManager->m_MsgMapMtx);
    const auto it = pManager->m_mapMsgInfo.find(sourceUnit);
    if (it != pManager->m_mapMsgInfo.end() && it->second.pSource == &source)
        pManager->EraseSourceLocked(it);
}

void TEAdapterManager::EraseSourceLocked(MapMsgInfo::iterator it)
{
    for (const TEMessageUnit& sinkUnit : it->second.lstSinkUnit)
        m_pSpares->links.Keep(m_mapSinkToSource.extract(sinkUnit));
    ++m_uErasedInfos;
    // Out of the map before: the destructor of a message that it owns may come back here.
    auto node = m_mapMsgInfo.extract(it);
    node.mapped().DeleteOwnedMessage();
    m_pSpares->Keep(std::move(node));
}

int TEAdapterManager::UnRegisterSinkMessage(TEMessage* pSinkMsg)
{
    if (pSinkMsg == nullptr)
    {
        TarnAdapterFrmtTrace(2, "TEAdapterManager::UnRegisterSinkMessage fail, input para pSinkMsg=NULL\n");
        return -1;
    }
    TEMessageUnit sinkUnit;
    if (!GetUnit(*pSinkMsg, sinkUnit))
        return -1;

    const TarnGuard guard(m_MsgMapMtx);
    const auto it = m_mapSinkToSource.find(sinkUnit);
    if (it == m_mapSinkToSource.end())
    {
        TarnAdapterFrmtTrace(
            2, "TEAdapterManager::UnRegisterSinkMessage, not found sink message in map table.\n");
        return 0;
    }
    const auto itInfo = m_mapMsgInfo.find(it->second);
    if (itInfo != m_mapMsgInfo.end())
        itInfo->second.DeleteSinkMessage(sinkUnit);
    else
        TarnAdapterFrmtTrace(1,
                             "TEAdapterManager::UnRegisterSinkMessage, not found sink message in source.\n");
    m_mapSinkToSource.erase(it);
    return 0;
}

int TEAdapterManager::AcquireMsgMapMtx()
{
    const int iResult = m_MsgMapMtx.acquire();
    if (iResult == 0)
        CorrelationHold::Begin();
    return iResult;
}

int TEAdapterManager::ReleaseMsgMapMtx()
{
    const int iResult = m_MsgMapMtx.release();
    if (iResult == 0)
        CorrelationHold::End();
    return iResult;
}

TEAdapterManager::MapSinkToSource::iterator TEAdapterManager::FindSrcMsgUnit(const TEMessageUnit& sinkUnit,
                                                                             bool& bFound)
{
    const TarnGuard guard(m_MsgMapMtx);
    const auto it = m_mapSinkToSource.find(sinkUnit);
    bFound = it != m_mapSinkToSource.end();
    if (!bFound)
        TarnAdapterFrmtTrace(2, "Not find Source message in map.\n");
    return it;
}

TEAdapterManager::MapMsgInfo::iterator TEAdapterManager::FindSrcMsgInfo(const TEMessageUnit& sourceUnit,
                                                                        bool& bFound)
{
    const TarnGuard guard(m_MsgMapMtx);
    const auto it = m_mapMsgInfo.find(sourceUnit);
    bFound = it != m_mapMsgInfo.end();
    if (!bFound)
        TarnAdapterFrmtTrace(2, "Not find Source message info in map.\n");
    return it;
}

int TEAdapterManager::EraseFromUnitMap(MapSinkToSource::iterator it)
{
    const TarnGuard guard(m_MsgMapMtx);
    if (it == m_mapSinkToSource.end())
    {
        TarnAdapterFrmtTrace(2, "TEAdapterManager::EraseFromUnitMap fail, input para it=end\n");
        return -1;
    }
    m_mapSinkToSource.erase(it);
    return 0;
}

int TEAdapterManager::EraseFromInfoMap(MapMsgInfo::iterator it)
{
    const TarnGuard guard(m_MsgMapMtx);
    if (it == m_mapMsgInfo.end())
    {
        TarnAdapterFrmtTrace(2, "TEAdapterManager::EraseFromInfoMap fail, input para it=end\n");
        return -1;
    }
    ++m_uErasedInfos;
    const auto node = m_mapMsgInfo.extract(it); // as in UnRegisterSourceMessage
    return 0;
}

int TEAdapterManager::InsertToUnitMap(const MapSinkToSource::value_type& entry)
{
    return WithMemory("TEAdapterManager::InsertToUnitMap", -1, [&] {
        const TarnGuard guard(m_MsgMapMtx);
        m_mapSinkToSource.insert(entry);
        return 0;
    });
}

int TEAdapterManager::InsertToInfoMap(const MapMsgInfo::value_type& entry)
{
    return WithMemory("TEAdapterManager::InsertToInfoMap", -1, [&] {
        const TarnGuard guard(m_MsgMapMtx);
        m_mapMsgInfo.insert(entry);
        s_bRecordsByHand = true;
        return 0;
    });
}
