#ifndef TARN_TESTS_ASN1_ASN1TEST_H
#define TARN_TESTS_ASN1_ASN1TEST_H

#include "support/TestAdapters.h"
#include "support/TestHost.h"
#include "tarnadapterframe/tarntaskmgr.h"

#include <atomic>
#include <functional>
#include <vector>

/// An ASN.1 message as an application derives it.
class Request : public TarnAsn1Message, public Counted<Request>
{
public:
    static TarnAdapterRuntimeClass classRequest;
    static std::vector<TEMessageAdapter*> s_Adapters;

    explicit Request(unsigned long ulProtocolID = 0)
    {
        TarnAsn1Target target(5);
        target.SetProtocolID(ulProtocolID);
        SetTargetId(target);
    }

    TarnAdapterRuntimeClass* GetRuntimeClass() const override { return &classRequest; }
    std::vector<TEMessageAdapter*>* GetMessageAdapterVec() override { return &s_Adapters; }
};

inline std::vector<TEMessageAdapter*> Request::s_Adapters;
inline TarnAdapterRuntimeClass Request::classRequest = {
    "Request", static_cast<int>(sizeof(Request)),      0xFFFF,
    nullptr,   &TarnAsn1Message::classTarnAsn1Message, nullptr};

/// A message adapter that announces each source and does what the test says.
class SendingAdapter : public TEMessageAdapter
{
public:
    explicit SendingAdapter(TarnProtocolAdapter* pSink)
        : TEMessageAdapter(TarnAsn1ProtocolAdapter::Instance(), pSink)
    {}
    bool CanTranslate(TEMessage* /*pMessage*/) override { return bCanTranslate; }
    /// A result of 0 announces the source; then onSent runs, which may answer it at once.
    int HandleMessage(TEMessage* pMessage) override
    {
        const int iResult = onHandle ? onHandle(pMessage) : 0;
        if (iResult != 0)
            return iResult;
        const TEMessageUnit unit = UnitOf(*pMessage);
        EXPECT_EQ(RegisterPrivateMessage(pMessage, this, nullptr, 60), 0);
        if (onSent)
            onSent(unit);
        return 0;
    }

    bool bCanTranslate = true;
    std::function<int(TEMessage*)> onHandle;
    std::function<void(const TEMessageUnit&)> onSent;
};

class Asn1Test : public HostTest
{
protected:
    static constexpr std::uint32_t PROTOCOL = 20;

    void SetUp() override
    {
        s_bExit = false;
        TarnInstallExit([] { return s_bExit.load(); });
        Request::s_Adapters = {&sending};
    }
    void TearDown() override
    {
        Request::s_Adapters.clear();
        tarnadapter::Fini();
        HostTest::TearDown();
        TarnInstallExit(nullptr);
        EXPECT_EQ(Request::Alive(), 0);
    }

    static TEAdapterManager& Manager() { return *TEAdapterManager::Instance(); }

    /// Brings a source its answer as an application does. False when nobody is waiting for it any more.
    static bool Answer(const TEMessageUnit& unit, int iResult = 0)
    {
        bool bFound = false;
        Manager().AcquireMsgMapMtx();
        const auto it = Manager().FindSrcMsgInfo(unit, bFound);
        auto* pSource = bFound ? static_cast<TarnAsn1Message*>(it->second.pSource) : nullptr;
        if (pSource != nullptr)
        {
            Manager().UnRegisterSourceMessage(pSource);
            pSource->SetResult(iResult);
            pSource->SetType(RESPONSE_MESSAGE);
        }
        const bool bAsync = pSource != nullptr && pSource->GetSyncFlag() == ASYNC_MESSAGE;
        int iHandled = 0;
        if (pSource != nullptr && !bAsync)
            iHandled = pSource->HandleMessage();
        Manager().ReleaseMsgMapMtx();
        if (bAsync)
            iHandled = pSource->HandleMessage();
        EXPECT_EQ(iHandled, 0);
        return pSource != nullptr;
    }

    static bool IsAnnounced(const TEMessage& message)
    {
        bool bFound = false;
        Manager().FindSrcMsgInfo(UnitOf(message), bFound);
        return bFound;
    }

    TestAdapter sink{PROTOCOL};
    SendingAdapter sending{&sink};
    static inline std::atomic<bool> s_bExit{false};
};

#endif
