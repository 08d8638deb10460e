#include "platform/tarnplatform.h"
#include "support/TestHost.h"
#include "support/Threads.h"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <thread>
#include <vector>

namespace {

/// Events that are closed with the test.
class Events : public ::testing::Test
{
protected:
    ~Events() override
    {
        for (HANDLE hEvent : m_Events)
            CloseHandle(hEvent);
    }
    HANDLE Make(bool bManual)
    {
        m_Events.push_back(CreateEventA(nullptr, bManual ? TRUE : FALSE, FALSE, nullptr));
        EXPECT_NE(m_Events.back(), nullptr);
        return m_Events.back();
    }

private:
    std::vector<HANDLE> m_Events;
};

} // namespace

TEST_F(Events, AManualOneStaysAndAnotherIsTakenByOneWait)
{
    const HANDLE hManual = Make(true);
    const HANDLE hAuto = Make(false);
    for (const HANDLE hEvent : {hManual, hAuto})
    {
        EXPECT_EQ(WaitForSingleObject(hEvent, 0), WAIT_TIMEOUT);
        EXPECT_EQ(SetEvent(hEvent), TRUE);
        EXPECT_EQ(WaitForSingleObject(hEvent, INFINITE), WAIT_OBJECT_0);
    }
    EXPECT_EQ(WaitForSingleObject(hManual, 0), WAIT_OBJECT_0);
    EXPECT_EQ(WaitForSingleObject(hAuto, 10), WAIT_TIMEOUT);
    EXPECT_EQ(ResetEvent(hManual), TRUE);
    EXPECT_EQ(WaitForSingleObject(hManual, 0), WAIT_TIMEOUT);
}

TEST_F(Events, AWaitForManyTakesTheFirstAndRefusesWhatIsNoHandle)
{
    std::vector<HANDLE> events;
    for (DWORD i = 0; i < MAXIMUM_WAIT_OBJECTS; ++i)
        events.push_back(Make(false));
    const auto wait = [&](DWORD dwMs) {
        return WaitForMultipleObjects(MAXIMUM_WAIT_OBJECTS, events.data(), FALSE, dwMs);
    };
    SetEvent(events[63]);
    SetEvent(events[7]);
    SetEvent(events[8]);
    EXPECT_EQ(wait(INFINITE), WAIT_OBJECT_0 + 7);
    EXPECT_EQ(wait(INFINITE), WAIT_OBJECT_0 + 8);
    EXPECT_EQ(wait(INFINITE), WAIT_OBJECT_0 + 63);
    EXPECT_EQ(wait(0), WAIT_TIMEOUT);
    events.push_back(events[0]);
    EXPECT_EQ(WaitForMultipleObjects(MAXIMUM_WAIT_OBJECTS + 1, events.data(), FALSE, 0), WAIT_FAILED);
    EXPECT_EQ(WaitForMultipleObjects(0, events.data(), FALSE, 0), WAIT_FAILED);
    events[3] = INVALID_HANDLE_VALUE;
    EXPECT_EQ(wait(0), WAIT_FAILED);
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(EBADF));
}

TEST_F(Events, ClosingOneEndsTheWaitForIt)
{
    const HANDLE other = Make(true);
    const HANDLE closed = CreateEventA(nullptr, TRUE, FALSE, nullptr);
    std::atomic<DWORD> dwResult{0};
    std::thread waiter([&] {
        const HANDLE handles[] = {other, closed};
        dwResult = WaitForMultipleObjects(2, handles, FALSE, INFINITE);
    });
    EXPECT_EQ(CloseHandle(closed), TRUE);
    waiter.join();
    EXPECT_EQ(dwResult, WAIT_FAILED);
    EXPECT_EQ(CloseHandle(closed), FALSE);
    EXPECT_EQ(SetEvent(closed), FALSE);
}

TEST_F(Events, NoneIsLostBetweenAResetAndTheNextWait)
{
    // As the send reactor's thread does it: reset, then do the work that was announced.
    constexpr int EVENTS = 8;
    constexpr int SETTERS = 2;
    const int nRounds = StressRounds(5000);
    std::vector<HANDLE> events;
    std::atomic<int> work[EVENTS] = {};
    for (int i = 0; i < EVENTS; ++i)
        events.push_back(Make(true));
    const HANDLE hQuit = events[0];
    std::atomic<int> nDone{0};
    std::thread worker([&] {
        for (;;)
        {
            const DWORD dwIndex = WaitForMultipleObjects(EVENTS, events.data(), FALSE, INFINITE);
            if (dwIndex == 0)
                return;
            ResetEvent(events[dwIndex]);
            nDone += work[dwIndex].exchange(0);
        }
    });
    RunTogether(SETTERS, [&](int iSetter) {
        for (int i = 0; i < nRounds; ++i)
        {
            const auto uEvent = static_cast<std::size_t>(1 + (i + iSetter) % (EVENTS - 1));
            ++work[uEvent];
            SetEvent(events[uEvent]);
        }
    });
    EXPECT_TRUE(WaitUntil([&] { return nDone == SETTERS * nRounds; }));
    SetEvent(hQuit);
    worker.join();
}

TEST_F(Events, AThreadHasItsSignalsBlockedAndItsHandleTellsItsEnd)
{
    struct Seen
    {
        HANDLE hGoOn;
        DWORD dwId = 0;
        bool bBlocked = false;
    } seen{Make(true)};
    const std::set<int> before = Threads();
    DWORD dwId = 0;
    const HANDLE hThread = CreateThread(
        nullptr, 0,
        [](void* pSeen) {
            auto& own = *static_cast<Seen*>(pSeen);
            own.dwId = GetCurrentThreadId();
            own.bBlocked = ThreadBlocks(static_cast<int>(own.dwId), SIGTERM);
            WaitForSingleObject(own.hGoOn, INFINITE);
            return DWORD{0};
        },
        &seen, 0, &dwId);
    ASSERT_NE(hThread, nullptr);
    EXPECT_EQ(WaitForSingleObject(hThread, 0), WAIT_TIMEOUT);
    SetEvent(seen.hGoOn);
    EXPECT_EQ(WaitForSingleObject(hThread, INFINITE), WAIT_OBJECT_0);
    EXPECT_EQ(seen.dwId, dwId);
    EXPECT_TRUE(seen.bBlocked);
    EXPECT_EQ(CloseHandle(hThread), TRUE);
    EXPECT_EQ(Threads(), before) << "the end of a thread whose handle was closed has been waited for";
}
