#ifndef TARN_CONNECTION_TESERIALSENDREACTOR_H
#define TARN_CONNECTION_TESERIALSENDREACTOR_H

#include "platform/tarnplatform.h"
#include "tarnadapterframe/TarnLock.h"

#include <array>
#include <atomic>
#include <map>
#include <memory>

class TarnSerialConnectorImpl;

/// Sends for all serial connections, on one thread: it waits for their write events and drains the out queue of the one
/// with the lowest index among those signalled.
///
/// The table has MAXIMUM_WAIT_OBJECTS entries, two of which are the thread's own: at most 62 lines are sent on. A
/// further registration is refused with -1 and no line in the log; what is sent on that connection stays queued.
/// An entry that was unregistered counts until the thread has rebuilt the table, which it does at once when it is idle.
///
/// **Threads.** Any thread registers, unregisters and raises write events; the send thread does the rest. Start, Leave
/// and Destroy are called by whoever starts and stops the engine.
///
/// Locks: the entry lock is taken with a connection's open/close mutex held; within it, a connection's locks and
/// references, and the locks of events. No lock is held over a drain, during which the connection is kept by a
/// reference.
class TESerialSendReactor
{
public:
    /// The reactor, created by the first call; it has no thread until Start. For whoever starts and destroys it.
    static TESerialSendReactor* Instance();
    /// The reactor if there is one, else null. It is not deleted as long as the result is kept, but may be destroyed.
    static std::shared_ptr<TESerialSendReactor> Existing();
    /// Ends the thread, see Leave, and deletes the reactor, or has its last user do it; not if its thread could not be
    /// ended.
    static void Destroy();

    TESerialSendReactor(const TESerialSendReactor&) = delete;
    TESerialSendReactor& operator=(const TESerialSendReactor&) = delete;

    /// Starts the send thread. Connections that are registered already are served from then on. Once.
    /// @return 0, or -1
    int Start() TARN_EXCLUDES(m_EntryLock);
    /// Tells the thread to quit and waits: 30 s, then its write under way is ended. Nothing happens if there is none.
    /// @return false: it has not ended, and is left to itself; it is not waited for a second time
    bool Leave() TARN_EXCLUDES(m_EntryLock);
    /// True while there is a thread that sends.
    bool IsStarted() const { return m_bStarted; }

    /// @return 0; -1 null, the table is full, or no event
    int RegisterHandle(TarnSerialConnectorImpl* pSerialIOHandle) TARN_EXCLUDES(m_EntryLock);
    /// @return 0; -1 null, or not registered
    int UnRegisterHandle(TarnSerialConnectorImpl* pSerialIOHandle) TARN_EXCLUDES(m_EntryLock);
    /// Has the connection's out queue drained soon. @return 0; -1 null, or not registered
    int AddWriteEvent(const TarnSerialConnectorImpl* pSerialIOHandle) TARN_EXCLUDES(m_EntryLock);
    /// True when there is a thread, and the connection is registered.
    bool IsServing(const TarnSerialConnectorImpl* pSerialIOHandle) TARN_EXCLUDES(m_EntryLock);

private:
    struct Entry
    {
        HANDLE hEvent = nullptr;
        TarnSerialConnectorImpl* pConnector = nullptr; // not owned
        bool bActive = false;
    };
    static constexpr int QUIT = 0;
    static constexpr int CHANGE = 1;
    static constexpr int FIRST = 2; // of the connections

    TESerialSendReactor() = default;
    ~TESerialSendReactor();

    static DWORD ThreadProc(void* pReactor);
    void SendLoop();
    DWORD WaitForLater() const;
    void SendLater(TarnSerialConnectorImpl* pConnector, DWORD dwLaterMs);
    void RaiseLater();
    int ProcessWriteEvent(int iIndex) TARN_EXCLUDES(m_EntryLock);
    TarnSerialConnectorImpl* TakeConnector(int iIndex, HANDLE hEvent) TARN_EXCLUDES(m_EntryLock);
    void ReleaseConnector(TarnSerialConnectorImpl* pConnector) TARN_EXCLUDES(m_EntryLock);
    void RebuildHandles() TARN_EXCLUDES(m_EntryLock);
    void RebuildLocked() TARN_REQUIRES(m_EntryLock);
    const Entry* FindActiveLocked(const TarnSerialConnectorImpl* pConnector) const
        TARN_REQUIRES_SHARED(m_EntryLock);
    void AbortDrain() TARN_EXCLUDES(m_EntryLock);

    // Constant after Start.
    HANDLE m_hThread = nullptr;
    HANDLE m_hExited = nullptr;
    HANDLE m_hQuit = nullptr;
    DWORD m_dwThreadId = 0;
    std::atomic<bool> m_bStarted{false};

    bool m_bGivenUp = false; // touched by Leave only: the thread has not ended in its time

    // Changed by the send thread only, or before there is one.
    std::array<HANDLE, MAXIMUM_WAIT_OBJECTS> m_aWait{};
    int m_nWait = 0;

    // Touched by the send thread only: who asked for another turn, and when (as GetTickCount tells it). They may be gone.
    std::map<const TarnSerialConnectorImpl*, DWORD> m_Later;

    TarnRWThreadMutex m_EntryLock;
    std::array<Entry, MAXIMUM_WAIT_OBJECTS> m_aEntries TARN_GUARDED_BY(m_EntryLock){};
    int m_nEntries TARN_GUARDED_BY(m_EntryLock) = 0;
    TarnSerialConnectorImpl* m_pDraining TARN_GUARDED_BY(m_EntryLock) = nullptr;
};

#endif
