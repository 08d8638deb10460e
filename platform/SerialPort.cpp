#include "platform/SerialPort.h"

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

namespace {

std::uint64_t NowMs()
{
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<std::uint64_t>(now.tv_sec) * 1000 +
           static_cast<std::uint64_t>(now.tv_nsec / 1'000'000);
}

void Wake(int iEvent)
{
    eventfd_write(iEvent, 1);
}

void Unwake(int iEvent)
{
    eventfd_t uCount = 0;
    eventfd_read(iEvent, &uCount);
}

/// Opens a terminal for this process alone. @return -1 with errno
int OpenTerminal(const char* pszName)
{
    // Looked at before it is opened: opening some devices does something.
    struct stat status = {};
    if (stat(pszName, &status) == -1)
        return -1;
    if (!S_ISCHR(status.st_mode))
    {
        errno = ENOTTY;
        return -1;
    }
    const int iDescriptor = open(pszName, O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
    if (iDescriptor == -1)
        return -1;
    // TIOCEXCL does not stop a privileged process; the lock stops it if it takes one, too.
    const bool bOurs = isatty(iDescriptor) == 1 && flock(iDescriptor, LOCK_EX | LOCK_NB) == 0;
    if (bOurs && ioctl(iDescriptor, TIOCEXCL) == 0)
        return iDescriptor;
    const int iError = errno == EWOULDBLOCK ? EBUSY : errno;
    close(iDescriptor);
    errno = iError;
    return -1;
}

} // namespace

std::shared_ptr<SerialPort> SerialPort::Open(const char* pszName)
{
    const int iDescriptor = OpenTerminal(pszName);
    if (iDescriptor == -1)
    {
        FailWith(static_cast<DWORD>(errno));
        return nullptr;
    }
    const int iWaitWake = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    const int iWriteWake = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    const int iError = errno;
    // From here on the destructor closes them.
    std::shared_ptr<SerialPort> pPort(new SerialPort(iDescriptor, iWaitWake, iWriteWake));
    if (iWaitWake != -1 && iWriteWake != -1)
        return pPort;
    pPort->OnClosed();
    FailWith(static_cast<DWORD>(iError));
    return nullptr;
}

SerialPort::SerialPort(int iDescriptor, int iWaitWake, int iWriteWake)
    : m_iDescriptor(iDescriptor)
    , m_iWaitWake(iWaitWake)
    , m_iWriteWake(iWriteWake)
{
    ioctl(m_iDescriptor, TIOCGICOUNT, &m_Counted); // errors of before are none of ours
}

SerialPort::~SerialPort()
{
    close(m_iWaitWake);
    close(m_iWriteWake);
}

void SerialPort::OnClosed()
{
    std::unique_lock<std::mutex> lock(m_Mutex);
    m_bClosed = true;
    Wake(m_iWaitWake);
    Wake(m_iWriteWake);
    m_Left.wait(lock, [this] { return m_nUses == 0; });
    // As long as the other side of a pseudo terminal is open, its terminal lives on and would stay exclusive.
    ioctl(m_iDescriptor, TIOCNXCL);
    close(m_iDescriptor);
}

SerialPort::Use::Use(HANDLE hPort)
    : m_pPort(FindKernelObjectOf<SerialPort>(hPort))
{
    if (m_pPort == nullptr)
        return;
    const std::lock_guard<std::mutex> guard(m_pPort->m_Mutex);
    if (!m_pPort->m_bClosed)
    {
        ++m_pPort->m_nUses;
        return;
    }
    m_pPort.reset();
    FailWith(EBADF);
}

SerialPort::Use::~Use()
{
    if (m_pPort == nullptr)
        return;
    const std::lock_guard<std::mutex> guard(m_pPort->m_Mutex);
    if (--m_pPort->m_nUses == 0)
        m_pPort->m_Left.notify_all();
}

void SerialPort::SetTimeouts(const COMMTIMEOUTS& timeouts)
{
    const std::lock_guard<std::mutex> guard(m_Mutex);
    m_Timeouts = timeouts;
}

void SerialPort::SetMask(DWORD dwMask)
{
    const std::lock_guard<std::mutex> guard(m_Mutex);
    m_dwMask = dwMask;
    ++m_uMaskChanges;
    Wake(m_iWaitWake);
}

bool SerialPort::IsWaitOver(unsigned uMaskChanges, DWORD& dwMask)
{
    const std::lock_guard<std::mutex> guard(m_Mutex);
    dwMask = m_dwMask;
    return m_bClosed || dwMask == 0 || m_uMaskChanges != uMaskChanges;
}

BOOL SerialPort::WaitForEvent(DWORD& dwEvents)
{
    dwEvents = 0;
    unsigned uMaskChanges = 0;
    {
        const std::lock_guard<std::mutex> guard(m_Mutex);
        uMaskChanges = m_uMaskChanges;
    }
    for (DWORD dwMask = 0; !IsWaitOver(uMaskChanges, dwMask);)
    {
        pollfd waited[] = {{m_iDescriptor, POLLIN, 0}, {m_iWaitWake, POLLIN, 0}};
        if (poll(waited, 2, -1) == -1)
            continue; // interrupted
        if (waited[1].revents != 0)
            Unwake(m_iWaitWake);
        int iWaiting = 0;
        ioctl(m_iDescriptor, FIONREAD, &iWaiting);
        if (iWaiting > 0 && (waited[0].revents & POLLIN) != 0)
        {
            dwEvents = dwMask & EV_RXCHAR;
            return TRUE;
        }
        // The other end is gone, which poll reports from now on without end.
        if (iWaiting == 0 && (waited[0].revents & (POLLHUP | POLLERR | POLLNVAL)) != 0)
            return FailWith(EIO);
    }
    return TRUE;
}

DWORD SerialPort::TakeLineErrors()
{
    serial_icounter_struct now = {};
    if (ioctl(m_iDescriptor, TIOCGICOUNT, &now) == -1)
        return 0; // a driver that does not count them
    const std::lock_guard<std::mutex> guard(m_Mutex);
    DWORD dwErrors = 0;
    dwErrors |= now.frame != m_Counted.frame ? CE_FRAME : 0;
    dwErrors |= now.overrun != m_Counted.overrun ? CE_OVERRUN : 0;
    dwErrors |= now.parity != m_Counted.parity ? CE_RXPARITY : 0;
    dwErrors |= now.brk != m_Counted.brk ? CE_BREAK : 0;
    dwErrors |= now.buf_overrun != m_Counted.buf_overrun ? CE_RXOVER : 0;
    m_Counted = now;
    return dwErrors;
}

BOOL SerialPort::Read(void* pBuffer, DWORD dwLength, OVERLAPPED& operation)
{
    const ssize_t iRead = read(m_iDescriptor, pBuffer, dwLength);
    const int iError = iRead == 0 && dwLength != 0 ? EIO : errno; // end of file: hung up
    operation.InternalHigh = iRead > 0 ? static_cast<std::uintptr_t>(iRead) : 0;
    const bool bFailed = (iRead == 0 && dwLength != 0) || (iRead < 0 && iError != EAGAIN && iError != EINTR);
    operation.Internal = bFailed ? static_cast<std::uintptr_t>(iError) : 0;
    return bFailed ? FailWith(static_cast<DWORD>(iError)) : TRUE;
}

BOOL SerialPort::BeginWrite(const void* pBuffer, DWORD dwLength, OVERLAPPED& operation)
{
    {
        const std::lock_guard<std::mutex> guard(m_Mutex);
        const std::uint64_t uLimitMs = std::uint64_t{m_Timeouts.WriteTotalTimeoutMultiplier} * dwLength +
                                       m_Timeouts.WriteTotalTimeoutConstant;
        m_Writing = {static_cast<const unsigned char*>(pBuffer), dwLength, uLimitMs != 0, NowMs() + uLimitMs,
                     m_uWriteAborts};
    }
    operation.Internal = ERROR_IO_PENDING;
    operation.InternalHigh = 0;
    DWORD dwError = 0;
    if (!WriteSome(operation, dwError))
        return FailWith(dwError);
    return m_Writing.dwRest == 0 ? TRUE : FailWith(ERROR_IO_PENDING);
}

/// Writes what the driver takes now. @return false when the write has failed
bool SerialPort::WriteSome(OVERLAPPED& operation, DWORD& dwError)
{
    const ssize_t iTaken = write(m_iDescriptor, m_Writing.pRest, m_Writing.dwRest);
    if (iTaken < 0 && errno != EAGAIN && errno != EINTR)
    {
        dwError = static_cast<DWORD>(errno);
        operation.Internal = dwError;
        return false;
    }
    if (iTaken > 0)
    {
        m_Writing.pRest += iTaken;
        m_Writing.dwRest -= static_cast<DWORD>(iTaken);
        operation.InternalHigh += static_cast<std::uintptr_t>(iTaken);
    }
    if (m_Writing.dwRest == 0)
        operation.Internal = 0;
    return true;
}

bool SerialPort::IsWriteAborted()
{
    const std::lock_guard<std::mutex> guard(m_Mutex);
    return m_bClosed || m_uWriteAborts != m_Writing.uAborts;
}

/// Waits until the driver takes more, or somebody ends the write. @return false when its time is over
bool SerialPort::WaitForRoom() const
{
    int iTimeoutMs = -1;
    if (m_Writing.bLimited)
    {
        const std::uint64_t uNow = NowMs();
        if (uNow >= m_Writing.uDeadlineMs)
            return false;
        constexpr std::uint64_t LONGEST_MS = 1'000'000;
        iTimeoutMs = static_cast<int>(std::min(m_Writing.uDeadlineMs - uNow, LONGEST_MS));
    }
    pollfd waited[] = {{m_iDescriptor, POLLOUT, 0}, {m_iWriteWake, POLLIN, 0}};
    if (poll(waited, 2, iTimeoutMs) > 0 && waited[1].revents != 0)
        Unwake(m_iWriteWake);
    return true;
}

BOOL SerialPort::GoOnWriting(OVERLAPPED& operation, bool bWait)
{
    while (operation.Internal == ERROR_IO_PENDING)
    {
        DWORD dwError = ERROR_OPERATION_ABORTED;
        if (IsWriteAborted())
            operation.Internal = dwError;
        else if (WriteSome(operation, dwError) && operation.Internal == ERROR_IO_PENDING)
        {
            if (!bWait)
                return FailWith(ERROR_IO_INCOMPLETE);
            if (WaitForRoom())
                continue;
            operation.Internal = 0; // over time, it has taken what it has taken
            FailWith(ETIMEDOUT);
        }
    }
    return operation.Internal == 0 ? TRUE : FailWith(static_cast<DWORD>(operation.Internal));
}

void SerialPort::AbortWrite()
{
    const std::lock_guard<std::mutex> guard(m_Mutex);
    ++m_uWriteAborts;
    Wake(m_iWriteWake);
}
