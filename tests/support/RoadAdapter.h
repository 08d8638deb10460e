#ifndef TARN_TESTS_SUPPORT_ROADADAPTER_H
#define TARN_TESTS_SUPPORT_ROADADAPTER_H

/// @file
/// An application as it is written against the exported headers: its questions travel as frames of Element's, under
/// the serials of their sink messages, and each NE id is a connector's target id.

#include "support/Element.h"

#include <tarnadapterframe/tarnadapterframe.h>

#include <atomic>
#include <memory>
#include <string>
#include <utility>
#include <vector>

constexpr std::uint32_t ROAD_PROTOCOL = 78;
constexpr int ROAD_GROUP = 1; ///< of the connectors

/// What is sent for a request.
class Sink : public TEMessage
{
public:
    explicit Sink(TarnProtocolAdapter* pAdapter)
        : TEMessage(pAdapter)
    {
        RequireSerial();
    }
    TEMessageAdapter* GetMessageAdapter() override { return nullptr; }
};

/// What an application asks; the answer is the element's.
class Question : public TarnAsn1Message
{
public:
    static constexpr int ANSWERED = 7;      ///< result
    static constexpr int REFUSING_NE = 900; ///< the adapter does not send to it
    static constexpr int BROKEN_NE = 901;   ///< the same, with the result that abandons a list

    static inline std::vector<TEMessageAdapter*> s_Adapters;
    static inline std::atomic<int> s_nAlive{0};

    Question(int iNe, std::string strText)
        : strQuestion(std::move(strText))
    {
        TarnAsn1Target target(iNe);
        target.SetProtocolID(ROAD_PROTOCOL);
        SetTargetId(target);
        ++s_nAlive;
    }
    Question(const Question&) = delete;
    Question& operator=(const Question&) = delete;
    ~Question() override { --s_nAlive; }
    std::vector<TEMessageAdapter*>* GetMessageAdapterVec() override { return &s_Adapters; }

    const std::string strQuestion;
    std::string strAnswer;
};

/// Routes an element's answer to the question, on a response thread.
class Answer : public TEMessage
{
public:
    Answer(TarnProtocolAdapter* pAdapter, std::uint32_t ulSerial, std::string strText)
        : TEMessage(pAdapter, RESPONSE_MESSAGE)
        , m_strText(std::move(strText))
    {
        m_ulSerial = ulSerial;
    }
    TEMessageAdapter* GetMessageAdapter() override { return nullptr; }
    int HandleMessage() override
    {
        TEAdapterManager* pManager = TEAdapterManager::Instance();
        Question* pSource = nullptr;
        bool bFound = false;
        bool bAsync = false;
        {
            const TEMsgMapGuard guard;
            const auto sink = pManager->FindSrcMsgUnit({m_ulSerial, ROAD_PROTOCOL}, bFound);
            if (bFound)
            {
                const auto record = pManager->FindSrcMsgInfo(sink->second, bFound);
                pSource = bFound ? static_cast<Question*>(record->second.pSource) : nullptr;
            }
            if (pSource == nullptr)
            {
                ++s_nLate;
                return 0;
            }
            pManager->UnRegisterSourceMessage(pSource);
            bAsync = pSource->GetSyncFlag() == ASYNC_MESSAGE;
            pSource->strAnswer = m_strText;
            pSource->SetResult(Question::ANSWERED);
            pSource->SetType(RESPONSE_MESSAGE);
            if (!bAsync)
                pSource->HandleMessage();
        }
        if (bAsync)
            pSource->HandleMessage();
        return 0;
    }

    static inline std::atomic<int> s_nLate{0}; ///< answers that nobody waits for
    static inline std::atomic<int> s_nReports{0};

private:
    const std::string m_strText;
};

class RoadProtocol : public TarnProtocolAdapter
{
public:
    RoadProtocol()
        : TarnProtocolAdapter(ROAD_PROTOCOL)
    {}
    int CheckMessageValid(void* /*pHandle*/, std::vector<unsigned char>& data) override
    {
        const auto number = [&data](std::size_t u) {
            return std::uint32_t{data[u]} << 24U | std::uint32_t{data[u + 1]} << 16U |
                   std::uint32_t{data[u + 2]} << 8U | std::uint32_t{data[u + 3]};
        };
        if (data.size() < 8 || data.size() < number(0) + 4)
            return 0;
        const std::size_t uLength = number(0) + 4;
        const std::uint32_t ulSerial = number(4);
        if (ulSerial == 0)
        {
            ++Answer::s_nReports;
            return static_cast<int>(uLength);
        }
        TEAsyncIOMgr::Instance()->AddResponse(std::unique_ptr<TEMessage>(NewAnswer(
            ulSerial, std::string(data.begin() + 8, data.begin() + static_cast<std::ptrdiff_t>(uLength)))));
        return static_cast<int>(uLength);
    }

protected:
    virtual Answer* NewAnswer(std::uint32_t ulSerial, std::string strText)
    {
        return new Answer(this, ulSerial, std::move(strText));
    }
};

class RoadMessageAdapter : public TEMessageAdapter
{
public:
    explicit RoadMessageAdapter(TarnProtocolAdapter* pSink)
        : TEMessageAdapter(TarnAsn1ProtocolAdapter::Instance(), pSink)
    {}
    bool CanTranslate(TEMessage* /*pMessage*/) override { return true; }
    int HandleMessage(TEMessage* pMessage) override
    {
        auto* pQuestion = static_cast<Question*>(pMessage);
        const auto ulNe = pQuestion->GetTargetId().GetNeId();
        if (ulNe == Question::REFUSING_NE || ulNe == Question::BROKEN_NE)
            return ulNe == Question::REFUSING_NE ? -5 : -22;
        Sink sink(SinkProtocolInstance());
        const std::string strFrame = Element::Frame(sink.GetMessageSerial(), pQuestion->strQuestion);
        TEAdapterManager* pManager = TEAdapterManager::Instance();
        const TEMessageUnit source = {pQuestion->GetMessageSerial(),
                                      SrcProtocolInstance()->GetProtocolAdapterID()};
        {
            const TEMsgMapGuard guard;
            RegisterPrivateMessage(pQuestion, this, nullptr, pQuestion->GetTimeOut());
            RegisterMessage(pQuestion, &sink);
        }
        TarnConnectorMgr* pConnectors = TarnConnectorMgr::Instance();
        TarnConnector* pConnector = pConnectors->GetConnectorByID(ROAD_GROUP, ulNe);
        const int iSent =
            pConnector != nullptr
                ? pConnector->SendToOutBuffer(strFrame.data(), static_cast<int>(strFrame.size()))
                : -1;
        pConnectors->ReleaseConnector(pConnector);
        if (iSent == 0)
            return 0;
        bool bThere = false; // it may have expired meanwhile, and be gone
        const TEMsgMapGuard guard;
        pManager->FindSrcMsgInfo(source, bThere);
        if (bThere)
            pManager->UnRegisterSourceMessage(pQuestion);
        return bThere ? -1 : 0;
    }
};

#endif
