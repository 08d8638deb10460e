#ifndef TARN_CONNECTION_TARNSERIALCONNECTORIMPL_H
#define TARN_CONNECTION_TARNSERIALCONNECTORIMPL_H

#include "connection/SerialSession.h"
#include "connection/TarnConnectorImpl.h"

/// The transport over a serial line. Each opening has a session of its own, whose watch thread receives; the send
/// reactor's thread sends. The I/O manager only enters it in its registry.
///
/// **Opening and closing.** Attempts and closings take the open/close mutex as those of the other transports do,
/// but a closing waits for the watch thread without it: that thread may be inside the adapter, which may want to close
/// the connection itself. Who opens meanwhile waits for the end of the closing.
///
/// A line that breaks is not noticed, and nobody is told: what is sent fails or gets no answer.
class TarnSerialConnectorImpl : public TarnConnectorImpl
{
public:
    explicit TarnSerialConnectorImpl(TarnConnector* pOwner);
    /// Ends the session first, which lets go of those who use the connection.
    ~TarnSerialConnectorImpl() override;

    int handle_signal(int iSignal, siginfo_t* pInfo, ucontext_t* pContext) override;

    /// Two elements: name of the port (text ended by a zero byte; null leaves the name as it is) and baud rate (int).
    int InitCommuPara(std::vector<void*>& vctParas) override TARN_EXCLUDES(m_ParameterLock);
    bool GetCommuPara(ECommuProtocolType& eType, unsigned long& ulIP, unsigned short& usPort,
                      std::string& strFirst, std::string& strSecond, std::string& strThird,
                      unsigned long& ulNumber) override TARN_EXCLUDES(m_ParameterLock);
    int Connect() override TARN_EXCLUDES(m_OpenMutex);
    int DisConnect() override TARN_EXCLUDES(m_OpenMutex);
    void CloseSession(std::uint32_t ulSession) override TARN_EXCLUDES(m_OpenMutex);

    /// Queues bytes and tells the send reactor. Waits while the queue is full, as long as somebody empties it.
    int AddAndSendData(const char* pData, int iLength) override;
    int SendData(const char* pBuf, int iLength) override;
    int RecvData(char* pBuf, int iLength) override;

    /// Sends what is queued, block by block with a pause of half a second in between, for the send reactor's thread only.
    /// It does not wait for the end of a pause, so that other lines have their turn meanwhile.
    /// @param dwLaterMs  when to call again, in milliseconds, for SEND_LATER
    /// @return 0 all sent; -1 failed, what is left is tried again with the next block; SEND_LATER
    int WriteOutQueue(DWORD& dwLaterMs);
    /// Result of WriteOutQueue: the next block has to wait, or the line has not taken all for as long as a write may last.
    static constexpr int SEND_LATER = 1;
    /// Ends a write under way, of whichever session.
    void AbortWrite();

    // For the session.
    using TarnConnectorImpl::AdapterProtocolID;

private:
    int InitTTYInfo() TARN_EXCLUDES(m_ParameterLock);
    SerialSettings LineSettings() TARN_EXCLUDES(m_ParameterLock);
    int Open() TARN_REQUIRES(m_OpenMutex);
    void RegisterForSending() TARN_REQUIRES(m_OpenMutex);
    int Close(const std::uint32_t* pOnlySession) TARN_EXCLUDES(m_OpenMutex);
    std::shared_ptr<SerialSession> BeginClosing() TARN_REQUIRES(m_OpenMutex);
    void FinishClosing(const std::shared_ptr<SerialSession>& pSession) TARN_EXCLUDES(m_OpenMutex);
    void CloseEnded(const std::shared_ptr<SerialSession>& pSession, bool bWatchEnded)
        TARN_EXCLUDES(m_OpenMutex);
    std::shared_ptr<SerialSession> Session();
    void SetSession(std::shared_ptr<SerialSession> pSession);
    DWORD RestOfPause();
    bool TakeNextBlock();
    bool Enqueue(ACE_Message_Block* pBlock);
    void LogMute();

    SerialSettings m_Settings TARN_GUARDED_BY(m_ParameterLock);

    // Made for the next opening.
    std::shared_ptr<SerialSession> m_pPrepared TARN_GUARDED_BY(m_OpenMutex);
    // Received in earlier sessions and not framed.
    InputBuffer m_LeftInput TARN_GUARDED_BY(m_OpenMutex);

    // Guarded by m_SessionMutex, a leaf; changed with the open/close mutex held, too. The session that is open, or
    // whose watch thread has not been waited for; null when there is none.
    std::mutex m_SessionMutex;
    std::shared_ptr<SerialSession> m_pSession;

    // The send thread's: a block has been sent, and when; if there is another one, it waits.
    bool m_bPausing = false;
    DWORD m_dwWrittenAt = 0;

    std::atomic<bool> m_bMuteLogged{false};
};

#endif
