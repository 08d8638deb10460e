#ifndef TARNADAPTERFRAME_TARNASN1MESSAGE_H
#define TARNADAPTERFRAME_TARNASN1MESSAGE_H

#include "tarnadapterframe/Export.h"
#include "tarnadapterframe/TEMessage.h"

#include <atomic>
#include <memory>

class PSyncHelp;
class SyncCon;
class TarnTarget;

/// Base of an application's ASN.1 request/response messages. Derive, give the class a list of message adapters
/// (GetMessageAdapterVec, filled by TEInitMessageAdapter), fill in a request and a target, and send it in one of
/// three ways:
///
/// | way | sync flag | sent by | learns of the answer by | belongs to |
/// |---|---|---|---|---|
/// | blocking | SYNC_MESSAGE | SyncHandleMessage | its return | the caller |
/// | with a callback | ASYNC_MESSAGE | HandleMessage | its AsynCallBack | the library, from HandleMessage on |
/// | in a list | PSYNC_MESSAGE | PSyncHelp | PSyncHelp::Waiting | the caller, but see PSyncHelp |
///
/// The message adapter that reaches the target gets the request (TEMessageAdapter::HandleMessage). It answers 0:
/// announced to TEAdapterManager and sent, an answer is to come. 1: handled completely; -6: completed at once: success
/// for SyncHandleMessage and for PSyncHelp's single messages, failures in its lists. -22 (SNMP_CLASS_TL_FAILED):
/// failed, and a list is abandoned. Anything else: failed. With any result but 0 it has announced and delivered
/// nothing. After 0 the framework does not touch a message that nobody waits for, so the answer may
/// come, and delete it, at once.
///
/// The answer is delivered by the application's code on a response thread: it finds and unregisters the source
/// (see TEAdapterManager), stores the answer in it, sets its type to RESPONSE_MESSAGE and calls its
/// HandleMessage: for SYNC_MESSAGE and PSYNC_MESSAGE before the correlation lock is released, for ASYNC_MESSAGE
/// afterwards. Then the message is not touched any more.
///
/// A derived class with a class record of its own names classTarnAsn1Message, or the record of a class derived from
/// this one, as the base: a message of another kind cannot be cancelled. GetMessageSerial is not to be overridden.
/// Whoever destroys a message that may still be announced calls CancelMessage before: the destructor forgets it only
/// when the derived part is gone.
///
/// **Time.** Waits are cut into ticks of a second on a steady clock: a change of the system's time neither hastens
/// nor delays them. They also end when the process is exiting (TarnIsExit) or the library is being stopped.
///
/// **Threads.** Result and sync flag may be read and set by any thread at any time. The rest is the owner's until
/// the message is sent, and the answering thread's while that delivers.
class TARN_ADAPTER_API TarnAsn1Message : public TEMessage
{
public:
    static TarnAdapterRuntimeClass classTarnAsn1Message;
    static TarnAdapterObject* CreateObject();

    /// A command of the built-in adapter's, with a serial of its own, a timeout of 60 seconds, no target and
    /// ASYNC_MESSAGE.
    TarnAsn1Message();
    /// A copy has a clone of the target and everything else of the other message, its serial included, but
    /// neither its registrations nor what it waits on. Two messages under one serial cannot both be answered: call
    /// RequireSerial before a copy is sent beside the original. An assignment forgets what was registered for the
    /// message that is assigned to.
    TarnAsn1Message(const TarnAsn1Message& other);
    TarnAsn1Message& operator=(const TarnAsn1Message& other);

    TarnAdapterRuntimeClass* GetRuntimeClass() const override;
    /// Removes the message's callback, if its sync flag is ASYNC_MESSAGE, and its record in the correlation maps, if
    /// there still is one.
    ~TarnAsn1Message() override;

    void SetSyncFlag(EMessageSyncFlag eSyncFlag) override;
    EMessageSyncFlag GetSyncFlag() override;
    /// The first of the class's message adapters whose sink adapter has the target's protocol id and that can
    /// translate the message; null when there is none. Adapters whose sink has been deleted are passed over.
    TEMessageAdapter* GetMessageAdapter() override;
    /// Sends a command, or delivers a response; by the type.
    /// @return for a command the message adapter's result, or ADAPTER_ERR_NO_MSG_ADAPTER; for a response 0;
    ///         ADAPTER_ERR_MSG_TYPE for any other type. With ASYNC_MESSAGE the message may be deleted, and is
    ///         when the result of a command is not 0
    int HandleMessage() override;

    /// Ends a SyncHandleMessage of another thread, which then gives ADAPTER_ERR_TIMEOUT. The caller sees to it
    /// that the message lives until this returns.
    virtual void CancelSyncHandle();

    /// Outcome of the exchange, as the application's adapters or the framework have set it; -518181818 before.
    int GetResult() const;
    void SetResult(int iResult);

    /// Stores a clone of the target.
    void SetTargetId(const TarnTarget& target);
    /// The stored target. Without one a default target, which no adapter reaches, is created and stored, which is
    /// logged.
    TarnTarget& GetTargetId();

    /// Sends the message and blocks until it is answered. Not to be called with a lock held that the answer
    /// needs, the correlation lock for one.
    /// @param nTimeOut  seconds; scaled by the setting `nNECmdTimeoutRate`, at least 1 then. 0 or below: sent,
    ///                  but not waited for. TEMessage::SetTimeOut of another thread takes effect at the next tick
    /// @return 0 answered, or completed at once; ADAPTER_ERR_TIMEOUT no answer in time, cancelled, exiting or
    ///         stopping, before or after it was sent; ADAPTER_ERR_NO_MEMORY not sent; else the result of HandleMessage, not sent
    int SyncHandleMessage(int nTimeOut);

protected:
    /// Sends the command. An override that calls it must not touch the message afterwards: it may be gone.
    /// @return as HandleMessage
    virtual int HandleCommand();
    /// Tells whoever waits that the answer is there; the same holds for an override. @return 0
    virtual int HandleResponse();
    /// @return -1; the framework does not call it
    virtual int HandleReport();

private:
    friend class PSyncHelp;

    // Takes a message out of the correlation maps at the end of a scope, also when an exception or the end of the thread
    // leaves it.
    class Forgotten
    {
    public:
        explicit Forgotten(const TarnAsn1Message& message)
            : m_pMessage(&message)
        {}
        ~Forgotten();
        Forgotten(const Forgotten&) = delete;
        Forgotten& operator=(const Forgotten&) = delete;
        void Dismiss() { m_pMessage = nullptr; }

    private:
        const TarnAsn1Message* m_pMessage;
    };

    EMessageSyncFlag SafeSyncFlag();
    void ReleaseAsync();
    int RealTimeOut() const;
    SyncCon* MakeSyncCon();
    int WaitForResponse(SyncCon& syncCon);

    std::unique_ptr<TarnTarget> m_pTargetId;
    std::atomic<int> m_iResult{-518181818};
    std::atomic<EMessageSyncFlag> m_eSyncFlag{ASYNC_MESSAGE};
    // Created by the first SyncHandleMessage, deleted with the message. The response flag is in it.
    std::atomic<SyncCon*> m_SyncCon{nullptr};
    PSyncHelp* m_pOwnerList =
        nullptr; // set before the message is sent, cleared when it is counted as answered
};

#endif
