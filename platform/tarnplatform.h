#ifndef TARN_PLATFORM_TARNPLATFORM_H
#define TARN_PLATFORM_TARNPLATFORM_H

/// @file
/// The kernel and serial functions and those of OSI sockets that the library calls, under their own names and with
/// their own result rules. On Windows they are the system's; elsewhere this layer implements exactly what is called and
/// nothing more. A function that fails leaves the reason with GetLastError, those of sockets with WSAGetLastError.

#if defined(_WIN32)
#include <winsock2.h>
#include <wshisotp.h>

#include <windows.h>

/// The number under which a port's handle can be looked up.
inline HANDLE PortDescriptor(HANDLE hPort)
{
    return hPort;
}
#else

#include <cstddef>
#include <cstdint>

struct sockaddr;

// ACE defines these as macros, as 0, where nobody has done so before.
#undef MAXIMUM_WAIT_OBJECTS
#undef GENERIC_READ
#undef OPEN_EXISTING
#undef FILE_ATTRIBUTE_NORMAL
#undef FILE_FLAG_OVERLAPPED
#define MAXIMUM_WAIT_OBJECTS 64U
#define GENERIC_READ 0x80000000U
#define OPEN_EXISTING 3U
#define FILE_ATTRIBUTE_NORMAL 0x80U
#define FILE_FLAG_OVERLAPPED 0x40000000U

using BOOL = int;
using BYTE = std::uint8_t;
using WORD = std::uint16_t;
using DWORD = std::uint32_t;

constexpr BOOL TRUE = 1;
constexpr BOOL FALSE = 0;

// --- time and threads ---

/// Suspends the calling thread for at least dwMilliseconds, whatever signals it handles meanwhile and however
/// the system clock is changed.
void Sleep(DWORD dwMilliseconds);

/// Milliseconds since some moment before the process, by a steady clock; starts again at 0 after 49.7 days.
DWORD GetTickCount();

/// The kernel's id of the calling thread, see gettid(2).
DWORD GetCurrentThreadId();

/// Why the calling thread's last failed call failed: a number of errno(3), or one of the ERROR_ values below.
DWORD GetLastError();

constexpr DWORD ERROR_OPERATION_ABORTED = 995; ///< ended by PurgeComm or CloseHandle
constexpr DWORD ERROR_IO_INCOMPLETE = 996;     ///< still under way
constexpr DWORD ERROR_IO_PENDING = 997;        ///< begun; GetOverlappedResult tells

// --- handles ---

/// An event, a thread or a port. A number of a closed one is not given out again: who still uses it is refused
/// with EBADF.
using HANDLE = void*;

inline const HANDLE INVALID_HANDLE_VALUE = reinterpret_cast<HANDLE>(static_cast<std::intptr_t>(-1));

/// Closes a handle. Waits and operations on it that are under way end, failed; a port's descriptor is closed on
/// return. A closed thread runs on. False for what is no handle.
BOOL CloseHandle(HANDLE handle);

// --- events and waits ---

/// @param pAttributes, pszName  null  @return null without memory
HANDLE CreateEventA(void* pAttributes, BOOL bManualReset, BOOL bInitialState, const char* pszName);
BOOL SetEvent(HANDLE hEvent);
BOOL ResetEvent(HANDLE hEvent);

constexpr DWORD INFINITE = 0xFFFFFFFF;
constexpr DWORD WAIT_OBJECT_0 = 0;
constexpr DWORD WAIT_ABANDONED_0 = 0x80; ///< of mutexes; never here
constexpr DWORD WAIT_TIMEOUT = 258;
constexpr DWORD WAIT_FAILED = 0xFFFFFFFF;

/// Waits until an event is signalled (and resets one that is not manual), or a thread has ended.
DWORD WaitForSingleObject(HANDLE handle, DWORD dwMilliseconds);
/// The same for any one of several, the one with the lowest index when there are more; sleeps until then.
/// @param bWaitAll  FALSE
DWORD WaitForMultipleObjects(DWORD dwCount, const HANDLE* pHandles, BOOL bWaitAll, DWORD dwMilliseconds);

/// Starts a thread with all its signals blocked. The last CloseHandle of one that has ended waits for its very end.
/// @param pAttributes, uStackSize, dwFlags  null, 0, 0  @param pThreadId  may be null  @return null: failed
HANDLE CreateThread(void* pAttributes, std::size_t uStackSize, DWORD (*pfnBody)(void*), void* pArgument,
                    DWORD dwFlags, DWORD* pThreadId);

// --- serial ports ---

struct OVERLAPPED
{
    std::uintptr_t Internal;     ///< 0 done, ERROR_IO_PENDING, or why it failed
    std::uintptr_t InternalHigh; ///< bytes so far
    DWORD Offset;
    DWORD OffsetHigh;
    HANDLE hEvent; ///< signalled when it is done
};

constexpr DWORD GENERIC_WRITE = 0x40000000;

/// Opens a serial port, for this process alone: until it is closed every other opening through this function is
/// refused (EBUSY), and those of other programs unless they are privileged and take no lock (TIOCEXCL, flock).
/// What is no terminal is refused (ENOTTY). Never waits for a carrier.
/// @param dwAccess …  as declared above; no other way of opening is supported
/// @return INVALID_HANDLE_VALUE: failed
HANDLE CreateFileA(const char* pszName, DWORD dwAccess, DWORD dwShareMode, void* pAttributes,
                   DWORD dwCreation, DWORD dwFlags, HANDLE hTemplate);

/// The number of a port's descriptor; -1 when it is closed. It belongs to the port.
int PortDescriptor(HANDLE hPort);

/// Line settings; what has no meaning on this system is carried and ignored.
struct DCB
{
    DWORD DCBlength;
    DWORD BaudRate; ///< bits a second, one of those of termios(3)
    DWORD fBinary : 1;
    DWORD fParity : 1;
    DWORD fOutxCtsFlow : 1;
    DWORD fOutxDsrFlow : 1;
    DWORD fDtrControl : 2;
    DWORD fDsrSensitivity : 1;
    DWORD fTXContinueOnXoff : 1;
    DWORD fOutX : 1;
    DWORD fInX : 1;
    DWORD fErrorChar : 1;
    DWORD fNull : 1;
    DWORD fRtsControl : 2;
    DWORD fAbortOnError : 1;
    DWORD fDummy2 : 17;
    WORD wReserved;
    WORD XonLim;
    WORD XoffLim;
    BYTE ByteSize; ///< 5 to 8
    BYTE Parity;
    BYTE StopBits;
    char XonChar;
    char XoffChar;
    char ErrorChar;
    char EofChar;
    char EvtChar;
    WORD wReserved1;
};

constexpr BYTE NOPARITY = 0;
constexpr BYTE ODDPARITY = 1;
constexpr BYTE EVENPARITY = 2;
constexpr BYTE ONESTOPBIT = 0;
constexpr BYTE TWOSTOPBITS = 2;
constexpr DWORD DTR_CONTROL_DISABLE = 0;
constexpr DWORD DTR_CONTROL_ENABLE = 1;
constexpr DWORD DTR_CONTROL_HANDSHAKE = 2;
constexpr DWORD RTS_CONTROL_DISABLE = 0;
constexpr DWORD RTS_CONTROL_ENABLE = 1;
constexpr DWORD RTS_CONTROL_HANDSHAKE = 2;

BOOL GetCommState(HANDLE hPort, DCB* pSettings);
/// EINVAL: a baud rate, byte size, parity or stop bits that termios(3) does not know, or that the device did not take;
/// ENOTSUP: DTR/DSR handshake.
BOOL SetCommState(HANDLE hPort, const DCB* pSettings);

/// The sizes of a port's queues are the driver's own.
BOOL SetupComm(HANDLE hPort, DWORD dwInQueue, DWORD dwOutQueue);

constexpr DWORD PURGE_TXABORT = 1; ///< ends a write under way
constexpr DWORD PURGE_RXABORT = 2; ///< reads are never under way
constexpr DWORD PURGE_TXCLEAR = 4; ///< discards what the driver has not sent
constexpr DWORD PURGE_RXCLEAR = 8; ///< discards what the driver has received
BOOL PurgeComm(HANDLE hPort, DWORD dwFlags);

constexpr DWORD MAXDWORD = 0xFFFFFFFF;

/// Milliseconds, and milliseconds a byte. A write whose two are 0 has no limit. Reads do not wait, see ReadFile.
struct COMMTIMEOUTS
{
    DWORD ReadIntervalTimeout;
    DWORD ReadTotalTimeoutMultiplier;
    DWORD ReadTotalTimeoutConstant;
    DWORD WriteTotalTimeoutMultiplier;
    DWORD WriteTotalTimeoutConstant;
};
BOOL SetCommTimeouts(HANDLE hPort, const COMMTIMEOUTS* pTimeouts);

constexpr DWORD EV_RXCHAR = 1; ///< received bytes are waiting
/// Chooses what WaitCommEvent waits for, 0 or EV_RXCHAR, and ends a wait under way.
BOOL SetCommMask(HANDLE hPort, DWORD dwMask);
/// Waits, without limit, until something of the mask has happened; with a mask of 0, or when it is changed, it ends at
/// once with nothing. Completed on return, so the overlapped event is signalled. EIO: the line's other end is
/// gone, and nothing will ever happen on it again.
BOOL WaitCommEvent(HANDLE hPort, DWORD* pEvents, OVERLAPPED* pOverlapped);

struct COMSTAT
{
    DWORD cbInQue;  ///< bytes received and not read
    DWORD cbOutQue; ///< bytes written and not sent
};

constexpr DWORD CE_RXOVER = 0x1;
constexpr DWORD CE_OVERRUN = 0x2;
constexpr DWORD CE_RXPARITY = 0x4;
constexpr DWORD CE_FRAME = 0x8;
constexpr DWORD CE_BREAK = 0x10;
/// Tells the line errors since the last call, if the driver counts them, and how many bytes wait. Both may be null.
BOOL ClearCommError(HANDLE hPort, DWORD* pErrors, COMSTAT* pStatus);

constexpr DWORD SETDTR = 5;
constexpr DWORD CLRDTR = 6;
/// Raises or lowers DTR. A line that has none, such as a pseudo terminal, is left as it is.
BOOL EscapeCommFunction(HANDLE hPort, DWORD dwFunction);

/// Reads what is there, nothing if there is nothing. Never waits: with a read interval of MAXDWORD and a multiplier of 0 it
/// is not to. EIO: the line's other end is gone.
BOOL ReadFile(HANDLE hPort, void* pBuffer, DWORD dwLength, DWORD* pRead, OVERLAPPED* pOverlapped);
/// Writes. ERROR_IO_PENDING: the driver has not taken all; GetOverlappedResult goes on with the rest, so the
/// bytes must stay where they are. One write at a time.
BOOL WriteFile(HANDLE hPort, const void* pBuffer, DWORD dwLength, DWORD* pWritten, OVERLAPPED* pOverlapped);
/// The result of a read or write. A write that is under way goes on, if bWait is set until it is done, its time is over
/// (the bytes taken are told, and the last error is ETIMEDOUT) or it is ended: ERROR_OPERATION_ABORTED.
BOOL GetOverlappedResult(HANDLE hPort, OVERLAPPED* pOverlapped, DWORD* pTransferred, BOOL bWait);

// --- OSI sockets ---
//
// This system has no OSI transport. A stand-in takes the place of its provider: each transport address is a local
// socket (unix(7)), a file in the directory that the environment variable TARN_TP4_DIR names, else /run/tarn-tp4;
// platform/Tp4File.h tells its name. Bytes arrive complete and in order, but boundaries of messages are not kept, and
// nothing leaves the host by itself. A relay such as tarn-tp4 behind the file leads on.

/// A descriptor: it is read, written and waited for as any other.
using SOCKET = int;
constexpr SOCKET INVALID_SOCKET = -1;
constexpr int SOCKET_ERROR = -1;

constexpr int AF_ISO = 7;
constexpr int ISOPROTO_TP4 = 29;
constexpr WORD ISO_HIERARCHICAL = 0;
constexpr int ISO_MAX_ADDR_LENGTH = 64;

/// A transport address: a transport selector, and the network address behind it.
struct SOCKADDR_TP
{
    WORD tp_family;                    ///< AF_ISO
    WORD tp_addr_type;                 ///< ISO_HIERARCHICAL
    WORD tp_taddr_len;                 ///< bytes of selector and network address together
    WORD tp_tsel_len;                  ///< bytes of the selector
    BYTE tp_addr[ISO_MAX_ADDR_LENGTH]; ///< the selector, then the network address; any bytes
};
static_assert(sizeof(SOCKADDR_TP) == 72, "the layout is the provider's");

/// Creates a blocking, close-on-exec socket. WSAGetLastError after a failure: EAFNOSUPPORT, another family, or there
/// is no provider: its directory is missing; ESOCKTNOSUPPORT and EPROTONOSUPPORT, another type or protocol; EINVAL,
/// one of the others is not null or 0; what socket(2) gives, EMFILE say.
/// @param iFamily, iType, iProtocol  AF_ISO, SOCK_SEQPACKET, ISOPROTO_TP4  @param pProtocolInfo …  null, 0, 0
SOCKET WSASocketA(int iFamily, int iType, int iProtocol, void* pProtocolInfo, unsigned uGroup, DWORD dwFlags);

/// Connects a blocking socket; it is blocking again on return. WSAGetLastError after a failure, which leaves the
/// socket to be closed: EINVAL, the address is malformed (its size, family or type is another one, or its lengths
/// contradict each other); ECONNREFUSED, nobody listens at the address; ETIMEDOUT, somebody listens, but has had no
/// room for another connection for 10 seconds; EACCES, the user may not connect there; EPROTOTYPE, who listens
/// there listens for something else; EISCONN, EBADF, ENOTSOCK, the socket is connected or is none; ENOMEM.
/// @param pCallerData …  null: no data with the connection, no quality of service
int WSAConnect(SOCKET hSocket, const sockaddr* pAddress, int iLength, void* pCallerData, void* pCalleeData,
               void* pServiceQuality, void* pGroupQuality);

/// EBADF: it is no descriptor. It is closed in any other case.
int closesocket(SOCKET hSocket);

/// Why the calling thread's last failed call on a socket failed: its errno(3).
int WSAGetLastError();

#endif

#endif
