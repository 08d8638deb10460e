#ifndef TARNADAPTERFRAME_TEADAPTERMANAGER_H
#define TARNADAPTERFRAME_TEADAPTERMANAGER_H

#include "tarnadapterframe/Export.h"
#include "tarnadapterframe/TEMessageInfo.h"
#include "tarnadapterframe/TarnLock.h"

#include <ace/Manual_Event.h>
#include <ace/Thread.h>
#include <ace/Time_Value.h>

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <utility>
#include <vector>

ACE_BEGIN_VERSIONED_NAMESPACE_DECL
class ACE_Reactor;
ACE_END_VERSIONED_NAMESPACE_DECL

struct CorrelationSpares;
class TEMessage;
class TEMessageAdapter;
class StopGate;
class TEMessageTimer;
class TarnProtocolAdapter;
class ThreadCount;

/// Registrar: a static instance adds one message adapter to the list of one message class (the list that the
/// class's GetMessageAdapterVec returns). The lists are filled at every start of the library; a registrar
/// that runs later takes effect at the next start. Registrars run while libraries are loaded, never beside a
/// start.
class TARN_ADAPTER_API TEInitMessageAdapter
{
public:
    /// Both must live as long as the process, since every start fills the lists again.
    /// @param pMsgAdapterList  the class-wide list
    /// @param pMsgAdapter      the adapter, not owned; given twice it is listed twice
    TEInitMessageAdapter(std::vector<TEMessageAdapter*>* pMsgAdapterList, TEMessageAdapter* pMsgAdapter);
};

/// The centre of the framework: the protocol adapters by protocol id, the framing dispatch, the correlation
/// of sink messages with their source, and the timer that expires asynchronous messages.
///
/// Init and Destroy are for the host's thread, through tarnadapter. Every other operation may be called from
/// any thread; the correlation operations order themselves by one recursive lock. No operation calls an
/// adapter with a lock of the framework held.
///
/// **Who owns a source message.** From RegisterPrivateMessage on, the timer may expire an asynchronous
/// message at any tick and hand it to TEMessageAdapter::HandleAsyncError, which by default deletes it.
/// Whoever brings an answer therefore finds and unregisters the source in one piece, and touches it only when
/// it was found:
///
///     TEMessage* pSource = nullptr;
///     void* pUserData = nullptr;
///     bool bFound = false;
///     {
///         const TEMsgMapGuard guard; // AcquireMsgMapMtx, ReleaseMsgMapMtx
///         auto it = manager->FindSrcMsgInfo(sourceUnit, bFound);
///         if (bFound)
///         {
///             pSource = it->second.pSource;
///             pUserData = it->second.pUserData;
///             manager->UnRegisterSourceMessage(pSource); // the record, and the iterator with it, are gone
///         }
///     }
///     // found: source and user data are the caller's; not found: they are somebody else's, or gone
///
/// For the same reason hold the lock from RegisterPrivateMessage to the last RegisterMessage of an
/// asynchronous source whose timeout may be short.
class TARN_ADAPTER_API TEAdapterManager
{
public:
    /// Sink message -> its source message.
    using MapSinkToSource = std::map<TEMessageUnit, TEMessageUnit>;
    /// Source message -> its record.
    using MapMsgInfo = std::map<TEMessageUnit, TEMessageInfo>;

    /// The manager, created on first use; null when ACE's process-wide lock cannot be taken.
    static TEAdapterManager* Instance();
    /// Stops and deletes the manager, if there is one. tarnadapter::Fini calls it; nobody may use the manager
    /// any more. Blocks until its threads have ended.
    static void Destroy();

    /// Starts the manager; tarnadapter::Init calls it.
    /// @return 0 when it runs afterwards, -1 when something could not be created (logged); it may then be
    ///         called again
    int Init();

    /// Registers an adapter under an id and takes it over: it is deleted when the manager is destroyed, once,
    /// under however many ids it was registered.
    /// @param ulProtocolID   the adapter's own id: framing goes by this one, correlation by the adapter's.
    ///                       Not 0; 1 is the framework's
    /// @param pProtocolMgr   the adapter
    /// @param bStartAsyncIO  start asynchronous I/O now, or with the manager when that is not started yet;
    ///                       how that later start went is then in the log only
    /// @return 0 registered; 1 the id is taken, nothing changed and the adapter stays its caller's; -1
    ///         refused (the adapter stays its caller's), or asynchronous I/O could not be started: the
    ///         adapter is then unregistered again, but the manager's
    int RegisterProtocolAdapter(std::uint32_t ulProtocolID, TarnProtocolAdapter* pProtocolMgr,
                                bool bStartAsyncIO) TARN_EXCLUDES(m_RegistryMutex);
    /// Takes an adapter out of use. It stays alive until the manager is destroyed, since other threads may
    /// still be inside it. @return 0, or -1 when the id is not registered.
    int UnRegisterProtocolAdapter(std::uint32_t ulProtocolID) TARN_EXCLUDES(m_RegistryMutex);
    /// The adapter registered under an id, or null, which is logged. It stays alive until the manager is
    /// destroyed.
    TarnProtocolAdapter* GetProtocolAdapter(std::uint32_t ulProtocolID) TARN_EXCLUDES(m_RegistryMutex);

    /// Framing dispatch: asks the adapter registered under ulProtocolID for the first whole message in data,
    /// see TarnProtocolAdapter::CheckMessageValid. Called by connections on their I/O threads.
    /// @return above 0 the length of the message; 0 wait for more bytes (also without adapter and while the
    ///         application is exiting); -1 the bytes are not valid
    int CheckMessageValid(void* pHandle, std::vector<unsigned char>& data, std::uint32_t ulProtocolID)
        TARN_EXCLUDES(m_RegistryMutex);

    /// Announces a source message that its message adapter will answer. A source announced before keeps its
    /// record, adapter and timeout; user data that is not null replaces the record's.
    /// @param pSource      the source, not owned
    /// @param pMsgAdapter  told when the source expires, not owned
    /// @param pUserData    a TEMsgUserData or null, not owned
    /// @param nTimeOut     seconds, kept in the record; expiry goes by the message's own
    /// TEMessage::SetTimeOut
    /// @return 0, or -1 for a null source or adapter
    int RegisterPrivateMessage(TEMessage* pSource, TEMessageAdapter* pMsgAdapter, void* pUserData,
                               int nTimeOut);
    /// Announces a sink message sent for a source. A source that was not announced gets a record without
    /// message adapter. @return 0, or -1 for a null message.
    int RegisterMessage(TEMessage* pSource, TEMessage* pSink);
    /// Forgets a source and the links of all its sink messages; deletes neither message, user data nor
    /// adapter.
    /// @return 0, also when the source was not announced; -1 for null
    int UnRegisterSourceMessage(TEMessage* pSource);
    /// Forgets one sink message; the source's record stays. @return 0, also when it was not announced; -1 for
    /// null.
    int UnRegisterSinkMessage(TEMessage* pSinkMsg);

    /// Takes the correlation lock (recursive), for callers that keep an iterator. While it is held every tick
    /// and every correlation of other threads waits, so hold it for a few operations only and never wait
    /// inside it.
    /// @return 0, or -1
    int AcquireMsgMapMtx() TARN_ACQUIRE(m_MsgMapMtx);
    /// Gives the correlation lock back. @return 0, or -1.
    int ReleaseMsgMapMtx() TARN_RELEASE(m_MsgMapMtx);

    /// Finds the source of a sink message. The iterator is good while the caller holds the correlation lock.
    /// @param bFound  set to whether it was found; the iterator is the map's end when not
    MapSinkToSource::iterator FindSrcMsgUnit(const TEMessageUnit& sinkUnit, bool& bFound);
    /// Finds the record of a source message; the same rules.
    MapMsgInfo::iterator FindSrcMsgInfo(const TEMessageUnit& sourceUnit, bool& bFound);

    /// Erase the entry at an iterator that a Find operation returned under the lock still held.
    /// @return 0, or -1 for the map's end
    int EraseFromUnitMap(MapSinkToSource::iterator it);
    int EraseFromInfoMap(MapMsgInfo::iterator it);

    /// Insert an entry; a key that is there already keeps its value. @return 0.
    /// The record is copied, so an owned message stays with the caller's record.
    int InsertToUnitMap(const MapSinkToSource::value_type& entry);
    int InsertToInfoMap(const MapMsgInfo::value_type& entry);

    TEAdapterManager(const TEAdapterManager&) = delete;
    TEAdapterManager& operator=(const TEAdapterManager&) = delete;

private:
    friend class TEMessageTimer;
    friend class TarnAsn1Message;

    TEAdapterManager();
    ~TEAdapterManager();

    using AdapterMap = std::map<std::uint32_t, TarnProtocolAdapter*>;
    using AdapterEntry = std::pair<std::uint32_t, TarnProtocolAdapter*>;

    // Registration
    bool InsertProtocolAdapter(std::uint32_t ulProtocolID, TarnProtocolAdapter* pProtocolMgr)
        TARN_EXCLUDES(m_RegistryMutex);
    bool RetireProtocolAdapter(std::uint32_t ulProtocolID, const TarnProtocolAdapter* pOnly)
        TARN_EXCLUDES(m_RegistryMutex);
    bool RequestAsyncIO();
    static int StartAsyncIO();

    // Start; each logs its own failure and takes back what it has created
    bool CreateReactor();
    bool CreateMessageTimer();
    bool SpawnTimerThread();
    void DeleteMessageTimer();
    void DeleteReactor();

    // Stop
    void StopThreads();
    void StopMessageTimer();
    void ClearMessageMaps() TARN_EXCLUDES(m_MsgMapMtx);
    void DeleteProtocolAdapters() TARN_EXCLUDES(m_RegistryMutex);
    static AdapterEntry TakeFirst(AdapterMap& mapAdapter);
    AdapterEntry TakeRegistered() TARN_EXCLUDES(m_RegistryMutex);
    AdapterEntry TakeRetired() TARN_EXCLUDES(m_RegistryMutex);
    bool IsRegistered(const TarnProtocolAdapter* pAdapter) TARN_EXCLUDES(m_RegistryMutex);
    TarnProtocolAdapter* FirstOwned() TARN_EXCLUDES(m_RegistryMutex);
    void DeleteIfOwned(TarnProtocolAdapter* pAdapter) TARN_EXCLUDES(m_RegistryMutex);
    void WaitForTimerThread();

    // Body of the timer thread; p is the manager.
    static ACE_THR_FUNC_RETURN StartTimerEventLoop(void* p);
    void RunTimerEventLoop();

    // One tick, on the timer thread. Neither argument is looked at.
    int HandleTimeOut(const ACE_Time_Value& currentTime, const void* pArg);
    void CollectExpired(MapMsgInfo& mapExpired) TARN_EXCLUDES(m_MsgMapMtx);
    bool IsAsynchronousLocked(MapMsgInfo::iterator& it) TARN_REQUIRES(m_MsgMapMtx);
    static bool HasExpiredLocked(TEMessageInfo& info);
    void EraseSourceLocked(MapMsgInfo::iterator it) TARN_REQUIRES(m_MsgMapMtx);
    void UnlinkExpiredSinksLocked(const TEMessageInfo& info) TARN_REQUIRES(m_MsgMapMtx);

    // Guarded by m_MsgMapMtx.
    MapSinkToSource m_mapSinkToSource TARN_GUARDED_BY(m_MsgMapMtx);
    MapMsgInfo m_mapMsgInfo TARN_GUARDED_BY(m_MsgMapMtx);
    const std::unique_ptr<CorrelationSpares> m_pSpares TARN_PT_GUARDED_BY(m_MsgMapMtx);
    std::uint64_t m_uErasedInfos TARN_GUARDED_BY(m_MsgMapMtx) = 0; // by other operations than the tick
    TarnRecursiveThreadMutex m_MsgMapMtx;

    // Set by Init before the timer thread exists, cleared by the destructor; owned.
    TEMessageTimer* m_pMessageTimer = nullptr;

    // Guarded by m_RegistryMutex, which is held for the map operation only.
    AdapterMap m_mapProtocolAdapter TARN_GUARDED_BY(m_RegistryMutex);
    AdapterMap m_mapRetiredAdapter TARN_GUARDED_BY(m_RegistryMutex);
    TarnThreadMutex m_RegistryMutex;

    // Set by Init before the timer thread exists, deleted after that has ended; owned.
    ACE_Reactor* m_pReactor = nullptr;

    // The timer thread, while it runs. Outlives the manager until that thread has ended for good.
    const std::shared_ptr<ThreadCount> m_pTimerThreads;

    // Set by the constructor: registered under id 1, never deleted here; null in a library without it.
    TarnProtocolAdapter* m_pBuiltInAdapter = nullptr;
    // Every adapter that was ever taken over: each is deleted once, whichever maps it is in.
    std::set<TarnProtocolAdapter*> m_setOwnedAdapter TARN_GUARDED_BY(m_RegistryMutex);
    // Signalled by a timer thread that has counted itself, or has given up before.
    ACE_Manual_Event m_TimerThreadStarted;
    // Passed by requests to start asynchronous I/O, and by ticks; shut by the stop.
    const std::unique_ptr<StopGate> m_pStartGate;
    const std::unique_ptr<StopGate> m_pTickGate;

    /// Takes a source that is being destroyed out of the maps, if it is in there. Silent; without manager nothing.
    static void ForgetSourceMessage(const TEMessage& source);

    static std::atomic<TEAdapterManager*> m_pInstance;
    static std::atomic<bool> s_bDestroying; ///< a thread is inside Destroy
    static std::atomic<bool> s_bStarted;    ///< Init has succeeded, the manager has not been destroyed since
    static std::atomic<bool>
        s_bAsyncIOPending; ///< asynchronous I/O was asked for before the start; never cleared
};

/// Holds the manager's correlation lock for its own lifetime, also when an exception ends that.
class TEMsgMapGuard
{
public:
    TEMsgMapGuard() TARN_NO_THREAD_SAFETY_ANALYSIS : m_pManager(TEAdapterManager::Instance())
    {
        m_pManager->AcquireMsgMapMtx();
    }
    ~TEMsgMapGuard() TARN_NO_THREAD_SAFETY_ANALYSIS { m_pManager->ReleaseMsgMapMtx(); }
    TEMsgMapGuard(const TEMsgMapGuard&) = delete;
    TEMsgMapGuard& operator=(const TEMsgMapGuard&) = delete;

private:
    TEAdapterManager* const m_pManager;
};

#endif
