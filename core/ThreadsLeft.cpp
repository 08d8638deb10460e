#include "core/ThreadsLeft.h"

#include <pthread.h>

#include <condition_variable>
#include <mutex>
#include <new>

struct ThreadsLeft::State
{
    // What a thread keeps in its thread-specific storage.
    struct Entry
    {
        std::shared_ptr<State> pState;
        int iRound = 0;
    };

    static pthread_key_t Key();
    static void Leave(void* pValue);

    std::mutex mutex;
    std::condition_variable changed;
    int iInside = 0; // guarded by mutex
};

namespace {

// Destructors of thread-specific storage run in rounds, for as long as values are left and at most
// PTHREAD_DESTRUCTOR_ITERATIONS (4) times, see pthread_key_create(3). ACE's run in the first; what they leave
// behind in the second.
constexpr int LAST_ROUND = 3;

} // namespace

void ThreadsLeft::State::Leave(void* pValue)
{
    std::unique_ptr<Entry> pEntry(static_cast<Entry*>(pValue));
    if (++pEntry->iRound < LAST_ROUND)
    {
        pthread_setspecific(Key(), pEntry.release());
        return;
    }
    // The guard goes before the entry, which may hold the last reference on the state.
    const std::lock_guard<std::mutex> guard(pEntry->pState->mutex);
    --pEntry->pState->iInside;
    pEntry->pState->changed.notify_all();
}

pthread_key_t ThreadsLeft::State::Key()
{
    static const pthread_key_t s_Key = [] {
        pthread_key_t key{};
        pthread_key_create(&key, &State::Leave);
        return key;
    }();
    return s_Key;
}

ThreadsLeft::ThreadsLeft()
    : m_pState(std::make_shared<State>())
{}

ThreadsLeft::~ThreadsLeft() = default;

void ThreadsLeft::Enter()
{
    std::unique_ptr<State::Entry> pEntry(new (std::nothrow) State::Entry{m_pState, 0});
    // Without memory or storage the thread's end cannot be seen, and nobody waits for it.
    if (pEntry == nullptr || pthread_setspecific(State::Key(), pEntry.get()) != 0)
        return;
    static_cast<void>(pEntry.release()); // the storage's now
    const std::lock_guard<std::mutex> guard(m_pState->mutex);
    ++m_pState->iInside;
}

void ThreadsLeft::WaitUntilNone()
{
    std::unique_lock<std::mutex> lock(m_pState->mutex);
    m_pState->changed.wait(lock, [this] { return m_pState->iInside == 0; });
}
