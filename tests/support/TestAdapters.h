#ifndef TARN_TESTS_SUPPORT_TESTADAPTERS_H
#define TARN_TESTS_SUPPORT_TESTADAPTERS_H

#include "tarnadapterframe/tarnadapterframe.h"

#include <atomic>
#include <functional>
#include <utility>
#include <vector>

/// Counts the living objects of a class; never below 0 unless one was deleted twice.
template <class Derived>
class Counted
{
public:
    static int Alive() { return s_iAlive; }

protected:
    Counted() { ++s_iAlive; }
    Counted(const Counted&) { ++s_iAlive; }
    Counted& operator=(const Counted&) = default;
    ~Counted() { --s_iAlive; }

private:
    static inline std::atomic<int> s_iAlive{0};
};

/// The key of a message in the correlation maps.
inline TEMessageUnit UnitOf(const TEMessage& message)
{
    const TarnProtocolAdapter* pAdapter = message.ProtocolInstance();
    return {message.GetMessageSerial(), pAdapter != nullptr ? pAdapter->GetProtocolAdapterID() : 0};
}

/// A message with a class record and a sync flag of its own.
class TestMessage : public TEMessage, public Counted<TestMessage>
{
public:
    static TarnAdapterRuntimeClass classTestMessage;

    explicit TestMessage(TarnProtocolAdapter* pAdapter = nullptr, EMessageSyncFlag eSyncFlag = ASYNC_MESSAGE,
                         int nTimeOut = 60)
        : TEMessage(pAdapter, COMMAND_MESSAGE, nTimeOut)
        , m_eSyncFlag(eSyncFlag)
    {
        RequireSerial();
    }

    TarnAdapterRuntimeClass* GetRuntimeClass() const override { return &classTestMessage; }
    EMessageSyncFlag GetSyncFlag() override { return m_eSyncFlag; }
    TEMessageAdapter* GetMessageAdapter() override { return nullptr; }

private:
    const EMessageSyncFlag m_eSyncFlag;
};

inline TarnAdapterRuntimeClass TestMessage::classTestMessage = {
    "TestMessage", static_cast<int>(sizeof(TestMessage)),      0xFFFF,
    nullptr,       &TarnAdapterObject::classTarnAdapterObject, nullptr};

/// A message that unregisters itself as a source when it is deleted.
class UnregisteringMessage : public TestMessage
{
public:
    using TestMessage::TestMessage;
    ~UnregisteringMessage() override { TEAdapterManager::Instance()->UnRegisterSourceMessage(this); }
};

class TestUserData : public TEMsgUserData, public Counted<TestUserData>
{};

/// A protocol adapter whose framing is what the test says.
class TestAdapter : public TarnProtocolAdapter, public Counted<TestAdapter>
{
public:
    using Framing = std::function<int(void*, std::vector<unsigned char>&)>;

    explicit TestAdapter(std::uint32_t ulProtocolID, Framing framing = {})
        : TarnProtocolAdapter(ulProtocolID)
        , m_Framing(std::move(framing))
    {}

    int CheckMessageValid(void* pHandle, std::vector<unsigned char>& data) override
    {
        return m_Framing ? m_Framing(pHandle, data) : TarnProtocolAdapter::CheckMessageValid(pHandle, data);
    }

private:
    const Framing m_Framing;
};

/// A message adapter that keeps the base's behaviour and remembers what it was told.
class TestMessageAdapter : public TEMessageAdapter
{
public:
    TestMessageAdapter()
        : TEMessageAdapter(nullptr, nullptr)
    {}

    int HandleAsyncError(TEMessage* pSource, void* pUserData, EAdapterError eError) override
    {
        if (onError)
            onError(pSource, pUserData, eError);
        return TEMessageAdapter::HandleAsyncError(pSource, pUserData, eError);
    }

    std::function<void(TEMessage*, void*, EAdapterError)> onError;
};

#endif
