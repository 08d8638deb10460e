#ifndef TARN_ASYNCIO_READYQUEUE_H
#define TARN_ASYNCIO_READYQUEUE_H

#include <ace/Event_Handler.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <mutex>

/// The queue of handles that may be read or written. It is the kernel's, epoll(7), of which each handle asks for one
/// announcement at a time (EPOLLONESHOT) and then for the next; and beside it there is one of handles that are taken to be
/// ready without asking the kernel. For these at most one thread is woken at a time.
///
/// Its owner has a lock under which he decides what a handle waits for; here it is called the owner's lock. What has been
/// decided may be told to the kernel later, without that lock, so that nobody is woken with it held: each decision about a
/// handle has a number, and one that has been overtaken by a later one is not told any more.
class ReadyQueue
{
    struct Record;

public:
    ReadyQueue();
    ~ReadyQueue();
    ReadyQueue(const ReadyQueue&) = delete;
    ReadyQueue& operator=(const ReadyQueue&) = delete;

    /// False when the system has given no descriptors for it.
    bool IsOpen() const { return m_Epoll >= 0; }

    /// A handle that may be read or written, as it was added under that generation.
    struct Ready
    {
        ACE_HANDLE handle = ACE_INVALID_HANDLE;
        std::uint32_t ulGeneration = 0;
        ACE_Reactor_Mask mask = 0; ///< of READ_MASK and WRITE_MASK; a handle that is over may be read
        bool bPosted = false;      ///< and not announced by the kernel
    };
    /// Waits for one handle. Any number of threads. @return 1; 0 woken, or the time is over; -1 with the error
    int Wait(int iTimeoutMs, Ready& ready);
    /// Puts a handle behind those that are ready, without asking the kernel.
    /// @return false without memory
    bool Post(const Ready& ready);
    /// Whether a post would wake a thread.
    bool IsSleeping() const { return m_nWaiting > 0 && !m_bWaking; }
    /// Lets one thread that waits, or the next that does, return.
    void Wake();
    /// Lets all return, now and later.
    void Stop();

    // --- with the owner's lock held ---

    /// Adds a handle, under a generation of its own: its number may have been another descriptor's.
    /// @return 0; -1 with the error: no such descriptor, one of a kind that cannot be waited for, no memory
    int Add(ACE_HANDLE handle, ACE_Reactor_Mask mask);
    /// Takes a handle out, if the kernel has it still.
    void Remove(ACE_HANDLE handle);
    /// Of the last adding; 0 for a handle that was never added.
    std::uint32_t Generation(ACE_HANDLE handle) const;

    /// One more than the highest handle that was ever added.
    std::size_t Handles() const { return m_Records.size(); }

    /// A decision what a handle waits for next.
    struct Decision
    {
        ACE_HANDLE handle = ACE_INVALID_HANDLE;
        std::uint32_t ulGeneration = 0;
        ACE_Reactor_Mask mask = 0;
        std::uint64_t uNumber = 0;
        Record* pRecord = nullptr; ///< null: nothing to tell
    };
    Decision Decide(ACE_HANDLE handle, ACE_Reactor_Mask mask);
    /// The same, if it is not what the kernel has been asked for, and not announced yet, anyway.
    Decision DecideIfNew(ACE_HANDLE handle, ACE_Reactor_Mask mask);
    /// Notes that the kernel has announced a handle, and keeps silent about it until it is told again.
    void NoteAnnounced(const Ready& ready);

    // --- without it, or with it ---

    /// @return 0 told, or overtaken; -1: the kernel does not know the handle any more
    int Tell(const Decision& decision);

private:
    struct Record
    {
        // Guarded by the owner's lock.
        std::uint32_t ulGeneration = 0;
        std::uint64_t uDecided = 0;
        ACE_Reactor_Mask askedFor = 0; // of the kernel; 0 once it has announced the handle

        std::mutex mutex;        // a leaf
        std::uint64_t uTold = 0; // guarded by it: the last decision that has been told
    };

    bool TakePosted(Ready& ready);
    void WakeForPosted();
    Record* Find(ACE_HANDLE handle);
    int Control(int iOperation, ACE_HANDLE handle, std::uint32_t ulGeneration, ACE_Reactor_Mask mask);

    int m_Epoll = -1;
    int m_WakeEvent = -1; // each write lets one thread return
    int m_StopEvent = -1; // readable for good once stopped

    std::mutex m_PostedMutex;              // a leaf
    std::deque<Ready> m_Posted;            // guarded by it
    std::atomic<std::size_t> m_nPosted{0}; // how many; changed within the mutex
    std::atomic<int> m_nWaiting{0};        // threads that are in the kernel's wait, or about to be
    std::atomic<bool> m_bWaking{false};    // one of them is being woken for what has been posted

    std::deque<Record> m_Records; // by handle; guarded by the owner's lock, but records stay where they are
};

#endif
