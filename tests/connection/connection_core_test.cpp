#include "asyncio/TEAsyncIOMgrImpl.h"
#include "asyncio/TEIOReactor.h"
#include "connection/TarnConnectorImpl.h"
#include "connection/TarnConnectorMgrImpl.h"
#include "connection/TarnTCPConnectorImpl.h"
#include "core/LogArguments.h"
#include "core/SyncWaits.h"
#include "platform/tarnplatform.h"
#include "support/ConnectionTest.h"
#include "support/SocketPair.h"
#include "support/Threads.h"

#include <algorithm>
#include <future>
#include <limits>
#include <map>
#include <mutex>
#include <set>
#include <utility>

namespace {

void* AsPointer(int iHandle)
{
    return reinterpret_cast<void*>(static_cast<std::intptr_t>(iHandle));
}

struct Traced
{
    int iType;
    std::uint32_t ulThreadId;
    bool operator==(const Traced& other) const
    {
        return iType == other.iType && ulThreadId == other.ulThreadId;
    }
};

std::mutex g_TraceMutex;
std::map<int, std::vector<Traced>> g_Traced; // by length of what was traced; guarded by g_TraceMutex

void KeepTrace(const char* /*pData*/, int iLength, int iTraceType, std::uint32_t ulThreadId)
{
    const std::lock_guard<std::mutex> guard(g_TraceMutex);
    g_Traced[iLength].push_back({iTraceType, ulThreadId});
}

bool WaitTraced(std::size_t uLength, const Traced& expected)
{
    return WaitUntil([&] {
        const std::lock_guard<std::mutex> guard(g_TraceMutex);
        return g_Traced[static_cast<int>(uLength)] == std::vector<Traced>{expected};
    });
}

/// A connection that counts its attempts to send.
class CountingConnection : public TarnTCPConnectorImpl
{
public:
    CountingConnection()
        : TarnTCPConnectorImpl(nullptr)
    {
        SetControlFlag(6);
        SetAdapterProtocolID(TestConnector::PROTOCOL);
    }
    int SendData(const char* pBuf, int iLength) override
    {
        ++nSends;
        lastSender = std::this_thread::get_id();
        return TarnTCPConnectorImpl::SendData(pBuf, iLength);
    }
    std::atomic<int> nSends{0};
    std::atomic<std::thread::id> lastSender{};
};

/// A connection that takes whole records off the socket and gives them out in pieces, as TLS does.
class RecordConnection : public CountingConnection
{
public:
    int RecvData(char* pBuf, int iLength) override
    {
        constexpr int RECORD_BYTES = 16384;
        if (m_strRecord.empty())
        {
            char record[RECORD_BYTES];
            const int iReceived = CountingConnection::RecvData(record, RECORD_BYTES);
            if (iReceived <= 0)
                return iReceived;
            m_strRecord.assign(record, static_cast<std::size_t>(iReceived));
        }
        const std::size_t uPiece = m_strRecord.copy(pBuf, static_cast<std::size_t>(iLength));
        m_strRecord.erase(0, uPiece);
        return static_cast<int>(uPiece);
    }
    bool HasBufferedInput() override { return !m_strRecord.empty(); }

private:
    std::string m_strRecord;
};

/// A connection whose socket takes so many bytes at once.
class NarrowConnection : public CountingConnection
{
public:
    int SendData(const char* /*pBuf*/, int iLength) override { return std::min(iLength, iWidth); }
    std::size_t Room() const { return m_WriteBuffer.capacity(); }
    int iWidth = 1;
};

/// A connection that breaks while it is being written to.
class BreakingConnection : public CountingConnection
{
public:
    explicit BreakingConnection(SocketPair& pair)
        : m_Pair(pair)
    {}
    int SendData(const char* /*pBuf*/, int /*iLength*/) override
    {
        lastSender = std::this_thread::get_id();
        m_Pair.CloseFar();
        errno = EPIPE;
        return -1;
    }

private:
    SocketPair& m_Pair;
};

/// A connection whose descriptor the test closes as a transport does.
class ShuttingConnection : public CountingConnection
{
public:
    void Shut()
    {
        const TarnGuard guard(m_OpenMutex);
        const int iHandle = GetHandle();
        EXPECT_EQ(CloseDescriptor([iHandle] { return close(iHandle); }), 0);
    }
};

/// A connection that is opened anew, by another thread say, after its first piece has been sent.
class ReopenedConnection : public ShuttingConnection
{
public:
    explicit ReopenedConnection(int iNext)
        : m_iNext(iNext)
    {}
    int SendData(const char* pBuf, int iLength) override
    {
        const bool bFirst = nSends == 0;
        const int iSent = CountingConnection::SendData(pBuf, bFirst ? FIRST_PIECE : iLength);
        if (bFirst)
        {
            Shut();
            set_handle(m_iNext);
        }
        return iSent;
    }

    static constexpr int FIRST_PIECE = 30'000;

private:
    const int m_iNext;
};

/// Connections over socket pairs that the test opens and closes (AUTO_CONNECT clear), with one response thread,
/// so that what is framed is handled in order.
class ConnectionCore : public ConnectionTest
{
protected:
    static TEAsyncIOMgrImpl& AsyncIO() { return *TEAsyncIOMgrImpl::Existing(); }

    void StartKeeping()
    {
        host.SetCfg("nAppProcessThreadNum", "1");
        Start();
        pAdapter->onAnswer = [this](FrameMessage& message) {
            const std::lock_guard<std::mutex> guard(m_Mutex);
            m_Frames.emplace_back(message.ulSerial, message.strPayload);
        };
    }

    /// Registers an adapter that answers what the test says; the adapter manager's.
    static void AddAdapter(std::uint32_t ulProtocol, TestAdapter::Framing framing)
    {
        EXPECT_EQ(TEAdapterManager::Instance()->RegisterProtocolAdapter(
                      ulProtocol, new TestAdapter(ulProtocol, std::move(framing)), true),
                  0);
    }

    static int Serve(TestConnector& connector, const SocketPair& pair)
    {
        connector.SetControlFlag(6);
        EXPECT_EQ(connector.SetConnState(STATE_CONNECTED), 0);
        EXPECT_EQ(connector.SetHandle(AsPointer(pair.iNear)), 0);
        return connector.Register();
    }

    /// Waits until the only I/O thread has left what the registration began, and sleeps. Twice: it still tells the
    /// kernel when the first own call is let in.
    static bool WaitUntilAtRest(TarnConnectorImpl& connection)
    {
        for (int i = 0; i < 2; ++i)
        {
            TEIOReactor& reactor = *AsyncIO().Reactor();
            TEIOReactor::Call call;
            if (!WaitUntil([&] { return reactor.BeginOwnCall(connection.GetHandle(), &connection, call); }))
                return false;
            reactor.EndOwnCall(call);
        }
        return true;
    }

    /// Has connector 1 opened anew while a call of its registration is held; the new one waits for that.
    void ReopenBesideAnOldCall()
    {
        EXPECT_EQ(Manager().RequestDisConnect(1, 1), 0);
        EXPECT_EQ(Manager().RequestConnect(1, 1), 0);
        EXPECT_TRUE(WaitUntil([&] {
            return host.CountContaining(3, "RegisterHandle, waiting for a call of the last registration\n") >
                   0;
        }));
    }

    std::vector<std::pair<std::uint32_t, std::string>> Frames()
    {
        const std::lock_guard<std::mutex> guard(m_Mutex);
        return m_Frames;
    }

    bool WaitFrames(std::size_t uFrames)
    {
        return WaitUntil([&] { return Frames().size() >= uFrames; });
    }

private:
    std::mutex m_Mutex;
    std::vector<std::pair<std::uint32_t, std::string>> m_Frames; // guarded by m_Mutex
};

TEST_F(ConnectionCore, AStreamIsCutIntoItsFramesHoweverItArrives)
{
    StartKeeping();
    const SocketPair pair;
    TestConnector connector(1);
    ASSERT_EQ(Serve(connector, pair), 0);
    std::vector<std::string> payloads;
    const auto next = [&](std::string strPayload) {
        payloads.push_back(std::move(strPayload));
        return Element::Frame(static_cast<std::uint32_t>(payloads.size()), payloads.back());
    };
    // One in a thousand pieces.
    for (const char byte : next(std::string(1000, 'p')))
        pair.Send(std::string(1, byte));
    // A thousand, and the half of one more, in one piece; among them such that fill a whole read.
    std::string strMany;
    for (int i = 0; i < 1000; ++i)
        strMany += next(i % 3 == 0 ? std::string(1016, 'f') : std::to_string(i));
    const std::string strLast = next("completed");
    pair.Send(strMany + strLast.substr(0, 9));
    ASSERT_TRUE(WaitFrames(1001));
    pair.Send(strLast.substr(9));
    // One of ten megabytes.
    pair.Send(next(std::string(10 << 20U, 'b')));
    ASSERT_TRUE(WaitFrames(payloads.size()));
    const auto frames = Frames();
    ASSERT_EQ(frames.size(), payloads.size());
    for (std::size_t i = 0; i < frames.size(); ++i)
    {
        ASSERT_EQ(frames[i].first, i + 1);
        ASSERT_TRUE(frames[i].second == payloads[i]) << i;
    }
    EXPECT_EQ(connector.UnRegister(), 0);
}

TEST_F(ConnectionCore, NonsenseFromAnAdapterStaysWithItsConnection)
{
    constexpr std::uint32_t REJECTING = 100;
    constexpr std::uint32_t TOO_LONG = 101;
    constexpr std::uint32_t THROWING = 102;
    constexpr std::uint32_t NOBODYS = 103;
    StartKeeping();
    AddAdapter(REJECTING, [](void*, std::vector<unsigned char>&) { return -1; });
    std::atomic<int> nAsked{0};
    AddAdapter(TOO_LONG, [&](void*, std::vector<unsigned char>& data) {
        ++nAsked;
        return static_cast<int>(data.size()) + 1;
    });
    AddAdapter(THROWING, [](void*, std::vector<unsigned char>&) -> int { throw std::runtime_error("no"); });
    struct Line
    {
        SocketPair pair;
        std::unique_ptr<TestConnector> pConnector;
    };
    std::map<std::uint32_t, Line> lines;
    for (const std::uint32_t ulProtocol : {REJECTING, TOO_LONG, THROWING, NOBODYS, TestConnector::PROTOCOL})
    {
        Line& line = lines[ulProtocol];
        line.pConnector = std::make_unique<TestConnector>(ulProtocol);
        line.pConnector->SetAdapterProtocolID(ulProtocol);
        ASSERT_EQ(Serve(*line.pConnector, line.pair), 0);
        line.pair.Send(Element::Frame(ulProtocol, "ab"));
    }
    EXPECT_TRUE(WaitUntil([&] { return lines[REJECTING].pConnector->nBroken == 1; }));
    EXPECT_TRUE(WaitUntil([&] { return lines[THROWING].pConnector->nBroken == 1; }));
    EXPECT_EQ(host.Count(1, "CheckMessageValid fail: ret=-1\n"), 2);
    EXPECT_EQ(host.CountContaining(1, "TestAdapter, exception: no"), 1);
    ASSERT_TRUE(WaitFrames(1));
    // Too much was claimed: what had come is dropped, and the connection goes on.
    EXPECT_TRUE(WaitUntil([&] { return host.Count(1, "The report may not be correct!") == 1; }));
    lines[TOO_LONG].pair.Send("again");
    EXPECT_TRUE(WaitUntil([&] { return nAsked == 2; }));
    EXPECT_EQ(lines[TOO_LONG].pConnector->nBroken, 0);
    // Without adapter the bytes are kept for the one that comes.
    AddAdapter(NOBODYS, [&](void*, std::vector<unsigned char>& data) {
        if (data.size() < 11)
            return 0;
        pAdapter->CheckMessageValid(nullptr, data);
        return static_cast<int>(data.size());
    });
    lines[NOBODYS].pair.Send("!");
    ASSERT_TRUE(WaitFrames(2));
    EXPECT_EQ(Frames()[1].first, NOBODYS);
    EXPECT_EQ(lines[NOBODYS].pConnector->nBroken, 0);
    for (auto& [ulProtocol, line] : lines)
        EXPECT_EQ(line.pConnector->UnRegister(), 0);
}

TEST_F(ConnectionCore, BytesWithoutAFrameEndAtTheBound)
{
    constexpr std::uint32_t WAITING = 100;
    StartKeeping();
    AddAdapter(WAITING, [](void*, std::vector<unsigned char>&) { return 0; });
    const SocketPair pair;
    TestConnector connector(1);
    connector.SetAdapterProtocolID(WAITING);
    ASSERT_EQ(Serve(connector, pair), 0);
    pair.Send(16 << 20);
    EXPECT_TRUE(WaitUntil([&] { return connector.nBroken == 1; }));
    EXPECT_EQ(
        host.Count(1, "TarnConnectorImpl::Read, no message in 16777216 bytes, Group = 1, TargetID = 0x1\n"),
        1);
    EXPECT_EQ(connector.UnRegister(), 0);
}

TEST_F(ConnectionCore, BytesOfManySendersLeaveWholeAndInTheirOrder)
{
    constexpr int SENDERS = 4;
    constexpr int MESSAGES = 300;
    StartKeeping();
    const SocketPair pair;
    TestConnector connector(1);
    ASSERT_EQ(Serve(connector, pair), 0);
    std::size_t uBytes = 0;
    const auto payload = [](int i) { return std::string(static_cast<std::size_t>(i * 37 % 5000), 'm'); };
    for (int i = 0; i < MESSAGES; ++i)
        uBytes += SENDERS * Element::Frame(1, payload(i)).size();
    auto received = std::async(std::launch::async, [&] { return pair.Receive(uBytes); });
    RunTogether(SENDERS, [&](int iSender) {
        for (int i = 0; i < MESSAGES; ++i)
            EXPECT_EQ(connector.Send(static_cast<std::uint32_t>(iSender * MESSAGES + i + 1), payload(i)), 0);
    });
    const std::string strAll = received.get();
    ASSERT_EQ(strAll.size(), uBytes);
    int nNext[SENDERS] = {};
    std::vector<unsigned char> rest(strAll.begin(), strAll.end());
    for (std::size_t uHead = 0; uHead < rest.size();)
    {
        const auto number = [&](std::size_t u) {
            return std::uint32_t{rest[u]} << 24U | std::uint32_t{rest[u + 1]} << 16U |
                   std::uint32_t{rest[u + 2]} << 8U | std::uint32_t{rest[u + 3]};
        };
        const int iSerial = static_cast<int>(number(uHead + 4)) - 1;
        const int iSender = iSerial / MESSAGES;
        ASSERT_LT(iSender, SENDERS);
        ASSERT_EQ(iSerial % MESSAGES, nNext[iSender]);
        ASSERT_EQ(number(uHead), 4 + payload(nNext[iSender]++).size());
        uHead += 4 + number(uHead);
    }
    EXPECT_EQ(connector.UnRegister(), 0);
}

TEST_F(ConnectionCore, WhatIsSentIsTracedBlockByBlockByTheKindOfItsProtocol)
{
    StartKeeping();
    RegisterTraceHexDataCBFunc(&KeepTrace);
    const std::map<std::uint32_t, int> types = {{10, 5}, {4, 3}, {5, 3}, {6, 1}};
    for (const auto& [ulProtocol, iType] : types)
    {
        const SocketPair pair;
        TestConnector connector(ulProtocol);
        connector.SetAdapterProtocolID(ulProtocol);
        ASSERT_EQ(Serve(connector, pair), 0);
        const std::string strBytes(100 + ulProtocol, 's');
        EXPECT_EQ(AsyncIO().SendToOutBuffer(pair.iNear, strBytes.data(), static_cast<int>(strBytes.size())),
                  0);
        EXPECT_EQ(pair.Receive(strBytes.size()), strBytes);
        EXPECT_TRUE(WaitTraced(strBytes.size(), {iType, GetCurrentThreadId()})) << ulProtocol;
        EXPECT_EQ(connector.UnRegister(), 0);
    }
    // Queued before it is served, so sent in one piece.
    const SocketPair pair;
    CountingConnection connection;
    connection.set_handle(pair.iNear);
    std::uint32_t ulOther = 0;
    std::thread([&] {
        ulOther = GetCurrentThreadId();
        EXPECT_EQ(connection.AddAndSendData(std::string(301, 'a').data(), 301), 0);
    }).join();
    EXPECT_EQ(connection.AddAndSendData(std::string(302, 'b').data(), 302), 0);
    ASSERT_EQ(AsyncIO().RegisterHandle(&connection), 0);
    EXPECT_EQ(pair.Receive(603), std::string(301, 'a') + std::string(302, 'b'));
    EXPECT_TRUE(WaitTraced(301, {TARN_TRACE_SEND_TO_NE, ulOther}));
    EXPECT_TRUE(WaitTraced(302, {TARN_TRACE_SEND_TO_NE, GetCurrentThreadId()}));
    EXPECT_EQ(connection.nSends, 1);
    EXPECT_EQ(AsyncIO().UnregisterHandle(&connection), 0);
    EXPECT_TRUE(WaitUntil([&] { return connection.IsUnused(); }));
    connection.set_handle(ACE_INVALID_HANDLE);
    RegisterTraceHexDataCBFunc(nullptr);
}

TEST_F(ConnectionCore, BadThingsToSendAreRefused)
{
    StartKeeping();
    const SocketPair pair;
    TestConnector connector(1);
    ASSERT_EQ(Serve(connector, pair), 0);
    EXPECT_EQ(AsyncIO().SendToOutBuffer(9999, nullptr, 1), 0x10000012);
    EXPECT_EQ(host.Count(2, "TEAsyncIOMgrImpl::SendToOutBuffer error, input para pData=null\n"), 1);
    EXPECT_EQ(AsyncIO().SendToOutBuffer(9999, "x", 1), 0x10000010);
    EXPECT_EQ(AsyncIO().SendToOutBuffer(-1, "x", 1), 0x10000010);
    EXPECT_EQ(host.Count(2, " Handle:0x270f not registed! \n"), 1);
    EXPECT_EQ(AsyncIO().SendToOutBuffer(pair.iNear, "x", 0), 0);
    EXPECT_EQ(AsyncIO().SendToOutBuffer(pair.iNear, "x", -5), 0);
    EXPECT_EQ(connector.Impl()->AddAndSendData(nullptr, 1), -1);
    EXPECT_EQ(connector.Impl()->SendData(nullptr, 1), -1);
    EXPECT_EQ(connector.Impl()->RecvData(nullptr, 1), -1);
    EXPECT_EQ(connector.SendToOutBuffer(nullptr, 1), 0x10000012);
    EXPECT_EQ(host.Count(2, "TarnConnector::SendToOutBuffer error, input para pData=null\n"), 1);
    EXPECT_EQ(TestConnector(2).SendToOutBuffer("x", 1), 0x10000010);
    EXPECT_EQ(TarnConnector().SendToOutBuffer("x", 1), -1);
    EXPECT_EQ(AsyncIO().SendToOutBuffer(pair.iNear, "y", 1), 0);
    EXPECT_EQ(pair.Receive(1), "y");
    EXPECT_EQ(connector.UnRegister(), 0);
    EXPECT_EQ(AsyncIO().SendToOutBuffer(pair.iNear, "x", 1), 0x10000010);
    SocketPair halfPair;
    halfPair.CloseFar();
    CountingConnection half;
    half.set_handle(halfPair.iNear);
    EXPECT_EQ(half.SendData("x", 1), -1); // on a thread that does not block SIGPIPE
    EXPECT_EQ(errno, EPIPE);
    half.set_handle(ACE_INVALID_HANDLE);
}

TEST_F(ConnectionCore, ANumbersNextOwnerIsNotTouched)
{
    ShuttingConnection connection;
    std::atomic<bool> bEnd{false};
    std::atomic<int> nStray{0};
    std::atomic<int> nHidden{0};
    RunTogether(7, [&](int iThread) {
        char received[64];
        if (iThread == 0)
        {
            for (int i = 0; i < StressRounds(1500); ++i)
            {
                SocketPair pair;
                connection.set_handle(pair.iNear);
                connection.Shut();
                pair.iNear = -1;
                const SocketPair next; // under the same number, as a rule
                EXPECT_EQ(send(next.iFar, "kept", 4, 0), 4);
                std::this_thread::yield();
                nHidden += recv(next.iNear, received, sizeof(received), 0) == 4 ? 0 : 1;
                nStray += recv(next.iFar, received, sizeof(received), 0) > 0 ? 1 : 0;
            }
            bEnd = true;
        }
        while (!bEnd)
        {
            if (iThread % 2 == 0)
                connection.SendData("s", 1);
            else
                connection.RecvData(received, sizeof(received));
        }
    });
    EXPECT_EQ(nHidden, 0); // read by somebody who meant the connection
    EXPECT_EQ(nStray, 0);
}

TEST_F(ConnectionCore, ACallOfTheLastOpeningDoesNotTouchTheNextDescriptor)
{
    host.SetCfg("nAsyncIOThreadNum", "0");
    StartKeeping();
    SocketPair first;
    const SocketPair second;
    ReopenedConnection connection(second.iNear);
    connection.set_handle(std::exchange(first.iNear, -1)); // it closes it
    const ACE_HANDLE firstHandle = connection.GetHandle();
    ASSERT_EQ(AsyncIO().RegisterHandle(&connection), 0);
    second.Send(Element::Frame(1, "for the next call"));
    const std::string strOut(60'000, 'w');
    EXPECT_EQ(connection.AddAndSendData(strOut.data(), static_cast<int>(strOut.size())), 0);
    EXPECT_EQ(connection.handle_output(firstHandle), 0);
    EXPECT_EQ(connection.GetHandle(), second.iNear);
    char received = 0;
    EXPECT_EQ(recv(second.iNear, &received, 1, MSG_PEEK), 1); // not read
    EXPECT_EQ(recv(second.iFar, &received, 1, 0), -1);
    EXPECT_EQ(AsyncIO().RegisterHandle(&connection), 0);
    EXPECT_EQ(connection.handle_output(second.iNear), 0); // what is left, and a look
    EXPECT_EQ(connection.handle_input(second.iNear), 0);
    ASSERT_TRUE(WaitFrames(1));
    EXPECT_EQ(first.Receive(strOut.size()).size(), ReopenedConnection::FIRST_PIECE);
    EXPECT_EQ(second.Receive(strOut.size() - ReopenedConnection::FIRST_PIECE).size(),
              strOut.size() - ReopenedConnection::FIRST_PIECE);
    EXPECT_EQ(AsyncIO().UnregisterHandle(&connection), 0);
    connection.set_handle(ACE_INVALID_HANDLE);
}

TEST_F(ConnectionCore, ABreakDuringTheStopGivesEveryReferenceBack)
{
    StartKeeping();
    const SocketPair pair;
    TestConnector connector(1);
    std::promise<void> inside;
    std::promise<void> goOn;
    pAdapter->onFraming = [&](ACE_HANDLE) {
        inside.set_value();
        goOn.get_future().wait();
    };
    ASSERT_EQ(Serve(connector, pair), 0);
    pair.Send(std::string(8, '\0')); // no frame
    inside.get_future().wait();
    auto stopped = std::async(std::launch::async, [] { tarnadapter::Fini(); });
    EXPECT_TRUE(WaitUntil(
        [&] { return host.CountContaining(3, "~TEAsyncIOMgrImpl, waiting for 1 event loop threads") > 0; }));
    goOn.set_value();
    stopped.get();
    EXPECT_EQ(connector.Impl()->GetRefCount(), 0);
}

TEST_F(ConnectionCore, NothingIsRegisteredOnceTheEngineStops)
{
    StartKeeping();
    const SocketPair pair;
    TestConnector connector(1);
    AsyncIO().Stop();
    EXPECT_EQ(Serve(connector, pair), ADAPTER_ERR_REACTOR);
    EXPECT_EQ(host.CountContaining(1, "RegisterHandle refused, the engine is being stopped"), 1);
    EXPECT_EQ(connector.Impl()->GetRefCount(), 0);
    EXPECT_EQ(connector.UnRegister(), 0);
}

TEST_F(ConnectionCore, AFullOutQueueRefusesAndLosesNothing)
{
    constexpr std::size_t BLOCK = 1'000'000;
    StartKeeping();
    const SocketPair pair;
    TestConnector connector(1);
    ASSERT_EQ(Serve(connector, pair), 0);
    const auto block = [](int i) { return std::string(BLOCK, static_cast<char>('a' + i)); };
    const auto send = [&](int i) {
        return AsyncIO().SendToOutBuffer(pair.iNear, block(i).data(), static_cast<int>(BLOCK));
    };
    int nTaken = 0;
    while (nTaken < 20 && send(nTaken) == 0)
        ++nTaken;
    // Ten million bytes in the queue, one block being written, and what the socket holds.
    EXPECT_GE(nTaken, 11);
    EXPECT_LE(nTaken, 13);
    EXPECT_EQ(host.Count(1, "TarnConnectorImpl::AddAndSendData, enqueue fail, out msgqueue is full.\n"), 1);
    EXPECT_EQ(connector.nBroken, 0);
    for (int i = 0; i < nTaken; ++i)
        ASSERT_TRUE(pair.Receive(BLOCK) == block(i)) << i;
    EXPECT_EQ(send(0), 0);
    EXPECT_TRUE(pair.Receive(BLOCK) == block(0));
    EXPECT_EQ(connector.UnRegister(), 0);
}

TEST_F(ConnectionCore, WritingToADeafElementDoesNotSpin)
{
    host.SetCfg("nAsyncIOThreadNum", "1");
    StartKeeping();
    const SocketPair deafPair;
    const SocketPair pair;
    const int iSmall = 4096; // less than one call sends, so that it comes to the end of the socket's room
    ASSERT_EQ(setsockopt(deafPair.iNear, SOL_SOCKET, SO_SNDBUF, &iSmall, sizeof(iSmall)), 0);
    CountingConnection deaf;
    deaf.set_handle(deafPair.iNear);
    ASSERT_EQ(AsyncIO().RegisterHandle(&deaf), 0);
    TestConnector connector(1);
    ASSERT_EQ(Serve(connector, pair), 0);
    const std::string strBulk(4 << 20U, 'd');
    EXPECT_EQ(AsyncIO().SendToOutBuffer(deafPair.iNear, strBulk.data(), static_cast<int>(strBulk.size())), 0);
    // What the element sends is read although it takes nothing; and each round of the other connection gives
    // the only I/O thread the chance to try again.
    deafPair.Send(Element::Frame(7, "deaf but not mute"));
    ASSERT_TRUE(WaitFrames(1));
    const auto round = [&] {
        EXPECT_EQ(connector.Send(1, "?"), 0);
        EXPECT_EQ(pair.Receive(9).size(), 9U);
    };
    round();
    const int nSends = deaf.nSends;
    for (int i = 0; i < 50; ++i)
        round();
    EXPECT_LE(deaf.nSends, nSends + 1);
    EXPECT_TRUE(deafPair.Receive(strBulk.size()) == strBulk);
    EXPECT_EQ(AsyncIO().UnregisterHandle(&deaf), 0);
    EXPECT_EQ(connector.UnRegister(), 0);
    EXPECT_TRUE(WaitUntil([&] { return deaf.IsUnused(); }));
    deaf.set_handle(ACE_INVALID_HANDLE);
}

/// A connection whose element has always sent more than is read.
class EndlessConnection : public CountingConnection
{
public:
    int RecvData(char* pBuf, int iLength) override
    {
        std::fill_n(pBuf, iLength, 'e');
        ++nReads;
        return iLength;
    }
    std::atomic<long> nReads{0};
};

TEST_F(ConnectionCore, AnElementThatNeverStopsSendingDoesNotKeepTheThread)
{
    constexpr std::uint32_t SWALLOWING = 100;
    host.SetCfg("nAsyncIOThreadNum", "1");
    StartKeeping();
    AddAdapter(SWALLOWING,
               [](void*, std::vector<unsigned char>& data) { return static_cast<int>(data.size()); });
    const SocketPair endlessPair;
    const SocketPair pair;
    EndlessConnection endless;
    endless.SetAdapterProtocolID(SWALLOWING);
    endless.set_handle(endlessPair.iNear);
    ASSERT_EQ(AsyncIO().RegisterHandle(&endless), 0);
    endlessPair.Send(1);
    TestConnector connector(1);
    ASSERT_EQ(Serve(connector, pair), 0);
    for (std::uint32_t u = 1; u <= 20; ++u)
    {
        const long nReads = endless.nReads;
        EXPECT_TRUE(WaitUntil([&] { return endless.nReads > nReads; }));
        pair.Send(Element::Frame(u, "in between"));
        ASSERT_TRUE(WaitFrames(u));
    }
    EXPECT_EQ(AsyncIO().UnregisterHandle(&endless), 0);
    EXPECT_EQ(connector.UnRegister(), 0);
    EXPECT_TRUE(WaitUntil([&] { return endless.IsUnused(); }));
    endless.set_handle(ACE_INVALID_HANDLE);
}

TEST_F(ConnectionCore, ReadingHasItsTurnWhileMuchIsBeingSent)
{
    constexpr std::size_t MUCH = 100'000; // the socket takes it all, one call sends less
    host.SetCfg("nAsyncIOThreadNum", "0");
    StartKeeping();
    const SocketPair pair;
    RecordConnection connection;
    connection.set_handle(pair.iNear);
    ASSERT_EQ(AsyncIO().RegisterHandle(&connection), 0);
    pair.Send(Element::Frame(1, std::string(8000, 'r')));
    EXPECT_EQ(connection.AddAndSendData(std::string(MUCH, 'w').data(), MUCH), 0);
    EXPECT_EQ(connection.handle_output(pair.iNear), 0);
    ASSERT_TRUE(WaitFrames(1)); // with what the transport held and no descriptor announces
    EXPECT_EQ(connection.handle_output(pair.iNear), 0);
    EXPECT_EQ(pair.Receive(MUCH).size(), MUCH);
    EXPECT_EQ(AsyncIO().UnregisterHandle(&connection), 0);
    connection.set_handle(ACE_INVALID_HANDLE);
}

// Whoever is going to wait for the answer spares the switch to an I/O thread, but does nothing else that is theirs.
TEST_F(ConnectionCore, WhoAsksWritesByItselfAndLeavesTheRestToTheIOThreads)
{
    StartKeeping();
    const SocketPair pair;
    RecordConnection connection;
    connection.set_handle(pair.iNear);
    ASSERT_EQ(AsyncIO().RegisterHandle(&connection), 0);
    const auto sender = std::this_thread::get_id();
    const auto ask = [&](const std::string& strBytes) {
        const SyncWaits::Asking asking;
        EXPECT_EQ(connection.AddAndSendData(strBytes.data(), static_cast<int>(strBytes.size())), 0);
    };
    ASSERT_TRUE(WaitUntil([&] { // not while the only thread that sleeps is being woken for the registration
        ask("?");
        return pair.Receive(1) == "?" && connection.lastSender == sender;
    }));
    EXPECT_EQ(connection.AddAndSendData("!", 1), 0);
    EXPECT_EQ(pair.Receive(1), "!");
    EXPECT_NE(connection.lastSender, sender) << "without waiting for an answer";

    // More than the socket takes. What comes meanwhile is framed where it always is.
    std::atomic<bool> bFramedHere{false};
    pAdapter->onFraming = [&](ACE_HANDLE) { bFramedHere = std::this_thread::get_id() == sender; };
    const std::string strBulk(4 << 20U, 'b');
    ask(strBulk);
    ask("end");
    pair.Send(Element::Frame(7, "meanwhile"));
    ASSERT_TRUE(WaitFrames(1));
    EXPECT_FALSE(bFramedHere);
    EXPECT_TRUE(pair.Receive(strBulk.size()) == strBulk);
    EXPECT_EQ(pair.Receive(3), "end");
    EXPECT_EQ(AsyncIO().UnregisterHandle(&connection), 0);
    EXPECT_TRUE(WaitUntil([&] { return connection.IsUnused(); }));
    connection.set_handle(ACE_INVALID_HANDLE);
}

// The undefined-behaviour sanitizer takes the end of a thread, which is no object, for a reference to one.
#if !defined(__SANITIZE_ADDRESS__)
TEST_F(ConnectionCore, AThreadThatEndsWhileItWritesByItselfLeavesTheConnectionServed)
{
    host.SetCfg("nAsyncIOThreadNum", "1");
    StartKeeping();
    const SocketPair pair;
    TestConnector connector(1);
    ASSERT_EQ(Serve(connector, pair), 0);
    std::uint32_t ulSerial = 0;
    const auto endsInside = [&](const std::function<void()>& before) {
        ASSERT_TRUE(WaitUntilAtRest(*connector.Impl()));
        std::thread([&] {
            before();
            const SyncWaits::Asking asking;
            connector.Send(++ulSerial, "?");
            pthread_testcancel();
            ADD_FAILURE() << "it goes on";
        }).join();
        EXPECT_EQ(pair.Receive(9), Element::Frame(ulSerial, "?"));
        pair.Send(Element::Frame(ulSerial, "still there"));
        EXPECT_TRUE(WaitFrames(ulSerial));
        EXPECT_EQ(connector.Send(100, "!"), 0);
        EXPECT_EQ(pair.Receive(9), Element::Frame(100, "!"));
    };
    endsInside([] { pthread_cancel(pthread_self()); });
    endsInside([] {
        RegisterTraceHexDataCBFunc([](const char*, int, int, std::uint32_t) {
            if (SyncWaits::IsAsking())
                pthread_exit(nullptr);
        });
    });
    RegisterTraceHexDataCBFunc(nullptr);
    EXPECT_EQ(connector.UnRegister(), 0);
    EXPECT_TRUE(WaitUntil([&] { return connector.Impl()->IsUnused(); }));
}
#endif

TEST_F(ConnectionCore, AFailureOfWhoWritesByItselfIsABreakOnAnIOThread)
{
    host.SetCfg("nAsyncIOThreadNum", "1");
    StartKeeping();
    const SocketPair pair;
    TestConnector connector(1);
    std::atomic<int> nHooksHere{0};
    const auto sender = std::this_thread::get_id();
    connector.onBroken = [&] { nHooksHere += std::this_thread::get_id() == sender ? 1 : 0; };
    ASSERT_EQ(Serve(connector, pair), 0);
    ASSERT_TRUE(WaitUntilAtRest(*connector.Impl()));
    shutdown(pair.iNear, SHUT_WR); // it can be read, but not written
    {
        const SyncWaits::Asking asking;
        EXPECT_EQ(connector.Send(1, "?"), 0);
    }
    ASSERT_TRUE(WaitUntil([&] { return connector.nBroken == 1; }));
    EXPECT_EQ(host.Count(1, "TarnConnectorImpl::Write, send data error!\n"), 1);
    EXPECT_EQ(host.CountContaining(3, "TarnConnectorImpl::handle_output : Write error(32),handle("), 1);
    EXPECT_TRUE(WaitUntil([&] { return connector.Impl()->IsUnused(); }));
    // The same opening of the caller's descriptor may be served again. What is left is tried anew, whoever has failed with it.
    EXPECT_EQ(connector.UnRegister(), 0);
    EXPECT_EQ(connector.SetConnState(STATE_CONNECTED), 0);
    ASSERT_EQ(connector.Register(), 0);
    ASSERT_TRUE(WaitUntil([&] { return connector.nBroken == 2; }));
    EXPECT_EQ(host.Count(1, "TarnConnectorImpl::Write, send data error!\n"), 2);
    EXPECT_EQ(connector.UnRegister(), 0);
    EXPECT_EQ(nHooksHere, 0);
}

TEST_F(ConnectionCore, AFailureOfWhoWritesByItselfIsToldAsSuchThoughTheEndCanBeReadToo)
{
    host.SetCfg("nAsyncIOThreadNum", "1");
    StartKeeping();
    SocketPair pair;
    BreakingConnection connection(pair);
    connection.set_handle(pair.iNear);
    ASSERT_EQ(AsyncIO().RegisterHandle(&connection), 0);
    ASSERT_TRUE(WaitUntilAtRest(connection));
    {
        const SyncWaits::Asking asking;
        EXPECT_EQ(connection.AddAndSendData("?", 1), 0);
    }
    EXPECT_TRUE(WaitUntil([&] { return connection.IsUnused(); }));
    EXPECT_EQ(connection.lastSender, std::this_thread::get_id());
    EXPECT_EQ(host.CountContaining(3, "TarnConnectorImpl::handle_output : Write error(32),handle("), 1);
    EXPECT_EQ(host.CountContaining(3, "TarnConnectorImpl::handle_input : Read error("), 0);
    connection.set_handle(ACE_INVALID_HANDLE);
}

TEST_F(ConnectionCore, BlocksOfAllSizesKeepTheirOrder)
{
    StartKeeping();
    const SocketPair pair;
    TestConnector connector(1);
    ASSERT_EQ(Serve(connector, pair), 0);
    // Sent together, sent from where they are, in several pieces; some meet a socket that is full.
    constexpr std::size_t SIZES[] = {1, 4095, 70'000, 4096, 4096, 3, 200'000, 50'000, 65'536, 2, 17'000};
    std::string strAll;
    for (int iRound = 0; iRound < 10; ++iRound)
        for (const std::size_t uSize : SIZES)
        {
            std::string strBlock(uSize, '\0');
            for (std::size_t u = 0; u < uSize; ++u)
                strBlock[u] = static_cast<char>((strAll.size() + u) * 31 >> 3U);
            ASSERT_EQ(
                AsyncIO().SendToOutBuffer(pair.iNear, strBlock.data(), static_cast<int>(strBlock.size())), 0);
            strAll += strBlock;
        }
    EXPECT_TRUE(pair.Receive(strAll.size()) == strAll);
    EXPECT_EQ(connector.UnRegister(), 0);
}

TEST_F(ConnectionCore, WhoHasSentAllKeepsNoRoom)
{
    const std::string strSmall(1000, 's');
    const std::string strLarge(1'000'000, 'l');
    NarrowConnection first;
    NarrowConnection second;
    for (NarrowConnection* pEach : {&first, &second})
    {
        for (const std::string* pBlock : {&strSmall, &strSmall, &strLarge, &strSmall, &strSmall})
            ASSERT_EQ(pEach->AddAndSendData(pBlock->data(), static_cast<int>(pBlock->size())), 0);
        EXPECT_EQ(pEach->Write(), TarnConnectorImpl::MORE_LATER);
    }
    for (NarrowConnection* pEach : {&first, &second})
    {
        pEach->iWidth = std::numeric_limits<int>::max();
        EXPECT_TRUE(WaitUntil([&] { return pEach->Write() == 0; }));
        EXPECT_EQ(pEach->Room(), 0U);
    }
}

TEST_F(ConnectionCore, WhatABreakCutsInTwoIsContinued)
{
    StartKeeping();
    SocketPair first;
    const SocketPair second;
    TestConnector connector(1);
    ASSERT_EQ(Serve(connector, first), 0);
    // More than a socket takes: the block is being written when the connection breaks.
    std::string strOut;
    for (int i = 0; strOut.size() < (2U << 20U); ++i)
        strOut += std::to_string(i) + " ";
    EXPECT_EQ(AsyncIO().SendToOutBuffer(first.iNear, strOut.data(), static_cast<int>(strOut.size())), 0);
    const std::string strFrame = Element::Frame(3, "first half, second half");
    first.Send(strFrame.substr(0, 15));
    const std::string strBefore = first.Receive(100'000);
    ASSERT_EQ(shutdown(first.iFar, SHUT_WR), 0);
    ASSERT_TRUE(WaitUntil([&] { return connector.nBroken == 1; }));
    EXPECT_EQ(connector.GetConnState(), STATE_CONNECTED); // its owner closes it
    EXPECT_EQ(connector.UnRegister(), 0);
    first.CloseNear();
    const std::string strUntilTheBreak = strBefore + first.Receive(strOut.size());
    ASSERT_LT(strUntilTheBreak.size(), strOut.size());

    ASSERT_EQ(Serve(connector, second), 0);
    EXPECT_EQ(connector.Send(8, "after"), 0);
    const std::string strAfter = Element::Frame(8, "after");
    EXPECT_TRUE(strUntilTheBreak + second.Receive(strOut.size() - strUntilTheBreak.size()) == strOut);
    EXPECT_EQ(second.Receive(strAfter.size()), strAfter);
    second.Send(strFrame.substr(15));
    ASSERT_TRUE(WaitFrames(1));
    EXPECT_EQ(Frames()[0].second, "first half, second half");
    EXPECT_EQ(connector.UnRegister(), 0);
}

TEST_F(ConnectionCore, WhatFollowsRefusedBytesStaysInTheCallersDescriptor)
{
    constexpr std::uint32_t PROTOCOL = 91;
    constexpr std::size_t RECEIVED = 1024; // at once
    Start();
    std::atomic<std::size_t> uTaken{0};
    AddAdapter(PROTOCOL, [&](void*, std::vector<unsigned char>& data) {
        if (data[0] == '!')
            return -1;
        uTaken += data.size();
        return static_cast<int>(data.size());
    });
    for (const bool bReopened : {false, true})
    {
        uTaken = 0;
        SocketPair pair;
        const auto pConnector = MakeConnector(1);
        pConnector->SetAdapterProtocolID(PROTOCOL);
        pair.Send("!" + std::string(RECEIVED - 1 + 2000, 'a'));
        ASSERT_EQ(Serve(*pConnector, pair), 0);
        ASSERT_TRUE(WaitUntil([&] { return pConnector->nBroken == 1 && !pConnector->IsInHook(); }));
        EXPECT_EQ(uTaken, 0U);
        EXPECT_EQ(pConnector->UnRegister(), 0);
        SocketPair next;
        EXPECT_EQ(Serve(*pConnector, bReopened ? next : pair), 0);
        (bReopened ? next : pair).Send(std::string(7, 'b'));
        EXPECT_TRUE(WaitUntil([&] { return uTaken >= (bReopened ? 7U : 2007U); }));
        EXPECT_EQ(pConnector->UnRegister(), 0);
        EXPECT_EQ(uTaken, bReopened ? 7U : 2007U);
        EXPECT_EQ(pConnector->SetHandle(AsPointer(-1)), 0);
    }
}

TEST_F(ConnectionCore, ReferencesOfRegistrationsAreCounted)
{
    StartKeeping();
    const SocketPair pair;
    CountingConnection connection;
    CountingConnection other;
    EXPECT_EQ(AsyncIO().RegisterHandle(nullptr), -1);
    EXPECT_EQ(AsyncIO().UnregisterHandle(nullptr), -1);
    EXPECT_EQ(AsyncIO().RegisterHandle(&connection), 0x10000010);
    EXPECT_EQ(connection.GetRefCount(), 0);
    connection.set_handle(pair.iNear);
    other.set_handle(pair.iNear);
    EXPECT_EQ(AsyncIO().RegisterHandle(&connection), 0);
    const auto isCounted = [&](int nReferences) {
        return WaitUntil([&] { return connection.GetRefCount() == nReferences; });
    };
    EXPECT_TRUE(isCounted(2));
    EXPECT_EQ(AsyncIO().RegisterHandle(&connection), -1);
    EXPECT_EQ(AsyncIO().RegisterHandle(&other), -1);
    EXPECT_EQ(host.CountContaining(2, ",hanlde is already registed \n"), 2);
    EXPECT_EQ(other.GetRefCount(), 0);
    EXPECT_TRUE(isCounted(2));
    EXPECT_EQ(AsyncIO().FindConnectorImpl(pair.iNear), &connection);
    EXPECT_TRUE(isCounted(3));
    EXPECT_EQ(TarnConnectorMgrImpl::ReleaseConnectorImplDecRef(&connection), 0);
    // Another connection that names the handle takes nothing out.
    EXPECT_EQ(AsyncIO().UnregisterHandle(&other), 0);
    EXPECT_TRUE(isCounted(2));
    EXPECT_EQ(AsyncIO().UnregisterHandle(&connection), 0);
    EXPECT_TRUE(isCounted(0));
    EXPECT_EQ(AsyncIO().UnregisterHandle(&connection), 0);
    EXPECT_EQ(host.CountContaining(1, "UnregisterHandle, cannot find handle in the map,handle = "), 2);
    EXPECT_EQ(host.CountContaining(1, "UnregisterHandle,remove_handler error,handle = "), 1);
    EXPECT_EQ(connection.GetRefCount(), 0);
    EXPECT_EQ(AsyncIO().FindConnectorImpl(pair.iNear), nullptr);
    connection.DecRef();
    EXPECT_EQ(host.CountContaining(1, "TarnConnectorImpl, RefCount error(<0)!"), 1);
    EXPECT_EQ(connection.GetRefCount(), 0);
    EXPECT_EQ(TarnConnectorMgrImpl::UseConnectorImplAndIncRef(nullptr), -1);
    EXPECT_EQ(TarnConnectorMgrImpl::ReleaseConnectorImplDecRef(nullptr), -1);

    // A serial line is entered in the registry only, and is found there when its handle has gone.
    connection.SetCommuProtType(SERIAL_TYPE);
    EXPECT_EQ(AsyncIO().RegisterHandle(&connection), 0);
    EXPECT_EQ(connection.GetRefCount(), 1);
    connection.set_handle(ACE_INVALID_HANDLE);
    EXPECT_EQ(AsyncIO().UnregisterHandle(&connection), 0);
    EXPECT_EQ(host.CountContaining(1, "UnregisterHandle, handle = -1,but find handle in the map"), 1);
    EXPECT_EQ(connection.GetRefCount(), 0);
    other.set_handle(ACE_INVALID_HANDLE);
}

TEST_F(ConnectionCore, TheReactorsReferenceIsTakenBeforeItHasTheHandle)
{
    host.SetCfg("nRecordTarnConnectorImplRefInfo", "1");
    host.SetCfg("nAsyncIOThreadNum", "0");
    StartKeeping();
    const SocketPair pair;
    CountingConnection connection;
    connection.set_handle(pair.iNear);
    std::vector<int> registered; // at each reference that is taken
    const auto look = [&] { registered.push_back(AsyncIO().Reactor()->DisableWriteEvents(pair.iNear)); };
    host.StepIn(" IncRef ", look);
    host.StepIn(" IncRef ", look);
    EXPECT_EQ(AsyncIO().RegisterHandle(&connection), 0);
    EXPECT_EQ(registered, (std::vector<int>{0, 0}));
    EXPECT_EQ(AsyncIO().Reactor()->DisableWriteEvents(pair.iNear), 1);
    EXPECT_EQ(AsyncIO().UnregisterHandle(&connection), 0);
    connection.set_handle(ACE_INVALID_HANDLE);
}

TEST_F(ConnectionCore, ReferencesAreRecordedAndDumped)
{
    constexpr int REFERENCES = 9;
    host.SetCfg("nRecordTarnConnectorImplRefInfo", "1");
    StartKeeping();
    auto* pConnection = new CountingConnection;
    pConnection->SetGroupID(3);
    pConnection->SetTargetID(0xAB);
    for (int i = 0; i < REFERENCES; ++i)
        pConnection->IncRef();
    const unsigned uThread = Low32(ACE_Thread::self());
    char szRecord[16];
    std::snprintf(szRecord, sizeof(szRecord), "0x%x  ", uThread);
    const std::string strRecord = szRecord;
    const std::string strId = strRecord.substr(0, strRecord.size() - 2);
    EXPECT_EQ(
        host.Count(1, "TarnConnectorImpl IncRef GroupID = 3,TargetID = 0xab,threadid = " + strId + "\n"),
        REFERENCES);
    // The sweep leaves it, and says who refers to it. The engine's own first sweep may do so, too.
    TarnConnectorMgrImpl::RetireConnection(pConnection);
    TarnConnectorMgrImpl::Existing()->SweepRubbish();
    EXPECT_GE(
        host.Count(1, "TarnConnectorImpl,begin dump RefThreadInfo,GroupID = 3,TargetID = 0xab,Size = 9:\n"),
        1);
    std::string strDump;
    for (int i = 0; i < 8; ++i)
        strDump += strRecord;
    EXPECT_GE(host.Count(3, strDump + "\n" + strRecord + "\n"), 1);
    EXPECT_GE(host.Count(1, "TarnConnectorImpl,dump RefThreadInfo over. GroupID = 3,TargetID = 0xab\n"), 1);
    std::thread([&] { pConnection->DecRef(); }).join();
    EXPECT_EQ(host.CountContaining(1, "RefCount's Threadid doesn't match! GroupID = 3,TargetID = 0xab"), 1);
    for (int i = 1; i < REFERENCES; ++i)
        pConnection->DecRef();
    host.ClearLines();
    TarnConnectorMgrImpl::Existing()->SweepRubbish(); // deletes it
    TarnConnectorMgrImpl::Existing()->SweepRubbish();
    EXPECT_EQ(host.CountContaining(1, "begin dump RefThreadInfo"), 0);
}

TEST_F(ConnectionCore, AConnectionIsNotDestroyedWhileItIsReferredTo)
{
    auto pConnection = std::make_unique<CountingConnection>();
    pConnection->IncRef();
    TarnConnectorImpl& connection = *pConnection;
    auto destroyed = std::async(std::launch::async, [&] { pConnection.reset(); });
    EXPECT_TRUE(WaitUntil([&] {
        return host.Count(1, "while ~TarnConnectorImpl(), Refcount = 1,GroupId = 0,TargetID = 0x0\n") > 0;
    }));
    connection.DecRef();
    destroyed.get();
}

/// The old call may be waiting for room in a queue, or for a slow adapter, when the connection is open again.
TEST_F(ConnectionCore, ACallOfTheLastOpeningAndANewRegistrationDoNotMeet)
{
    StartKeeping();
    std::promise<void> inside;
    std::promise<void> goOn;
    std::atomic<int> nLooks{0};
    std::atomic<int> nInside{0};
    std::atomic<bool> bMet{false};
    pAdapter->onFraming = [&](ACE_HANDLE) {
        bMet = bMet || nInside++ != 0;
        if (nLooks++ == 0)
        {
            inside.set_value();
            goOn.get_future().wait();
        }
        --nInside;
    };
    const auto pConnector = MakeConnector(1);
    pConnector->onOpened = [&] {
        pConnector->Send(static_cast<std::uint32_t>(pConnector->nOpened), "hello");
    };
    ASSERT_EQ(pConnector->Register(), 0);
    inside.get_future().wait();
    ReopenBesideAnOldCall();
    EXPECT_FALSE(pConnector->Impl()->IsServed());
    EXPECT_EQ(pConnector->nOpened, 1);
    // Who is no connect thread may be the one that the old call waits for.
    EXPECT_EQ(AsyncIO().RegisterHandle(pConnector->Impl()), ADAPTER_ERR_REACTOR);
    goOn.set_value();
    // The old call frames what it had received; then the new opening is served.
    ASSERT_TRUE(WaitFrames(2));
    EXPECT_EQ(Frames()[0].first, 1U);
    EXPECT_EQ(Frames()[1].first, 2U);
    EXPECT_FALSE(bMet);
    EXPECT_EQ(pConnector->UnRegister(), 0);
    EXPECT_EQ(pConnector->nDisorder, 0);
}

TEST_F(ConnectionCore, ConnectThreadsStopAlsoWhileTheyWaitForAnOldCall)
{
    StartKeeping();
    std::promise<void> inside;
    std::promise<void> goOn;
    std::atomic<bool> bFirst{true};
    pAdapter->onFraming = [&](ACE_HANDLE) {
        if (!bFirst.exchange(false))
            return;
        inside.set_value();
        goOn.get_future().wait();
    };
    const auto pConnector = MakeConnector(1);
    pConnector->onOpened = [&] { pConnector->Send(1, "hello"); };
    ASSERT_EQ(pConnector->Register(), 0);
    inside.get_future().wait();
    ReopenBesideAnOldCall();
    EXPECT_EQ(Manager().StopConnectThreads(), 0); // though the old call goes on
    goOn.set_value();
    EXPECT_EQ(Manager().ResumeConnectThreads(), 0);
    EXPECT_EQ(Manager().RequestConnect(1, 1), 0);
    EXPECT_TRUE(WaitUntil([&] { return pConnector->Impl()->IsServed(); }));
    EXPECT_EQ(pConnector->UnRegister(), 0);
    EXPECT_EQ(pConnector->nDisorder, 0);
}

TEST_F(ConnectionCore, ADescriptorClosedBehindTheLibrarysBackIsABreak)
{
    host.SetCfg("nAsyncIOThreadNum", "1");
    StartKeeping();
    SocketPair pair;
    const SocketPair other;
    TestConnector connector(1);
    TestConnector healthy(2);
    ASSERT_EQ(Serve(connector, pair), 0);
    ASSERT_EQ(Serve(healthy, other), 0);
    ASSERT_TRUE(WaitUntilAtRest(*connector.Impl()));
    const int iKept = dup(pair.iNear); // the peer sees no end, and neither does who waits on the number
    pair.CloseNear();
    other.Send(Element::Frame(1, "on the healthy one"));
    EXPECT_TRUE(WaitUntil([&] { return connector.nBroken == 1; }));
    EXPECT_TRUE(WaitFrames(1));
    EXPECT_EQ(healthy.nBroken, 0);
    EXPECT_EQ(connector.UnRegister(), 0);
    EXPECT_EQ(healthy.UnRegister(), 0);
    EXPECT_TRUE(WaitUntil([&] { return connector.Impl()->IsUnused(); }));
    close(iKept);
}

TEST_F(ConnectionCore, AHandlerThatTheReactorClosesIsABreak)
{
    Start();
    const auto pConnector = MakeConnector(1);
    ASSERT_EQ(pConnector->Register(), 0);
    ASSERT_TRUE(WaitUntil([&] { return pConnector->Impl()->IsServed(); }));
    const ACE_HANDLE handle = pConnector->Handle();
    EXPECT_EQ(pConnector->Impl()->handle_close(handle, ACE_Event_Handler::READ_MASK), 0);
    EXPECT_TRUE(WaitUntil([&] { return pConnector->nOpened == 2; }));
    EXPECT_EQ(pConnector->nBroken, 1);
    EXPECT_EQ(pConnector->nDisorder, 0);
    EXPECT_EQ(pConnector->UnRegister(), 0);
}

} // namespace
