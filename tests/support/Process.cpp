#include "support/Process.h"

#include "support/Loopback.h"
#include "support/TestHost.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>

Process::Process(const std::vector<std::string>& arguments)
{
    std::vector<std::string> words = arguments;
    std::vector<char*> pointers;
    for (std::string& strWord : words)
        pointers.push_back(strWord.data());
    pointers.push_back(nullptr);
    int inputPipe[2] = {-1, -1};
    int outputPipe[2] = {-1, -1};
    EXPECT_EQ(pipe2(inputPipe, O_CLOEXEC), 0);
    EXPECT_EQ(pipe2(outputPipe, O_CLOEXEC), 0);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, inputPipe[0], STDIN_FILENO);
    posix_spawn_file_actions_adddup2(&actions, outputPipe[1], STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions, outputPipe[1], STDERR_FILENO);
    EXPECT_EQ(posix_spawnp(&m_Process, pointers[0], &actions, nullptr, pointers.data(), environ), 0)
        << pointers[0] << " is needed";
    posix_spawn_file_actions_destroy(&actions);
    close(inputPipe[0]);
    close(outputPipe[1]);
    m_iInput = inputPipe[1];
    m_Reader = std::thread([this, iOutput = outputPipe[0]] {
        char bytes[4096];
        for (ssize_t iRead = 0; (iRead = read(iOutput, bytes, sizeof(bytes))) > 0;)
        {
            const std::lock_guard<std::mutex> guard(m_Mutex);
            m_strOutput.append(bytes, static_cast<std::size_t>(iRead));
        }
        close(iOutput);
    });
}

Process::~Process()
{
    close(m_iInput);
    if (m_Process > 0)
    {
        kill(m_Process, SIGKILL);
        waitpid(m_Process, nullptr, 0);
    }
    m_Reader.join();
}

void Process::Write(const std::string& strBytes) const
{
    EXPECT_EQ(write(m_iInput, strBytes.data(), strBytes.size()), static_cast<ssize_t>(strBytes.size()));
}

std::string Process::Output() const
{
    const std::lock_guard<std::mutex> guard(m_Mutex);
    return m_strOutput;
}

bool Process::HasWritten(const std::string& strText, std::size_t uFrom) const
{
    return WaitUntil([&] { return Output().find(strText, uFrom) != std::string::npos; });
}

void Process::Freeze() const
{
    kill(m_Process, SIGSTOP);
}

void Process::Thaw() const
{
    kill(m_Process, SIGCONT);
}

std::uint16_t FreePort()
{
    const int iSocket = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address = Loopback(0);
    socklen_t uLength = sizeof(address);
    EXPECT_EQ(bind(iSocket, reinterpret_cast<sockaddr*>(&address), uLength), 0);
    EXPECT_EQ(getsockname(iSocket, reinterpret_cast<sockaddr*>(&address), &uLength), 0);
    close(iSocket);
    return ntohs(address.sin_port);
}

bool IsListenedOn(std::uint16_t usPort)
{
    return WaitUntil([usPort] {
        const int iSocket = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        const sockaddr_in address = Loopback(usPort);
        const bool bConnected =
            connect(iSocket, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0;
        close(iSocket);
        return bConnected;
    });
}
