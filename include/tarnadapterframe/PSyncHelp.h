#ifndef TARNADAPTERFRAME_PSYNCHELP_H
#define TARNADAPTERFRAME_PSYNCHELP_H

#include "tarnadapterframe/Export.h"
#include "tarnadapterframe/TarnLock.h"

#include <atomic>
#include <functional>
#include <list>

class SyncCon;
class TarnAsn1Message;

/// One message of a list, with the application's context, which is only carried along.
struct TARN_ADAPTER_API MsgContext
{
    TarnAsn1Message* pAsn1Msg = nullptr; ///< not owned
    void* pUserData1 = nullptr;
    void* pUserData2 = nullptr;
    void* pUserData3 = nullptr;
    void* pUserData4 = nullptr;
};

/// Sends ASN.1 messages without blocking, counts the answers, and waits once for all of them.
///
/// One exchange at a time: send (a list, or single messages), then Waiting or ClearAsn1Msg; afterwards it is empty
/// and ready for the next. One thread sends, waits and clears; the answers come on response threads. Destroy it only
/// when an exchange is over.
///
/// A message counts as answered when its response is handled, when sending it in a list failed with a code other
/// than -22, or when it completed at once (-6, sent singly).
class TARN_ADAPTER_API PSyncHelp
{
public:
    PSyncHelp();
    PSyncHelp(const PSyncHelp&) = delete;
    PSyncHelp& operator=(const PSyncHelp&) = delete;
    /// The messages of the list are not deleted.
    virtual ~PSyncHelp();

    /// Adds one message to the exchange and sends it.
    /// @return 0 sent, or completed; the message is the exchange's then and not to be touched before Waiting. If it
    ///         was handled completely (1) it has been deleted. Anything else: not sent, and still the caller's
    int AsynSendAsn1Message(TarnAsn1Message* pMessage, void* pUserData1, void* pUserData2, void* pUserData3,
                            void* pUserData4);

    /// Sends a whole list, which replaces what the exchange held: end that first, or answers to it count for this
    /// list. The four pointers are not used, each element carries its own. Any result of a message's handling but 0
    /// counts as a failure here, 1 and -6 included.
    /// @return 0 all sent, or the list is empty; 1 some sent, the others count as answered and carry the code of
    ///         their failure as result; -1 none sent, or one failed with -22 (SNMP_CLASS_TL_FAILED): the rest was
    ///         not sent, what was sent is forgotten, and the first message's result says why. No answer will come
    ///         then, but the exchange holds the list still: end it, before the messages are destroyed, by Waiting
    ///         with a time of 0, or by sending an empty list. A list with a null message, or one that there is no
    ///         memory to copy, is refused with -1, and changes nothing
    int AsyncSendAsn1MessageList(const std::list<MsgContext>& lstMessages, void* pUnused1, void* pUnused2,
                                 void* pUnused3, void* pUnused4);

    /// Blocks until every message counts as answered, in ticks of a second as SyncHandleMessage does, but not
    /// scaled. Ends early when the process is exiting or the library is being stopped.
    /// @param nTimeOut  seconds; SetTimeOut of another thread takes effect at the next tick
    /// @param lstOut    set to the messages of the exchange, which are the caller's again. A message that was not
    ///                  answered has the result -8888 (sent in a list) or ADAPTER_ERR_TIMEOUT (sent singly).
    ///                  Untouched, as the exchange is, when memory was missing to send anything
    /// @return 0 all answered; 1 not in time
    int Waiting(int nTimeOut, std::list<MsgContext>& lstOut);

    /// Counts one answer. Called when a message of the list handles its response, with the correlation lock held.
    /// @param bAllReceived  set to true when it was the last one and somebody waits: call Signal
    void ReceiveRespMsg(TarnAsn1Message* pMessage, bool& bAllReceived);
    /// Wakes the thread in Waiting. @return 0
    int Signal();

    /// Gives the exchange up: its messages are forgotten and deleted. @return 0
    int ClearAsn1Msg();

    void SetTimeOut(int nSeconds) TARN_EXCLUDES(m_TimeOutLock);
    int GetTimeOut() TARN_EXCLUDES(m_TimeOutLock);

private:
    struct ForgetAtEnd;

    bool Prepare(TarnAsn1Message& message, int iResult);
    static int SendOne(TarnAsn1Message& message);
    bool MakeSyncCon(const char*& pszFailed);
    int SendList(const std::list<MsgContext>& lstMessages);
    int AbandonList(const std::list<MsgContext>& lstMessages, std::list<MsgContext>::const_iterator itRest,
                    int iResult);
    void ResetCount() TARN_EXCLUDES(m_ListMutex);
    int CountFailed(TarnAsn1Message& message) TARN_EXCLUDES(m_ListMutex);

    std::list<MsgContext> m_lstMessages TARN_GUARDED_BY(m_ListMutex);
    int m_nReceived TARN_GUARDED_BY(m_ListMutex) = 0;
    TarnThreadMutex m_ListMutex; // taken inside the correlation lock, never the other way round
    bool m_bWaiting TARN_GUARDED_BY(m_ListMutex) = false;
    // Created by the first send, deleted with this. The signalled flag is in it.
    std::atomic<SyncCon*> m_SyncCon{nullptr};
    int m_nTimeOut TARN_GUARDED_BY(m_TimeOutLock) = 0;
    TarnRWThreadMutex m_TimeOutLock;
};

#endif
