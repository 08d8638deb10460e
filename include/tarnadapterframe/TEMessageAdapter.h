#ifndef TARNADAPTERFRAME_TEMESSAGEADAPTER_H
#define TARNADAPTERFRAME_TEMESSAGEADAPTER_H

#include "tarnadapterframe/AdapterTypes.h"
#include "tarnadapterframe/Export.h"

class TEMessage;
class TarnProtocolAdapter;

/// Translates the messages of a source protocol adapter into messages of a sink protocol adapter, and brings
/// the answers and errors back.
///
/// The protocol adapters it points to are deleted by tarnadapter::Fini; a message adapter that lives longer
/// must not use them after that.
///
/// The framework calls its operations with no lock held. An exception that leaves one is caught at the call,
/// logged at level 1 with the class name, and counts as the failure result.
class TARN_ADAPTER_API TEMessageAdapter
{
public:
    /// @param pSrcAdapter   adapter whose messages are translated, not owned
    /// @param pSinkAdapter  adapter that gets the translations, not owned
    TEMessageAdapter(TarnProtocolAdapter* pSrcAdapter, TarnProtocolAdapter* pSinkAdapter);
    TEMessageAdapter(const TEMessageAdapter&) = default;
    TEMessageAdapter& operator=(const TEMessageAdapter&) = default;
    virtual ~TEMessageAdapter();

    /// True when this adapter can carry the message. The base carries none.
    virtual bool CanTranslate(TEMessage* pMessage);

    /// Translates and sends a source message. @return 0 when it is on its way; the base -1. What else it may say of an
    /// ASN.1 message is told at TarnAsn1Message.
    virtual int HandleMessage(TEMessage* pMessage);

    /// Takes the answer that a sink message brought for a source message. The framework itself never calls
    /// it: the application's adapters do, and agree on the meaning of bFlag. @return the base -1.
    virtual int HandleResponse(TEMessage* pSource, TEMessage* pSink, void* pUserData, bool bFlag);

    /// Takes a message that nobody asked for. @return the base -1.
    virtual int HandleReport(TEMessage* pMessage);

    /// Told that a source message gets no answer any more. Called on the manager's timer thread, after the
    /// message and its sink messages have left the correlation maps; from then on source and user data are
    /// this operation's. Further time-outs wait until it returns.
    /// @param pSource    the source message; the base deletes it
    /// @param pUserData  a TEMsgUserData or null; the base deletes it first
    /// @param eError     the reason; ADAPTER_ERR_TIMEOUT
    /// @return not looked at; the base 0. When it throws, nobody deletes what it has not deleted.
    virtual int HandleAsyncError(TEMessage* pSource, void* pUserData, EAdapterError eError);

    /// TEAdapterManager::RegisterPrivateMessage.
    virtual int RegisterPrivateMessage(TEMessage* pSource, TEMessageAdapter* pMsgAdapter, void* pUserData,
                                       int nTimeOut);
    /// TEAdapterManager::RegisterMessage.
    virtual int RegisterMessage(TEMessage* pSource, TEMessage* pSink);

    TarnProtocolAdapter* SrcProtocolInstance() const;
    TarnProtocolAdapter* SinkProtocolInstance() const;

protected:
    // Set at construction, and by a derived class after each start, before messages are sent: the adapters end with
    // the library's stop. Not guarded, not owned.
    TarnProtocolAdapter* m_pSrcAdapter;
    TarnProtocolAdapter* m_pSinkAdapter;
};

#endif
