#include "connection/HandlerCall.h"
#include "connection/TarnConnectorImpl.h"
#include "connection/WouldBlock.h"
#include "core/LogArguments.h"
#include "tarnadapterframe/TEAdapterManager.h"
#include "tarnadapterframe/TarnAdapterTrace.h"
#include "tarnadapterframe/TraceHexData.h"

#include <ace/ACE.h>

#include <algorithm>
#include <cerrno>
#include <limits>

namespace {

constexpr int RECEIVE_BYTES = 1024;
// What one call of the system takes.
constexpr int AHEAD_BYTES = 64 * RECEIVE_BYTES;

// Room for what is received ahead, which is mostly given out within the call: the calling thread keeps it for its next one.
thread_local std::vector<char> t_AheadRoom;

} // namespace

int TarnConnectorImpl::Read()
{
    unsigned char received[RECEIVE_BYTES];
    const int iReceived = RecvData(reinterpret_cast<char*>(received), RECEIVE_BYTES);
    if (iReceived <= 0)
        return iReceived;
    const HandlerCall* pCall = HandlerCall::CurrentOf(*this);
    const std::uint32_t ulSession = pCall != nullptr ? pCall->Session() : m_ulSession.load();
    if (m_ulInputSession != ulSession)
    {
        m_ulInputSession = ulSession;
        m_Input.BeginSession();
    }
    m_Input.Append(received, static_cast<std::size_t>(iReceived));
    const int iFramed = ConsumeFrames();
    if (iFramed < 0)
        return iFramed;
    if (iReceived < RECEIVE_BYTES)
        return 0;
    TarnAdapterFrmtTrace(3, "TarnConnectorImpl::Read() return 1, need repeat handle_input;\n");
    return 1;
}

/// Has the adapter take whole messages from the head of the buffer until it finds none. No lock is held.
int TarnConnectorImpl::ConsumeFrames()
{
    while (!m_Input.IsEmpty())
    {
        // The adapter gets the handle as the number it is.
        void* const pHandle = reinterpret_cast<void*>(static_cast<std::intptr_t>(GetHandle()));
        const int iLength =
            TEAdapterManager::Instance()->CheckMessageValid(pHandle, m_Input.Bytes(), m_ulAdapterProtocolID);
        if (iLength < 0)
        {
            TarnAdapterFrmtTrace(1, "CheckMessageValid fail: ret=%d\n", iLength);
            return DiscardInput(iLength);
        }
        if (iLength == 0)
            break;
        if (static_cast<std::size_t>(iLength) > m_Input.Bytes().size())
            TarnAdapterFrmtTrace(1, "The report may not be correct!");
        m_Input.Consume(static_cast<std::size_t>(iLength));
    }
    if (m_Input.IsFull())
    {
        TarnAdapterFrmtTrace(1,
                             "TarnConnectorImpl::Read, no message in %d bytes, Group = %d, TargetID = 0x%x\n",
                             static_cast<int>(m_Input.Bytes().size()), GetGroupID(), GetTargetID());
        return DiscardInput(-1);
    }
    return 0;
}

int TarnConnectorImpl::DiscardInput(int iResult)
{
    const std::vector<unsigned char>& bytes = m_Input.Bytes();
    const auto iTraced =
        static_cast<int>(std::min<std::size_t>(bytes.size(), std::numeric_limits<int>::max()));
    TraceHexData(reinterpret_cast<const char*>(bytes.data()), iTraced, TARN_TRACE_ASYNC_IO_RECV, 0);
    m_Input.Clear();
    return iResult;
}

int TarnConnectorImpl::RecvData(char* pBuf, int iLength)
{
    if (pBuf == nullptr)
    {
        TarnAdapterFrmtTrace(1, "TarnConnectorImpl::RecvData fail, input para pBuf=NULL\n");
        return -1;
    }
    int iError = 0;
    const int iReceived = ReceiveAhead(pBuf, iLength, iError);
    if (iReceived > 0)
        return iReceived;
    if (iReceived < 0 && IsWouldBlock(iError))
        return 0;
    if (iReceived == 0)
        TarnAdapterFrmtTrace(1, "Port close ; errno : %d \n", iError);
    else
        TarnAdapterFrmtTrace(1, "recv: %d, errno=%d, Group = %d, TargetID = 0x%x\n", iReceived, iError,
                             GetGroupID(), GetTargetID());
    errno = iError;
    return -1;
}

/// Receives up to AHEAD_BYTES with one ReceiveOnce, gives out iLength of them, and keeps the rest for the next receives of
/// the same opening. Only in handler calls, and only with AUTO_CONNECT: there a break closes the descriptor, and what came
/// behind refused bytes is lost with it as it should be; a descriptor of the caller's keeps it for him. @return as ReceiveOnce
int TarnConnectorImpl::ReceiveAhead(char* pBuf, int iLength, int& iError)
{
    const HandlerCall* pCall = HandlerCall::CurrentOf(*this);
    if (pCall == nullptr)
        return ReceiveOnce(pBuf, iLength, iError);
    if (m_ulAheadSession != pCall->Session() || !IsOpenForCall())
        m_Ahead = {}; // as what the socket still held when it was closed
    m_ulAheadSession = pCall->Session();
    if (m_Ahead.uLeft == 0)
    {
        if (iLength >= AHEAD_BYTES || !IsControlParaTrue(AUTO_CONNECT))
            return ReceiveOnce(pBuf, iLength, iError);
        t_AheadRoom.resize(AHEAD_BYTES);
        const int iReceived = ReceiveOnce(t_AheadRoom.data(), AHEAD_BYTES, iError);
        if (iReceived <= iLength)
        {
            std::copy_n(t_AheadRoom.data(), std::max(iReceived, 0), pBuf);
            return iReceived;
        }
        m_Ahead = {std::move(t_AheadRoom), 0, static_cast<std::size_t>(iReceived)};
    }
    const std::size_t uGiven = std::min(m_Ahead.uLeft, static_cast<std::size_t>(iLength));
    std::copy_n(m_Ahead.room.data() + m_Ahead.uTaken, uGiven, pBuf);
    m_Ahead.uTaken += uGiven;
    m_Ahead.uLeft -= uGiven;
    if (m_Ahead.uLeft == 0)
    {
        t_AheadRoom = std::move(m_Ahead.room); // idle connections keep no room
        m_Ahead = {};
    }
    return static_cast<int>(uGiven);
}

/// Whether the opening that the calling thread's handler call was made for is still there.
bool TarnConnectorImpl::IsOpenForCall()
{
    const DescriptorGuard::Use use(m_DescriptorGuard);
    return UsableHandle() != ACE_INVALID_HANDLE;
}

int TarnConnectorImpl::ReceiveOnce(char* pBuf, int iLength, int& iError)
{
    iError = EBADF;
    const DescriptorGuard::Use use(m_DescriptorGuard);
    const ACE_HANDLE handle = UsableHandle();
    if (handle == ACE_INVALID_HANDLE)
        return -1;
    // recv and not read: a stale number must not reach a file of the host.
    const ssize_t iReceived = ACE::recv(handle, pBuf, static_cast<std::size_t>(iLength), 0,
                                        static_cast<const ACE_Time_Value*>(nullptr));
    iError = errno;
    return static_cast<int>(iReceived);
}
