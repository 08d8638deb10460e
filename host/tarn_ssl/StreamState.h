#ifndef TARN_HOST_TARN_SSL_STREAMSTATE_H
#define TARN_HOST_TARN_SSL_STREAMSTATE_H

#include "TlsConnection.h"
#include "tarnadapterframe/tarn_ssl.h"

#include <cstdint>
#include <memory>
#include <mutex>
#include <utility>

/// A time-out that begins now; none for null.
TlsConnection::Deadline DeadlineAfter(const ACE_Time_Value* pTimeout);

/// Which connection a stream stands for. The mutex is a leaf.
struct TARN_SOCK_Stream::State
{
    std::shared_ptr<TlsConnection> Connection()
    {
        const std::lock_guard<std::mutex> guard(mutex);
        return pConnection;
    }

    /// Forgets the connection. @return what is to be closed, if anything
    std::shared_ptr<TlsConnection> Close()
    {
        const std::lock_guard<std::mutex> guard(mutex);
        ++uClosings;
        return std::exchange(pConnection, nullptr);
    }

    std::uint64_t Closings()
    {
        const std::lock_guard<std::mutex> guard(mutex);
        return uClosings;
    }

    /// Takes a connection, unless the stream has been closed since uClosingsSeen.
    bool Take(std::shared_ptr<TlsConnection> pNew, std::uint64_t uClosingsSeen)
    {
        const std::lock_guard<std::mutex> guard(mutex);
        if (uClosings != uClosingsSeen)
            return false;
        pConnection = std::move(pNew);
        return true;
    }

private:
    std::mutex mutex;
    std::shared_ptr<TlsConnection> pConnection; // guarded by mutex, as the next
    std::uint64_t uClosings = 0;
};

#endif
