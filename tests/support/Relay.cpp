#include "support/Relay.h"

#include <gtest/gtest.h>

#include <netinet/in.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <string>

namespace {

/// A port that nobody listens on just now.
std::uint16_t FreePort()
{
    const int iSocket = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t uLength = sizeof(address);
    EXPECT_EQ(bind(iSocket, reinterpret_cast<sockaddr*>(&address), uLength), 0);
    EXPECT_EQ(getsockname(iSocket, reinterpret_cast<sockaddr*>(&address), &uLength), 0);
    close(iSocket);
    return ntohs(address.sin_port);
}

} // namespace

Relay::Relay(std::uint16_t usTarget)
    : m_usPort(FreePort())
{
    std::string strSocat = "socat";
    std::string strOption = "-b";
    std::string strBytes = "7";
    std::string strFrom = "TCP-LISTEN:" + std::to_string(m_usPort) + ",bind=127.0.0.1,reuseaddr,nodelay";
    std::string strTo = "TCP:127.0.0.1:" + std::to_string(usTarget) + ",nodelay";
    char* const arguments[] = {strSocat.data(), strOption.data(), strBytes.data(),
                               strFrom.data(),  strTo.data(),     nullptr};
    EXPECT_EQ(posix_spawnp(&m_Process, "socat", nullptr, nullptr, arguments, environ), 0)
        << "socat is needed";
}

Relay::~Relay()
{
    if (m_Process <= 0)
        return;
    kill(m_Process, SIGTERM);
    waitpid(m_Process, nullptr, 0);
}
