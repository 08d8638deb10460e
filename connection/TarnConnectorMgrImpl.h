#ifndef TARN_CONNECTION_TARNCONNECTORMGRIMPL_H
#define TARN_CONNECTION_TARNCONNECTORMGRIMPL_H

#include "connection/CConnectorImplInfo.h"
#include "connection/ConnectionKey.h"
#include "connection/EventCount.h"
#include "core/ThreadsLeft.h"
#include "tarnadapterframe/TarnConnectorMgr.h"
#include "tarnadapterframe/TarnLock.h"

#include <ace/Condition_Thread_Mutex.h>
#include <ace/Thread.h>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <vector>

class TarnConnector;
struct ConnectorUses;
class TarnConnectorImpl;

/// The connection manager.
///
/// **Threads.** Callers of the exported operations, connect threads, I/O threads (breaks), and the recycler's
/// timer thread (SweepRubbish).
///
/// Locks, in their order: registry lock, then a facade's use lock, the mutex of the hooks' counts or a connection's
/// parameter lock; a connection's open mutex (in a closing), queue mutex, then a
/// record's lock, or a connection's state, parameter or reference lock; rubbish lock, then a connection's
/// reference lock. pMutex, the thread mutex and the event counts are leaves. Nobody holds the registry lock and
/// the queue mutex together, and hooks run with no lock held but their facade's use lock (read).
class TarnConnectorMgrImpl : public TarnConnectorMgr
{
    friend class TarnConnectorMgr;

public:
    /// The manager if there is one, else null; never creates it.
    static TarnConnectorMgrImpl* Existing();
    /// Takes over a connection that its facade lets go; null is ignored. Without manager it is deleted at once.
    static void RetireConnection(TarnConnectorImpl* pConnector);

    // --- TarnConnectorMgr ---
    int RegisterConnector(TarnConnector* pConnector, bool bWait, int iWaitConnectCount) override;
    int UnRegisterConnector(int iGroupId, unsigned long ulTargetID) override;
    TarnConnector* GetConnectorByID(int iGroupId, unsigned long ulTargetID) override;
    TarnConnector* GetConnectorByHandle(ACE_HANDLE handle) override;
    int ReleaseConnector(TarnConnector* pConnector) override;
    int Connect(TarnConnector* pConnector) override;
    int DisConnect(TarnConnector* pConnector) override;
    int RequestConnect(int iGroupId, unsigned long ulTargetID) override;
    int RequestDisConnect(int iGroupId, unsigned long ulTargetID) override;
    int StopConnectThreads() override;
    int ResumeConnectThreads() override;

    // --- hooks ---

    /// Calls the hook of a registered connector.
    /// @param pResult  the hook's result, -1 when none was called
    /// @param pOnly    call it only if this is the connector's transport; null: whatever it is
    /// @return false: no such connector
    bool OnSockBreak(int iGroupId, std::uint32_t ulTargetID, int* pResult,
                     const TarnConnectorImpl* pOnly = nullptr);
    bool OnConnectOK(int iGroupId, std::uint32_t ulTargetID, int* pResult,
                     const TarnConnectorImpl* pOnly = nullptr);

    /// False inside a hook or a handler call: there the calling thread does not wait for others that may be
    /// waiting for it.
    static bool MayWaitForHooks();
    /// Waits until no thread uses a connector that is not registered, so that nobody begins to: is inside a hook of it, or has
    /// got it from GetConnectorByID. Within a hook it does not wait, and a thread that has got a connector itself waits for
    /// hooks only.
    static void WaitForUses(const TarnConnector& connector);
    /// Sets the state of a connection that has been closed: disconnected, or connecting if it is queued for its next
    /// attempt.
    static void SetClosed(TarnConnectorImpl& connector);

    // --- references ---

    /// Takes or gives back a reference. @return 0, -1 for null
    static int UseConnectorImplAndIncRef(TarnConnectorImpl* pConnector);
    static int ReleaseConnectorImplDecRef(TarnConnectorImpl* pConnector);
    /// The connection under a key with one reference taken, or null.
    TarnConnectorImpl* GetConnectorImplByID(int iGroupId, std::uint32_t ulTargetID);

    // --- connecting ---

    int RequestConnect(TarnConnectorImpl* pConnector);
    int RequestDisConnect(TarnConnectorImpl* pConnector);
    /// Queues a connection for a connect thread.
    /// @param bReconnect  after a break or failure: not before `nConnectSleep` seconds have passed, and not at
    ///                    all with `bNoNeReconnect`
    /// @return 0 queued, or nothing to do; -1 refused
    int EnqueueReadyConnQueue(TarnConnectorImpl* pConnector, bool bReconnect);
    /// Takes a queued connection out again.
    /// @return 0 done; 1 it was not queued; -1 a connect thread holds it; -2 it is being given up just now
    int CancelRequestConnect(TarnConnectorImpl* pConnector);

    /// The engine is being stopped: from now on no connect thread takes work, and no caller repeats attempts.
    void BeginStop();
    /// Connect threads are to end, for good or until they are resumed.
    bool AreThreadsToEnd() const { return m_bExit; }
    /// True on the connect threads.
    static bool IsConnectThread();
    /// Ends the connect threads for good and waits for them.
    void Stop();

    // --- retired connections ---

    int AddRubbishTarnConnectorImpl(TarnConnectorImpl* pConnector);
    /// Deletes retired connections that nobody refers to, and closes those that were retired while open.
    void SweepRubbish();

private:
    friend class TarnConnectorMgr;

    class HookUse;
    struct Registration
    {
        TarnConnector* pConnector; // not owned
        std::uint64_t uNumber;     // tells it from one that takes the key later
    };

    TarnConnectorMgrImpl();
    ~TarnConnectorMgrImpl() override;

    int RegistConnectorImpl(TarnConnector* pConnector, TarnConnectorImpl& connection)
        TARN_EXCLUDES(m_RegistryLock);
    int OpenRegistered(TarnConnectorImpl* pConnector, bool bWait, int iWaitConnectCount);
    bool WaitConnectTarget(TarnConnectorImpl* pConnector, int nAttempts);
    bool TryConnectTarget(TarnConnectorImpl* pConnector, int nAttempts, int& nMade);
    bool RemoveConnector(const ConnectionKey& key, std::uint64_t uNumber) TARN_EXCLUDES(m_RegistryLock);
    static void WaitForUses(const ConnectorUses& uses);
    static ConnectTargetKey KeyOf(TarnConnectorImpl& connector);
    TarnConnector* LendFacadeOf(TarnConnectorImpl& connection) TARN_EXCLUDES(m_RegistryLock);
    static TarnConnector* Lend(TarnConnector& connector);
    static void AcquireUse(TarnConnector& connector) TARN_NO_THREAD_SAFETY_ANALYSIS;
    static void ReleaseUse(TarnConnector& connector) TARN_NO_THREAD_SAFETY_ANALYSIS;
    bool CallHook(const ConnectionKey& key, int* pResult, const TarnConnectorImpl* pOnly,
                  const char* pszOperation, int (TarnConnector::*pfnHook)());

    void FinishOpened(TarnConnectorImpl* pConnector);
    bool Serve(TarnConnectorImpl* pConnector);
    int CloseWhile(TarnConnectorImpl* pConnector, bool (TarnConnectorImpl::*pfnWanted)() const);
    void CloseForRequest(TarnConnectorImpl* pConnector);
    void RenewRequest(TarnConnectorImpl* pConnector);

    // The connect queue
    int putConnectTarget(const ConnectTargetKey& key, CConnectorImplInfo* pInfo);
    int getConnectTarget(ConnectTargetKey& key, CConnectorImplInfo*& pInfo, const ACE_Time_Value& deadline);
    int eraseConnectTarget(const ConnectTargetKey& key);
    int clearConnectQueue();
    bool IsQueueEmpty();
    int FreeRecords(); // that a connect thread may take
    bool TakeFree(ConnectTargetKey& key, CConnectorImplInfo*& pInfo);
    bool WaitForWork(const ACE_Time_Value& deadline);
    void SignalWork();

    // Connect threads
    void EnsureConnectThread();
    void EndConnectThreads();
    static ACE_THR_FUNC_RETURN ConnectThreadProc(void* pManager);
    void RunConnectThread();
    bool ConnectOnePass();
    void ServeTarget(const ConnectTargetKey& key, CConnectorImplInfo& info, std::uint64_t uPausesSeen);
    bool PauseUntilDue(CConnectorImplInfo& info, std::uint64_t uPausesSeen);
    void AfterSuccess(const ConnectTargetKey& key, CConnectorImplInfo& info);
    void AfterFailure(const ConnectTargetKey& key, CConnectorImplInfo& info);
    void ReleaseRecord(CConnectorImplInfo& info, bool bTriedNow);
    bool RemoveRecord(const ConnectTargetKey& key, CConnectorImplInfo& info, const char* pszMissing);
    void AbandonTarget(const ConnectTargetKey& key, CConnectorImplInfo& info);
    void LeaveConnectThread();

    void CloseRetired(TarnConnectorImpl* pConnector);

    TarnRWThreadMutex m_RegistryLock;
    std::map<ConnectionKey, Registration> m_mapConnector TARN_GUARDED_BY(m_RegistryLock);
    std::uint64_t m_uRegistrations TARN_GUARDED_BY(m_RegistryLock) = 0;

    TarnRWThreadMutex m_RubbishLock;
    std::list<TarnConnectorImpl*> m_lstRubbish TARN_GUARDED_BY(m_RubbishLock); // owned

    // Guarded by m_ThreadMutex.
    std::mutex m_ThreadMutex;
    std::condition_variable m_ThreadLeft;
    int m_nConnectThreads = 0; // alive and taking work
    int m_nLeaving = 0;        // taking a last look
    ThreadsLeft m_ThreadsLeft;

    std::atomic<bool> m_bExit{false};     // connect threads are to end
    std::atomic<bool> m_bStopping{false}; // for good

    // Constant after construction.
    std::unique_ptr<MAPCONNECTTARGET> m_pConnectQueque; // what it holds is guarded by *m_pConnectQuequeMutex
    std::unique_ptr<TarnThreadMutex> m_pConnectQuequeMutex;
    std::unique_ptr<ACE_Thread_Mutex> pMutex;
    std::unique_ptr<ACE_Condition<ACE_Thread_Mutex>> m_SyncQueEmpty; // on *pMutex

    SETFREETARGET m_FreeTargets;  // the queue's records that are not busy; guarded by *m_pConnectQuequeMutex
    bool m_bQueueHasWork = false; // guarded by *pMutex
    EventCount m_Work;            // a record was queued, or the threads are to end
    EventCount m_PauseOver; // a first request was queued, a record is wanted back, or the threads are to end
    EventCount m_RecordFreed; // a connect thread has let go of a record
};

#endif
