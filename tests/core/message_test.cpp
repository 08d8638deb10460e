#include "support/TestAdapters.h"
#include "support/TestHost.h"

#include <cstring>
#include <memory>
#include <thread>

using Messages = HostTest;

namespace {

/// Position of a virtual operation among the entries of its class's table. A destructor takes two of them.
/// The representation is that of the Itanium C++ ABI, section "Member Function Pointers".
template <class MemberFunction>
std::size_t Slot(MemberFunction pfn)
{
    std::uintptr_t words[2] = {};
    static_assert(sizeof(pfn) == sizeof(words));
    std::memcpy(words, &pfn, sizeof(words));
    EXPECT_EQ(words[0] & 1U, 1U) << "not virtual";
    return (words[0] - 1) / sizeof(void*);
}

class SerialAdapter : public TestAdapter
{
public:
    using TestAdapter::TestAdapter;
    void SetLastSerial(std::uint32_t ulSerial)
    {
        const TarnGuard guard(m_SerialLock);
        m_ulSerialCounter = ulSerial;
    }
};

} // namespace

TEST_F(Messages, VirtualOperationsStandInTheirSlots)
{
    EXPECT_EQ(Slot(&TarnAdapterObject::GetRuntimeClass), 0U);
    // The destructor: 1 and 2.
    EXPECT_EQ(Slot(&TEMessage::GetRuntimeClass), 0U);
    EXPECT_EQ(Slot(&TEMessage::GetCommandCount), 3U);
    EXPECT_EQ(Slot(&TEMessage::SetSyncFlag), 4U);
    EXPECT_EQ(Slot(&TEMessage::GetSyncFlag), 5U);
    EXPECT_EQ(Slot(&TEMessage::GetMessageSerial), 6U);
    EXPECT_EQ(Slot(&TEMessage::GetMessageAdapter), 7U);
    EXPECT_EQ(Slot(&TEMessage::GetMessageAdapterVec), 8U);
    EXPECT_EQ(Slot(&TEMessage::HandleMessage), 9U);

    EXPECT_EQ(Slot(&TEMessageAdapter::CanTranslate), 2U);
    EXPECT_EQ(Slot(&TEMessageAdapter::HandleMessage), 3U);
    EXPECT_EQ(Slot(&TEMessageAdapter::HandleResponse), 4U);
    EXPECT_EQ(Slot(&TEMessageAdapter::HandleReport), 5U);
    EXPECT_EQ(Slot(&TEMessageAdapter::HandleAsyncError), 6U);
    EXPECT_EQ(Slot(&TEMessageAdapter::RegisterPrivateMessage), 7U);
    EXPECT_EQ(Slot(&TEMessageAdapter::RegisterMessage), 8U);

    EXPECT_EQ(Slot(&TarnProtocolAdapter::RequireMessageSerial), 2U);
    EXPECT_EQ(Slot(&TarnProtocolAdapter::CancelMessage), 3U);
    EXPECT_EQ(Slot(&TarnProtocolAdapter::HandleMessage), 4U);
    EXPECT_EQ(
        Slot(static_cast<int (TarnProtocolAdapter::*)(void*, TEMessage*)>(&TarnProtocolAdapter::SendMessage)),
        5U);
    EXPECT_EQ(Slot(static_cast<int (TarnProtocolAdapter::*)(TEMessage*)>(&TarnProtocolAdapter::SendMessage)),
              6U);
    EXPECT_EQ(Slot(&TarnProtocolAdapter::CheckMessageValid), 7U);
}

TEST_F(Messages, NewMessageHasTheDefaults)
{
    class Plain : public TEMessage
    {
    public:
        TEMessageAdapter* GetMessageAdapter() override { return nullptr; }
    };
    Plain message;
    EXPECT_EQ(message.GetMessageSerial(), 0U);
    EXPECT_EQ(message.GetType(), COMMAND_MESSAGE);
    EXPECT_EQ(message.GetTimeOut(), 60);
    EXPECT_EQ(message.ProtocolInstance(), nullptr);
    EXPECT_EQ(message.GetCommandCount(), 0);
    EXPECT_EQ(message.GetMessageAdapterVec(), nullptr);
    EXPECT_EQ(message.HandleMessage(), 0);
    message.SetSyncFlag(ASYNC_MESSAGE);
    EXPECT_EQ(message.GetSyncFlag(), SYNC_MESSAGE);
    EXPECT_EQ(message.GetRuntimeClass(), &TarnAdapterObject::classTarnAdapterObject);
}

TEST_F(Messages, SerialsCountFromOneAndWrapToZero)
{
    SerialAdapter adapter(9);
    EXPECT_EQ(adapter.RequireMessageSerial(), 1U);
    EXPECT_EQ(adapter.RequireMessageSerial(), 2U);
    TestMessage message(&adapter);
    EXPECT_EQ(message.GetMessageSerial(), 3U);

    adapter.SetLastSerial(4294967294U);
    EXPECT_EQ(adapter.RequireMessageSerial(), 4294967295U);
    EXPECT_EQ(adapter.RequireMessageSerial(), 0U);
    EXPECT_EQ(adapter.RequireMessageSerial(), 1U);
}

TEST_F(Messages, SerialsOfOneAdapterAreUniqueOverThreads)
{
    TestAdapter adapter(9);
    constexpr int iThreads = 4;
    constexpr int iPerThread = 5000;
    std::vector<std::vector<std::uint32_t>> taken(iThreads);
    std::vector<std::thread> threads;
    for (auto& serials : taken)
        threads.emplace_back([&adapter, &serials] {
            for (int i = 0; i < iPerThread; ++i)
                serials.push_back(adapter.RequireMessageSerial());
        });
    for (auto& thread : threads)
        thread.join();
    std::set<std::uint32_t> all;
    for (const auto& serials : taken)
        all.insert(serials.begin(), serials.end());
    EXPECT_EQ(all.size(), static_cast<std::size_t>(iThreads * iPerThread));
    EXPECT_EQ(*all.rbegin(), static_cast<std::uint32_t>(iThreads * iPerThread));
}

TEST_F(Messages, EqualityGoesBySerialAndProtocolId)
{
    TestAdapter three(3);
    TestAdapter otherThree(3);
    TestAdapter four(4);
    const TestMessage message(&three);
    EXPECT_TRUE(message == TestMessage(&otherThree));
    EXPECT_FALSE(message == TestMessage(&four));
    EXPECT_FALSE(message == TestMessage(&three)) << "the second serial";
    // Without adapter: id 0 and serial 0.
    EXPECT_TRUE(TestMessage() == TestMessage());
    EXPECT_FALSE(TestMessage() == message);
}

TEST_F(Messages, CopyHasTheStateAndALockOfItsOwn)
{
    TestAdapter adapter(3);
    TestMessage message(&adapter, ASYNC_MESSAGE, 17);
    message.SetType(RESPONSE_MESSAGE);
    TestMessage copy(message);
    EXPECT_TRUE(copy == message);
    EXPECT_EQ(copy.GetType(), RESPONSE_MESSAGE);
    EXPECT_EQ(copy.GetTimeOut(), 17);
    copy.SetTimeOut(3);
    EXPECT_EQ(message.GetTimeOut(), 17);

    TestMessage other;
    TEMessage& assigned = other;
    assigned = message;
    EXPECT_TRUE(other == message);
    EXPECT_EQ(other.ProtocolInstance(), &adapter);
    EXPECT_EQ(other.GetType(), RESPONSE_MESSAGE);
    EXPECT_EQ(other.GetTimeOut(), 17);
    const TEMessage& itself = other;
    assigned = itself;
    EXPECT_EQ(other.GetTimeOut(), 17);
}

TEST_F(Messages, CancelAsksTheAdapterAndFailsWithoutOne)
{
    class Cancelling : public TestAdapter
    {
    public:
        using TestAdapter::TestAdapter;
        int CancelMessage(TEMessage* pMessage) override
        {
            pCancelled = pMessage;
            return 5;
        }
        TEMessage* pCancelled = nullptr;
    };
    Cancelling adapter(3);
    TestMessage message(&adapter);
    EXPECT_EQ(message.CancelMessage(), 5);
    EXPECT_EQ(adapter.pCancelled, &message);

    TestAdapter base(3);
    EXPECT_EQ(TestMessage(&base).CancelMessage(), -1);
    EXPECT_EQ(TestMessage().CancelMessage(), -1);
}

TEST_F(Messages, BaseAdaptersRefuse)
{
    TestAdapter adapter(3);
    TarnProtocolAdapter& protocolAdapter = adapter;
    std::vector<unsigned char> data = {1};
    EXPECT_EQ(protocolAdapter.HandleMessage(nullptr), -1);
    EXPECT_EQ(protocolAdapter.SendMessage(nullptr, nullptr), -1);
    EXPECT_EQ(protocolAdapter.SendMessage(nullptr), -1);
    EXPECT_EQ(protocolAdapter.CheckMessageValid(nullptr, data), -1);

    TestAdapter sink(4);
    TEMessageAdapter msgAdapter(&adapter, &sink);
    TEMessageAdapter copy(msgAdapter);
    EXPECT_EQ(copy.SrcProtocolInstance(), &adapter);
    EXPECT_EQ(copy.SinkProtocolInstance(), &sink);
    EXPECT_FALSE(copy.CanTranslate(nullptr));
    EXPECT_EQ(copy.HandleMessage(nullptr), -1);
    EXPECT_EQ(copy.HandleResponse(nullptr, nullptr, nullptr, true), -1);
    EXPECT_EQ(copy.HandleReport(nullptr), -1);
}

TEST_F(Messages, DefaultErrorHandlingDeletesUserDataAndSource)
{
    TEMessageAdapter adapter(nullptr, nullptr);
    EXPECT_EQ(adapter.HandleAsyncError(new TestMessage, static_cast<TEMsgUserData*>(new TestUserData),
                                       ADAPTER_ERR_TIMEOUT),
              0);
    EXPECT_EQ(adapter.HandleAsyncError(new TestMessage, nullptr, ADAPTER_ERR_TIMEOUT), 0);
    EXPECT_EQ(
        adapter.HandleAsyncError(nullptr, static_cast<TEMsgUserData*>(new TestUserData), ADAPTER_ERR_TIMEOUT),
        0);
    EXPECT_EQ(TestMessage::Alive(), 0);
    EXPECT_EQ(TestUserData::Alive(), 0);
}

TEST_F(Messages, OperationsThatThrowCountAsFailed)
{
    class Throwing : public TestAdapter
    {
    public:
        using TestAdapter::TestAdapter;
        std::uint32_t RequireMessageSerial() override { throw std::runtime_error("no serial"); }
        int CancelMessage(TEMessage*) override { throw 1; }
    };
    class Troubled : public TestMessage
    {
    public:
        std::uint32_t GetMessageSerial() const override { throw std::runtime_error("no number"); }
        TarnAdapterRuntimeClass* GetRuntimeClass() const override { throw std::runtime_error("no class"); }
    };
    const Troubled troubled;
    EXPECT_FALSE(troubled == troubled);
    EXPECT_FALSE(troubled.IsKindOf(&TarnAdapterObject::classTarnAdapterObject));
    EXPECT_EQ(host.CountContaining(1, "Troubled, exception: no number\n"), 1);
    EXPECT_EQ(host.CountContaining(1, "Troubled, exception: no class\n"), 1);

    Throwing adapter(3);
    TestMessage message(&adapter);
    EXPECT_EQ(message.GetMessageSerial(), 0U);
    EXPECT_EQ(message.CancelMessage(), -1);
    EXPECT_EQ(host.CountContaining(1, "Throwing, exception: no serial\n"), 1);
    EXPECT_EQ(host.CountContaining(1, "Throwing, exception: not a std::exception\n"), 1);
}
