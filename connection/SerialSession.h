#ifndef TARN_CONNECTION_SERIALSESSION_H
#define TARN_CONNECTION_SERIALSESSION_H

#include "connection/InputBuffer.h"
#include "platform/tarnplatform.h"

#include <atomic>
#include <memory>
#include <string>

class TarnSerialConnectorImpl;

/// How a line is set; only port and rate are ever changed.
struct SerialSettings
{
    std::string strPort;
    int iBaudRate = 9600;
    BYTE byteSize = 8;
    DWORD dwFlowControl = 0; ///< bit 0 DTR/DSR, bit 1 RTS/CTS, bit 2 XON/XOFF
    BYTE parity = NOPARITY;
    BYTE stopBits = ONESTOPBIT;
};

/// One opening of a serial port: the port, the thread that watches it, and what both need. The next opening has
/// another one, so that a thread that could not be ended touches nothing of it.
///
/// **Threads.** The opener calls OpenConnection; the watch thread receives and frames; the send thread calls
/// WriteCommBlock; any thread ends the session by End, waits, and closes the port. All handles are
/// created before the watch thread begins to receive, and given up with the session: closed under somebody's hands,
/// they refuse him.
///
/// **Life.** Shared by the connection, the watch thread, and the send thread during a drain. The watch thread keeps the
/// connection itself by a pin.
class SerialSession : public std::enable_shared_from_this<SerialSession>
{
public:
    /// Creates the events. @return null: there are none
    static std::shared_ptr<SerialSession> Create(TarnSerialConnectorImpl& connection);
    /// Closes what is left open.
    ~SerialSession();
    SerialSession(const SerialSession&) = delete;
    SerialSession& operator=(const SerialSession&) = delete;

    /// Opens the port, sets the line and starts the watch thread. Once.
    /// @param leftOver  received in earlier sessions and not framed; taken over when it succeeds
    /// @return false: failed, logged, and nothing is open
    bool OpenConnection(const SerialSettings& settings, InputBuffer& leftOver);

    /// Tells the session's threads that it is over and wakes them. Does not wait.
    void End();
    /// Waits until the watch thread of an ended session has ended.
    /// @return false: it has not in this time, or it is the calling thread
    bool WaitForWatch(DWORD dwMilliseconds);
    /// Lowers DTR and closes the port. Operations on it that are under way end first, failed.
    void CloseConnection();
    /// What has not been framed. When the watch thread has ended.
    InputBuffer& Input() { return m_Input; }

    bool IsConnected() const { return m_bConnected; }
    bool IsWatchThread() const { return m_dwWatchThreadId == GetCurrentThreadId(); }
    /// The number of the port's descriptor.
    int Descriptor() const { return PortDescriptor(m_hPort); }

    /// Writes a block; waits, as long as the write time-out of the line allows, until the driver has taken it.
    /// @param dwWritten  how much it has taken; less when the time was over or the write was ended
    /// @return false: refused or failed at once
    bool WriteCommBlock(const unsigned char* pBuffer, DWORD dwLength, DWORD& dwWritten);
    /// Ends a write under way.
    void AbortWrite() { PurgeComm(m_hPort, PURGE_TXABORT); }
    /// Ends all sessions there are and waits for their watch threads, with a line in the log every second: they may be
    /// inside adapters, which are deleted afterwards. The ports stay open.
    static void EndAllWatches();

private:
    explicit SerialSession(TarnSerialConnectorImpl& connection);

    bool CreateEvents();
    bool SetLine(const SerialSettings& settings);
    bool SetupConnection(const SerialSettings& settings);
    bool StartWatch();
    void ClosePort();

    static DWORD CommWatchThrdProc(void* pData);
    DWORD Watch();
    void WatchOnce();
    DWORD ReadCommBlock(unsigned char* pBuffer, DWORD dwCapacity);
    DWORD ReadChunk(unsigned char* pChunk, DWORD dwLength);
    int CheckMessageValid(const unsigned char* pByte, DWORD dwLength);
    int ConsumeFrames();
    void LogLineErrors(const char* pszText);

    TarnSerialConnectorImpl& m_Connection;

    // Set by OpenConnection, constant while the session's threads run.
    HANDLE m_hPort = INVALID_HANDLE_VALUE;
    HANDLE m_hStarted = nullptr; // while OpenConnection waits for the watch thread
    HANDLE m_hWatchThread = nullptr;
    std::atomic<DWORD> m_dwWatchThreadId{0};
    HANDLE m_hWatchEnded = nullptr; // manual: more than one thread may wait for it
    HANDLE m_hCommEvent = nullptr;  // the watch thread's, of its wait for the port

    std::atomic<bool> m_bConnected{false};
    const bool m_bReportErrors = true;

    OVERLAPPED m_Write{}; // the send thread's
    OVERLAPPED m_Read{};  // the watch thread's
    InputBuffer m_Input;  // the watch thread's
};

#endif
