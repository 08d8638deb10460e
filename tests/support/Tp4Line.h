#ifndef TARN_TESTS_SUPPORT_TP4LINE_H
#define TARN_TESTS_SUPPORT_TP4LINE_H

#include "platform/Tp4Listener.h"
#include "platform/tp4/TcpRelay.h"
#include "support/Loopback.h"

#include <gtest/gtest.h>

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <thread>

/// A directory for the stand-in of the OSI transport provider. One at a time.
class Tp4Folder
{
public:
    /// @param strBelow  of a directory below it that is named instead, and not made
    explicit Tp4Folder(const std::string& strBelow = {})
    {
        std::string strPattern = (std::filesystem::temp_directory_path() / "tp4XXXXXX").string();
        EXPECT_NE(mkdtemp(strPattern.data()), nullptr);
        m_strFolder = strPattern;
        setenv("TARN_TP4_DIR", (m_strFolder + strBelow).c_str(), 1);
    }
    ~Tp4Folder()
    {
        unsetenv("TARN_TP4_DIR");
        std::filesystem::remove_all(m_strFolder);
    }
    Tp4Folder(const Tp4Folder&) = delete;
    Tp4Folder& operator=(const Tp4Folder&) = delete;

    const std::string& Path() const { return m_strFolder; }

private:
    std::string m_strFolder;
};

/// Somebody who listens at a transport address and whose connections the test accepts itself, or leaves alone.
class Tp4Peer
{
public:
    Tp4Peer(const std::string& strSelector, const std::string& strAddress, int iBacklog = 16)
    {
        EXPECT_EQ(m_Listener.Open(strSelector, strAddress, iBacklog), 0);
    }

    /// @return a non-blocking socket, the caller's
    int Accept() const
    {
        constexpr int DEADLINE_MS = 30'000;
        pollfd polled = {m_Listener.Descriptor(), POLLIN, 0};
        EXPECT_EQ(poll(&polled, 1, DEADLINE_MS), 1);
        return m_Listener.Accept();
    }

private:
    Tp4Listener m_Listener;
};

/// A transport address behind which a port of 127.0.0.1 is reached, as tarn-tp4 does it.
class Tp4Road
{
public:
    Tp4Road(const std::string& strSelector, const std::string& strAddress, std::uint16_t usPort)
    {
        EXPECT_EQ(m_Listener.Open(strSelector, strAddress, SOMAXCONN), 0);
        m_Thread = std::thread([this, target = Target(usPort)] {
            TcpRelay(m_Listener, target, [](const std::string&) {}).Run(m_iStop);
        });
    }
    ~Tp4Road()
    {
        eventfd_write(m_iStop, 1);
        m_Thread.join();
        close(m_iStop);
    }
    Tp4Road(const Tp4Road&) = delete;
    Tp4Road& operator=(const Tp4Road&) = delete;

private:
    static TcpAddress Target(std::uint16_t usPort)
    {
        const sockaddr_in address = Loopback(usPort);
        TcpAddress target;
        std::memcpy(&target.address, &address, sizeof(address));
        target.uLength = sizeof(address);
        return target;
    }

    Tp4Listener m_Listener;
    const int m_iStop = eventfd(0, EFD_CLOEXEC);
    std::thread m_Thread;
};

#endif
