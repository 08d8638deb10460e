#include "asyncio/TEIOReactor.h"
#include "support/DescriptorHog.h"
#include "support/SocketPair.h"
#include "support/TestHost.h"

#include <ace/Reactor.h>

#include <gtest/gtest.h>

#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace {

int ReadOne(ACE_HANDLE handle)
{
    char byte = 0;
    return static_cast<int>(recv(handle, &byte, 1, MSG_DONTWAIT));
}

/// A handler whose calls are what the test says.
class Handler : public ACE_Event_Handler
{
public:
    int handle_input(ACE_HANDLE handle) override { return onInput ? onInput(handle) : 0; }
    int handle_output(ACE_HANDLE handle) override { return onOutput ? onOutput(handle) : 0; }
    int handle_close(ACE_HANDLE, ACE_Reactor_Mask) override
    {
        ++iCloses;
        return 0;
    }

    std::function<int(ACE_HANDLE)> onInput;
    std::function<int(ACE_HANDLE)> onOutput;
    std::atomic<int> iCloses{0};
};

constexpr ACE_Reactor_Mask READ = ACE_Event_Handler::READ_MASK;
constexpr ACE_Reactor_Mask WRITE = ACE_Event_Handler::WRITE_MASK;
constexpr ACE_Reactor_Mask ALL = ACE_Event_Handler::ALL_EVENTS_MASK;
constexpr ACE_Reactor_Mask DONT_CALL = ACE_Event_Handler::DONT_CALL;

} // namespace

/// The parameter: whether the handles are beyond those that ACE's sets can hold.
class IOReactor : public ::testing::TestWithParam<bool>
{
protected:
    /// Threads that run the reactor for as long as it exists. Unregistering does not wait for a handler call
    /// under way, so it is declared after the handlers and their sockets, and goes before them.
    class Running
    {
    public:
        Running(IOReactor& test, int iThreads)
            : m_Front(test.m_Front)
        {
            for (int i = 0; i < iThreads; ++i)
                m_threads.emplace_back([this] {
                    while (m_Front.reactor_event_loop_done() == 0)
                        m_Front.handle_events();
                });
        }
        ~Running()
        {
            m_Front.end_reactor_event_loop();
            for (auto& thread : m_threads)
                thread.join();
        }
        Running(const Running&) = delete;
        Running& operator=(const Running&) = delete;

    private:
        ACE_Reactor& m_Front;
        std::vector<std::thread> m_threads;
    };

    TEIOReactor reactor;

private:
    ACE_Reactor m_Front{&reactor};
    const DescriptorHog m_Hog{
        GetParam() ? 1100 : 0}; // after the reactor, whose own descriptors ACE wants in its sets
};

INSTANTIATE_TEST_SUITE_P(InACEsSets, IOReactor, ::testing::Values(false));
INSTANTIATE_TEST_SUITE_P(BeyondACEsSets, IOReactor, ::testing::Values(true));

TEST_P(IOReactor, WriteEventsAreSwitchedForRegisteredHandlesOnly)
{
    SocketPair pair;
    Handler handler;
    EXPECT_EQ(reactor.EnableWriteEvents(pair.iNear), 0) << "not registered";
    for (const ACE_HANDLE handle : {-1, 1023, 1024, 1 << 20})
    {
        EXPECT_EQ(reactor.EnableWriteEvents(handle), 0) << handle;
        EXPECT_EQ(reactor.DisableWriteEvents(handle), 0) << handle;
    }
    ASSERT_EQ(reactor.register_handler(pair.iNear, &handler, READ), 0);
    EXPECT_EQ(reactor.DisableWriteEvents(pair.iNear), 0);
    EXPECT_EQ(reactor.EnableWriteEvents(pair.iNear), 1);
    EXPECT_EQ(reactor.EnableWriteEvents(pair.iNear), 0);
    EXPECT_EQ(reactor.DisableWriteEvents(pair.iNear), 1);
    EXPECT_EQ(reactor.DisableWriteEvents(pair.iNear), 0);

    // By the call of a handler whose number is another one's now nothing is switched.
    Handler gone;
    EXPECT_EQ(reactor.EnableWriteEvents(pair.iNear, &gone), 0);
    EXPECT_EQ(reactor.EnableWriteEvents(pair.iNear, &handler), 1);
    EXPECT_EQ(reactor.DisableWriteEvents(pair.iNear, &gone), 0);
    EXPECT_EQ(reactor.DisableWriteEvents(pair.iNear, &handler), 1);

    // Suspended, as during a handler call, the change waits for the end of the call.
    ASSERT_EQ(reactor.suspend_handler(pair.iNear), 0);
    EXPECT_EQ(reactor.EnableWriteEvents(pair.iNear), 1);
    EXPECT_EQ(reactor.EnableWriteEvents(pair.iNear), 0);
    ASSERT_EQ(reactor.resume_handler(pair.iNear), 0);
    EXPECT_EQ(reactor.DisableWriteEvents(pair.iNear), 1);
    EXPECT_EQ(reactor.remove_handler(pair.iNear, ALL | DONT_CALL), 0);
}

TEST_P(IOReactor, SwitchingReachesThreadsInTheirWait)
{
    SocketPair pair;
    Handler handler;
    std::atomic<int> iOutputs{0};
    handler.onOutput = [&](ACE_HANDLE handle) {
        ++iOutputs;
        reactor.DisableWriteEvents(handle);
        return 0;
    };
    ASSERT_EQ(reactor.register_handler(pair.iNear, &handler, READ), 0);
    const Running running(*this, 2);
    for (int i = 1; i <= 200; ++i)
    {
        EXPECT_EQ(reactor.EnableWriteEvents(pair.iNear), 1);
        ASSERT_TRUE(WaitUntil([&] { return iOutputs == i; })) << i;
        // The call that has counted itself may not have switched them off yet.
        ASSERT_TRUE(WaitUntil([&] { return reactor.DisableWriteEvents(pair.iNear) == 0; }));
    }
    EXPECT_EQ(reactor.remove_handler(pair.iNear, ALL | DONT_CALL), 0);
}

// Connections that always have something to read: each gets its turn, the highest handle like the lowest.
TEST_P(IOReactor, BusyHandlesAreServedEvenly)
{
    constexpr int iConnections = 60;
    constexpr int iBytes = 2000;
    constexpr int iWanted = iConnections * iBytes / 4;
    std::vector<std::unique_ptr<SocketPair>> pairs;
    std::vector<std::unique_ptr<Handler>> handlers;
    std::vector<std::atomic<int>> served(iConnections);
    std::atomic<int> iServed{0};
    for (int i = 0; i < iConnections; ++i)
    {
        pairs.push_back(std::make_unique<SocketPair>());
        handlers.push_back(std::make_unique<Handler>());
        pairs.back()->Send(iBytes);
        handlers.back()->onInput = [&, i](ACE_HANDLE handle) {
            if (iServed >= iWanted)
                return 0;
            ReadOne(handle);
            ++served[static_cast<std::size_t>(i)];
            ++iServed;
            return 0;
        };
    }
    for (int i = 0; i < iConnections; ++i)
        ASSERT_EQ(reactor.register_handler(pairs[static_cast<std::size_t>(i)]->iNear,
                                           handlers[static_cast<std::size_t>(i)].get(), READ),
                  0);
    const Running running(*this, 2);
    ASSERT_TRUE(WaitUntil([&] { return iServed >= iWanted; }));
    const auto [least, most] = std::minmax_element(served.begin(), served.end());
    const int iMean = iServed / iConnections;
    EXPECT_GT(*least, iMean / 2);
    EXPECT_LT(*most, iMean * 2);
    for (const auto& pPair : pairs)
        reactor.remove_handler(pPair->iNear, ALL | DONT_CALL);
}

// A handler call fails for a registration that is gone, while its handler is registered anew for a new
// descriptor with the same number: the new registration stays, and is neither dropped nor told to close.
TEST_P(IOReactor, FailedCallOfAnOldRegistrationLeavesTheNewOneAlone)
{
    for (const int iOldResult : {-1, 0})
    {
        Handler handler;
        std::atomic<bool> bInside{false};
        std::atomic<bool> bLeave{false};
        std::atomic<int> iNewInputs{0};
        std::atomic<bool> bReopened{false};
        handler.onInput = [&](ACE_HANDLE handle) {
            ReadOne(handle);
            if (bReopened)
            {
                ++iNewInputs;
                return 0;
            }
            bInside = true;
            while (!bLeave)
                std::this_thread::yield();
            return iOldResult;
        };
        auto pOld = std::make_unique<SocketPair>();
        const int iHandle = pOld->iNear;
        ASSERT_EQ(reactor.register_handler(iHandle, &handler, READ), 0);
        std::thread dispatcher([&] { reactor.handle_events(); });
        pOld->Send(1);
        ASSERT_TRUE(WaitUntil([&] { return bInside.load(); }));

        ASSERT_EQ(reactor.remove_handler(iHandle, ALL | DONT_CALL), 0);
        pOld->CloseNear();
        SocketPair fresh;
        // Linux hands the lowest free number out; make sure it is the old one.
        if (fresh.iNear != iHandle)
        {
            ASSERT_EQ(dup2(fresh.iNear, iHandle), iHandle);
            close(fresh.iNear);
            fresh.iNear = iHandle;
        }
        bReopened = true;
        ASSERT_EQ(reactor.register_handler(iHandle, &handler, READ), 0);
        bLeave = true;
        dispatcher.join();

        EXPECT_EQ(handler.iCloses, 0);
        fresh.Send(1);
        ACE_Time_Value limit(10);
        for (int i = 0; i < 10 && iNewInputs == 0 && limit > ACE_Time_Value::zero; ++i)
            reactor.handle_events(limit);
        EXPECT_EQ(iNewInputs, 1) << "old result " << iOldResult;
        EXPECT_EQ(reactor.remove_handler(iHandle, ALL | DONT_CALL), 0);
    }
}

TEST_P(IOReactor, FailedCallDropsItsOwnRegistration)
{
    SocketPair pair;
    Handler handler;
    handler.onInput = [](ACE_HANDLE) { return -1; };
    ASSERT_EQ(reactor.register_handler(pair.iNear, &handler, READ), 0);
    pair.Send(1);
    const Running running(*this, 1);
    ASSERT_TRUE(WaitUntil([&] { return handler.iCloses == 1; }));
    EXPECT_EQ(reactor.remove_handler(pair.iNear, ALL | DONT_CALL), -1) << "gone already";
}

TEST_P(IOReactor, NumbersThatAreNoDescriptorsAreRefused)
{
    Handler handler;
    for (const ACE_HANDLE handle : {2000, 1 << 30})
    {
        EXPECT_EQ(reactor.register_handler(handle, &handler, READ | WRITE), -1);
        EXPECT_EQ(errno, EBADF);
    }
    EXPECT_EQ(reactor.register_handler(-1, &handler, READ | WRITE), -1);
    EXPECT_EQ(errno, EINVAL);
}

// A registration whose descriptor was closed by somebody else is dropped, whoever gets its number.
TEST_P(IOReactor, ADescriptorThatIsClosedWhileRegisteredIsDropped)
{
    Handler handler;
    Handler next;
    SocketPair pair;
    const int iHandle = pair.iNear;
    ASSERT_EQ(reactor.register_handler(iHandle, &handler, READ), 0);
    const Running running(*this, 2);
    syscall(SYS_close, pair.iNear); // which the thread sanitizer need not see: it is the fault that is meant
    pair.iNear = -1;
    ASSERT_TRUE(WaitUntil([&] { return handler.iCloses == 1; }));
    std::atomic<int> iInputs{0};
    next.onInput = [&](ACE_HANDLE handle) {
        iInputs += ReadOne(handle);
        return 0;
    };
    SocketPair fresh;
    ASSERT_EQ(reactor.register_handler(fresh.iNear, &next, READ), 0);
    fresh.Send(3);
    EXPECT_TRUE(WaitUntil([&] { return iInputs == 3; }));
    EXPECT_EQ(reactor.remove_handler(fresh.iNear, ALL | DONT_CALL), 0);
    EXPECT_EQ(handler.iCloses, 1);
}

// Write events are switched on by several threads while the handler, whose calls read, switches them off: none is lost.
TEST_P(IOReactor, SwitchingBesideCallsLosesNothing)
{
    SocketPair pair;
    Handler handler;
    std::atomic<int> nAsked{0};
    std::atomic<int> nOutputs{0};
    std::atomic<bool> bLeft{false};
    handler.onInput = [](ACE_HANDLE handle) {
        ReadOne(handle);
        return 0;
    };
    std::mutex mutex; // as a connection's send lock
    handler.onOutput = [&](ACE_HANDLE handle) {
        const std::lock_guard<std::mutex> guard(mutex);
        reactor.DisableWriteEvents(handle);
        nOutputs = nAsked.load();
        return 0;
    };
    ASSERT_EQ(reactor.register_handler(pair.iNear, &handler, READ), 0);
    {
        const Running running(*this, 3);
        std::thread feeder([&] {
            while (!bLeft)
                pair.Send(1);
        });
        for (int i = 1; i <= StressRounds(3000); ++i)
        {
            {
                const std::lock_guard<std::mutex> guard(mutex);
                nAsked = i;
                reactor.EnableWriteEvents(pair.iNear);
            }
            EXPECT_TRUE(WaitUntil([&] { return nOutputs == i; })) << i;
            if (nOutputs != i)
                break;
        }
        bLeft = true;
        feeder.join();
    }
    EXPECT_EQ(reactor.remove_handler(pair.iNear, ALL | DONT_CALL), 0);
}

// Neither reading nor writing that never ends keeps a thread from the other.
TEST_P(IOReactor, OneOfEightTurnsIsForWritingWhileThereIsMuchToRead)
{
    SocketPair toRead;
    SocketPair toWrite;
    Handler reader;
    Handler writer;
    int nInputs = 0;
    int nOutputs = 0;
    reader.onInput = [&](ACE_HANDLE) { // and leaves the byte where it is
        ++nInputs;
        return 0;
    };
    writer.onOutput = [&](ACE_HANDLE handle) {
        ++nOutputs;
        reactor.DisableWriteEvents(handle);
        return 0;
    };
    ASSERT_EQ(reactor.register_handler(toRead.iNear, &reader, READ), 0);
    ASSERT_EQ(reactor.register_handler(toWrite.iNear, &writer, READ), 0);
    ASSERT_EQ(send(toRead.iFar, "x", 1, 0), 1);
    for (int i = 0; i < 80; ++i)
    {
        reactor.EnableWriteEvents(toWrite.iNear);
        ASSERT_EQ(reactor.handle_events(), 1);
    }
    EXPECT_EQ(nOutputs + nInputs, 80);
    EXPECT_GE(nOutputs, 10);
    EXPECT_LE(nOutputs, 12) << "one more whenever the handles are looked over";
    reactor.remove_handler(toRead.iNear, READ | DONT_CALL);
    const int nBefore = nOutputs;
    for (int i = 0; i < 3; ++i)
    {
        reactor.EnableWriteEvents(toWrite.iNear);
        reactor.handle_events();
    }
    EXPECT_EQ(nOutputs, nBefore + 3) << "with nothing to read";
    reactor.remove_handler(toWrite.iNear, ALL | DONT_CALL);
}

// A call by a thread that is none of the reactor's keeps the others out, and nothing that happens meanwhile is lost.
TEST_P(IOReactor, AnOwnCallIsACallLikeAnyOther)
{
    SocketPair pair;
    Handler handler;
    Handler other;
    TEIOReactor::Call call;
    std::atomic<bool> bOwnCall{false};
    std::atomic<int> nMeetings{0};
    std::atomic<int> nInputs{0};
    std::atomic<int> nOutputs{0};
    handler.onInput = [&](ACE_HANDLE handle) {
        nMeetings += bOwnCall ? 1 : 0;
        nInputs += std::max(ReadOne(handle), 0);
        return 0;
    };
    handler.onOutput = [&](ACE_HANDLE handle) {
        nMeetings += bOwnCall ? 1 : 0;
        ++nOutputs;
        reactor.DisableWriteEvents(handle);
        return 0;
    };
    ASSERT_EQ(reactor.register_handler(pair.iNear, &handler, READ), 0);
    EXPECT_FALSE(reactor.BeginOwnCall(pair.iNear, &handler, call)) << "without threads";
    const auto begin = [&] {
        return WaitUntil([&] { return reactor.BeginOwnCall(pair.iNear, &handler, call); });
    };
    {
        const Running running(*this, 2);
        int nSent = 0;
        for (int i = 1; i <= StressRounds(200); ++i)
        {
            ASSERT_TRUE(begin()) << i;
            bOwnCall = true;
            EXPECT_FALSE(reactor.BeginOwnCall(pair.iNear, &handler, call)) << "one is under way";
            EXPECT_EQ(reactor.EnableWriteEvents(pair.iNear), 1);
            pair.Send(1);
            ++nSent;
            bOwnCall = false;
            reactor.EndOwnCall(call);
            ASSERT_TRUE(WaitUntil([&] { return nInputs == nSent && nOutputs == i; })) << i;
        }
        EXPECT_EQ(nMeetings, 0);
        // By the call of a handler whose number is another one's now there is none, however idle that is.
        ASSERT_TRUE(begin());
        reactor.EndOwnCall(call);
        EXPECT_FALSE(reactor.BeginOwnCall(pair.iNear, &other, call));
        // Unregistered meanwhile: the end of the call touches nobody.
        ASSERT_TRUE(begin());
        EXPECT_EQ(reactor.remove_handler(pair.iNear, ALL | DONT_CALL), 0);
        std::atomic<bool> bInside{false};
        std::atomic<bool> bLeave{false};
        other.onInput = [&](ACE_HANDLE handle) {
            ReadOne(handle);
            bInside = true;
            WaitUntil([&] { return bLeave.load(); });
            return 0;
        };
        EXPECT_EQ(reactor.register_handler(pair.iNear, &other, READ), 0);
        pair.Send(1);
        EXPECT_TRUE(WaitUntil([&] { return bInside.load(); }));
        reactor.EndOwnCall(call);
        TEIOReactor::Call otherCall;
        EXPECT_FALSE(reactor.BeginOwnCall(pair.iNear, &other, otherCall)) << "the other's call is not over";
        bLeave = true;
    }
    EXPECT_EQ(reactor.remove_handler(pair.iNear, ALL | DONT_CALL), 0);
}

// A handler's connection is closed, reopened under the same number and registered again while its last call
// is about to fail: whichever comes first, each new registration is served.
TEST_P(IOReactor, ReopenedHandlesAreServedThroughChurn)
{
    Handler handler;
    std::atomic<int> iInputs{0};
    handler.onInput = [&](ACE_HANDLE handle) {
        if (ReadOne(handle) != 1)
            return 0;
        const int iInput = ++iInputs;
        // Sometimes the call ends before the connection is reopened, sometimes after.
        for (int i = 0; i < iInput % 64; ++i)
            std::this_thread::yield();
        return -1;
    };
    const auto bServed = [&](int iInput) {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
        while (iInputs < iInput && std::chrono::steady_clock::now() < deadline)
            std::this_thread::yield();
        return iInputs >= iInput;
    };
    const Running running(*this, 3);
    for (int i = 1; i <= StressRounds(5000); ++i)
    {
        SocketPair pair;
        ASSERT_EQ(reactor.register_handler(pair.iNear, &handler, READ), 0);
        pair.Send(1);
        ASSERT_TRUE(bServed(i)) << "lost in round " << i;
        reactor.remove_handler(pair.iNear, ALL | DONT_CALL);
    }
}
