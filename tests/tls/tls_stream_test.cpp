#include "support/Listener.h"
#include "tarnadapterframe/tarn_ssl.h"
#include "tls/SealingPeer.h"
#include "tls/TlsServer.h"

#include <ace/INET_Addr.h>
#include <ace/Time_Value.h>

#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <fstream>
#include <thread>

namespace {

using Clock = std::chrono::steady_clock;
using Words = std::vector<std::string>;

class Tls : public HostTest
{
protected:
    void SetUp() override { EXPECT_EQ(option.set_authorities(authority.File().c_str(), nullptr), 0); }

    int Connect(std::uint16_t usPort, int iSeconds = 20)
    {
        connector.set_ssl_option(option);
        return Reconnect(usPort, iSeconds);
    }
    int Reconnect(std::uint16_t usPort, int iSeconds = 20)
    {
        const ACE_Time_Value timeout(iSeconds);
        return connector.connect(stream, ACE_INET_Addr(usPort, "127.0.0.1"), &timeout);
    }
    void SetNonBlocking() const { fcntl(stream.get_handle(), F_SETFL, O_NONBLOCK); }

    /// Receives until there are so many bytes.
    std::string Receive(std::size_t uBytes) const
    {
        std::string strReceived;
        while (strReceived.size() < uBytes)
        {
            char bytes[1024];
            const ACE_Time_Value timeout(20);
            const int iReceived =
                stream.recv(bytes, std::min(sizeof(bytes), uBytes - strReceived.size()), &timeout);
            if (iReceived <= 0)
                break;
            strReceived.append(bytes, static_cast<std::size_t>(iReceived));
        }
        return strReceived;
    }

    bool IsAnnounced() const
    {
        pollfd ready = {stream.get_handle(), POLLIN, 0};
        return poll(&ready, 1, 0) == 1;
    }
    /// Receives as who waits for the handle does: while it is announced, or the stream says that it has more.
    void ReceiveAnnounced(std::size_t uBuffer, std::string& strReceived) const
    {
        std::string strBuffer(uBuffer, ' ');
        for (bool bUnread = false; (bUnread = stream.has_unread()) || IsAnnounced();)
        {
            const int iReceived = stream.recv(strBuffer.data(), strBuffer.size());
            const int iError = errno;
            EXPECT_TRUE(iReceived >= 0 || (!bUnread && iReceived == -1 && iError == EWOULDBLOCK))
                << bUnread << " " << iReceived << " " << iError;
            if (iReceived == 0 || (iReceived < 0 && iError != EWOULDBLOCK))
                return;
            strReceived.append(strBuffer, 0, static_cast<std::size_t>(std::max(iReceived, 0)));
        }
    }

    bool IsLogged(const std::string& strText) const { return host.CountContaining(1, strText) == 1; }
    std::string Log() const
    {
        std::string strLog;
        for (const LogLine& line : host.Lines())
            strLog += line.strModule + ": " + line.strText + "\n";
        return strLog;
    }

    const Authority authority{"Test authority"};
    const Authority stranger{"Another authority"};
    const Authority::Issued issued = authority.Issue({});
    TARN_SSL_Option option;
    TARN_SOCK_Stream stream;
    TARN_SOCK_Connector connector;
};

TEST_F(Tls, APeerIsAcceptedForWhatItProvesAndRefusedWithTheReason)
{
    struct Case
    {
        const char* pszPeerName;
        Authority::Request request;
        const char* pszRefused; // null: accepted
    };
    const Case cases[] = {
        {nullptr, {}, nullptr},
        {"127.0.0.1", {}, nullptr},
        {"ne7.example", {"?", "DNS:ne7.example"}, nullptr},
        {"ne7.lab.example", {"?", "DNS:*.lab.example"}, nullptr},
        {"ne7.example", {"ne7.example", ""}, nullptr},
        {nullptr,
         {"expired", "IP:127.0.0.1", -10, -5},
         "certificate has expired; its certificate \"CN = expired\""},
        {nullptr,
         {"early", "IP:127.0.0.1", 5, 10},
         "certificate is not yet valid; its certificate \"CN = early\""},
        {nullptr, {"?", "DNS:ne7.example"}, "IP address mismatch, expected 127.0.0.1; its certificate"},
        {"127.0.0.2", {}, "IP address mismatch, expected 127.0.0.2"},
        {"ne8.example", {"?", "DNS:ne7.example"}, "hostname mismatch, expected ne8.example"},
        {"ne8.example", {"?", "DNS:ne7.example"}, "for DNS:ne7.example"},
    };
    for (const Case& each : cases)
    {
        const TlsServer server(authority.Issue(each.request));
        EXPECT_EQ(option.set_peer_name(each.pszPeerName), 0);
        host.ClearLines();
        const int iResult = Connect(server.Port());
        const int iError = errno;
        EXPECT_EQ(iResult, each.pszRefused == nullptr ? 0 : -1) << Log();
        if (each.pszRefused == nullptr)
            continue;
        EXPECT_EQ(iError, EPROTO);
        EXPECT_TRUE(IsLogged("the peer's certificate is refused: ")) << Log();
        EXPECT_TRUE(IsLogged(each.pszRefused)) << each.pszRefused << "\n" << Log();
        EXPECT_EQ(stream.get_handle(), ACE_INVALID_HANDLE);
    }
    option = TARN_SSL_Option();
    EXPECT_EQ(option.set_authorities(stranger.File().c_str(), nullptr), 0);
    const TlsServer server(issued);
    EXPECT_EQ(Connect(server.Port()), -1);
    EXPECT_TRUE(IsLogged("unable to get local issuer certificate")) << Log();
    option.set_auth_peer(false);
    EXPECT_EQ(Connect(server.Port()), 0);
    option.set_auth_peer(true);
    EXPECT_EQ(option.set_authorities(authority.File().c_str(), nullptr), 0);
    const Process rehash({"openssl", "rehash", "-v", authority.Folder()});
    EXPECT_TRUE(rehash.HasWritten("link authority.pem"));
    option = TARN_SSL_Option();
    EXPECT_EQ(option.set_authorities(nullptr, authority.Folder().c_str()), 0);
    EXPECT_TRUE(WaitUntil([&] { return Connect(server.Port()) == 0; })) << Log();
    EXPECT_EQ(option.set_peer_name("another.example"), 0);
    option.set_check_name(false);
    EXPECT_EQ(Connect(server.Port()), 0);
}

TEST_F(Tls, VersionsCiphersAndClientCertificatesMustSuitBothSides)
{
    const Authority::Issued own = authority.Issue({"manager", ""});
    const Authority::Issued foreign = stranger.Issue({"manager", ""});
    const Words wants = {"-Verify", "2", "-verify_return_error", "-CAfile", authority.File()};
    struct Case
    {
        Words server;
        const char* pszLeast;
        const char* pszGreatest;
        const char* pszCiphers;
        const Authority::Issued* pOwn;
        const char* pszRefused; // null: accepted
    };
    const auto with = [&](const char* pszVersion) {
        Words words = wants;
        words.emplace_back(pszVersion);
        return words;
    };
    const Case cases[] = {
        {{"-tls1_2"}, "TLSv1.2", nullptr, nullptr, nullptr, nullptr},
        {{"-tls1_3"}, "TLSv1.2", nullptr, nullptr, nullptr, nullptr},
        {{"-tls1_3"}, "TLSv1.3", nullptr, "TLS_AES_256_GCM_SHA384", nullptr, nullptr},
        {{"-tls1_2"}, "TLSv1.3", nullptr, nullptr, nullptr, "the peer refuses, with the alert: "},
        {{"-tls1_3"}, "TLSv1.2", "TLSv1.2", nullptr, nullptr, "the peer refuses, with the alert: "},
        {{"-tls1_2", "-cipher", "ECDHE-ECDSA-AES128-GCM-SHA256"},
         "TLSv1.2",
         nullptr,
         "ECDHE-ECDSA-AES256-GCM-SHA384",
         nullptr,
         "handshake failure"},
        {with("-tls1_2"), "TLSv1.2", nullptr, nullptr, &own, nullptr},
        {with("-tls1_3"), "TLSv1.2", nullptr, nullptr, &own, nullptr},
        {with("-tls1_2"), "TLSv1.2", nullptr, nullptr, nullptr, "handshake failure"},
        {with("-tls1_3"), "TLSv1.2", nullptr, nullptr, nullptr, "certificate required"},
        {with("-tls1_2"), "TLSv1.2", nullptr, nullptr, &foreign, "unknown ca"},
        {with("-tls1_3"), "TLSv1.2", nullptr, nullptr, &foreign, "unknown ca"},
    };
    for (const Case& each : cases)
    {
        const TlsServer server(issued, each.server);
        EXPECT_EQ(option.set_cipherlist(nullptr), 0);
        EXPECT_EQ(option.set_version(each.pszLeast, each.pszGreatest), 0);
        EXPECT_EQ(option.set_cipherlist(each.pszCiphers), 0);
        EXPECT_EQ(option.set_certificate(each.pOwn != nullptr ? each.pOwn->strCertificate.c_str() : nullptr,
                                         each.pOwn != nullptr ? each.pOwn->strKey.c_str() : nullptr),
                  0);
        host.ClearLines();
        EXPECT_EQ(Connect(server.Port()), each.pszRefused == nullptr ? 0 : -1) << each.server.back() << Log();
        EXPECT_TRUE(each.pszRefused == nullptr || IsLogged(each.pszRefused)) << each.pszRefused << "\n"
                                                                             << Log();
    }
}

TEST_F(Tls, BadSettingsAreRefusedWhereTheyAreGiven)
{
    const Authority::Issued other = authority.Issue({});
    const Authority::Issued guarded = authority.Issue({"?", "", -1, 1, "secret"});
    const std::string strEmpty = authority.Folder() + "/empty.pem";
    std::ofstream(strEmpty) << "no certificate\n";
    const auto refused = [&](int iResult, const char* pszReason) {
        EXPECT_EQ(iResult, -1) << pszReason;
        EXPECT_TRUE(IsLogged(pszReason)) << pszReason << "\n" << Log();
        host.ClearLines();
    };
    refused(option.set_authorities("/nowhere.pem", nullptr), "\"/nowhere.pem\": No such file or directory");
    refused(option.set_authorities(strEmpty.c_str(), nullptr), "empty.pem\": ");
    refused(option.set_authorities(nullptr, issued.strKey.c_str()), "it is no directory");
    refused(option.set_certificate(issued.strCertificate.c_str(), nullptr),
            "one does not go without the other");
    refused(option.set_certificate(issued.strCertificate.c_str(), other.strKey.c_str()),
            "key values mismatch");
    refused(option.set_certificate(guarded.strCertificate.c_str(), guarded.strKey.c_str()),
            "it is protected by a pass phrase");
    refused(option.set_cipherlist("NO-SUCH-CIPHER"), "\"NO-SUCH-CIPHER\": no cipher match");
    refused(option.set_cipherlist("DEFAULT:TLS_NO_SUCH"), "\"DEFAULT:TLS_NO_SUCH\": ");
    refused(option.set_version("SSLv3"), "\"SSLv3\"");
    refused(option.set_version("TLSv1.3", "TLSv1.2"), "refused the versions");
    refused(option.set_cipherlist("DEFAULT:!TLS_AES_128_GCM_SHA256"), "ciphers of TLS 1.3 can only be named");
    refused(option.set_cipherlist("TLS_ECDHE_ECDSA_WITH_AES_128_GCM_SHA256"), "is one of TLS 1.2");
    refused(option.set_peer_name("no name"), "neither a host name nor an IP address");
    refused(option.set_peer_name("10.0.0.300"), "neither a host name nor an IP address");
    refused(option.set_peer_name("ne7.example."), "neither a host name nor an IP address");
    EXPECT_EQ(option.set_version("TLSv1.2", "TLSv1.2"), 0);
    refused(option.set_cipherlist("TLS_AES_128_GCM_SHA256"), "none of them is of TLSv1.2");
    // What was good before still stands.
    const TlsServer server(issued);
    EXPECT_EQ(Connect(server.Port()), 0) << Log();
    EXPECT_STREQ(option.get_cipherlist(), "DEFAULT");
    EXPECT_STREQ(option.get_version(), "TLSv1.2");
}

TEST_F(Tls, PeersThatDoNotShakeHandsEndInTimeWithTheReason)
{
    const Listener silent;
    const auto tStart = Clock::now();
    EXPECT_EQ(Connect(silent.Port(), 1), -1);
    EXPECT_EQ(errno, ETIME);
    EXPECT_LT(Clock::now() - tStart, std::chrono::seconds(10));
    EXPECT_TRUE(IsLogged("failed: no answer in time")) << Log();

    const auto answering = [&](const std::string& strBytes, const char* pszReason) {
        const Listener listener;
        std::thread peer([&] {
            const int iPeer = listener.Accept();
            char cFirst = 0;
            EXPECT_EQ(recv(iPeer, &cFirst, 1, 0), 1);
            send(iPeer, strBytes.data(), strBytes.size(), MSG_NOSIGNAL);
            shutdown(iPeer, SHUT_WR);
            while (recv(iPeer, &cFirst, 1, 0) > 0)
            {}
            close(iPeer);
        });
        EXPECT_EQ(Connect(listener.Port()), -1);
        EXPECT_EQ(errno, EPROTO);
        EXPECT_TRUE(IsLogged(pszReason)) << Log();
        peer.join();
    };
    answering("220 welcome to plain text\r\n", "the peer may not speak TLS at all");
    answering("", "the peer has closed the connection");
    {
        // Closing the stream ends the attempt.
        const Listener listener;
        std::thread closer([&] {
            EXPECT_TRUE(WaitUntil([&] { return stream.get_handle() != ACE_INVALID_HANDLE; }));
            stream.close();
        });
        EXPECT_EQ(Connect(listener.Port(), 60), -1);
        EXPECT_EQ(errno, ECANCELED);
        closer.join();
    }
    const std::uint16_t usNobody = FreePort();
    EXPECT_EQ(Connect(usNobody), -1);
    EXPECT_EQ(errno, ECONNREFUSED);
    EXPECT_EQ(connector.connect(stream, ACE_Addr(), nullptr), -1);
    EXPECT_EQ(errno, EAFNOSUPPORT);
}

TEST_F(Tls, APeerThatNeverPausesDoesNotOutlastTheTime)
{
    // Requests to begin anew, which a client that has begun skips without end.
    const std::string strRequests = std::string("\x16\x03\x03\x40\x00", 5) + std::string(16384, '\0');
    const Listener listener;
    std::thread peer([&] {
        const int iPeer = listener.Accept();
        while (send(iPeer, strRequests.data(), strRequests.size(), MSG_NOSIGNAL) > 0)
        {}
        close(iPeer);
    });
    EXPECT_EQ(Connect(listener.Port(), 1), -1);
    EXPECT_EQ(errno, ETIME) << Log();
    peer.join();
}

TEST_F(Tls, WhoReadsABacklogIsFreeBetweenRecords)
{
    constexpr std::size_t FIRST = 512; // so that no record ends with a read
    constexpr std::size_t RECORDS = 3;
    constexpr std::size_t RECORD = 16384;
    const TlsServer server(issued);
    ASSERT_EQ(Connect(server.Port()), 0);
    const auto isThere = [&](std::size_t uBytes) {
        return WaitUntil([&] {
            int iWaiting = 0;
            ioctl(stream.get_handle(), FIONREAD, &iWaiting);
            return static_cast<std::size_t>(iWaiting) > uBytes;
        });
    };
    SetNonBlocking();
    char bytes[1024];
    EXPECT_TRUE(WaitUntil([&] { return server.process.Output().find("CIPHER is") != std::string::npos; }));
    stream.recv(bytes, sizeof(bytes)); // tickets
    server.process.Write(std::string(FIRST, 'x'));
    EXPECT_TRUE(isThere(FIRST));
    server.process.Freeze();
    server.process.Write(std::string(RECORDS * RECORD, 'x'));
    server.process.Thaw();
    EXPECT_TRUE(isThere(FIRST + RECORDS * RECORD));
    int nFree = 0;
    for (std::size_t uReceived = 0; uReceived < FIRST + RECORDS * RECORD;)
    {
        const int iReceived = stream.recv(bytes, sizeof(bytes));
        ASSERT_GT(iReceived, 0);
        uReceived += static_cast<std::size_t>(iReceived);
        nFree += stream.has_unread() ? 0 : 1;
    }
    EXPECT_GE(nFree, static_cast<int>(RECORDS));
}

TEST_F(Tls, RecordsThatComeTogetherAreReadWithoutAnAnnouncementForEach)
{
    constexpr std::size_t SIZES[] = {72, 72, 72, 1, 1024, 16384, 8192, 500, 8000, 72, 16000, 72, 72, 72, 5};
    // Of the last record with its 5 bytes, 27 or 34 when it is sealed, or of the two last ones; most within its head.
    constexpr std::size_t MISSING[] = {0, 1, 22, 23, 26, 27, 29, 30, 33, 34, 60};
    for (const int iVersion : {TLS1_3_VERSION, TLS1_2_VERSION})
        for (const std::size_t uBuffer : {72U, 1000U, 1024U, 8192U, 16384U, 100'000U})
        {
            SealingPeer peer(issued, iVersion);
            ASSERT_EQ(Connect(peer.Port()), 0) << Log();
            SetNonBlocking();
            std::string strSent;
            std::string strReceived;
            const auto expectReceived = [&](std::size_t uBytes) {
                EXPECT_TRUE(WaitUntil([&] {
                    ReceiveAnnounced(uBuffer, strReceived);
                    return strReceived.size() >= uBytes;
                })) << iVersion
                    << ", by " << uBuffer << ": " << strReceived.size() << " of " << uBytes;
                EXPECT_EQ(strReceived.size(), uBytes);
            };
            for (const std::size_t uMissing : MISSING)
            {
                std::string strSealed;
                std::vector<std::pair<std::size_t, std::size_t>> ends; // sealed, and of the text
                for (const std::size_t uSize : SIZES)
                {
                    const std::string strText(uSize, static_cast<char>('a' + ends.size()));
                    strSealed += peer.Seal(strText);
                    strSent += strText;
                    ends.emplace_back(strSealed.size(), strSent.size());
                }
                const std::size_t uNow = strSealed.size() - uMissing;
                std::size_t uWhole = 0;
                for (const auto& [uSealedEnd, uTextEnd] : ends)
                    uWhole = uSealedEnd <= uNow ? uTextEnd : uWhole;
                peer.Send(strSealed.substr(0, uNow));
                expectReceived(uWhole);
                peer.Send(strSealed.substr(uNow));
                expectReceived(strSent.size());
                ASSERT_TRUE(strReceived == strSent);
            }
            const std::string strLast = peer.Seal("last");
            peer.Send(strLast + peer.SealEnd());
            expectReceived(strSent.size() + 4);
            EXPECT_TRUE(WaitUntil([&] { return stream.recv(strReceived.data(), 1) == 0; }));
        }
}

TEST_F(Tls, WhatIsUnreadIsDataAlsoWhenARecordWithoutFollows)
{
    SealingPeer peer(issued);
    ASSERT_EQ(Connect(peer.Port()), 0) << Log();
    SetNonBlocking();
    const std::string strFirst = peer.Seal("first");
    const std::string strKeys = peer.SealKeyUpdate();
    const std::string strSecond = peer.Seal("second");
    const std::string strMoreKeys = peer.SealKeyUpdate();
    peer.Send(strFirst + strKeys + strSecond + strMoreKeys);
    char bytes[16] = {};
    ASSERT_TRUE(WaitUntil([&] { return stream.recv(bytes, 5) == 5; }));
    EXPECT_TRUE(stream.has_unread());
    EXPECT_EQ(stream.recv(bytes, 6), 6);
    EXPECT_STREQ(bytes, "second");
    EXPECT_FALSE(stream.has_unread());
    peer.Send(peer.Seal("third"));
    EXPECT_TRUE(WaitUntil([&] { return stream.recv(bytes, 5) == 5; }));
}

TEST_F(Tls, WhoReadsManyRecordsThatComeTogetherIsFreeInBetween)
{
    constexpr std::size_t RECORDS = 1000;
    constexpr std::size_t RECORD = 72;
    constexpr std::size_t AT_ONCE = 16384; // what may be held back from the handle, and more
    SealingPeer peer(issued);
    ASSERT_EQ(Connect(peer.Port()), 0) << Log();
    SetNonBlocking();
    std::string strSealed;
    for (std::size_t u = 0; u < RECORDS; ++u)
        strSealed += peer.Seal(std::string(RECORD, 'x'));
    peer.Send(strSealed);
    char bytes[1024];
    std::size_t uReceived = 0;
    std::size_t uSinceFree = 0;
    EXPECT_TRUE(WaitUntil([&] {
        const int iReceived = stream.recv(bytes, sizeof(bytes));
        uReceived += static_cast<std::size_t>(std::max(iReceived, 0));
        uSinceFree = stream.has_unread() ? uSinceFree + static_cast<std::size_t>(std::max(iReceived, 0)) : 0;
        EXPECT_LE(uSinceFree, AT_ONCE);
        return uReceived == RECORDS * RECORD;
    }));
}

TEST_F(Tls, WhatIsNoTlsIsSeenBehindAFullBuffer)
{
    for (const char* pszBehind : {"HTTP/1.1 400 Bad Request\r\n", "\x17\x03\x03\xff\xff"})
    {
        SealingPeer peer(issued);
        ASSERT_EQ(Connect(peer.Port()), 0) << Log();
        SetNonBlocking();
        host.ClearLines();
        peer.Send(peer.Seal(std::string(1024, 'x')) + pszBehind);
        std::string strReceived;
        EXPECT_TRUE(WaitUntil([&] {
            std::string strBuffer(1024, ' ');
            strReceived.append(strBuffer, 0,
                               static_cast<std::size_t>(std::max(0, stream.recv(strBuffer.data(), 1024))));
            return strReceived.size() == 1024;
        }));
        EXPECT_TRUE(stream.has_unread() || IsAnnounced());
        char cNext = 0;
        EXPECT_EQ(stream.recv(&cNext, 1), -1);
        EXPECT_EQ(errno, EPROTO);
        EXPECT_EQ(host.CountContaining(1, " broken: "), 1) << Log();
    }
}

TEST_F(Tls, SessionsAreTakenUpAsTheServerSees)
{
    for (const char* pszVersion : {"-tls1_2", "-tls1_3"})
    {
        TlsServer server(issued, {pszVersion});
        std::size_t uSeen = 0;
        const auto serverSees = [&](bool bReused) {
            EXPECT_TRUE(server.process.HasWritten("Secure Renegotiation", uSeen));
            EXPECT_EQ(server.process.Output().find("Reused session-id", uSeen) != std::string::npos, bReused)
                << pszVersion << server.process.Output().substr(uSeen);
            server.process.Write("ticket?\n");
            EXPECT_EQ(Receive(8), "ticket?\n"); // and what the server has sent before
            uSeen = server.process.Output().size();
        };
        option.set_session_reuse(true);
        option.set_session_timeout(60);
        EXPECT_EQ(Connect(server.Port()), 0);
        serverSees(false);
        for (int i = 0; i < 3; ++i)
        {
            EXPECT_EQ(Reconnect(server.Port()), 0);
            serverSees(true);
        }
        EXPECT_EQ(Connect(server.Port()), 0); // what was proved to another option does not count
        serverSees(false);
        option.set_session_timeout(0);
        EXPECT_EQ(Connect(server.Port()), 0);
        serverSees(false);
        EXPECT_EQ(Reconnect(server.Port()), 0);
        serverSees(false);
        option.set_session_timeout(60);
        option.set_session_reuse(false);
        EXPECT_EQ(Connect(server.Port()), 0);
        serverSees(false);
        EXPECT_EQ(Reconnect(server.Port()), 0);
        serverSees(false);
    }
}

TEST_F(Tls, NothingWaitsOnANonBlockingHandle)
{
    TlsServer server(issued);
    ASSERT_EQ(Connect(server.Port()), 0);
    char bytes[1024];
    const ACE_Time_Value aMoment(0, 100'000);
    EXPECT_EQ(stream.recv(bytes, sizeof(bytes), &aMoment), -1); // tickets are no data
    EXPECT_EQ(errno, ETIME);
    SetNonBlocking();
    const ACE_Time_Value aDay(86400);
    EXPECT_EQ(stream.recv(bytes, sizeof(bytes), &aDay), -1);
    EXPECT_EQ(errno, EWOULDBLOCK);
    // A record that fills the buffer exactly, and one that is as long as records get.
    for (const std::size_t uLength : {std::size_t{1024}, std::size_t{16384}})
    {
        server.process.Write(std::string(uLength, 'x'));
        std::string strReceived;
        EXPECT_TRUE(WaitUntil([&] {
            const int iReceived = stream.recv(bytes, sizeof(bytes), &aDay);
            strReceived.append(bytes, static_cast<std::size_t>(std::max(iReceived, 0)));
            return strReceived.size() == uLength;
        }));
        EXPECT_EQ(stream.recv(bytes, sizeof(bytes), &aDay), -1);
        EXPECT_EQ(errno, EWOULDBLOCK);
        EXPECT_FALSE(stream.has_unread());
    }
    // A peer that takes nothing more: all that is not taken is the caller's to send again, with other bytes for all the
    // stream cares.
    server.process.Freeze();
    const std::string strBulk(1 << 20U, 'y');
    std::size_t uSent = 0;
    EXPECT_TRUE(WaitUntil([&] {
        const int iSent = stream.send_n(strBulk.data(), strBulk.size(), &aDay);
        uSent += static_cast<std::size_t>(std::max(iSent, 0));
        return iSent == 0;
    }));
    EXPECT_TRUE(stream.has_unsent());
    EXPECT_EQ(stream.send_n("z", 1, &aDay), 0);
    server.process.Thaw();
    EXPECT_TRUE(WaitUntil([&] { return stream.send_n("z\n", 2, &aDay) == 2 && !stream.has_unsent(); }));
    std::size_t uTaken = 0;
    EXPECT_TRUE(WaitUntil([&] {
        const std::string strOutput = server.process.Output();
        uTaken = static_cast<std::size_t>(std::count(strOutput.begin(), strOutput.end(), 'y'));
        return strOutput.find("yz\n") != std::string::npos;
    }));
    EXPECT_GE(uTaken, uSent);
    stream.close();
    EXPECT_EQ(stream.recv(bytes, sizeof(bytes), nullptr), -1);
    EXPECT_EQ(errno, ENOTCONN);
    EXPECT_EQ(stream.close(), 0);
}

TEST_F(Tls, KeysAreChangedAndNegotiatedAnewInMidStream)
{
    struct Case
    {
        const char* pszVersion;
        Words orders;
        const char* pszSeen;
    };
    for (const Case& each : {Case{"-tls1_3", {"K\n", "k\n", "K\n"}, "KeyUpdate"},
                             Case{"-tls1_2", {"r\n", "R\n", "r\n"}, "HelloRequest"}})
    {
        const TlsServer server(issued, {each.pszVersion, "-msg"});
        ASSERT_EQ(Connect(server.Port()), 0);
        SetNonBlocking();
        std::string strReceived;
        const auto receiveUntil = [&](const std::function<bool()>& condition) {
            return WaitUntil([&] {
                char bytes[100];
                const int iReceived = stream.recv(bytes, sizeof(bytes));
                strReceived.append(bytes, static_cast<std::size_t>(std::max(iReceived, 0)));
                return condition();
            });
        };
        for (std::size_t uOrder = 0; uOrder < each.orders.size(); ++uOrder)
        {
            const std::size_t uFrom = server.process.Output().size();
            server.process.Write(each.orders[uOrder]);
            EXPECT_TRUE(receiveUntil(
                [&] { return server.process.Output().find(each.pszSeen, uFrom) != std::string::npos; }));
            const std::string strText = "exchange " + std::to_string(uOrder) + "\n";
            server.process.Write(strText);
            std::size_t uSent = 0;
            EXPECT_TRUE(receiveUntil([&] {
                const int iSent = stream.send_n(strText.data() + uSent, strText.size() - uSent);
                uSent += static_cast<std::size_t>(std::max(iSent, 0));
                return uSent == strText.size() && strReceived.find(strText) != std::string::npos;
            })) << each.pszVersion
                << Log();
            EXPECT_TRUE(server.process.HasWritten(strText));
        }
        EXPECT_EQ(host.CountContaining(1, "broken"), 0) << Log();
    }
}

TEST_F(Tls, TheEndOfThePeerIsTheEndOfTheStream)
{
    TlsServer server(issued, {"-naccept", "2"});
    ASSERT_EQ(Connect(server.Port()), 0);
    server.process.Write("last\n");
    EXPECT_EQ(Receive(5), "last\n");
    server.process.Write("q\n"); // with notice
    char cFirst = 0;
    EXPECT_EQ(stream.recv(&cFirst, 1), 0);
    EXPECT_EQ(stream.recv(&cFirst, 1), 0);
    EXPECT_TRUE(stream.has_unread());
    auto pKilled = std::make_unique<TlsServer>(issued);
    ASSERT_EQ(Connect(pKilled->Port()), 0);
    pKilled.reset(); // without
    EXPECT_LE(stream.recv(&cFirst, 1), 0);
    EXPECT_TRUE(WaitUntil([&] { return stream.send_n("gone?", 5) == -1; })); // and no signal
}

TEST_F(Tls, WithoutTlsItIsPlainTcp)
{
    option.set_ssl(false);
    const Listener listener;
    ASSERT_EQ(Connect(listener.Port()), 0);
    const int iPeer = listener.Accept();
    EXPECT_EQ(send(iPeer, "plain", 5, 0), 5);
    EXPECT_EQ(Receive(5), "plain");
    std::size_t uSent = 0;
    EXPECT_EQ(stream.send_n("text", 4, nullptr, &uSent), 4);
    EXPECT_EQ(uSent, 4U);
    char bytes[4];
    EXPECT_EQ(recv(iPeer, bytes, 4, MSG_WAITALL), 4);
    const ACE_Time_Value aMoment(0, 10'000);
    EXPECT_EQ(stream.recv(bytes, 4, &aMoment), -1);
    EXPECT_EQ(errno, ETIME);
    EXPECT_FALSE(stream.has_unread());
    close(iPeer);
    EXPECT_EQ(stream.recv(bytes, 4), 0);
}

TEST_F(Tls, ClosingEndsWhateverIsUnderWay)
{
    const TlsServer server(issued);
    connector.set_ssl_option(option);
    for (int i = 0; i < StressRounds(100); ++i)
    {
        std::atomic<int> nUsing{4};
        std::atomic<bool> bEnd{false};
        const auto use = [&](const std::function<void()>& fn) {
            return std::thread([&nUsing, &bEnd, fn] {
                while (!bEnd)
                    fn();
                --nUsing;
            });
        };
        const auto close = [&] {
            return std::thread([&] {
                while (nUsing > 0)
                    stream.close();
            });
        };
        std::thread threads[] = {
            use([&] { Reconnect(server.Port()); }),
            use([&] {
                char bytes[100];
                stream.recv(bytes, sizeof(bytes));
            }),
            use([&] { stream.send_n("some text\n", 10); }),
            use([&] { static_cast<void>(stream.has_unread() || stream.has_unsent()); }),
            close(),
            close(),
        };
        std::this_thread::sleep_for(std::chrono::milliseconds(i % 10));
        bEnd = true;
        for (std::thread& thread : threads)
            thread.join();
    }
    ASSERT_EQ(Reconnect(server.Port()), 0) << Log();
}

} // namespace
