#include "core/ActiveThreads.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <thread>
#include <vector>

namespace {

constexpr auto LONG = std::chrono::seconds(20);

/// Members that take jobs from one queue, until each has taken an empty one.
class Crew
{
public:
    explicit Crew(int nThreads)
    {
        for (int i = 0; i < nThreads; ++i)
            m_Threads.emplace_back([this] { Run(); });
    }
    ~Crew()
    {
        for (std::size_t u = 0; u < m_Threads.size(); ++u)
            Put({});
        for (std::thread& thread : m_Threads)
            thread.join();
    }
    Crew(const Crew&) = delete;
    Crew& operator=(const Crew&) = delete;

    void Put(std::function<void()> job)
    {
        const std::lock_guard<std::mutex> guard(m_Mutex);
        m_Jobs.push_back(std::move(job));
        m_Put.notify_one();
    }
    bool IsCalm() const { return m_Active.IsCalm(); }
    void End() { m_Active.ActivateAll(); }

private:
    void Run()
    {
        const ActiveThreads::Member member(m_Active);
        for (;;)
        {
            ActiveThreads::AwaitTurn();
            std::function<void()> job;
            {
                std::unique_lock<std::mutex> lock(m_Mutex);
                while (m_Jobs.empty())
                {
                    ActiveThreads::NoteIdle();
                    m_Put.wait(lock);
                }
                job = std::move(m_Jobs.front());
                m_Jobs.pop_front();
            }
            const ActiveThreads::Turn turn;
            if (!job)
                return;
            job();
        }
    }

    std::mutex m_Mutex;
    std::condition_variable m_Put;
    std::deque<std::function<void()>> m_Jobs;
    ActiveThreads m_Active;
    std::vector<std::thread> m_Threads;
};

/// What one waits for and another does.
class Event
{
public:
    void Set()
    {
        const std::lock_guard<std::mutex> guard(m_Mutex);
        m_bSet = true;
        m_Changed.notify_all();
    }
    bool Wait()
    {
        std::unique_lock<std::mutex> lock(m_Mutex);
        return m_Changed.wait_for(lock, LONG, [this] { return m_bSet; });
    }

private:
    std::mutex m_Mutex;
    std::condition_variable m_Changed;
    bool m_bSet = false;
};

/// Queues jobs each of which waits until the next one has begun, and waits until all are done.
/// @param bSaid  whether they say that they wait
void BlockOneAfterTheOther(Crew& crew, int nJobs, bool bSaid)
{
    std::vector<Event> begun(static_cast<std::size_t>(nJobs));
    Event done;
    std::atomic<int> nGood{0};
    std::atomic<int> nLeft{nJobs};
    for (std::size_t u = 0; u < begun.size(); ++u)
        crew.Put([&, u] {
            begun[u].Set();
            if (bSaid)
                ActiveThreads::NoteBlocked();
            nGood += u + 1 == begun.size() || begun[u + 1].Wait() ? 1 : 0;
            if (--nLeft == 0)
                done.Set();
        });
    EXPECT_TRUE(done.Wait());
    EXPECT_EQ(nGood, nJobs);
}

} // namespace

TEST(ActiveThreads, OneGoesOnWhileItsTurnsAreBrief)
{
    constexpr int JOBS = 50'000;
    std::map<std::thread::id, int> jobsOf;
    std::mutex mutex;
    Event done;
    Crew crew(4);
    for (int i = 0; i < JOBS; ++i)
        crew.Put([&, i] {
            const std::lock_guard<std::mutex> guard(mutex);
            ++jobsOf[std::this_thread::get_id()];
            if (i + 1 == JOBS)
                done.Set();
        });
    ASSERT_TRUE(done.Wait());
    const std::lock_guard<std::mutex> guard(mutex);
    const auto most = std::max_element(jobsOf.begin(), jobsOf.end(),
                                       [](const auto& a, const auto& b) { return a.second < b.second; });
    EXPECT_GT(most->second, JOBS / 2) << "of " << jobsOf.size() << " threads";
}

TEST(ActiveThreads, WhoBlocksIsReplaced)
{
    Crew crew(5);
    for (const int nJobs : {2, 3, 5})
        for (const bool bSaid : {false, true})
            BlockOneAfterTheOther(crew, nJobs, bSaid);
}

// A thread that waits until others have done much gets it done, whether it says that it waits or not.
TEST(ActiveThreads, WhoWaitsForMuchWorkOfOthersIsNotLeftAlone)
{
    constexpr int JOBS = 2000;
    Crew crew(3);
    for (const bool bSaid : {true, false})
    {
        Event begun;
        Event allDone;
        Event ended;
        std::atomic<int> nDone{0};
        std::atomic<bool> bGood{false};
        crew.Put([&] {
            begun.Set();
            if (bSaid)
                ActiveThreads::NoteBlocked();
            bGood = allDone.Wait();
            ended.Set();
        });
        ASSERT_TRUE(begun.Wait());
        for (int i = 0; i < JOBS; ++i)
            crew.Put([&] {
                if (++nDone == JOBS)
                    allDone.Set();
            });
        EXPECT_TRUE(ended.Wait());
        EXPECT_TRUE(bGood) << nDone << " done";
    }
}

TEST(ActiveThreads, AtTheEndAllAreActive)
{
    // Each of the jobs waits until all have begun, and none of the looks would be needed for that.
    constexpr int THREADS = 8;
    Event begun[THREADS];
    std::atomic<int> nGood{0};
    {
        Crew crew(THREADS);
        crew.End();
        for (int i = 0; i < THREADS; ++i)
            crew.Put([&, i] {
                begun[i].Set();
                for (Event& other : begun)
                    if (!other.Wait())
                        return;
                ++nGood;
            });
    }
    EXPECT_EQ(nGood, THREADS);
}

TEST(ActiveThreads, WhoBlocksIsReplacedAfterAPause)
{
    Crew crew(5);
    for (const int nJobs : {2, 3, 4}) // one more each time than are active by then
    {
        const auto tEnd = std::chrono::steady_clock::now() + LONG;
        while (!crew.IsCalm() && std::chrono::steady_clock::now() < tEnd)
            std::this_thread::yield();
        ASSERT_TRUE(crew.IsCalm()) << "somebody looks at nothing";
        BlockOneAfterTheOther(crew, nJobs, false);
    }
}

TEST(ActiveThreads, LongTurnsAreTakenSideBySide)
{
    // Each computes until it has seen another one inside, which one thread by itself never does.
    std::atomic<int> nInside{0};
    std::atomic<bool> bTogether{false};
    Event done;
    {
        Crew crew(3);
        std::atomic<int> nLeft{1000};
        for (int i = 0; i < 1000; ++i)
            crew.Put([&] {
                const auto tEnd = std::chrono::steady_clock::now() + std::chrono::milliseconds(20);
                if (++nInside > 1)
                    bTogether = true;
                while (!bTogether && std::chrono::steady_clock::now() < tEnd)
                {}
                --nInside;
                if (--nLeft == 0)
                    done.Set();
            });
        ASSERT_TRUE(done.Wait());
    }
    EXPECT_TRUE(bTogether);
}

// Threads come and go, jobs are brief, compute or block, and all are done.
TEST(ActiveThreads, Stress)
{
    constexpr int ROUNDS = 30;
    constexpr int JOBS = 400;
    for (int i = 0; i < ROUNDS; ++i)
    {
        std::atomic<int> nDone{0};
        {
            Crew crew(1 + i % 4);
            for (int j = 0; j < JOBS; ++j)
                crew.Put([&, j] {
                    if (j % 50 == 0)
                        ActiveThreads::NoteBlocked();
                    if (j % 20 == 0)
                        std::this_thread::yield();
                    ++nDone;
                });
            if (i % 4 > 0)
                BlockOneAfterTheOther(crew, 2, i % 2 == 0);
        }
        EXPECT_EQ(nDone, JOBS);
    }
}
