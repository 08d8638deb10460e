#include "platform/OsiSocket.h"
#include "platform/Tp4File.h"
#include "support/Listener.h"
#include "support/Process.h"
#include "support/TestHost.h"
#include "support/Threads.h"
#include "support/Tp4Line.h"

#include <fcntl.h>

#include <cerrno>
#include <fstream>
#include <future>

namespace {

using std::chrono::milliseconds;

const std::string ADDRESS("\x49\x00\x0F", 3);

SOCKADDR_TP SocketAddress(const std::string& strSelector, const std::string& strAddress)
{
    SOCKADDR_TP address = {};
    address.tp_family = AF_ISO;
    address.tp_taddr_len = static_cast<WORD>(strSelector.size() + strAddress.size());
    address.tp_tsel_len = static_cast<WORD>(strSelector.size());
    (strSelector + strAddress).copy(reinterpret_cast<char*>(address.tp_addr), address.tp_taddr_len);
    return address;
}

/// What a connection comes to: 0, or the error.
int Outcome(const SOCKADDR_TP& address, int iLength = sizeof(SOCKADDR_TP),
            milliseconds limit = milliseconds(50))
{
    const SOCKET hSocket = WSASocketA(AF_ISO, SOCK_SEQPACKET, ISOPROTO_TP4, nullptr, 0, 0);
    EXPECT_NE(hSocket, INVALID_SOCKET);
    const int iResult =
        ConnectOsiSocket(hSocket, reinterpret_cast<const sockaddr*>(&address), iLength, limit);
    const int iError = iResult == 0 ? 0 : WSAGetLastError();
    EXPECT_EQ(fcntl(hSocket, F_GETFL) & O_NONBLOCK, 0);
    EXPECT_EQ(closesocket(hSocket), 0);
    return iError;
}

int Outcome(const std::string& strSelector, const std::string& strAddress)
{
    return Outcome(SocketAddress(strSelector, strAddress));
}

/// Sends all and ends; then receives until the other side ends.
std::string Exchange(int iSocket, const std::string& strSent)
{
    auto sent = std::async(std::launch::async, [&] {
        EXPECT_EQ(send(iSocket, strSent.data(), strSent.size(), MSG_NOSIGNAL),
                  static_cast<ssize_t>(strSent.size()));
        shutdown(iSocket, SHUT_WR);
    });
    std::string strReceived;
    char bytes[4096];
    for (ssize_t iReceived = 0; (iReceived = recv(iSocket, bytes, sizeof(bytes), 0)) > 0;)
        strReceived.append(bytes, static_cast<std::size_t>(iReceived));
    sent.get();
    return strReceived;
}

int ConnectTo(const std::string& strSelector)
{
    const SOCKET hSocket = WSASocketA(AF_ISO, SOCK_SEQPACKET, ISOPROTO_TP4, nullptr, 0, 0);
    const SOCKADDR_TP address = SocketAddress(strSelector, ADDRESS);
    EXPECT_EQ(WSAConnect(hSocket, reinterpret_cast<const sockaddr*>(&address), sizeof(address), nullptr,
                         nullptr, nullptr, nullptr),
              0)
        << WSAGetLastError();
    return hSocket;
}

/// What a listener leaves that is killed.
void LeaveBehind(const std::string& strFile)
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    strFile.copy(address.sun_path, sizeof(address.sun_path) - 1);
    const int iSocket = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    EXPECT_EQ(bind(iSocket, reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
    close(iSocket);
}

TEST(OsiSocket, AnythingButAConnectionOverTheProviderIsRefused)
{
    const Tp4Folder folder;
    const auto refusal = [](int iFamily, int iType, int iProtocol, unsigned uGroup = 0) {
        EXPECT_EQ(WSASocketA(iFamily, iType, iProtocol, nullptr, uGroup, 0), INVALID_SOCKET);
        return WSAGetLastError();
    };
    EXPECT_EQ(refusal(AF_INET, SOCK_SEQPACKET, ISOPROTO_TP4), EAFNOSUPPORT);
    EXPECT_EQ(refusal(AF_ISO, SOCK_STREAM, ISOPROTO_TP4), ESOCKTNOSUPPORT);
    EXPECT_EQ(refusal(AF_ISO, SOCK_SEQPACKET, 0), EPROTONOSUPPORT);
    EXPECT_EQ(refusal(AF_ISO, SOCK_SEQPACKET, ISOPROTO_TP4, 1), EINVAL);
    setenv("TARN_TP4_DIR", (folder.Path() + "/missing").c_str(), 1);
    EXPECT_EQ(refusal(AF_ISO, SOCK_SEQPACKET, ISOPROTO_TP4), EAFNOSUPPORT);
    std::ofstream(folder.Path() + "/missing") << "a file";
    EXPECT_EQ(refusal(AF_ISO, SOCK_SEQPACKET, ISOPROTO_TP4), EAFNOSUPPORT);
    EXPECT_EQ(closesocket(INVALID_SOCKET), SOCKET_ERROR);
    EXPECT_EQ(WSAGetLastError(), EBADF);
}

TEST(OsiSocket, AMalformedAddressIsRefused)
{
    const Tp4Folder folder;
    const Tp4Peer peer("s", ADDRESS);
    const SOCKADDR_TP good = SocketAddress("s", ADDRESS);
    EXPECT_EQ(Outcome(good), 0);
    EXPECT_EQ(Outcome(good, sizeof(good) - 1), EINVAL);
    EXPECT_EQ(Outcome(good, sizeof(good) + 1), EINVAL);
    const auto broken = [&good](WORD SOCKADDR_TP::*pField, WORD wValue) {
        SOCKADDR_TP address = good;
        address.*pField = wValue;
        return Outcome(address);
    };
    EXPECT_EQ(broken(&SOCKADDR_TP::tp_family, AF_INET), EINVAL);
    EXPECT_EQ(broken(&SOCKADDR_TP::tp_addr_type, 1), EINVAL);
    EXPECT_EQ(broken(&SOCKADDR_TP::tp_taddr_len, 65), EINVAL);
    EXPECT_EQ(broken(&SOCKADDR_TP::tp_tsel_len, 5), EINVAL);
    EXPECT_EQ(broken(&SOCKADDR_TP::tp_tsel_len, 0), ECONNREFUSED); // another address, of the same bytes
    EXPECT_EQ(ConnectOsiSocket(0, nullptr, sizeof(good), milliseconds(1)), SOCKET_ERROR);
    EXPECT_EQ(WSAGetLastError(), EINVAL);
}

TEST(OsiSocket, WhoListensIsFoundAtItsAddressOnly)
{
    const Tp4Folder folder;
    const std::string strLongest(ISO_MAX_ADDR_LENGTH - 15, '\xFF');
    EXPECT_EQ(Outcome("", ""), ECONNREFUSED);
    const Tp4Peer empty("", "");
    const Tp4Peer longest("fifteen letters", strLongest);
    EXPECT_EQ(Outcome("", ""), 0);
    EXPECT_EQ(Outcome("fifteen letters", strLongest), 0);
    EXPECT_EQ(Outcome("", std::string(1, '\0')), ECONNREFUSED);
    EXPECT_EQ(Outcome("fifteen letter", 's' + strLongest.substr(1)), ECONNREFUSED);
    EXPECT_EQ(Tp4FileName("", ""), "AA");
    EXPECT_EQ(Tp4FileName("snmp", ADDRESS), "BHNubXBJAA8");
    EXPECT_EQ(Tp4FileName("fifteen letters", std::string(40, '\xFF')).size(), 75U);
}

TEST(OsiSocket, AListenerReplacesOnlyWhatIsLeftOfAnother)
{
    const Tp4Folder folder;
    const std::string strFile = folder.Path() + '/' + Tp4FileName("s", ADDRESS);
    LeaveBehind(strFile);
    EXPECT_EQ(Outcome("s", ADDRESS), ECONNREFUSED);
    {
        const Tp4Peer peer("s", ADDRESS);
        EXPECT_EQ(Outcome("s", ADDRESS), 0);
        Tp4Listener second;
        EXPECT_EQ(second.Open("s", ADDRESS, 1), EADDRINUSE);
        EXPECT_EQ(Outcome("s", ADDRESS), 0);
    }
    EXPECT_FALSE(std::filesystem::exists(strFile));
    std::ofstream(strFile) << "somebody's";
    EXPECT_EQ(Outcome("s", ADDRESS), ECONNREFUSED);
    Tp4Listener listener;
    EXPECT_EQ(listener.Open("s", ADDRESS, 1), EADDRINUSE);
    EXPECT_TRUE(std::filesystem::remove(strFile));
    {
        const Tp4Peer replaced("s", ADDRESS);
        std::filesystem::remove(strFile);
        EXPECT_EQ(listener.Open("s", ADDRESS, 1), 0);
    }
    EXPECT_EQ(Outcome("s", ADDRESS), 0); // the other one has not taken it along
}

/// Several start at once, where a killed one has left its file: one of them gets the address, and keeps it.
TEST(OsiSocket, OneOfManyListenersGetsAnAddress)
{
    const Tp4Folder folder;
    for (int iRound = 0; iRound < 20; ++iRound)
    {
        LeaveBehind(folder.Path() + '/' + Tp4FileName("s", ADDRESS));
        Tp4Listener listeners[4];
        std::atomic<int> nOpen{0};
        RunTogether(4, [&](int i) { nOpen += listeners[i].Open("s", ADDRESS, 8) == 0 ? 1 : 0; });
        ASSERT_EQ(nOpen, 1);
        ASSERT_EQ(Outcome("s", ADDRESS), 0);
    }
}

TEST(OsiSocket, ALongDirectoryIsNoHindrance)
{
    const Tp4Folder folder('/' + std::string(200, 'd'));
    const int nDescriptors = DescriptorCount();
    {
        const Tp4Peer peer("fifteen letters", std::string(40, '\0')); // makes the directory, too
        EXPECT_EQ(Outcome("fifteen letters", std::string(40, '\0')), 0);
        EXPECT_EQ(Outcome("fifteen letters", std::string(39, '\0')), ECONNREFUSED);
    }
    EXPECT_EQ(Outcome("fifteen letters", std::string(40, '\0')), ECONNREFUSED);
    EXPECT_EQ(DescriptorCount(), nDescriptors);
}

TEST(OsiSocket, AFullBacklogIsWaitedForWithALimit)
{
    const Tp4Folder folder;
    const Tp4Peer peer("s", ADDRESS, 0);
    const SOCKET hFirst = ConnectTo("s");
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(Outcome(SocketAddress("s", ADDRESS), sizeof(SOCKADDR_TP), milliseconds(200)), ETIMEDOUT);
    EXPECT_GE(std::chrono::steady_clock::now() - begin, milliseconds(200));
    // Who gets room meanwhile is connected, and has no limit to anything afterwards.
    auto waiting = std::async(std::launch::async, [] { return ConnectTo("s"); });
    const int iFirst = peer.Accept();
    const SOCKET hSecond = waiting.get();
    timeval limit = {1, 1};
    socklen_t uLength = sizeof(limit);
    EXPECT_EQ(getsockopt(hSecond, SOL_SOCKET, SO_SNDTIMEO, &limit, &uLength), 0);
    EXPECT_EQ(limit.tv_sec + limit.tv_usec, 0);
    EXPECT_EQ(fcntl(hSecond, F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
    for (const int iDescriptor : {hFirst, iFirst, hSecond})
        EXPECT_EQ(closesocket(iDescriptor), 0);
}

TEST(OsiSocket, ARelayLosesNothingAndHandsEndsOn)
{
    const Tp4Folder folder;
    const Listener target;
    const int nDescriptors = DescriptorCount();
    {
        const Tp4Road road("s", ADDRESS, target.Port());
        const std::string strThere(3'000'000, 't');
        const std::string strBack(2'000'000, 'b');
        const SOCKET hNear = ConnectTo("s");
        const int iFar = target.Accept();
        auto arrived = std::async(std::launch::async, [&] { return Exchange(iFar, strBack); });
        EXPECT_TRUE(Exchange(hNear, strThere) == strBack);
        EXPECT_TRUE(arrived.get() == strThere);
        close(iFar);
        closesocket(hNear);
        // One that closes with bytes unread: what it has sent arrives, and the other side is not held up.
        const SOCKET hReader = ConnectTo("s");
        const int iQuitter = target.Accept();
        EXPECT_EQ(send(hReader, strThere.data(), 100'000, MSG_NOSIGNAL), 100'000);
        EXPECT_EQ(send(iQuitter, strBack.data(), 20'000, MSG_NOSIGNAL), 20'000);
        std::string strReceived(20'000, '\0');
        EXPECT_EQ(recv(hReader, strReceived.data(), strReceived.size(), MSG_WAITALL), 20'000);
        close(iQuitter);
        EXPECT_EQ(recv(hReader, strReceived.data(), strReceived.size(), 0), 0);
        closesocket(hReader);
        EXPECT_TRUE(WaitUntil([&] { return DescriptorCount() == nDescriptors + 2; })); // listener and stop
    }
    EXPECT_EQ(DescriptorCount(), nDescriptors);
}

TEST(OsiSocket, BehindARelayNobodyListens)
{
    const Tp4Folder folder;
    const Tp4Road road("s", ADDRESS, FreePort());
    const SOCKET hNear = ConnectTo("s");
    char byte = 0;
    EXPECT_EQ(recv(hNear, &byte, 1, 0), 0);
    closesocket(hNear);
}

} // namespace
