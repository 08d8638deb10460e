#include "asyncio/TEAsyncIOMgrImpl.h"
#include "asyncio/TEIOReactor.h"
#include "connection/TarnConnectorImpl.h"
#include "connection/WouldBlock.h"
#include "core/JoinedBlock.h"
#include "core/LogArguments.h"
#include "core/SyncWaits.h"
#include "platform/tarnplatform.h"
#include "tarnadapterframe/TarnAdapterTrace.h"
#include "tarnadapterframe/TraceHexData.h"

#include <ace/ACE.h>

#include <pthread.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <limits>
#include <new>

namespace {

// A block in the out queue: the id of the thread that queued it, for the trace, and the bytes.
constexpr std::size_t THREAD_ID_BYTES = sizeof(std::uint32_t);
// What is sent at once at most. A call that has sent as much as is gathered leaves the rest to the next one, so that a fast
// sender cannot keep an I/O thread.
constexpr std::size_t WRITE_LIMIT = 65536;
// Blocks are sent together until they are so many bytes.
constexpr std::size_t GATHER_BYTES = 49152;
// A block of so many bytes is not copied without need.
constexpr std::size_t LARGE_BLOCK = 4096;
// How long a sender waits for room in the out queue.
const ACE_Time_Value QUEUE_WAIT(0, 100'000);

// Room for the blocks that the calling thread sends together next; and how much of it is kept.
thread_local std::vector<unsigned char> t_WriteRoom;
constexpr std::size_t MAX_IDLE_CAPACITY = 2 * WRITE_LIMIT;

/// The kind of text that is sent under a protocol id, see TraceHexData.
ETarnAdpterTraceType TraceTypeOfSending(std::uint32_t ulProtocolID)
{
    if (ulProtocolID == 10)
        return TARN_TRACE_TL1_SEND;
    return ulProtocolID == 4 || ulProtocolID == 5 ? TARN_TRACE_NE_MML : TARN_TRACE_SEND_TO_NE;
}

/// Has the calling thread's cancellation wait, if so wanted, for as long as this lives.
class CancelledLater
{
public:
    explicit CancelledLater(bool bWanted)
        : m_bWanted(bWanted)
    {
        if (m_bWanted)
            pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &m_iState);
    }
    ~CancelledLater()
    {
        if (m_bWanted)
            pthread_setcancelstate(m_iState, nullptr);
    }
    CancelledLater(const CancelledLater&) = delete;
    CancelledLater& operator=(const CancelledLater&) = delete;

private:
    const bool m_bWanted;
    int m_iState = PTHREAD_CANCEL_ENABLE;
};

/// Null before the engine's start, and when its reactor could not be created.
TEIOReactor* ExistingReactor()
{
    TEAsyncIOMgrImpl* pAsyncIOMgr = TEAsyncIOMgrImpl::Existing();
    return pAsyncIOMgr != nullptr ? pAsyncIOMgr->Reactor() : nullptr;
}

/// A block with a copy of the bytes; null without memory.
ACE_Message_Block* MakeBlock(const char* pData, std::size_t uLength)
{
    ACE_Message_Block* pBlock = NewJoinedBlock(uLength + THREAD_ID_BYTES);
    if (pBlock == nullptr)
        return nullptr;
    const std::uint32_t ulThreadId = GetCurrentThreadId();
    std::memcpy(pBlock->base(), &ulThreadId, THREAD_ID_BYTES);
    std::memcpy(pBlock->base() + THREAD_ID_BYTES, pData, uLength);
    return pBlock;
}

} // namespace

int TarnConnectorImpl::AddAndSendData(const char* pData, int iLength)
{
    if (pData == nullptr)
    {
        TarnAdapterFrmtTrace(1, "TarnConnectorImpl::AddAndSendData fail, input para pData=NULL\n");
        return -1;
    }
    if (iLength <= 0)
        return 0;
    ACE_Message_Block* pBlock = MakeBlock(pData, static_cast<std::size_t>(iLength));
    if (pBlock == nullptr)
    {
        TarnAdapterFrmtTrace(1, "TarnConnectorImpl::AddAdnSendData, new memory error, errno=%d\n", errno);
        return 0;
    }
    if (m_pOutQueue->EnqueueWithin(pBlock, QUEUE_WAIT) == -1)
    {
        pBlock->release();
        TarnAdapterFrmtTrace(1, "TarnConnectorImpl::AddAndSendData, enqueue fail, out msgqueue is full.\n");
        TraceHexData(pData, iLength, TARN_TRACE_SEND_TO_NE, GetCurrentThreadId());
        return -1;
    }
    TEIOReactor* const pReactor = SyncWaits::IsAsking() ? ExistingReactor() : nullptr;
    // What begins and ends an own call may pass points of cancellation.
    const CancelledLater cancelledLater(pReactor != nullptr);
    TEIOReactor::Call ownCall;
    {
        const TarnGuard guard(m_SendLock);
        if (m_bWritePending)
            return 0; // the next handle_output sends the block, too
        m_bWritePending = true;
        if (pReactor == nullptr || !pReactor->BeginOwnCall(GetHandle(), this, ownCall))
        {
            SwitchWriteEvents(true);
            return 0;
        }
    }
    // At its end also when the thread is ended inside, by the trace callback perhaps: then the rest is an I/O thread's.
    struct Ending
    {
        TarnConnectorImpl& connection;
        TEIOReactor& reactor;
        const TEIOReactor::Call& call;
        bool bMore = true;
        ~Ending()
        {
            reactor.EndOwnCall(call);
            if (bMore)
                connection.SwitchWriteEvents(true);
        }
    } ending{*this, *pReactor, ownCall};
    ending.bMore = WriteByItself();
    return 0;
}

void TarnConnectorImpl::SwitchWriteEvents(bool bOn)
{
    TEIOReactor* pReactor = ExistingReactor();
    if (pReactor == nullptr)
        return;
    const DescriptorGuard::Use use(m_DescriptorGuard);
    // Queued bytes are the connection's, whichever opening the calling thread is in; a call that has sent all
    // knows of its own opening only.
    const ACE_HANDLE handle = bOn ? GetHandle() : UsableHandle();
    if (handle == ACE_INVALID_HANDLE)
        return;
    // A call may still be at its end when its connection has been unregistered, and the number is another one's.
    if (bOn)
        pReactor->EnableWriteEvents(handle, this);
    else
        pReactor->DisableWriteEvents(handle, this);
}

int TarnConnectorImpl::Write()
{
    std::size_t uSentNow = 0;
    for (;;)
    {
        if (m_uToWrite == 0 && !GatherOutput())
            return 0;
        if (uSentNow >= GATHER_BYTES)
            return MORE_LATER;
        const std::size_t uTurn = std::min(m_uToWrite, WRITE_LIMIT);
        const int iSent = SendData(m_pToWrite, static_cast<int>(uTurn));
        if (iSent == -1)
        {
            const int iError = errno;
            TarnAdapterFrmtTrace(1, "TarnConnectorImpl::Write, send data error!\n");
            errno = iError;
            return -1;
        }
        NoteSent(static_cast<std::size_t>(iSent));
        uSentNow += static_cast<std::size_t>(iSent);
        if (static_cast<std::size_t>(iSent) < uTurn)
            return MORE_LATER; // the socket takes no more; it announces when it does
    }
}

/// Traces what has been sent, each block's part by itself with the thread that queued it.
void TarnConnectorImpl::NoteSent(std::size_t uSent)
{
    const char* pSent = m_pToWrite;
    // First: a trace callback that ends the thread must not have it sent again.
    m_pToWrite += uSent;
    m_uToWrite -= uSent;
    while (uSent > 0)
    {
        OutputBlock& block = m_WriteBlocks.front();
        const std::size_t uPart = std::min(uSent, block.uRest);
        const std::uint32_t ulThreadId = block.ulThreadId;
        block.uRest -= uPart;
        if (block.uRest == 0)
            m_WriteBlocks.pop_front();
        TraceHexData(pSent, static_cast<int>(uPart), TraceTypeOfSending(m_ulAdapterProtocolID), ulThreadId);
        pSent += uPart;
        uSent -= uPart;
    }
}

/// Makes the first blocks of the out queue those being sent, as many as one call sends: a call of the system for each
/// would cost more than all the rest. A large one that is alone is sent from where it is. False when there is none.
bool TarnConnectorImpl::GatherOutput()
{
    m_pWriteBlock.reset();
    m_WriteBuffer.clear();
    m_WriteBlocks.clear(); // of a thread that was ended before it had traced all
    if (m_WriteBuffer.capacity() == 0)
        m_WriteBuffer.swap(t_WriteRoom);
    while (m_WriteBuffer.size() < GATHER_BYTES && m_pWriteBlock == nullptr && TakeNextBlock())
    {}
    if (m_WriteBuffer.empty()) // idle connections keep no room
    {
        if (m_WriteBuffer.capacity() <= MAX_IDLE_CAPACITY)
            t_WriteRoom.swap(m_WriteBuffer);
        std::vector<unsigned char>().swap(m_WriteBuffer); // assigning {} would leave the room
    }
    return m_uToWrite != 0;
}

/// Moves the first block of the out queue to the end of what is being sent. False when there is none.
bool TarnConnectorImpl::TakeNextBlock()
{
    bool bLast = false;
    BlockPtr pBlock(m_pOutQueue->TakeFirst(&bLast));
    if (pBlock == nullptr)
        return false;
    const char* pBytes = pBlock->base() + THREAD_ID_BYTES;
    const std::size_t uLength = pBlock->size() - THREAD_ID_BYTES;
    OutputBlock block = {0, uLength};
    std::memcpy(&block.ulThreadId, pBlock->base(), THREAD_ID_BYTES);
    const bool bInPlace =
        m_WriteBuffer.empty() && (uLength >= WRITE_LIMIT || (bLast && uLength >= LARGE_BLOCK));
    try
    {
        if (!bInPlace && m_WriteBuffer.capacity() < m_WriteBuffer.size() + uLength)
        {
            m_WriteBuffer.reserve(std::max(m_WriteBuffer.size() + uLength, 2 * m_WriteBuffer.capacity()));
            // At once: when memory ends below, what has been gathered is sent all the same.
            m_pToWrite = reinterpret_cast<const char*>(m_WriteBuffer.data());
        }
        m_WriteBlocks.push_back(block);
    }
    catch (const std::bad_alloc&)
    {
        m_pOutQueue->PutBack(pBlock.release());
        throw;
    }
    m_pToWrite = pBytes;
    if (bInPlace)
        m_pWriteBlock = std::move(pBlock);
    else
    {
        // Of the buffer's own type: otherwise they are copied one by one.
        const auto* pUnsigned = reinterpret_cast<const unsigned char*>(pBytes);
        m_WriteBuffer.insert(m_WriteBuffer.end(), pUnsigned, pUnsigned + uLength);
        m_pToWrite = reinterpret_cast<const char*>(m_WriteBuffer.data());
    }
    m_uToWrite += uLength;
    return true;
}

void TarnConnectorImpl::DiscardOutput()
{
    while (ACE_Message_Block* pBlock = m_pOutQueue->TakeFirst())
        pBlock->release();
}

int TarnConnectorImpl::SendData(const char* pBuf, int iLength)
{
    if (pBuf == nullptr)
    {
        TarnAdapterFrmtTrace(1, "TarnConnectorImpl::SendData fail, input para pBuf=NULL\n");
        return -1;
    }
    int iError = 0;
    const int iSent = SendAll(pBuf, iLength, iError);
    if (iSent >= 0)
        return iSent;
    TarnAdapterFrmtTrace(1, "TarnConnectorImpl(0x%x) SendData fail, errno=%d when write ret=-1\n",
                         GetHandle(), iError);
    errno = iError;
    return -1;
}

int TarnConnectorImpl::SendAll(const char* pBuf, int iLength, int& iError)
{
    int iSent = 0;
    while (iSent < iLength)
    {
        ssize_t iTaken = -1;
        iError = EBADF;
        {
            const DescriptorGuard::Use use(m_DescriptorGuard);
            const ACE_HANDLE handle = UsableHandle();
            if (handle != ACE_INVALID_HANDLE)
            {
                // Without the flag a peer that is gone would end the process by a signal.
                iTaken = ACE::send(handle, pBuf + iSent, static_cast<std::size_t>(iLength - iSent),
                                   MSG_NOSIGNAL, static_cast<const ACE_Time_Value*>(nullptr));
                iError = errno;
            }
        }
        if (iTaken < 0)
            return IsWouldBlock(iError) ? iSent : -1;
        iSent += static_cast<int>(iTaken);
    }
    return iSent;
}
