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

    static bool SetEntry(const void* pEntry);
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
        static_cast<void>(SetEntry(pEntry.release())); // cannot fail where a value was before
        return;
    }
    // The guard goes before the entry, which may hold the last reference on the state.
    const std::lock_guard<std::mutex> guard(pEntry->pState->mutex);
    --pEntry->pState->iInside;
    pEntry->pState->changed.notify_all();
}

// False when the process has no key left or no memory for the value.
bool ThreadsLeft::State::SetEntry(const void* pEntry)
{
    struct Storage
    {
        pthread_key_t key{};
        const bool bCreated = pthread_key_create(&key, &State::Leave) == 0;
    };
    static const Storage s_Storage;
    return s_Storage.bCreated && pthread_setspecific(s_Storage.key, pEntry) == 0;
}

ThreadsLeft::ThreadsLeft()
    : m_pState(std::make_shared<State>())
{}

ThreadsLeft::~ThreadsLeft() = default;

void ThreadsLeft::Enter()
{
    std::unique_ptr<State::Entry> pEntry(new (std::nothrow) State::Entry{m_pState, 0});
    // Without memory or storage the thread's end cannot be seen, and nobody waits for it.
    if (pEntry == nullptr || !State::SetEntry(pEntry.get()))
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
