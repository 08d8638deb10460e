#ifndef TARNADAPTERFRAME_TARNASYNCMESSAGERECEIVER_H
#define TARNADAPTERFRAME_TARNASYNCMESSAGERECEIVER_H

#include "tarnadapterframe/Export.h"
#include "tarnadapterframe/TarnLock.h"

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>

class TEMessage;
template <class MAP>
class SpareNodes;

/// A function that is called when the answer to an asynchronous message (ASYNC_MESSAGE) is there.
///
/// Create one with `new` before the message is sent: it registers itself under the message's serial, and belongs to
/// the registry from then on. It is called once at most, on the thread that delivers the answer (a response thread, or
/// the sending one when the answer is there at once), with no lock held; the message and the record are deleted after it has returned. It may send messages, register other
/// callbacks and block, but when all response threads wait inside callbacks, none is left to bring their answers; and while
/// one blocks otherwise than in SyncHandleMessage or PSyncHelp, other answers may be some milliseconds late. It is not called for a message that fails or expires.
class TARN_ADAPTER_API AsynCallBack
{
public:
    using Function = int (*)(TEMessage* pMessage, void* pUser1, void* pUser2);

    /// @param pMessage  the message whose answer is awaited, not owned
    /// @param pfn       may be null: nothing is called
    /// @param pUser1    handed to the function, with pUser2
    /// A message whose serial is registered already keeps its record (logged); the new one stays its caller's. So does
    /// one for a null message, and one that there is no memory to register.
    AsynCallBack(TEMessage* pMessage, Function pfn, void* pUser1, void* pUser2);
    AsynCallBack(const AsynCallBack&) = delete;
    /// Copies the four fields and registers nothing.
    AsynCallBack& operator=(const AsynCallBack& other);

    TEMessage* GetMessage() const;
    /// Calls the function with the message and the two user pointers of the record.
    /// @return the function's result; 0 without function
    int operator()(TEMessage* pMessage, void* pUnused1, void* pUnused2);

private:
    friend class TarnAsn1Message;
    AsynCallBack();

    void* m_pUser1 = nullptr;
    void* m_pUser2 = nullptr;
    TEMessage* m_pMessage = nullptr;
    Function m_pfn = nullptr;
};

/// The callbacks of asynchronous messages under way, by the messages' serials. All operations may be called from any
/// thread.
// Not to be derived from: only Destroy deletes it.
class TARN_ADAPTER_API TarnAsyncMessageReceiver final
{
public:
    /// The registry, created on first use; null when ACE's process-wide lock cannot be taken, or without memory.
    static TarnAsyncMessageReceiver* Instance();
    /// Deletes the registry and the records that are still in it. Nobody may use it any more; the library itself
    /// never calls this.
    static void Destroy();

    /// The message of the record registered under a serial, or null. Who answers asynchronous messages out of the
    /// correlation maps finds the message by its serial here; that it is not deleted meanwhile is his care.
    virtual TEMessage* GetResponseMessage(unsigned long ulSerial);
    /// Deletes the record registered under the message's serial, if there is one. Null is ignored.
    virtual void UnRegisterMessage(TEMessage* pMessage);

    /// Whether the message's serial is registered. False for null (logged).
    bool HaveRegisterAsyncMsgCallBack(TEMessage* pMessage);
    /// The same. @param pCallBack  set to the record when there is one; the registry's, which may delete it once
    ///                             the message is answered, fails or is destroyed
    bool HaveRegisterAsyncMsgCallBack(TEMessage* pMessage, AsynCallBack*& pCallBack);

    TarnAsyncMessageReceiver(const TarnAsyncMessageReceiver&) = delete;
    TarnAsyncMessageReceiver& operator=(const TarnAsyncMessageReceiver&) = delete;

protected:
    friend class AsynCallBack;
    friend class TarnAsn1Message;

    TarnAsyncMessageReceiver();
    ~TarnAsyncMessageReceiver();

    /// Registers a record under its message's serial; a serial that is registered keeps its record (logged).
    void RegisterMessage(TEMessage* pMessage, AsynCallBack* pCallBack) TARN_EXCLUDES(m_Lock);

private:
    /// Copies the record under the message's serial. False when there is none.
    static bool Copy(const TEMessage& message, AsynCallBack& callBack);
    /// Deletes the record that was registered for this very message, if there is one.
    static void RemoveOwn(const TEMessage& message);
    /// The same for a message that is deleted next, which need not be looked for again then.
    static void RemoveLast(const TEMessage& message);

    using MapCallBack = std::map<std::uint32_t, AsynCallBack*>;

    void EraseLocked(MapCallBack::iterator it) TARN_REQUIRES(m_Lock);

    MapCallBack m_mapCallBack TARN_GUARDED_BY(m_Lock); // owned
    const std::unique_ptr<SpareNodes<MapCallBack>> m_pSpares TARN_PT_GUARDED_BY(m_Lock);
    TarnThreadMutex m_Lock;

    static std::atomic<TarnAsyncMessageReceiver*> m_pInstance;
};

#endif
