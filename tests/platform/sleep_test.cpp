#include "platform/tarnplatform.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <pthread.h>
#include <thread>

namespace {

std::atomic<int> g_iSignals{0};

void CountSignal(int)
{
    ++g_iSignals;
}

} // namespace

TEST(Sleep, LastsItsTimeThoughSignalsAreHandledMeanwhile)
{
    struct sigaction action = {};
    struct sigaction old = {};
    action.sa_handler = &CountSignal;
    ASSERT_EQ(sigaction(SIGUSR1, &action, &old), 0);

    std::atomic<bool> bDone{false};
    const pthread_t sleeper = pthread_self();
    std::thread disturber([&] {
        while (!bDone)
        {
            pthread_kill(sleeper, SIGUSR1);
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
    });
    const auto begin = std::chrono::steady_clock::now();
    Sleep(150);
    const auto slept = std::chrono::steady_clock::now() - begin;
    bDone = true;
    disturber.join();
    sigaction(SIGUSR1, &old, nullptr);

    EXPECT_GE(slept, std::chrono::milliseconds(150));
    EXPECT_GE(g_iSignals, 1); // the thread sanitizer delivers them together, afterwards
}
