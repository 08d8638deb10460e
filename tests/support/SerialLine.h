#ifndef TARN_TESTS_SUPPORT_SERIALLINE_H
#define TARN_TESTS_SUPPORT_SERIALLINE_H

#include "support/TestHost.h"

#include <cstdlib>
#include <fcntl.h>
#include <poll.h>
#include <string>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

/// A serial line, as a pseudo terminal: the library opens the port of that name, the test is the device at the other
/// end.
class SerialLine
{
public:
    SerialLine() { Open(); }
    ~SerialLine() { Remove(); }
    SerialLine(const SerialLine&) = delete;
    SerialLine& operator=(const SerialLine&) = delete;

    const std::string& Port() const { return m_strPort; }

    /// The device goes away, and comes as another one.
    void Remove()
    {
        if (m_iFar != -1)
            close(m_iFar);
        m_iFar = -1;
    }
    void Open()
    {
        m_iFar = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC | O_NONBLOCK);
        EXPECT_EQ(grantpt(m_iFar), 0);
        EXPECT_EQ(unlockpt(m_iFar), 0);
        char szName[64] = {};
        EXPECT_EQ(ptsname_r(m_iFar, szName, sizeof(szName)), 0);
        m_strPort = szName;
    }

    /// The device sends; all of it, as far as the line takes it in time.
    void Send(const std::string& strBytes) const
    {
        std::size_t uSent = 0;
        EXPECT_TRUE(WaitUntil([&] {
            const ssize_t iTaken = write(m_iFar, strBytes.data() + uSent, strBytes.size() - uSent);
            uSent += iTaken > 0 ? static_cast<std::size_t>(iTaken) : 0;
            return uSent == strBytes.size();
        }));
    }
    /// The device sends, as far as the line takes it, and reads what there is.
    void Babble(const std::string& strBytes) const
    {
        char received[4096];
        pollfd ready = {m_iFar, POLLIN | POLLOUT, 0};
        poll(&ready, 1, 10);
        static_cast<void>(!write(m_iFar, strBytes.data(), strBytes.size()));
        static_cast<void>(!read(m_iFar, received, sizeof(received)));
    }
    /// What the device has received, at least so many bytes unless they do not come in time.
    std::string Receive(std::size_t uLength) const
    {
        std::string strBytes;
        EXPECT_TRUE(WaitUntil([&] {
            char received[4096];
            pollfd readable = {m_iFar, POLLIN, 0};
            poll(&readable, 1, 100);
            const ssize_t iRead = read(m_iFar, received, sizeof(received));
            strBytes.append(received, iRead > 0 ? static_cast<std::size_t>(iRead) : 0);
            return strBytes.size() >= uLength;
        })) << strBytes.size()
            << " of " << uLength;
        return strBytes;
    }
    /// True when the device has received something that it has not read.
    bool IsSentTo() const
    {
        int iWaiting = 0;
        return ioctl(m_iFar, FIONREAD, &iWaiting) == 0 && iWaiting > 0;
    }
    /// The rate that the library has set.
    speed_t Speed() const
    {
        termios line = {};
        EXPECT_EQ(tcgetattr(m_iFar, &line), 0);
        return cfgetospeed(&line);
    }

private:
    int m_iFar = -1;
    std::string m_strPort;
};

#endif
