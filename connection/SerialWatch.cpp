#include "connection/HandlerCall.h"
#include "connection/SerialSession.h"
#include "connection/TarnSerialConnectorImpl.h"
#include "core/ApplicationCall.h"
#include "core/ExistingManager.h"
#include "tarnadapterframe/TEAdapterManager.h"
#include "tarnadapterframe/TarnAdapterTrace.h"
#include "tarnadapterframe/TraceHexData.h"

#include <algorithm>

/// @file
/// Receiving: the watch thread of a session.

namespace {

constexpr DWORD RECEIVE_BYTES = 8192;
constexpr DWORD CHUNK_BYTES = 80;
constexpr DWORD FAILED = static_cast<DWORD>(-1);

} // namespace

DWORD SerialSession::CommWatchThrdProc(void* pData)
{
    if (pData == nullptr)
    {
        TarnAdapterFrmtTrace(0, "TarnSerialConnectorImpl::CommWatchThrdProc fail, input para pData=NULL\n");
        return FAILED;
    }
    const std::unique_ptr<std::shared_ptr<SerialSession>> pSession(
        static_cast<std::shared_ptr<SerialSession>*>(pData));
    return (*pSession)->Watch();
}

DWORD SerialSession::Watch()
{
    // Also when an adapter ends the thread.
    struct Leaving
    {
        SerialSession& session;
        ~Leaving()
        {
            session.m_dwWatchThreadId = 0; // another thread may get the number
            SetEvent(session.m_hWatchEnded);
            session.m_Connection.Unpin(); // from here on the connection may be gone
        }
    };
    const Leaving leaving{*this};
    m_dwWatchThreadId = GetCurrentThreadId();
    m_hCommEvent = CreateEventA(nullptr, TRUE, FALSE, nullptr);
    const bool bReceives = m_hCommEvent != nullptr && SetCommMask(m_hPort, EV_RXCHAR) != FALSE;
    SetEvent(m_hStarted);
    if (!bReceives)
        return FAILED;
    while (m_bConnected)
        WatchOnce();
    return 0;
}

void SerialSession::WatchOnce()
{
    DWORD dwEvents = 0;
    OVERLAPPED waiting = {};
    waiting.hEvent = m_hCommEvent;
    if (WaitCommEvent(m_hPort, &dwEvents, &waiting) == FALSE && GetLastError() != ERROR_IO_PENDING)
        TarnAdapterFrmtTrace(1, "CommWatchThrdProc, wait comm event error %d.\n",
                             static_cast<int>(GetLastError()));
    // After an error it is the end of the session that signals: nothing will happen on a line that is gone.
    WaitForSingleObject(m_hCommEvent, INFINITE);
    if ((dwEvents & EV_RXCHAR) != 0)
    {
        unsigned char received[RECEIVE_BYTES];
        const DWORD dwReceived = ReadCommBlock(received, RECEIVE_BYTES);
        if (dwReceived > 0)
        {
            TraceHexData(reinterpret_cast<const char*>(received), static_cast<int>(dwReceived),
                         TARN_TRACE_ASYNC_IO_RECV, 0);
            WithMemory("TarnSerialConnectorImpl::CheckMessageValid", -1,
                       [&] { return CheckMessageValid(received, dwReceived); });
        }
    }
    ResetEvent(m_hCommEvent);
}

DWORD SerialSession::ReadCommBlock(unsigned char* pBuffer, DWORD dwCapacity)
{
    if (pBuffer == nullptr)
        return 0;
    DWORD dwTotal = 0;
    for (;;)
    {
        COMSTAT status = {};
        ClearCommError(m_hPort, nullptr, &status);
        const DWORD dwWanted = std::min({status.cbInQue, CHUNK_BYTES, dwCapacity - dwTotal});
        if (dwWanted == 0)
            return dwTotal;
        unsigned char chunk[CHUNK_BYTES];
        const DWORD dwRead = ReadChunk(chunk, dwWanted);
        if (dwRead == 0)
            return dwTotal;
        std::copy(chunk, chunk + dwRead, pBuffer + dwTotal);
        dwTotal += dwRead;
    }
}

DWORD SerialSession::ReadChunk(unsigned char* pChunk, DWORD dwLength)
{
    DWORD dwRead = 0;
    if (ReadFile(m_hPort, pChunk, dwLength, &dwRead, &m_Read) != FALSE)
        return dwRead;
    if (GetLastError() != ERROR_IO_PENDING)
    {
        LogLineErrors("ReadCommBlock, clear com errcode=");
        return 0;
    }
    TarnAdapterFrmtTrace(1, "ReadCommBlock, In reading IO Pending.\n");
    while (GetOverlappedResult(m_hPort, &m_Read, &dwRead, TRUE) == FALSE)
    {
        if (GetLastError() == ERROR_IO_INCOMPLETE)
            continue;
        TarnAdapterFrmtTrace(1, "ReadCommBlock, read error code %d.\n", static_cast<int>(GetLastError()));
        LogLineErrors("ReadCommBlock, clear com error code ");
        break;
    }
    return dwRead;
}

/// @param pszText  what stands before the number in the log
void SerialSession::LogLineErrors(const char* pszText)
{
    DWORD dwErrors = 0;
    ClearCommError(m_hPort, &dwErrors, nullptr);
    if (dwErrors != 0 && m_bReportErrors)
        TarnAdapterFrmtTrace(1, "%s%d.\n", pszText, static_cast<int>(dwErrors));
}

int SerialSession::CheckMessageValid(const unsigned char* pByte, DWORD dwLength)
{
    if (pByte == nullptr)
    {
        TarnAdapterFrmtTrace(1, "TarnSerialConnectorImpl::CheckMessageValid fail, input para pByte=NULL\n");
        return -1;
    }
    m_Input.Append(pByte, dwLength);
    const int iFramed = ConsumeFrames();
    if (iFramed < 0)
        m_Input.Clear();
    return iFramed;
}

/// Has the adapter take whole messages from the head of the buffer until it finds none. No lock is held.
int SerialSession::ConsumeFrames()
{
    const HandlerCall call(m_Connection, m_Input);
    void* const pHandle = reinterpret_cast<void*>(static_cast<std::intptr_t>(Descriptor()));
    while (!m_Input.IsEmpty() && m_bConnected)
    {
        const ManagerInCall manager;
        if (manager.Get() == nullptr)
            break; // the library is not running, and must not be brought about here
        const int iLength =
            manager.Get()->CheckMessageValid(pHandle, m_Input.Bytes(), m_Connection.AdapterProtocolID());
        if (iLength < 0)
        {
            TarnAdapterFrmtTrace(1, "TarnSerialConnectorImpl CheckMessageValid: ret = %d \n", iLength);
            return iLength;
        }
        if (iLength == 0)
            break;
        m_Input.Consume(static_cast<std::size_t>(iLength));
    }
    if (!m_Input.IsFull())
        return 0;
    TarnAdapterFrmtTrace(
        1,
        "TarnSerialConnectorImpl::CheckMessageValid, no message in %d bytes, Group = %d, TargetID = 0x%x\n",
        static_cast<int>(m_Input.Bytes().size()), m_Connection.GetGroupID(), m_Connection.GetTargetID());
    return -1;
}

bool SerialSession::WriteCommBlock(const unsigned char* pBuffer, DWORD dwLength, DWORD& dwWritten)
{
    dwWritten = 0;
    if (pBuffer == nullptr || dwLength == 0)
        return false;
    DWORD dwSum = 0;
    if (WriteFile(m_hPort, pBuffer, dwLength, &dwSum, &m_Write) != FALSE)
    {
        dwWritten = dwLength;
        return true;
    }
    if (GetLastError() != ERROR_IO_PENDING)
    {
        LogLineErrors("clear com error, errcode=");
        return false;
    }
    DWORD dwReport = 0;
    dwSum = 0;
    while (GetOverlappedResult(m_hPort, &m_Write, &dwReport, TRUE) == FALSE)
    {
        const DWORD dwError = GetLastError();
        if (dwError == ERROR_IO_INCOMPLETE)
        {
            dwSum += dwReport;
            continue;
        }
        TarnAdapterFrmtTrace(1, "WriteCommBlock, errno=%d.\n", static_cast<int>(dwError));
        LogLineErrors("clear com error code ");
        break;
    }
    const int iError = static_cast<int>(GetLastError());
    dwSum += dwReport;
    if (dwSum != dwLength)
        TarnAdapterFrmtTrace(1, "Probable Write Timeout: Total of %ld bytes sent.errno=%d\n",
                             static_cast<long>(dwSum), iError);
    dwWritten = dwSum;
    return true;
}
