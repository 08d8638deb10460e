#ifndef TARN_CONNECTION_WOULDBLOCK_H
#define TARN_CONNECTION_WOULDBLOCK_H

#include <cerrno>

/// Whether a failed call on a non-blocking descriptor is to be tried again later, and the connection is well.
inline bool IsWouldBlock(int iError)
{
    return iError == EWOULDBLOCK || iError == EAGAIN || iError == EINTR;
}

#endif
