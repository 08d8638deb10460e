#ifndef TARN_CONNECTION_TARNCONNECTORIMPL_H
#define TARN_CONNECTION_TARNCONNECTORIMPL_H

#include "connection/DescriptorGuard.h"
#include "connection/HookQueue.h"
#include "connection/InputBuffer.h"
#include "core/BriefQueue.h"
#include "tarnadapterframe/ConnectionTypes.h"
#include "tarnadapterframe/TarnLock.h"

#include <ace/Event_Handler.h>
#include <ace/Monotonic_Time_Policy.h>
#include <ace/OS_NS_Thread.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

class HandlerCall;
class TarnConnector;

/// Whether the owner is told of the end of a session.
enum class BreakTold
{
    YES,
    IF_OPENING_WAS, ///< only if he was, or is going to be, told of its opening
    NO,
};

/// Outcome of a claim to end a session.
enum class BreakClaim
{
    NOT_MINE, ///< somebody else has ended it
    SILENT,
    TELL, ///< the place among the hooks is reserved
};

/// One connection to a network element: identity and settings, the descriptor, what is waiting to be sent and
/// to be framed. Base of the transports, and the handler that the I/O reactor calls.
///
/// **Threads.** handle_input, handle_output and handle_close run on I/O threads; for one registration never
/// two at a time, and a new registration waits until the calls of the old one have left, so the buffers need
/// no lock. A thread that sends a request and then waits for its answer may write by itself, which counts as such
/// a call; framing and breaks are left to the I/O threads. handle_close also runs inside UnregisterHandle, with the
/// reactor's token held. All else may be called from any thread.
///
/// **Life.** Owned by its facade until retired, then by the connection manager, which deletes it when nobody
/// refers to it. References are counted twice: those that the framework's threads take (IncRef), and the pins
/// of the reactor and of the facade's callers.
///
/// **Openings.** Each time a descriptor is stored a new session begins, with a number of its own. Whoever
/// found a session broken can only end that one: it may be over already, and the next one healthy.
///
/// Locks, in their order: open/close mutex, registration mutex or send lock, descriptor guard; then the reactor's
/// token, the state lock, the parameter lock or the reference lock, each without another of these but the parameter
/// lock, which comes after the state lock. The others are leaves.
class TarnConnectorImpl : public ACE_Event_Handler
{
public:
    explicit TarnConnectorImpl(TarnConnector* pOwner);
    /// Waits as WaitUntilUnused does.
    ~TarnConnectorImpl() override;

    TarnConnectorImpl(const TarnConnectorImpl&) = delete;
    TarnConnectorImpl& operator=(const TarnConnectorImpl&) = delete;

    // --- ACE_Event_Handler ---

    /// Stores the handle; a valid one begins a session. What is served under the old one is taken out of the
    /// reactor first. Must not be called with the descriptor guard held.
    void set_handle(ACE_HANDLE handle) override
        TARN_EXCLUDES(m_RegistrationMutex, m_DescriptorGuard, m_ParameterLock);
    /// @return 1 call again at once, 0 done for now, -2048 the connection is broken and unregistered
    int handle_input(ACE_HANDLE handle) override;
    int handle_output(ACE_HANDLE handle) override;
    int handle_timeout(const ACE_Time_Value& currentTime, const void* pArg) override;
    int handle_close(ACE_HANDLE handle, ACE_Reactor_Mask mask) override;

    // The reactor's pins: one for a registration and one for each call.
    Reference_Count add_reference() override;
    Reference_Count remove_reference() override;

    // --- the transport ---

    /// Parses the transport's parameters. @return 0, or negative
    virtual int InitCommuPara(std::vector<void*>& vctParas) = 0;
    /// Reports the parameters. @return false when the stored protocol type is not the transport's own
    virtual bool GetCommuPara(ECommuProtocolType& eType, unsigned long& ulIP, unsigned short& usPort,
                              std::string& strFirst, std::string& strSecond, std::string& strThird,
                              unsigned long& ulNumber) = 0;
    /// Opens the connection; what becomes of one that is open is the transport's. Attempts and closings run one
    /// after the other.
    /// @return 0 open, -1 failed
    virtual int Connect() = 0;
    /// The same for an attempt that has waited for its turn: on a connection that is open by then it is done.
    virtual int ConnectQueued() { return Connect(); }
    /// Closes the connection. @return 0 closed, -1 it did not close
    virtual int DisConnect() = 0;

    /// Queues bytes for sending and has them sent, see TEAsyncIOMgr::SendToOutBuffer.
    /// @return 0 queued, or no memory (logged); -1 refused
    virtual int AddAndSendData(const char* pData, int iLength) TARN_EXCLUDES(m_SendLock);
    virtual ACE_HANDLE GetHandle();
    virtual void* GetSocketStream();
    /// Receives once and frames what there is. @return above 0 more may be waiting, 0 done, below 0 broken
    virtual int Read();
    /// Sends what is queued, a bounded number of bytes. @return 0 all sent, -1 failed, MORE_LATER
    virtual int Write();
    /// One attempt to send. @return bytes sent, fewer when the socket takes no more now, or -1
    virtual int SendData(const char* pBuf, int iLength) TARN_EXCLUDES(m_DescriptorGuard);
    /// One attempt to receive. @return bytes received, 0 nothing now, -1 closed or failed
    virtual int RecvData(char* pBuf, int iLength) TARN_EXCLUDES(m_DescriptorGuard);

    /// True while the connection or its transport holds received bytes, which no descriptor announces.
    virtual bool HasBufferedInput() { return m_Ahead.uLeft != 0; }

    /// Result of Write: bytes are left, for the next time.
    static constexpr int MORE_LATER = 1;

    // --- settings, each under the parameter lock ---

    void SetConnTimeOut(int iSeconds);
    int GetConnTimeOut();
    void SetConnectCount(int iCount);
    int GetConnectCount();
    void IncConnectCount();
    void SetMaxConnectCount(int iCount);
    int GetMaxConnectCount();
    void SetGroupID(int iGroupID);
    int GetGroupID();
    void SetTargetID(std::uint32_t ulTargetID);
    std::uint32_t GetTargetID();
    void SetControlFlag(int iControlFlag);
    int GetControlFlag();
    /// Sets and clears bits in one step.
    void ChangeControlFlag(int iSet, int iClear);
    bool IsControlParaTrue(int iMask) const;
    void SetCommuProtType(ECommuProtocolType eType);
    ECommuProtocolType GetCommuProtType();
    void SetAdapterProtocolID(std::uint32_t ulProtocolID);

    EConnectState GetState() TARN_EXCLUDES(m_StateLock);
    void SetState(EConnectState eState) TARN_EXCLUDES(m_StateLock);
    /// Nobody attempts to open the connection any more: it is disconnected, unless somebody has opened it.
    void SetDisconnectedUnlessOpen() TARN_EXCLUDES(m_StateLock, m_ParameterLock);
    /// The same for a state that says the connection is open, but not for a queued one.
    void SetDisconnectedIfConnected() TARN_EXCLUDES(m_StateLock, m_ParameterLock);

    // --- references ---

    void IncRef() TARN_EXCLUDES(m_ReferenceLock);
    void DecRef() TARN_EXCLUDES(m_ReferenceLock);
    int GetRefCount() TARN_EXCLUDES(m_ReferenceLock);
    /// Logs which threads hold references, when they are recorded.
    void DumpRefThreadInfo() TARN_EXCLUDES(m_ReferenceLock);
    /// The reactor's reference, one while it has the connection. It may drop a descriptor that the host has
    /// closed while another thread takes the same out, so whoever comes first releases it.
    void TakeReactorReference();
    void ReleaseReactorReference();
    bool IsReferredToByReactor() const { return m_bReactorReference; }
    /// The references of the registry and the reactor of an engine that is gone: nobody will ever release them.
    /// The open session may be served and announced anew.
    void AbandonReferences();
    void ForgetReferences();
    /// Pins by callers of the facade.
    void Pin();
    void Unpin();
    /// True when nobody refers to the connection, neither by reference nor by pin.
    bool IsUnused();

    /// The facade has let go of the connection: it is not opened, served or heard of again. @return false when it had
    /// before
    bool Retire() { return !m_bRetired.exchange(true); }
    bool IsRetired() const { return m_bRetired; }
    /// Its facade is being unregistered, or not registered again yet: it is not opened.
    void SetLeaving(bool bLeaving) { m_bLeaving = bLeaving; }
    bool IsLeaving() const { return m_bLeaving; }
    /// The connection is not to be open: its closing was requested, or its facade is leaving or has let it go.
    bool IsUnwanted() const { return IsControlParaTrue(EXIT_CONNECT) || m_bLeaving || m_bRetired; }

    // --- sessions ---

    /// The session whose descriptor is open; 0 when none is.
    std::uint32_t OpenSession() TARN_EXCLUDES(m_DescriptorGuard);
    /// The session that the I/O manager serves, if it is open and nobody is ending it; else 0.
    std::uint32_t ServedSession() TARN_EXCLUDES(m_DescriptorGuard);
    /// True when this is the last session, open or not. Within the descriptor guard.
    bool IsSession(std::uint32_t ulSession) const { return m_ulSession == ulSession; }
    /// Claims, for one caller only, to have the open session served and announced: its place among the hooks
    /// is reserved. @return the session, or 0: not open, or claimed already
    std::uint32_t ClaimOpened();
    /// Tells the owner that the claimed session has been opened.
    void PostOpened() { m_Hooks.PostOpened(); }
    /// Claims, for one caller only, to end a session. Whoever is to tell must call PostBroken when it is over.
    BreakClaim ClaimBreak(std::uint32_t ulSession, BreakTold eTold);
    void PostBroken(HookEvent eEvent) { m_Hooks.PostBroken(eEvent); }
    /// Waits until everything that has been posted has been told. @return false when the time was over first
    bool WaitForHooks(std::chrono::milliseconds timeout) { return m_Hooks.WaitUntilDelivered(timeout); }
    /// Closes the connection if the session is still the open one.
    virtual void CloseSession(std::uint32_t ulSession) TARN_EXCLUDES(m_OpenMutex);
    /// Ends a session that was opened but cannot be served: closed, announced, and queued for reconnection.
    void BreakUnserved(std::uint32_t ulSession);
    /// Ends the session that is being served, if there is one: unregistered, closed (AUTO_CONNECT), announced,
    /// and queued for reconnection. Not with the reactor's token held.
    void BreakServed();

    // --- for the I/O manager ---

    /// Held for the whole of registering, of unregistering, and of closing or storing the descriptor: one that
    /// overtook the other half-way would leave the reactor with a handler that the registry does not know, or
    /// with a number that belongs to somebody else.
    TarnThreadMutex& RegistrationMutex() TARN_RETURN_CAPABILITY(m_RegistrationMutex)
    {
        return m_RegistrationMutex;
    }
    DescriptorGuard& Descriptor() TARN_RETURN_CAPABILITY(m_DescriptorGuard) { return m_DescriptorGuard; }
    /// Notes that the open session is being served, or that none is. Within the descriptor guard.
    void SetServed(bool bServed);
    bool IsServed() const { return m_ulServed != 0; }
    /// The read buffer. For handler calls.
    const InputBuffer& Input() const { return m_Input; }
    /// Whether the I/O manager's registry holds the connection, served by the reactor or not.
    void SetRegistered(bool bRegistered) { m_bRegistered = bRegistered; }
    bool IsRegistered() const { return m_bRegistered; }
    /// Waits until no reactor call of an earlier registration is left; the calling thread's own does not
    /// count. @return false when the time was over first
    bool WaitForOldCalls(std::chrono::milliseconds timeout);

protected:
    /// Waits until nobody refers to the connection, with a line in the log every second. A transport's destructor
    /// begins with it: whoever still refers to the connection may be using what the transport adds.
    void WaitUntilUnused();
    /// Stores a handle within the descriptor guard.
    void StoreHandle(ACE_HANDLE handle) TARN_REQUIRES(m_DescriptorGuard) TARN_EXCLUDES(m_ParameterLock);
    /// Closes the descriptor by `close` and forgets the handle when that returns 0, in one step; a leftover
    /// registration is taken back before. @return close's result
    int CloseDescriptor(const std::function<int()>& close)
        TARN_EXCLUDES(m_RegistrationMutex, m_DescriptorGuard) TARN_REQUIRES(m_OpenMutex);
    /// Has the reactor announce that the socket takes bytes, or not.
    void SwitchWriteEvents(bool bOn) TARN_EXCLUDES(m_DescriptorGuard);
    /// Receives once, of the calling thread's session. @return bytes, 0 at the end, or -1 with the error
    virtual int ReceiveOnce(char* pBuf, int iLength, int& iError) TARN_EXCLUDES(m_DescriptorGuard);
    /// The same, of more that is received at once where that may be.
    int ReceiveAhead(char* pBuf, int iLength, int& iError) TARN_EXCLUDES(m_DescriptorGuard);
    /// Sends until all is sent or the socket takes no more now. @return bytes sent, or -1 with the error
    int SendAll(const char* pBuf, int iLength, int& iError) TARN_EXCLUDES(m_DescriptorGuard);
    /// The handle for one non-blocking call; invalid when the calling thread's handler call belongs to an
    /// earlier session. Within the descriptor guard.
    ACE_HANDLE UsableHandle();

    using OutQueue = BriefQueue<ACE_Monotonic_Time_Policy>;
    // Has a lock of its own. Its waits follow a steady clock, so that a change of the system's time delays no sender.
    const std::unique_ptr<OutQueue> m_pOutQueue;
    // What has been taken out of the queue to be sent. Touched only by the thread that sends: from handler calls, one
    // at a time, or by a transport's own sending thread.
    std::vector<unsigned char> m_WriteBuffer;

    std::uint32_t AdapterProtocolID() const { return m_ulAdapterProtocolID; }

    // Held by attempts to connect for as long as they take, and by closings. Recursive: a closing that has
    // looked at the session first closes inside.
    TarnRecursiveThreadMutex m_OpenMutex;
    TarnThreadMutex m_RegistrationMutex;
    DescriptorGuard m_DescriptorGuard;
    mutable TarnRWThreadMutex m_ParameterLock;

private:
    class Reference;
    struct Release
    {
        void operator()(ACE_Message_Block* pBlock) const { pBlock->release(); }
    };
    using BlockPtr = std::unique_ptr<ACE_Message_Block, Release>;
    struct OutputBlock
    {
        std::uint32_t ulThreadId; // who queued it
        std::size_t uRest;        // bytes not yet sent
    };

    struct ReceivedAhead
    {
        std::vector<char> room;
        std::size_t uTaken = 0; // of it
        std::size_t uLeft = 0;  // behind those
    };

    static constexpr int BROKEN = -2048;

    bool WaitUntilUnpinned(std::chrono::milliseconds timeout);
    int TryRead();
    int TryWrite();
    int BoundRepeats(int iResult);
    int ReadBuffered();
    bool IsOpenForCall() TARN_EXCLUDES(m_DescriptorGuard);
    int WriteLastTime() TARN_EXCLUDES(m_SendLock);
    bool WriteByItself() TARN_EXCLUDES(m_SendLock);
    bool HasFailedBefore(const HandlerCall& call);
    int BreakFromOutput(HandlerCall& call);
    int BreakFromInput(HandlerCall& call);
    int Break(HandlerCall& call, const char* pszDisConnectText);
    int ConsumeFrames();
    int DiscardInput(int iResult);
    bool LowerRefCount();
    void NoteSent(std::size_t uSent);
    bool GatherOutput();
    bool TakeNextBlock();
    void DiscardOutput();
    void TakeBackRegistration() TARN_REQUIRES(m_RegistrationMutex);
    void DeliverHook(HookEvent eEvent);

    TarnRWThreadMutex m_StateLock;
    EConnectState m_eState TARN_GUARDED_BY(m_StateLock) = STATE_DISCONNECTED;

    int m_iConnTimeOut TARN_GUARDED_BY(m_ParameterLock) = 30;
    int m_iConnectCount TARN_GUARDED_BY(m_ParameterLock) = 0;
    int m_iMaxConnectCount TARN_GUARDED_BY(m_ParameterLock) = 0;
    int m_iGroupID TARN_GUARDED_BY(m_ParameterLock) = 0;
    std::uint32_t m_ulTargetID TARN_GUARDED_BY(m_ParameterLock) = 0;
    int m_iControlFlag TARN_GUARDED_BY(m_ParameterLock) = 7;
    // Changed within the guard and the parameter lock only.
    std::atomic<ACE_HANDLE> m_Handle{ACE_INVALID_HANDLE};
    ECommuProtocolType m_eProtocolType TARN_GUARDED_BY(m_ParameterLock) = TCP_TYPE;
    std::atomic<std::uint32_t> m_ulAdapterProtocolID{0};

    // Changed within the descriptor guard: the number by its write side, what is served by its read side.
    std::atomic<std::uint32_t> m_ulSession{0};
    std::atomic<std::uint32_t> m_ulServed{0};

    // Touched only from handler calls, one at a time, or while a registration keeps them out.
    ReceivedAhead m_Ahead;                 // received, but not yet asked for
    std::uint32_t m_ulAheadSession = 0;    // in which it was
    InputBuffer m_Input;                   // the read buffer
    std::uint32_t m_ulInputSession = 0;    // in which its last bytes were received
    BlockPtr m_pWriteBlock;                // a large block that is being sent; null: the write buffer is
    const char* m_pToWrite = nullptr;      // what is left of it
    std::size_t m_uToWrite = 0;            // bytes
    std::deque<OutputBlock> m_WriteBlocks; // the blocks of which that consists
    int m_nRepeats = 0;                    // results of 1 in a row
    std::uint32_t m_ulFailedSession = 0;   // in which a thread that wrote by itself has failed
    int m_iWriteError = 0;                 // and how

    TarnThreadMutex m_SendLock;
    bool m_bWritePending TARN_GUARDED_BY(m_SendLock) = false;

    std::atomic<int> m_nRefCount{0}; // changed within the reference lock, too, while references are recorded
    TarnRWThreadMutex m_ReferenceLock;
    std::vector<ACE_thread_t> m_RefThreads TARN_GUARDED_BY(m_ReferenceLock);
    std::atomic<bool> m_bReactorReference{false};
    std::atomic<int> m_nAbandoned{0};
    std::atomic<bool> m_bRegistered{false};
    std::atomic<bool> m_bRetired{false};
    std::atomic<bool> m_bLeaving{false};

    // Guarded by m_PinMutex, a leaf.
    std::mutex m_PinMutex;
    std::condition_variable m_PinReleased;
    int m_nReactorPins = 0;
    int m_nUsePins = 0;

    // Guarded by m_ClaimMutex, a leaf: the last sessions claimed.
    std::mutex m_ClaimMutex;
    std::uint32_t m_ulOpenedClaimed = 0;
    std::atomic<std::uint32_t> m_ulBreakClaimed{0}; // changed within the mutex only

    HookQueue m_Hooks;
};

#endif
