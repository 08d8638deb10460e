#ifndef SNMP_SNMPADAPTER_H
#define SNMP_SNMPADAPTER_H

/// @file
/// The adapter between the framework and elements that speak SNMP v2c over TCP (RFC 3430) or TLS. The road of a question:
///
///     application thread   SnmpMessage::HandleMessage (or SyncHandleMessage, or PSyncHelp)
///                          SnmpMessageAdapter::HandleMessage   translates it into an SnmpRequest, announces both
///                          SnmpProtocol::SendMessage           sends that
///     I/O thread           SnmpProtocol::CheckMessageValid     cuts the answer out of the stream
///     response thread      SnmpAnswer::HandleMessage           decodes it, finds the question, delivers it
///
/// and of what an element tells by itself: CheckMessageValid, then on a report thread SnmpNotification::HandleMessage.

#include "SnmpElement.h"
#include "SnmpMessages.h"

#include <atomic>
#include <cstdint>
#include <string>
#include <vector>

/// What has happened since the process began.
struct SnmpCounts
{
    std::atomic<std::uint64_t> ulSent{0};       ///< questions
    std::atomic<std::uint64_t> ulAnswered{0};   ///< of these
    std::atomic<std::uint64_t> ulUnexpected{0}; ///< answers that nobody waited for, or from the wrong element
    std::atomic<std::uint64_t> ulNotifications{0}; ///< traps and informs
    std::atomic<std::uint64_t> ulConfirmed{0};     ///< informs that were answered
    std::atomic<std::uint64_t> ulMalformed{0};     ///< messages that were left out
};

/// The sink adapter. Register it under SNMP_PROTOCOL, with asynchronous I/O.
class SnmpProtocol : public TarnProtocolAdapter
{
public:
    SnmpProtocol();

    int CheckMessageValid(void* pHandle, std::vector<unsigned char>& data) override;

    using TarnProtocolAdapter::SendMessage;
    /// Sends an SnmpRequest to an SnmpElement. @return 0; as TarnConnector::SendToOutBuffer
    int SendMessage(void* pElement, TEMessage* pRequest) override;

    static SnmpCounts s_Counts;

private:
    void HandOn(int iNeId, const unsigned char* pData, std::size_t uLength);
};

/// Carries SnmpMessages to SnmpProtocol, and what elements say to the listener. One object for the whole process; Use it
/// after each start of the framework.
class SnmpMessageAdapter : public TEMessageAdapter
{
public:
    static SnmpMessageAdapter& Instance();
    /// @param pListener  told about notifications; must live until the framework is stopped
    void Use(SnmpProtocol* pProtocol, SnmpListener* pListener);

    bool CanTranslate(TEMessage* pMessage) override;
    int HandleMessage(TEMessage* pMessage) override;
    int HandleResponse(TEMessage* pSource, TEMessage* pSink, void* pUserData, bool bFlag) override;
    int HandleReport(TEMessage* pMessage) override;
    int HandleAsyncError(TEMessage* pSource, void* pUserData, EAdapterError eError) override;

private:
    SnmpMessageAdapter();

    SnmpListener* m_pListener = nullptr; // set by Use, before messages are sent
};

/// Bytes to or from an element, as the framework's queues carry them. They do not use message adapters.
class SnmpSinkMessage : public TEMessage
{
public:
    using TEMessage::TEMessage;
    TEMessageAdapter* GetMessageAdapter() override { return nullptr; }
};

/// A question on the wire. Its serial is the request-id, so an answer finds it in the correlation maps.
class SnmpRequest : public SnmpSinkMessage
{
public:
    /// Throws SnmpMalformed when the question cannot be encoded.
    SnmpRequest(TarnProtocolAdapter* pProtocol, SnmpPacket question, const SnmpElement& element);

    const std::string& Bytes() const { return m_strBytes; }

private:
    std::string m_strBytes;
};

/// What an element has sent: a whole message, not decoded yet.
class SnmpReceived : public SnmpSinkMessage
{
public:
    SnmpReceived(TarnProtocolAdapter* pProtocol, int iNeId, const unsigned char* pData, std::size_t uLength);

    int HandleMessage() override;

    int NeId() const { return m_iNeId; }
    SnmpPacket& Packet() { return m_Packet; }

protected:
    virtual int HandlePacket() = 0;

private:
    const int m_iNeId;
    const std::vector<std::uint8_t> m_Bytes;
    SnmpPacket m_Packet; // decoded by HandleMessage
};

class SnmpAnswer : public SnmpReceived
{
public:
    using SnmpReceived::SnmpReceived;

protected:
    int HandlePacket() override;

private:
    TEAdapterManager::MapMsgInfo::iterator FindQuestionLocked(bool& bFound) const;
};

class SnmpNotification : public SnmpReceived
{
public:
    using SnmpReceived::SnmpReceived;
    int GetCommandCount() override { return 1; } // counts towards nAppProcessRpgMsgLimit

protected:
    int HandlePacket() override;
};

#endif
