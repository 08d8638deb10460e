#include "connection/TarnConnectorImpl.h"
#include "core/LogArguments.h"
#include "core/Settings.h"
#include "tarnadapterframe/TarnAdapterTrace.h"

#include <ace/Thread.h>

#include <algorithm>
#include <cstdio>

namespace {

bool IsRecording()
{
    return Settings().nRecordTarnConnectorImplRefInfo == 1;
}

} // namespace

void TarnConnectorImpl::IncRef()
{
    if (!IsRecording())
    {
        ++m_nRefCount;
        return;
    }
    const int iGroupID = GetGroupID();
    const std::uint32_t ulTargetID = GetTargetID();
    const TarnWriteGuard guard(m_ReferenceLock);
    ++m_nRefCount;
    const ACE_thread_t thread = ACE_Thread::self();
    TarnAdapterFrmtTrace(1, "TarnConnectorImpl IncRef GroupID = %d,TargetID = 0x%x,threadid = 0x%x\n",
                         iGroupID, ulTargetID, Low32(thread));
    m_RefThreads.push_back(thread);
}

/// Lowers the count unless it is 0, as the last that the caller does without the lock: whoever reads 0 may delete the
/// connection. @return true when it has been lowered
bool TarnConnectorImpl::LowerRefCount()
{
    int nRefCount = m_nRefCount;
    while (nRefCount > 0)
        if (m_nRefCount.compare_exchange_weak(nRefCount, nRefCount - 1))
            return true;
    return false;
}

void TarnConnectorImpl::DecRef()
{
    const bool bRecording = IsRecording();
    if (!bRecording && LowerRefCount())
        return;
    const int iGroupID = GetGroupID();
    const std::uint32_t ulTargetID = GetTargetID();
    const TarnWriteGuard guard(m_ReferenceLock);
    if (!bRecording || !LowerRefCount())
    {
        TarnAdapterFrmtTrace(1, "TarnConnectorImpl, RefCount error(<0)! GroupID = %d,TargetID = 0x%x\n",
                             iGroupID, ulTargetID);
        return;
    }
    const ACE_thread_t thread = ACE_Thread::self();
    TarnAdapterFrmtTrace(1, "TarnConnectorImpl DecRef GroupID = %d,TargetID = 0x%x,threadid = 0x%x\n",
                         iGroupID, ulTargetID, Low32(thread));
    const auto it = std::find(m_RefThreads.begin(), m_RefThreads.end(), thread);
    if (it != m_RefThreads.end())
        m_RefThreads.erase(it);
    else
        TarnAdapterFrmtTrace(1,
                             "TarnConnectorImpl, DecRef, RefCount's Threadid doesn't match! GroupID = "
                             "%d,TargetID = 0x%x,threadid = 0x%x\n",
                             iGroupID, ulTargetID, Low32(thread));
}

int TarnConnectorImpl::GetRefCount()
{
    if (!IsRecording())
        return m_nRefCount;
    const TarnReadGuard guard(m_ReferenceLock); // whoever has lowered it is still at the records
    return m_nRefCount;
}

void TarnConnectorImpl::TakeReactorReference()
{
    IncRef();
    m_bReactorReference = true;
}

void TarnConnectorImpl::ReleaseReactorReference()
{
    if (m_bReactorReference.exchange(false))
        DecRef();
}

void TarnConnectorImpl::AbandonReferences()
{
    m_nAbandoned += m_bReactorReference.exchange(false) ? 2 : 1;
    const std::lock_guard<std::mutex> guard(m_ClaimMutex);
    m_ulOpenedClaimed = m_ulSession - 1;
}

void TarnConnectorImpl::ForgetReferences()
{
    m_nRefCount = 0;
}

void TarnConnectorImpl::DumpRefThreadInfo()
{
    constexpr std::size_t RECORDS_PER_LINE = 8;
    if (!IsRecording())
        return;
    const int iGroupID = GetGroupID();
    const std::uint32_t ulTargetID = GetTargetID();
    std::string strRecords;
    {
        const TarnReadGuard guard(m_ReferenceLock);
        TarnAdapterFrmtTrace(
            1, "TarnConnectorImpl,begin dump RefThreadInfo,GroupID = %d,TargetID = 0x%x,Size = %d:\n",
            iGroupID, ulTargetID, static_cast<int>(m_RefThreads.size()));
        for (std::size_t i = 0; i < m_RefThreads.size(); ++i)
        {
            char szRecord[16];
            std::snprintf(szRecord, sizeof(szRecord), "0x%x  ", Low32(m_RefThreads[i]));
            strRecords += szRecord;
            if ((i + 1) % RECORDS_PER_LINE == 0)
                strRecords += '\n';
        }
    }
    strRecords += '\n';
    TarnAdapterTrace(3, strRecords.c_str(), false, false);
    TarnAdapterFrmtTrace(1, "TarnConnectorImpl,dump RefThreadInfo over. GroupID = %d,TargetID = 0x%x\n",
                         iGroupID, ulTargetID);
}
