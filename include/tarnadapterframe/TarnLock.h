#ifndef TARNADAPTERFRAME_TARNLOCK_H
#define TARNADAPTERFRAME_TARNLOCK_H

/// @file
/// ACE's locks with the annotations of clang's thread-safety analysis, and guards that carry them.
///
/// The annotations say which lock guards a member and which function wants it held; clang checks them under
/// -Wthread-safety (https://clang.llvm.org/docs/ThreadSafetyAnalysis.html), other compilers see nothing.
/// Each lock is the ACE class of which it is derived and, taken and released by its own operations, behaves exactly like it.

#include <ace/RW_Thread_Mutex.h>
#include <ace/Recursive_Thread_Mutex.h>
#include <ace/Thread.h>
#include <ace/Thread_Mutex.h>

#include <atomic>
#include <cassert>
#include <cerrno>

#if defined(__clang__)
#define TARN_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define TARN_THREAD_ANNOTATION(x)
#endif

#define TARN_CAPABILITY(kind) TARN_THREAD_ANNOTATION(capability(kind))
#define TARN_SCOPED_CAPABILITY TARN_THREAD_ANNOTATION(scoped_lockable)
/// The member may only be touched with the lock held (shared: read).
#define TARN_GUARDED_BY(lock) TARN_THREAD_ANNOTATION(guarded_by(lock))
/// The same for what the member points to.
#define TARN_PT_GUARDED_BY(lock) TARN_THREAD_ANNOTATION(pt_guarded_by(lock))
/// The function wants the locks held by its caller (shared: for reading at least).
#define TARN_REQUIRES(...) TARN_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define TARN_REQUIRES_SHARED(...) TARN_THREAD_ANNOTATION(requires_shared_capability(__VA_ARGS__))
#define TARN_RETURN_CAPABILITY(lock) TARN_THREAD_ANNOTATION(lock_returned(lock))
/// The function takes the locks itself, so its caller must not hold them.
#define TARN_EXCLUDES(...) TARN_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))
#define TARN_ACQUIRE(...) TARN_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define TARN_ACQUIRE_SHARED(...) TARN_THREAD_ANNOTATION(acquire_shared_capability(__VA_ARGS__))
#define TARN_RELEASE(...) TARN_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
#define TARN_RELEASE_GENERIC(...) TARN_THREAD_ANNOTATION(release_generic_capability(__VA_ARGS__))
#define TARN_ACQUIRED_BEFORE(...) TARN_THREAD_ANNOTATION(acquired_before(__VA_ARGS__))
/// For the bodies that hand a lock on to ACE, which has no annotations.
#define TARN_NO_THREAD_SAFETY_ANALYSIS TARN_THREAD_ANNOTATION(no_thread_safety_analysis)

/// Takes a mutex that is mostly held for moments: looks a few times whether it is free before it waits, since a wait costs two
/// calls of the system and the time until the thread runs again.
template <class MUTEX>
int TarnAcquireSoon(MUTEX& mutex)
{
    constexpr int LOOKS = 40;
    const int iError = errno; // which the looks change, and a wait would not
    for (int i = 0; i < LOOKS; ++i)
    {
        if (mutex.tryacquire() == 0)
        {
            errno = iError;
            return 0;
        }
#if defined(__x86_64__) || defined(__i386__)
        __builtin_ia32_pause();
#endif
    }
    errno = iError;
    return mutex.acquire();
}

/// ACE_Thread_Mutex: not recursive. acquire and release return 0, or -1 with errno set.
class TARN_CAPABILITY("mutex") TarnThreadMutex : public ACE_Thread_Mutex
{
public:
    int acquire() TARN_ACQUIRE() TARN_NO_THREAD_SAFETY_ANALYSIS
    {
        return TarnAcquireSoon<ACE_Thread_Mutex>(*this);
    }
    int release() TARN_RELEASE() TARN_NO_THREAD_SAFETY_ANALYSIS { return ACE_Thread_Mutex::release(); }
};

/// ACE_Recursive_Thread_Mutex: its owner may take it again and releases it as often. Taken again it is only counted; it
/// is to be taken and released by these two operations, not by the base's.
class TARN_CAPABILITY("mutex") TarnRecursiveThreadMutex : public ACE_Recursive_Thread_Mutex
{
public:
    int acquire() TARN_ACQUIRE() TARN_NO_THREAD_SAFETY_ANALYSIS
    {
        const ACE_thread_t self = ACE_Thread::self();
        if (m_Owner.load(std::memory_order_relaxed) == self) // which only this thread could have written
        {
            ++m_uAgain;
            return 0;
        }
        const int iResult = TarnAcquireSoon<ACE_Recursive_Thread_Mutex>(*this);
        if (iResult == 0)
            m_Owner.store(self, std::memory_order_relaxed);
        return iResult;
    }
    int release() TARN_RELEASE() TARN_NO_THREAD_SAFETY_ANALYSIS
    {
        if (m_Owner.load(std::memory_order_relaxed) == ACE_Thread::self())
        {
            if (m_uAgain != 0)
            {
                --m_uAgain;
                return 0;
            }
            m_Owner.store(ACE_thread_t{}, std::memory_order_relaxed);
        }
        return ACE_Recursive_Thread_Mutex::release(); // which refuses a thread that does not own it
    }

private:
    std::atomic<ACE_thread_t> m_Owner{};
    unsigned m_uAgain = 0; // how often its owner has taken it beyond the first time; the owner's
};

/// ACE_RW_Thread_Mutex: many readers or one writer. Nested reads are safe; a writer must not take it again.
class TARN_CAPABILITY("mutex") TarnRWThreadMutex : public ACE_RW_Thread_Mutex
{
public:
    int acquire_read() TARN_ACQUIRE_SHARED() TARN_NO_THREAD_SAFETY_ANALYSIS
    {
        return ACE_RW_Thread_Mutex::acquire_read();
    }
    int acquire_write() TARN_ACQUIRE() TARN_NO_THREAD_SAFETY_ANALYSIS
    {
        return ACE_RW_Thread_Mutex::acquire_write();
    }
    int release() TARN_RELEASE_GENERIC() TARN_NO_THREAD_SAFETY_ANALYSIS
    {
        return ACE_RW_Thread_Mutex::release();
    }
};

/// Holds a mutex for its own lifetime. Taking a valid mutex cannot fail; a debug build asserts it.
template <class LOCK>
class TARN_SCOPED_CAPABILITY TarnGuard
{
public:
    explicit TarnGuard(LOCK& lock) TARN_ACQUIRE(lock)
        : m_Lock(lock)
    {
        [[maybe_unused]] const int iResult = m_Lock.acquire();
        assert(iResult == 0);
    }
    ~TarnGuard() TARN_RELEASE() { m_Lock.release(); }

    TarnGuard(const TarnGuard&) = delete;
    TarnGuard& operator=(const TarnGuard&) = delete;

private:
    LOCK& m_Lock;
};

/// Holds the read side of a read/write lock for its own lifetime.
class TARN_SCOPED_CAPABILITY TarnReadGuard
{
public:
    explicit TarnReadGuard(TarnRWThreadMutex& lock) TARN_ACQUIRE_SHARED(lock)
        : m_Lock(lock)
    {
        [[maybe_unused]] const int iResult = m_Lock.acquire_read();
        assert(iResult == 0);
    }
    ~TarnReadGuard() TARN_RELEASE() { m_Lock.release(); }

    TarnReadGuard(const TarnReadGuard&) = delete;
    TarnReadGuard& operator=(const TarnReadGuard&) = delete;

private:
    TarnRWThreadMutex& m_Lock;
};

/// Holds the write side of a read/write lock for its own lifetime.
class TARN_SCOPED_CAPABILITY TarnWriteGuard
{
public:
    explicit TarnWriteGuard(TarnRWThreadMutex& lock) TARN_ACQUIRE(lock)
        : m_Lock(lock)
    {
        [[maybe_unused]] const int iResult = m_Lock.acquire_write();
        assert(iResult == 0);
    }
    ~TarnWriteGuard() TARN_RELEASE() { m_Lock.release(); }

    TarnWriteGuard(const TarnWriteGuard&) = delete;
    TarnWriteGuard& operator=(const TarnWriteGuard&) = delete;

private:
    TarnRWThreadMutex& m_Lock;
};

#endif
