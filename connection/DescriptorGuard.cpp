#include "connection/DescriptorGuard.h"

DescriptorGuard::DescriptorGuard()
{
    pthread_rwlockattr_t attributes;
    pthread_rwlockattr_init(&attributes);
    pthread_rwlockattr_setkind_np(&attributes, PTHREAD_RWLOCK_PREFER_WRITER_NONRECURSIVE_NP);
    pthread_rwlock_init(&m_Lock, &attributes);
    pthread_rwlockattr_destroy(&attributes);
}

DescriptorGuard::~DescriptorGuard()
{
    pthread_rwlock_destroy(&m_Lock);
}
