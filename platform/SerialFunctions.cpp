#include "platform/SerialPort.h"

#include <cerrno>
#include <new>
#include <sys/ioctl.h>
#include <termios.h>

namespace {

/// Notes the end of an operation and announces it.
BOOL Finish(BOOL bResult, OVERLAPPED& operation)
{
    if (operation.hEvent != nullptr && operation.Internal != ERROR_IO_PENDING)
    {
        const DWORD dwError = GetLastError();
        SetEvent(operation.hEvent);
        FailWith(dwError);
    }
    return bResult;
}

} // namespace

HANDLE CreateFileA(const char* pszName, DWORD dwAccess, DWORD dwShareMode, void* /*pAttributes*/,
                   DWORD dwCreation, DWORD dwFlags, HANDLE /*hTemplate*/)
{
    if (pszName == nullptr || dwAccess != (GENERIC_READ | GENERIC_WRITE) || dwShareMode != 0 ||
        dwCreation != OPEN_EXISTING || dwFlags != (FILE_ATTRIBUTE_NORMAL | FILE_FLAG_OVERLAPPED))
    {
        FailWith(EINVAL);
        return INVALID_HANDLE_VALUE;
    }
    try
    {
        const auto pPort = SerialPort::Open(pszName);
        if (pPort == nullptr)
            return INVALID_HANDLE_VALUE;
        const HANDLE handle = AddKernelObject(pPort);
        if (handle != nullptr)
            return handle;
        pPort->OnClosed();
    }
    catch (const std::bad_alloc&)
    {
        FailWith(ENOMEM);
    }
    return INVALID_HANDLE_VALUE;
}

int PortDescriptor(HANDLE hPort)
{
    const SerialPort::Use port(hPort);
    return port ? port->Descriptor() : -1;
}

BOOL SetupComm(HANDLE hPort, DWORD /*dwInQueue*/, DWORD /*dwOutQueue*/)
{
    const SerialPort::Use port(hPort);
    return port ? TRUE : FALSE;
}

BOOL PurgeComm(HANDLE hPort, DWORD dwFlags)
{
    const SerialPort::Use port(hPort);
    if (!port)
        return FALSE;
    if ((dwFlags & PURGE_TXABORT) != 0)
        port->AbortWrite();
    const bool bIn = (dwFlags & PURGE_RXCLEAR) != 0;
    const bool bOut = (dwFlags & PURGE_TXCLEAR) != 0;
    if (!bIn && !bOut)
        return TRUE;
    const int iQueue = bIn && bOut ? TCIOFLUSH : bIn ? TCIFLUSH : TCOFLUSH;
    return tcflush(port->Descriptor(), iQueue) == 0 ? TRUE : FailWith(static_cast<DWORD>(errno));
}

BOOL SetCommTimeouts(HANDLE hPort, const COMMTIMEOUTS* pTimeouts)
{
    const SerialPort::Use port(hPort);
    if (!port)
        return FALSE;
    port->SetTimeouts(*pTimeouts);
    return TRUE;
}

BOOL SetCommMask(HANDLE hPort, DWORD dwMask)
{
    const SerialPort::Use port(hPort);
    if (!port)
        return FALSE;
    if ((dwMask & ~EV_RXCHAR) != 0)
        return FailWith(EINVAL);
    port->SetMask(dwMask);
    return TRUE;
}

BOOL WaitCommEvent(HANDLE hPort, DWORD* pEvents, OVERLAPPED* pOverlapped)
{
    const SerialPort::Use port(hPort);
    if (!port || port->WaitForEvent(*pEvents) == FALSE)
        return FALSE;
    pOverlapped->Internal = 0;
    return Finish(TRUE, *pOverlapped);
}

BOOL ClearCommError(HANDLE hPort, DWORD* pErrors, COMSTAT* pStatus)
{
    const SerialPort::Use port(hPort);
    if (!port)
        return FALSE;
    if (pErrors != nullptr)
        *pErrors = port->TakeLineErrors();
    if (pStatus == nullptr)
        return TRUE;
    int iIn = 0;
    int iOut = 0;
    if (ioctl(port->Descriptor(), FIONREAD, &iIn) == -1)
        return FailWith(static_cast<DWORD>(errno));
    ioctl(port->Descriptor(), TIOCOUTQ, &iOut);
    *pStatus = {static_cast<DWORD>(iIn), static_cast<DWORD>(iOut)};
    return TRUE;
}

BOOL EscapeCommFunction(HANDLE hPort, DWORD dwFunction)
{
    const SerialPort::Use port(hPort);
    if (!port)
        return FALSE;
    if (dwFunction != SETDTR && dwFunction != CLRDTR)
        return FailWith(EINVAL);
    const int iLine = TIOCM_DTR;
    ioctl(port->Descriptor(), dwFunction == SETDTR ? TIOCMBIS : TIOCMBIC, &iLine);
    return TRUE;
}

BOOL ReadFile(HANDLE hPort, void* pBuffer, DWORD dwLength, DWORD* pRead, OVERLAPPED* pOverlapped)
{
    *pRead = 0;
    const SerialPort::Use port(hPort);
    if (!port)
        return FALSE;
    const BOOL bResult = port->Read(pBuffer, dwLength, *pOverlapped);
    *pRead = static_cast<DWORD>(pOverlapped->InternalHigh);
    return Finish(bResult, *pOverlapped);
}

BOOL WriteFile(HANDLE hPort, const void* pBuffer, DWORD dwLength, DWORD* pWritten, OVERLAPPED* pOverlapped)
{
    *pWritten = 0;
    const SerialPort::Use port(hPort);
    if (!port)
        return FALSE;
    const BOOL bResult = port->BeginWrite(pBuffer, dwLength, *pOverlapped);
    *pWritten = static_cast<DWORD>(pOverlapped->InternalHigh);
    return Finish(bResult, *pOverlapped);
}

BOOL GetOverlappedResult(HANDLE hPort, OVERLAPPED* pOverlapped, DWORD* pTransferred, BOOL bWait)
{
    *pTransferred = static_cast<DWORD>(pOverlapped->InternalHigh); // also when the port is closed
    const SerialPort::Use port(hPort);
    if (!port)
        return FALSE;
    const BOOL bResult = port->GoOnWriting(*pOverlapped, bWait != FALSE);
    *pTransferred = static_cast<DWORD>(pOverlapped->InternalHigh);
    return Finish(bResult, *pOverlapped);
}
