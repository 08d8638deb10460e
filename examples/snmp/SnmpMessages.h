#ifndef SNMP_SNMPMESSAGES_H
#define SNMP_SNMPMESSAGES_H

/// @file
/// What an application asks an element: SnmpGet, SnmpGetNext, SnmpGetBulk, SnmpSet. Each is sent in any of the ways of
/// TarnAsn1Message.

#include "SnmpCodec.h"

#include <tarnadapterframe/tarnadapterframe.h>

#include <string>
#include <vector>

/// Protocol id of the adapter in targets and registrations. Ids are the host's to give; 1 is the framework's.
constexpr std::uint32_t SNMP_PROTOCOL = 61;

constexpr int SNMP_WRONG_ANSWER = -61;

/// Base of the four. Its result (GetResult), once it is answered:
///
/// | result | meaning |
/// |---|---|
/// | 0 | Answer() has the values |
/// | 1 to 18 | the element's error-status (RFC 3416); Answer().iErrorIndex tells whose of the bindings it is |
/// | SNMP_WRONG_ANSWER | the element has answered something else than was asked |
///
/// When nobody answers it is ADAPTER_ERR_TIMEOUT for a message with a callback, and what the way of sending leaves there for the
/// others: see TarnAsn1Message::SyncHandleMessage, whose return tells, and PSyncHelp::Waiting.
///
/// Sending it gives ADAPTER_ERR_INVALID_HANDLE when the element is not connected, and -1 when a question cannot be encoded.
class SnmpMessage : public TarnAsn1Message
{
public:
    static TarnAdapterRuntimeClass classSnmpMessage;
    TarnAdapterRuntimeClass* GetRuntimeClass() const override { return &classSnmpMessage; }
    std::vector<TEMessageAdapter*>* GetMessageAdapterVec() override { return &s_Adapters; }

    /// In place of the element's own.
    void SetCommunity(std::string strCommunity) { m_Question.strCommunity = std::move(strCommunity); }

    const SnmpPacket& Question() const { return m_Question; }
    const SnmpPacket& Answer() const { return m_Answer; }
    /// By whoever brings the answer, before it is delivered.
    void SetAnswer(SnmpPacket answer) { m_Answer = std::move(answer); }

    /// Takes a question back that was sent with a callback and is not answered yet, and deletes it.
    /// @return false when its callback has been called, or is being called just now
    static bool TakeBack(std::uint32_t ulSerial);

    static std::vector<TEMessageAdapter*> s_Adapters; // filled by a registrar

protected:
    SnmpMessage(int iNeId, SnmpPdu ePdu, const std::vector<SnmpOid>& names);

    SnmpPacket m_Question;

private:
    SnmpPacket m_Answer;
};

/// The values of names.
class SnmpGet : public SnmpMessage
{
public:
    static TarnAdapterRuntimeClass classSnmpGet;
    TarnAdapterRuntimeClass* GetRuntimeClass() const override { return &classSnmpGet; }
    SnmpGet(int iNeId, const std::vector<SnmpOid>& names);
};

/// The names behind names, and their values.
class SnmpGetNext : public SnmpMessage
{
public:
    static TarnAdapterRuntimeClass classSnmpGetNext;
    TarnAdapterRuntimeClass* GetRuntimeClass() const override { return &classSnmpGetNext; }
    SnmpGetNext(int iNeId, const std::vector<SnmpOid>& names);
};

/// The next several names behind a name, and their values.
class SnmpGetBulk : public SnmpMessage
{
public:
    static TarnAdapterRuntimeClass classSnmpGetBulk;
    TarnAdapterRuntimeClass* GetRuntimeClass() const override { return &classSnmpGetBulk; }
    SnmpGetBulk(int iNeId, const SnmpOid& name, int iMaxRepetitions);
};

/// Gives names their values: all of them, or none.
class SnmpSet : public SnmpMessage
{
public:
    static TarnAdapterRuntimeClass classSnmpSet;
    TarnAdapterRuntimeClass* GetRuntimeClass() const override { return &classSnmpSet; }
    SnmpSet(int iNeId, const std::vector<SnmpVarBind>& values);
};

#endif
