#ifndef TARN_PLATFORM_SERIALPORT_H
#define TARN_PLATFORM_SERIALPORT_H

#include "platform/KernelObject.h"

#include <condition_variable>
#include <mutex>

#include <linux/serial.h>

/// An open serial port: a terminal's descriptor in non-blocking mode, and one more descriptor each by which a wait
/// and a write under way are woken.
///
/// **Threads.** One may wait, another write, a third change settings, end what is under way, or close: closing
/// waits until the others have left. The mutex is a leaf, and not held over a call that waits.
class SerialPort : public KernelObject
{
public:
    /// @return null with the last error
    static std::shared_ptr<SerialPort> Open(const char* pszName);
    ~SerialPort() override;

    void OnClosed() override;

    /// Keeps the descriptor open for one operation.
    class Use
    {
    public:
        explicit Use(HANDLE hPort);
        ~Use();
        Use(const Use&) = delete;
        Use& operator=(const Use&) = delete;

        /// False when the port is closed; the last error is EBADF.
        explicit operator bool() const { return m_pPort != nullptr; }
        SerialPort* operator->() const { return m_pPort.get(); }

    private:
        std::shared_ptr<SerialPort> m_pPort;
    };

    int Descriptor() const { return m_iDescriptor; }

    // What the functions of the same names do; FALSE with the last error.
    void SetTimeouts(const COMMTIMEOUTS& timeouts);
    void SetMask(DWORD dwMask);
    BOOL WaitForEvent(DWORD& dwEvents);
    DWORD TakeLineErrors();
    BOOL Read(void* pBuffer, DWORD dwLength, OVERLAPPED& operation);
    BOOL BeginWrite(const void* pBuffer, DWORD dwLength, OVERLAPPED& operation);
    BOOL GoOnWriting(OVERLAPPED& operation, bool bWait);
    void AbortWrite();

private:
    /// The write that is under way.
    struct Writing
    {
        const unsigned char* pRest = nullptr;
        DWORD dwRest = 0;
        bool bLimited = false;
        std::uint64_t uDeadlineMs = 0; ///< by the steady clock, when it is limited
        unsigned uAborts = 0;          ///< as the count was at its beginning
    };

    SerialPort(int iDescriptor, int iWaitWake, int iWriteWake);
    bool IsWaitOver(unsigned uMaskChanges, DWORD& dwMask);
    bool IsWriteAborted();
    bool WriteSome(OVERLAPPED& operation, DWORD& dwError);
    bool WaitForRoom() const;

    // Constant after construction.
    const int m_iDescriptor;
    const int m_iWaitWake; // eventfd(2)
    const int m_iWriteWake;

    std::mutex m_Mutex;
    std::condition_variable m_Left;
    // Guarded by m_Mutex.
    bool m_bClosed = false;
    int m_nUses = 0;
    DWORD m_dwMask = 0;
    unsigned m_uMaskChanges = 0;
    unsigned m_uWriteAborts = 0;
    COMMTIMEOUTS m_Timeouts{};
    serial_icounter_struct m_Counted{}; // line errors told so far

    Writing m_Writing; // the writing thread's
};

#endif
