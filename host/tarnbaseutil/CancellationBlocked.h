#ifndef TARN_HOST_CANCELLATIONBLOCKED_H
#define TARN_HOST_CANCELLATIONBLOCKED_H

#include <pthread.h>

/// Keeps a cancelled thread from being unwound out of code that others depend on.
class CancellationBlocked
{
public:
    CancellationBlocked() { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &m_iBefore); }
    ~CancellationBlocked() { pthread_setcancelstate(m_iBefore, nullptr); }
    CancellationBlocked(const CancellationBlocked&) = delete;
    CancellationBlocked& operator=(const CancellationBlocked&) = delete;

private:
    int m_iBefore = PTHREAD_CANCEL_ENABLE;
};

#endif
