#ifndef TARN_TESTS_SUPPORT_LISTENER_H
#define TARN_TESTS_SUPPORT_LISTENER_H

#include "support/Loopback.h"

#include <gtest/gtest.h>

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>

/// A listening socket on 127.0.0.1 whose connections the test accepts itself, or leaves alone.
class Listener
{
public:
    Listener()
        : m_iSocket(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0))
    {
        socklen_t uLength = sizeof(m_Address);
        EXPECT_EQ(bind(m_iSocket, reinterpret_cast<sockaddr*>(&m_Address), uLength), 0);
        EXPECT_EQ(getsockname(m_iSocket, reinterpret_cast<sockaddr*>(&m_Address), &uLength), 0);
        EXPECT_EQ(listen(m_iSocket, SOMAXCONN), 0);
    }
    ~Listener() { close(m_iSocket); }
    Listener(const Listener&) = delete;
    Listener& operator=(const Listener&) = delete;

    std::uint16_t Port() const { return ntohs(m_Address.sin_port); }
    /// @return a socket, the caller's
    int Accept() const { return accept4(m_iSocket, nullptr, nullptr, SOCK_CLOEXEC); }

private:
    const int m_iSocket;
    sockaddr_in m_Address = Loopback(0);
};

#endif
