#ifndef TARN_ASYNCIO_TEASYNCIOMGRIMPL_H
#define TARN_ASYNCIO_TEASYNCIOMGRIMPL_H

#include "core/ActiveThreads.h"
#include "core/LibraryThread.h"
#include "core/StopGate.h"
#include "core/ThreadCount.h"
#include "tarnadapterframe/TEAsyncIOMgr.h"
#include "tarnadapterframe/TarnLock.h"

// The queue's header does not include what its locking needs.
#include <ace/Condition_Thread_Mutex.h>
#include <ace/Null_Mutex.h>
#include <ace/Thread_Mutex.h>

#include <ace/Message_Queue.h>
#include <ace/Thread.h>

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <vector>

ACE_BEGIN_VERSIONED_NAMESPACE_DECL
class ACE_Reactor;
ACE_END_VERSIONED_NAMESPACE_DECL

class Report_Message_Queue;
class TEIOHandlerRecycler;
class TEIOReactor;
class TarnConnectorImpl;

/// The engine of asynchronous I/O: two reactors with their threads, the registered connections, and the queues
/// with the threads that handle messages.
///
/// Locks, in their order: a connection's registration mutex and descriptor guard, registry lock, then a connection's parameter and
/// reference locks; a connection's send lock and descriptor guard, then the I/O reactor's gate and token; in the stop
/// only, registry lock, then the token. The others are leaves.
class TEAsyncIOMgrImpl : public TEAsyncIOMgr
{
public:
    /// The engine if there is one, else null; never creates it.
    static TEAsyncIOMgrImpl* Existing();

    /// Creates and starts everything. What cannot be created is logged and missing. Once; later calls return
    /// at once, also while the first is at work. @return 0
    int Init();

    /// Ends all threads and waits for them, with a line in the log every second. Connections are taken out of
    /// the reactor, neither closed nor told; nothing is registered any more. Once; a second caller waits.
    /// Neither on a thread of the library nor with a lock held that one may want.
    void Stop();

    // --- TEAsyncIOMgr ---
    int SendToOutBuffer(ACE_HANDLE handle, const char* pData, int iLength) override;
    int AddTERspMessageData(TEMessage* pMessage) override;
    int AddTERptMessageData(TEMessage* pMessage) override;

    /// Whose a message is after it has been handed over.
    enum class Handing
    {
        QUEUED,  ///< the queue's
        KEPT,    ///< refused, and still the caller's
        DELETED, ///< nobody's: discarded, or the caller waited for room until the stop
    };
    Handing QueueResponse(TEMessage* pMessage);
    Handing QueueReport(TEMessage* pMessage);

    // --- connections ---

    /// Has an open connection's bytes read and written. Waits until no call of an earlier registration of the
    /// connection is left.
    /// @return 0; -1 null, or the handle is registered already; ADAPTER_ERR_INVALID_HANDLE;
    ///         ADAPTER_ERR_REACTOR the reactor refused it, or the engine is being stopped
    int RegisterHandle(TarnConnectorImpl* pConnector);
    /// The same, only if the session is still the connection's; ADAPTER_ERR_INVALID_HANDLE otherwise.
    int RegisterSession(TarnConnectorImpl* pConnector, std::uint32_t ulSession);
    /// Takes a connection out. Does not wait for calls under way. @return 0, -1 for null
    int UnregisterHandle(TarnConnectorImpl* pConnector);
    /// The same, only if the session is still the connection's.
    void UnregisterSession(TarnConnectorImpl* pConnector, std::uint32_t ulSession);
    /// The same, only if the connection's facade is still being unregistered.
    void UnregisterIfLeaving(TarnConnectorImpl& connector);
    /// The same for a caller that holds the connection's registration mutex.
    void UnregisterLocked(TarnConnectorImpl& connector);
    /// The connection registered under a handle with one reference taken, or null.
    TarnConnectorImpl* FindConnectorImpl(ACE_HANDLE handle) TARN_EXCLUDES(m_RegistryLock);

    /// Notes that the reactor has dropped a connection by itself: its descriptor was closed behind the library's
    /// back. An I/O thread breaks the connection soon. Called with the reactor's token held.
    void ReportDropped(TarnConnectorImpl& connector);

    /// The I/O reactor; null before Init, and when it could not be created.
    TEIOReactor* Reactor() { return m_pReactorImpl; }

private:
    friend class TEAsyncIOMgr;

    TEAsyncIOMgrImpl();
    ~TEAsyncIOMgrImpl() override;

    // Start
    void InitOnce();
    void CreateIOReactor();
    void CreateTimerReactor();
    void ScheduleRecycler();
    void SpawnLoopThreads();
    void CreateResponseQueue();
    void CreateReportQueue();
    void StartSerialSending();
    int Spawn(ACE_THR_FUNC pfnBody, int nThreads, ThreadSignals eSignals, const char* pszFailure);

    // Thread bodies
    static ACE_THR_FUNC_RETURN StartEventLoop(void* pManager);
    static ACE_THR_FUNC_RETURN StartTimerEventLoop(void* pManager);
    static ACE_THR_FUNC_RETURN AppHandleRspMessageLoop(void* pManager);
    static ACE_THR_FUNC_RETURN AppHandleRptMessageLoop(void* pManager);
    void RunEventLoop();
    void RunTimerEventLoop();
    void RunRspMessageLoop();
    void RunRptMessageLoop();
    static void HandleMessages(ACE_Message_Queue<ACE_MT_SYNCH>& queue);

    // Stop
    void StopOnce();
    void DeleteRecycler();
    void RemoveAllHandlers() TARN_EXCLUDES(m_RegistryLock);
    void EndLoops();
    void PutStopEntries();
    void WaitForThreads();
    void LetProducersGo();
    void AbandonConnections() TARN_EXCLUDES(m_RegistryLock);

    // Registration
    int Register(TarnConnectorImpl& connector, const std::uint32_t* pOnlySession);
    int RegisterOpenHandle(TarnConnectorImpl& connector, const std::uint32_t* pOnlySession);
    bool WaitForOldCalls(TarnConnectorImpl& connector, const std::uint32_t* pOnlySession);
    int InsertConnection(ACE_HANDLE handle, TarnConnectorImpl& connector) TARN_EXCLUDES(m_RegistryLock);
    int RegisterInReactor(ACE_HANDLE handle, TarnConnectorImpl& connector);
    int TakeBackRegistration(ACE_HANDLE handle, int iResult) TARN_EXCLUDES(m_RegistryLock);
    bool EraseConnection(ACE_HANDLE handle, TarnConnectorImpl& connector) TARN_EXCLUDES(m_RegistryLock);
    void RemoveFromReactor(ACE_HANDLE handle, TarnConnectorImpl& connector);
    void BreakDropped();

    std::once_flag m_InitOnce;
    std::once_flag m_StopOnce;
    // Registrations are let in until the stop.
    StopGate m_RegisterGate{"TEAsyncIOMgrImpl::Stop"};
    // Callers that queue messages; turned away once nobody takes messages any more.
    StopGate m_ProducerGate{"~TEAsyncIOMgrImpl"};

    // Set by Init, constant afterwards; another thread may ask while Init is at work.
    std::atomic<ACE_Reactor*> m_pReactor{nullptr};
    std::atomic<TEIOReactor*> m_pReactorImpl{nullptr};
    std::atomic<ACE_Reactor*> m_pTimerReactor{nullptr};
    std::atomic<ACE_Message_Queue<ACE_MT_SYNCH>*> m_pRspMsgQueue{nullptr}; // null: no response threads
    std::atomic<Report_Message_Queue*> m_pRptMsgQueue{nullptr};            // null: no report threads
    std::unique_ptr<TEIOHandlerRecycler> m_pRecycler;
    int m_nRspThreads = 0;
    int m_nRptThreads = 0;

    ActiveThreads m_ActiveLoops;     // of the I/O reactor's
    ActiveThreads m_ActiveResponses; // of the response queue's
    ThreadStart m_ThreadStart;
    int m_nSpawned = 0; // Init's own
    ThreadCount m_LoopThreads;
    ThreadCount m_AppThreads;

    TarnThreadMutex m_RegistryLock;
    std::map<ACE_HANDLE, TarnConnectorImpl*> m_mapConnector TARN_GUARDED_BY(m_RegistryLock);

    std::mutex m_DroppedMutex;                 // a leaf
    std::vector<TarnConnectorImpl*> m_Dropped; // with a reference each; guarded by m_DroppedMutex
    std::atomic<bool> m_bDropped{false};       // there are some
};

#endif
