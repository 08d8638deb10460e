#ifndef TARN_TESTS_SUPPORT_SOCKETPAIR_H
#define TARN_TESTS_SUPPORT_SOCKETPAIR_H

#include <gtest/gtest.h>

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>

/// A connected pair of sockets; the near end belongs to the library's side of a test, the far end is the test's.
class SocketPair
{
public:
    SocketPair()
    {
        int ends[2] = {-1, -1};
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends), 0);
        iNear = ends[0];
        iFar = ends[1];
    }
    ~SocketPair()
    {
        CloseNear();
        CloseFar();
    }
    SocketPair(const SocketPair&) = delete;
    SocketPair& operator=(const SocketPair&) = delete;

    void CloseNear() { Close(iNear); }
    void CloseFar() { Close(iFar); }

    void Send(int iBytes) const { Send(std::string(static_cast<std::size_t>(iBytes), 'x')); }

    /// Sends all, waiting for room when there is none.
    void Send(const std::string& strBytes) const
    {
        for (std::size_t uSent = 0; uSent < strBytes.size();)
        {
            const ssize_t iSent = send(iFar, strBytes.data() + uSent, strBytes.size() - uSent, MSG_NOSIGNAL);
            if (iSent > 0)
                uSent += static_cast<std::size_t>(iSent);
            else
                ASSERT_TRUE(WaitFor(POLLOUT)) << "nobody reads";
        }
    }

    /// Receives at the far end until there are so many bytes, or the near end is closed or silent for long.
    std::string Receive(std::size_t uBytes) const
    {
        std::string strBytes(uBytes, '\0');
        std::size_t uReceived = 0;
        while (uReceived < uBytes && WaitFor(POLLIN))
        {
            const ssize_t iReceived = recv(iFar, strBytes.data() + uReceived, uBytes - uReceived, 0);
            if (iReceived <= 0)
                break;
            uReceived += static_cast<std::size_t>(iReceived);
        }
        strBytes.resize(uReceived);
        return strBytes;
    }

    int iNear = -1;
    int iFar = -1;

private:
    static void Close(int& iEnd)
    {
        if (iEnd >= 0)
            close(iEnd);
        iEnd = -1;
    }

    bool WaitFor(short iEvent) const
    {
        constexpr int DEADLINE_MS = 30'000;
        pollfd far = {iFar, iEvent, 0};
        return poll(&far, 1, DEADLINE_MS) == 1;
    }
};

#endif
