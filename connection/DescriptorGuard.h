#ifndef TARN_CONNECTION_DESCRIPTORGUARD_H
#define TARN_CONNECTION_DESCRIPTORGUARD_H

#include "tarnadapterframe/TarnLock.h"

#include <pthread.h>

/// Keeps a connection's descriptor from being closed, and its number from being given to somebody else, while
/// it is used.
///
/// Read side: one look at the handle together with one call that does not block on it, or the whole of
/// registering and unregistering it. Write side: closing the descriptor together with forgetting its number,
/// or storing a new one. It is never held across framing, hooks or waits.
///
/// A closer must get its turn although readers never stop coming, so a waiting writer goes before new
/// readers; therefore no thread may take the read side twice.
class TARN_CAPABILITY("mutex") DescriptorGuard
{
public:
    DescriptorGuard();
    ~DescriptorGuard();
    DescriptorGuard(const DescriptorGuard&) = delete;
    DescriptorGuard& operator=(const DescriptorGuard&) = delete;

    /// Holds the read side for its own lifetime.
    class TARN_SCOPED_CAPABILITY Use
    {
    public:
        explicit Use(DescriptorGuard& guard) TARN_ACQUIRE_SHARED(guard) TARN_NO_THREAD_SAFETY_ANALYSIS
            : m_Guard(guard)
        {
            pthread_rwlock_rdlock(&m_Guard.m_Lock);
        }
        ~Use() TARN_RELEASE() TARN_NO_THREAD_SAFETY_ANALYSIS { pthread_rwlock_unlock(&m_Guard.m_Lock); }
        Use(const Use&) = delete;
        Use& operator=(const Use&) = delete;

    private:
        DescriptorGuard& m_Guard;
    };

    /// Holds the write side for its own lifetime.
    class TARN_SCOPED_CAPABILITY Change
    {
    public:
        explicit Change(DescriptorGuard& guard) TARN_ACQUIRE(guard) TARN_NO_THREAD_SAFETY_ANALYSIS
            : m_Guard(guard)
        {
            pthread_rwlock_wrlock(&m_Guard.m_Lock);
        }
        ~Change() TARN_RELEASE() TARN_NO_THREAD_SAFETY_ANALYSIS { pthread_rwlock_unlock(&m_Guard.m_Lock); }
        Change(const Change&) = delete;
        Change& operator=(const Change&) = delete;

    private:
        DescriptorGuard& m_Guard;
    };

private:
    pthread_rwlock_t m_Lock;
};

#endif
