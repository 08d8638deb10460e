#include "connection/TESerialSendReactor.h"
#include "connection/TarnSerialConnectorImpl.h"
#include "core/ApplicationCall.h"
#include "core/JoinedBlock.h"
#include "tarnadapterframe/TarnAdapterTrace.h"
#include "tarnadapterframe/TraceHexData.h"

#include <algorithm>
#include <cerrno>
#include <limits>
#include <new>

/// @file
/// Sending: the out queue of a serial connection.

int TarnSerialConnectorImpl::AddAndSendData(const char* pData, int iLength)
{
    if (pData == nullptr)
    {
        TarnAdapterFrmtTrace(2, "TarnSerialConnectorImpl::AddAndSendData fail, input para pData=NULL\n");
        return -1;
    }
    if (iLength <= 0)
        return 0;
    const auto uLength = static_cast<std::size_t>(iLength);
    ACE_Message_Block* pBlock = NewJoinedBlock(uLength);
    if (pBlock == nullptr)
    {
        TarnAdapterFrmtTrace(1, "new memory error in TEIOHandler::AddAdnSendData.\n");
        return -1;
    }
    std::copy(pData, pData + iLength, pBlock->base());
    if (!Enqueue(pBlock))
    {
        pBlock->release();
        TarnAdapterFrmtTrace(1, "TEIOHandler::AddAndSendData: out msg queue is full.\n");
        return -1;
    }
    const auto pReactor = TESerialSendReactor::Existing();
    if (pReactor == nullptr || !pReactor->IsStarted())
        LogMute();
    else
        pReactor->AddWriteEvent(this);
    return 0;
}

/// Waits while the queue is full, for as long as there is somebody to empty it.
bool TarnSerialConnectorImpl::Enqueue(ACE_Message_Block* pBlock)
{
    const ACE_Time_Value LOOK_AGAIN(1);
    for (;;)
    {
        if (m_pOutQueue->EnqueueWithin(pBlock, LOOK_AGAIN) != -1)
            return true;
        const auto pReactor = TESerialSendReactor::Existing();
        if (errno != EWOULDBLOCK || pReactor == nullptr || !pReactor->IsServing(this))
            return false;
    }
}

void TarnSerialConnectorImpl::LogMute()
{
    if (!m_bMuteLogged.exchange(true))
        TarnAdapterFrmtTrace(1,
                             "TarnSerialConnectorImpl::AddAndSendData, the send reactor is not started "
                             "(bEnableSerialCom), nothing is sent, Group = %d, TargetID = 0x%x\n",
                             GetGroupID(), GetTargetID());
}

int TarnSerialConnectorImpl::WriteOutQueue(DWORD& dwLaterMs)
{
    constexpr DWORD STALLED_MS = 1000; // how long a line that takes nothing is left alone
    const auto pSession = Session();
    if (pSession == nullptr)
        return -1;
    while (pSession->IsConnected())
    {
        if (m_WriteBuffer.empty())
        {
            dwLaterMs = RestOfPause();
            if (dwLaterMs != 0)
                return SEND_LATER;
            if (!TakeNextBlock())
                return 0;
        }
        const std::size_t uLength =
            std::min<std::size_t>(m_WriteBuffer.size(), std::numeric_limits<int>::max());
        TraceHexData(reinterpret_cast<const char*>(m_WriteBuffer.data()), static_cast<int>(uLength),
                     TARN_TRACE_SEND_TO_NE, 0);
        DWORD dwWritten = 0;
        if (!pSession->WriteCommBlock(m_WriteBuffer.data(), static_cast<DWORD>(uLength), dwWritten))
        {
            TarnAdapterFrmtTrace(1, "TEIOHandler::Write, send data error!\n");
            return -1;
        }
        m_WriteBuffer.erase(m_WriteBuffer.begin(), m_WriteBuffer.begin() + dwWritten);
        m_bPausing = true;
        m_dwWrittenAt = GetTickCount();
        if (dwWritten < uLength) // others have their turn before the rest
        {
            dwLaterMs = dwWritten == 0 ? STALLED_MS : 0;
            return SEND_LATER;
        }
    }
    return -1;
}

/// Milliseconds until the next block may be sent; 0 also when there is none, and then none has to wait.
DWORD TarnSerialConnectorImpl::RestOfPause()
{
    constexpr DWORD BLOCK_PAUSE_MS = 500;
    const DWORD dwPassed = GetTickCount() - m_dwWrittenAt;
    if (m_bPausing && dwPassed < BLOCK_PAUSE_MS && !m_pOutQueue->is_empty())
        return BLOCK_PAUSE_MS - dwPassed;
    m_bPausing = false;
    return 0;
}

/// Makes the first block of the out queue the one being sent. False when there is none, or no memory for it.
bool TarnSerialConnectorImpl::TakeNextBlock()
{
    ACE_Message_Block* pBlock = m_pOutQueue->TakeFirst();
    if (pBlock == nullptr)
        return false;
    const bool bCopied = WithMemory("TarnSerialConnectorImpl::WriteOutQueue", false, [&] {
        m_WriteBuffer.assign(pBlock->base(), pBlock->base() + pBlock->size());
        return true;
    });
    if (bCopied)
        pBlock->release();
    else
        m_pOutQueue->PutBack(pBlock);
    return bCopied;
}
