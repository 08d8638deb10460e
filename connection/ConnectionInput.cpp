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
// Bytes without a whole message at which a connection is broken.
constexpr std::size_t MAX_INPUT_BYTES = std::size_t{16} << 20U;
// Room that an empty buffer may keep.
constexpr std::size_t MAX_IDLE_CAPACITY = 65536;

} // namespace

int TarnConnectorImpl::Read()
{
    char received[RECEIVE_BYTES];
    const int iReceived = RecvData(received, RECEIVE_BYTES);
    if (iReceived <= 0)
        return iReceived;
    const HandlerCall* pCall = HandlerCall::CurrentOf(*this);
    const std::uint32_t ulSession = pCall != nullptr ? pCall->Session() : m_ulSession.load();
    if (m_ulInputSession != ulSession)
    {
        m_ulInputSession = ulSession;
        m_uStaleInput = m_ReadBuffer.size();
    }
    m_ReadBuffer.insert(m_ReadBuffer.end(), received, received + iReceived);
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
    while (!m_ReadBuffer.empty())
    {
        // The adapter gets the handle as the number it is.
        void* const pHandle = reinterpret_cast<void*>(static_cast<std::intptr_t>(GetHandle()));
        const int iLength =
            TEAdapterManager::Instance()->CheckMessageValid(pHandle, m_ReadBuffer, m_ulAdapterProtocolID);
        if (iLength < 0)
        {
            TarnAdapterFrmtTrace(1, "CheckMessageValid fail: ret=%d\n", iLength);
            return DiscardInput(iLength);
        }
        if (iLength == 0)
            break;
        if (static_cast<std::size_t>(iLength) > m_ReadBuffer.size())
        {
            TarnAdapterFrmtTrace(1, "The report may not be correct!");
            m_ReadBuffer.clear();
        }
        else
            m_ReadBuffer.erase(m_ReadBuffer.begin(), m_ReadBuffer.begin() + iLength);
        m_uStaleInput -= std::min(m_uStaleInput, static_cast<std::size_t>(iLength));
    }
    if (m_ReadBuffer.size() >= MAX_INPUT_BYTES)
    {
        TarnAdapterFrmtTrace(1,
                             "TarnConnectorImpl::Read, no message in %d bytes, Group = %d, TargetID = 0x%x\n",
                             static_cast<int>(m_ReadBuffer.size()), GetGroupID(), GetTargetID());
        return DiscardInput(-1);
    }
    if (m_ReadBuffer.empty() && m_ReadBuffer.capacity() > MAX_IDLE_CAPACITY)
        m_ReadBuffer.shrink_to_fit();
    return 0;
}

int TarnConnectorImpl::DiscardInput(int iResult)
{
    const auto iTraced =
        static_cast<int>(std::min<std::size_t>(m_ReadBuffer.size(), std::numeric_limits<int>::max()));
    TraceHexData(reinterpret_cast<const char*>(m_ReadBuffer.data()), iTraced, TARN_TRACE_ASYNC_IO_RECV, 0);
    m_ReadBuffer.clear();
    m_ReadBuffer.shrink_to_fit();
    m_uStaleInput = 0;
    return iResult;
}

int TarnConnectorImpl::RecvData(char* pBuf, int iLength)
{
    if (pBuf == nullptr)
    {
        TarnAdapterFrmtTrace(1, "TarnConnectorImpl::RecvData fail, input para pBuf=NULL\n");
        return -1;
    }
    ssize_t iReceived = -1;
    int iError = EBADF;
    {
        const DescriptorGuard::Use use(m_DescriptorGuard);
        const ACE_HANDLE handle = UsableHandle();
        if (handle != ACE_INVALID_HANDLE)
        {
            // recv and not read: a stale number must not reach a file of the host.
            iReceived = ACE::recv(handle, pBuf, static_cast<std::size_t>(iLength), 0,
                                  static_cast<const ACE_Time_Value*>(nullptr));
            iError = errno;
        }
    }
    if (iReceived > 0)
        return static_cast<int>(iReceived);
    if (iReceived < 0 && IsWouldBlock(iError))
        return 0;
    if (iReceived == 0)
        TarnAdapterFrmtTrace(1, "Port close ; errno : %d \n", iError);
    else
        TarnAdapterFrmtTrace(1, "recv: %d, errno=%d, Group = %d, TargetID = 0x%x\n",
                             static_cast<int>(iReceived), iError, GetGroupID(), GetTargetID());
    errno = iError;
    return -1;
}
