#ifndef TARNADAPTERFRAME_TEMESSAGE_H
#define TARNADAPTERFRAME_TEMESSAGE_H

#include "tarnadapterframe/AdapterTypes.h"
#include "tarnadapterframe/Export.h"
#include "tarnadapterframe/TarnAdapterObject.h"

#include <atomic>
#include <cstdint>
#include <vector>

class TEAdapterManager;
class TEMessageAdapter;
class TarnAsyncMessageReceiver;
class TarnProtocolAdapter;

/// Base of whatever a caller attaches to a source message. The user data pointers of the framework are
/// untyped, but each must point to a TEMsgUserData: the default error handling deletes it as one. When the
/// derived class has several bases, convert to `TEMsgUserData*` before handing the pointer over.
class TARN_ADAPTER_API TEMsgUserData
{
public:
    TEMsgUserData() = default;
    TEMsgUserData(const TEMsgUserData&) = default;
    TEMsgUserData& operator=(const TEMsgUserData&) = default;
    virtual ~TEMsgUserData();
};

/// The unit of work exchanged between protocol adapters.
///
/// A message belongs to whoever created it until it is handed on. Its serial and its protocol adapter are set
/// by the creating thread before the message is shared; its type may be read and set, and its timeout taken
/// and changed, by any thread at any time.
///
/// The destructor unregisters nothing: a source message that is announced to TEAdapterManager must be unregistered
/// there before it is deleted. Sink messages may go any time, the maps hold their keys only.
class TARN_ADAPTER_API TEMessage : public TarnAdapterObject
{
public:
    /// @param pProtocolAdapter  adapter that the message belongs to, not owned; may be null
    /// @param eType             kind of message
    /// @param nTimeOut          seconds until the message times out, when it is an asynchronous one
    explicit TEMessage(TarnProtocolAdapter* pProtocolAdapter = nullptr,
                       EAdapterMessageType eType = COMMAND_MESSAGE, int nTimeOut = 60);

    /// A copy has the serial, type, adapter and remaining time of the other message.
    TEMessage(const TEMessage& other);
    TEMessage& operator=(const TEMessage& other);
    ~TEMessage() override;

    /// Number of commands in the message; the base has none.
    virtual int GetCommandCount();
    /// Sets how the sender learns of the answer; the base ignores it.
    virtual void SetSyncFlag(EMessageSyncFlag eSyncFlag);
    /// How the sender learns of the answer; SYNC_MESSAGE in the base. The manager's timer calls it on its own
    /// thread with the correlation lock held, so it must not block.
    virtual EMessageSyncFlag GetSyncFlag();
    /// The message's serial, which with its adapter's protocol id is its key in the correlation maps.
    virtual std::uint32_t GetMessageSerial() const;
    /// The message adapter that handles this message, or null.
    virtual TEMessageAdapter* GetMessageAdapter() = 0;
    /// The class-wide list of message adapters, filled by TEInitMessageAdapter registrars; null when the
    /// message class uses none.
    virtual std::vector<TEMessageAdapter*>* GetMessageAdapterVec();
    /// Handles the message: what that means is the derived class's. The base returns 0.
    virtual int HandleMessage();

    /// Takes a new serial from the message's adapter; without adapter the serial is 0.
    void RequireSerial();
    /// The adapter that the message belongs to, or null.
    TarnProtocolAdapter* ProtocolInstance() const;

    EAdapterMessageType GetType() const;
    void SetType(EAdapterMessageType eType);

    /// Sets the seconds left until the message times out; taken as they are, no scaling. The manager's timer takes 5 off every 5
    /// seconds from an asynchronous message, and expires it when that leaves less than 0: a multiple of 5 is waited for in full
    /// and for at most 5 seconds more, any other number perhaps up to 4 seconds less.
    void SetTimeOut(int nTimeOut);
    /// Seconds left.
    int GetTimeOut() const;

    /// Asks the message's adapter to forget the message. @return the adapter's result; -1 without adapter.
    int CancelMessage();

    /// Same serial and adapters with the same protocol id; a message without adapter counts as id 0.
    bool operator==(const TEMessage& other) const;

protected:
    // Set before the message is shared, not guarded.
    std::uint32_t m_ulSerial = 0;
    // Read and set by several threads.
    std::atomic<EAdapterMessageType> m_eType;
    // Set before the message is shared, not guarded. Not owned.
    TarnProtocolAdapter* m_pProtocolAdapter;

private:
    friend class TEAdapterManager;
    friend class TarnAsyncMessageReceiver;

    // Takes a tick off the time left, in one piece with whoever sets it meanwhile. Returns what is left.
    int CountDown(int nSeconds);

    // A record of the correlation may name the message as its source. Set, and cleared, by the manager.
    mutable std::atomic<bool> m_bMayBeSource{false};
    // A callback may have been registered for the message. Set, and cleared, by its registry.
    mutable std::atomic<bool> m_bMayHaveCallBack{false};
    std::atomic<int> m_nTimeOut; // read and set by several threads
};

#endif
