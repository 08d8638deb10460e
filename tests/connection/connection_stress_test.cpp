#include "connection/TarnConnectorImpl.h"
#include "connection/TarnConnectorMgrImpl.h"
#include "support/ConnectionTest.h"
#include "support/Threads.h"
#include "support/Tunnel.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <mutex>
#include <random>
#include <shared_mutex>
#include <thread>

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::uint32_t FIRST_PROTOCOL = 1000;

/// Connections with a protocol adapter each: whatever an adapter frames was received by its connection, and
/// says for which it was meant. Over TCP, or over TLS through a tunnel in front of the same elements.
class ConnectionStress : public ConnectionTest, public ::testing::WithParamInterface<ECommuProtocolType>
{
protected:
    static constexpr int MAX_CONNECTIONS = 300;

    void SetUp() override
    {
        ConnectionTest::SetUp();
        if (GetParam() == TCP_TYPE)
            return;
        EXPECT_EQ(m_Option.set_authorities(m_Authority.File().c_str(), nullptr), 0);
        m_pTunnel = std::make_unique<Tunnel>(
            m_Authority, std::vector<std::uint16_t>{element.Port(), deafElement.Port(), floodElement.Port()});
    }

    void StartWith(int nConnections)
    {
        Start();
        for (auto& nAnswered : m_Answered)
            nAnswered = 0;
        for (int i = 0; i < nConnections; ++i)
        {
            const std::uint32_t ulProtocol = FIRST_PROTOCOL + static_cast<std::uint32_t>(i);
            auto* pOwn = new FrameAdapter(ulProtocol);
            pOwn->onAnswer = [this, i](FrameMessage& message) {
                if (message.strPayload == std::to_string(i))
                    ++m_Answered[static_cast<std::size_t>(i)];
                else if (!message.strPayload.empty())
                    ++nAstray;
            };
            ASSERT_EQ(TEAdapterManager::Instance()->RegisterProtocolAdapter(ulProtocol, pOwn, true), 0);
        }
    }

    std::unique_ptr<TestConnector> Make(int i)
    {
        auto pConnector = std::make_unique<TestConnector>(static_cast<unsigned long>(i), 0, GetParam());
        Reach(*pConnector, element);
        pConnector->SetAdapterProtocolID(FIRST_PROTOCOL + static_cast<unsigned long>(i));
        TestConnector* const pSelf = pConnector.get();
        pConnector->onOpened = [pSelf] { Ask(*pSelf); };
        return pConnector;
    }

    void Reach(TestConnector& connector, const Element& target) const
    {
        EXPECT_EQ(GetParam() == TCP_TYPE ? connector.Reach(target.Port())
                                         : connector.Reach(m_pTunnel->PortTo(target.Port()), m_Option),
                  0);
    }

    /// Through the connection itself: another thread may close it meanwhile, and its number be somebody else's then.
    static void Ask(TestConnector& connector)
    {
        const std::string strFrame = Element::Frame(1, std::to_string(connector.GetTargetID()));
        connector.Impl()->AddAndSendData(strFrame.data(), static_cast<int>(strFrame.size()));
    }

    int Answered(int i) const { return m_Answered[static_cast<std::size_t>(i)]; }

    std::atomic<int> nAstray{0};
    Element deafElement;
    Element floodElement;

private:
    const Authority m_Authority{"Test authority"};
    TARN_SSL_Option m_Option;
    std::unique_ptr<Tunnel> m_pTunnel;
    std::array<std::atomic<int>, MAX_CONNECTIONS> m_Answered{};
};

std::string TransportName(const ::testing::TestParamInfo<ECommuProtocolType>& info)
{
    return info.param == TCP_TYPE ? "Tcp" : "Tls";
}

INSTANTIATE_TEST_SUITE_P(Over, ConnectionStress, ::testing::Values(TCP_TYPE, TCP_SSL_TYPE), &TransportName);

TEST_P(ConnectionStress, AllConnectionsDroppedAtOnceComeBackEachRound)
{
    const int nConnections = GetParam() == TCP_TYPE ? MAX_CONNECTIONS : 100;
    const int nRounds = StressRounds(3);
    StartWith(nConnections);
    std::vector<std::unique_ptr<TestConnector>> connectors;
    for (int i = 0; i < nConnections; ++i)
    {
        connectors.push_back(Make(i));
        connectors.back()->onBroken = [i] {
            Manager().RequestConnect(TestConnector::GROUP, static_cast<unsigned long>(i));
        };
        ASSERT_EQ(connectors.back()->Register(), 0);
    }
    for (int iRound = 1; iRound <= nRounds + 1; ++iRound)
    {
        for (int i = 0; i < nConnections; ++i)
            ASSERT_TRUE(WaitUntil([&] {
                return connectors[static_cast<std::size_t>(i)]->nOpened >= iRound && Answered(i) >= iRound;
            })) << "round "
                << iRound << " connection " << i;
        if (iRound <= nRounds)
            element.DropAll(iRound % 2 == 0);
    }
    for (const auto& pConnector : connectors)
    {
        EXPECT_EQ(pConnector->UnRegister(), 0);
        EXPECT_EQ(pConnector->nDisorder, 0);
        EXPECT_EQ(pConnector->nOpened, pConnector->nBroken);
    }
    EXPECT_EQ(nAstray, 0);
    EXPECT_TRUE(WaitUntil([&] { return element.Open() == 0; }));
    for (const auto& pConnector : connectors)
        EXPECT_TRUE(WaitUntil([&] { return pConnector->Impl()->IsUnused(); }));
    EXPECT_EQ(host.CountContaining(1, "RefCount error"), 0);
    EXPECT_EQ(host.CountContaining(1, "remove_handler error"), 0);
    EXPECT_EQ(host.CountContaining(1, "Register handle err"), 0);
}

/// Some connectors, and threads that do everything with them at once until told to end.
class Turmoil
{
public:
    /// @param bPastManager  also open and close connections without the manager; nobody is told of that
    Turmoil(int nSlots, int nThreads, Element& element, bool bPastManager,
            std::function<std::unique_ptr<TestConnector>(int)> make)
        : m_Element(element)
        , m_bPastManager(bPastManager)
        , m_Make(std::move(make))
        , m_Slots(static_cast<std::size_t>(nSlots))
    {
        for (int i = 0; i < nSlots; ++i)
            Renew(i);
        for (int i = 0; i < nThreads; ++i)
            m_Threads.emplace_back([this, i] { Run(static_cast<unsigned>(i)); });
    }

    ~Turmoil() { End(); }
    Turmoil(const Turmoil&) = delete;
    Turmoil& operator=(const Turmoil&) = delete;

    void End()
    {
        m_bEnd = true;
        for (std::thread& thread : m_Threads)
            thread.join();
        m_Threads.clear();
    }

    int Disorder() const { return m_nDisorder; }

    /// Destroys the connectors when the library is not running any more.
    void Forget()
    {
        for (std::size_t i = 0; i < m_Slots.size(); ++i)
            Drop(static_cast<int>(i), false);
    }

    void UnregisterAll()
    {
        for (std::size_t i = 0; i < m_Slots.size(); ++i)
            Drop(static_cast<int>(i), true);
    }

private:
    struct Slot
    {
        std::shared_mutex mutex; // shared: the connector stays; alone: it may be replaced
        std::unique_ptr<TestConnector> pConnector;
    };

    static TarnConnectorMgr& Manager() { return *TarnConnectorMgr::Instance(); }

    Slot& At(int i) { return m_Slots[static_cast<std::size_t>(i)]; }

    void Renew(int i)
    {
        At(i).pConnector = m_Make(i);
        At(i).pConnector->Register();
    }

    void Drop(int i, bool bUnregister)
    {
        if (At(i).pConnector == nullptr)
            return;
        const int iResult = bUnregister ? At(i).pConnector->UnRegister() : 0;
        EXPECT_EQ(iResult, 0);
        m_nDisorder +=
            At(i).pConnector->nOverlaps + (m_bPastManager ? 0 : At(i).pConnector->nDisorder.load());
        At(i).pConnector.reset();
    }

    void Run(unsigned uSeed)
    {
        std::minstd_rand random(uSeed + 1);
        while (!m_bEnd)
        {
            const int i = static_cast<int>(random() % m_Slots.size());
            const auto ulTarget = static_cast<unsigned long>(i);
            switch (random() % 16)
            {
            case 0:
                Manager().RequestDisConnect(TestConnector::GROUP, ulTarget);
                break;
            case 1:
            case 2:
                Manager().RequestConnect(TestConnector::GROUP, ulTarget);
                break;
            case 3:
                Reregister(i);
                break;
            case 4:
                Replace(i);
                break;
            case 5:
                m_Element.DropAll(random() % 2 == 0);
                break;
            case 6:
                if (m_bPastManager)
                    OpenAndClose(i);
                break;
            default:
                Send(i);
                break;
            }
        }
    }

    void Send(int i)
    {
        const std::shared_lock<std::shared_mutex> lock(At(i).mutex);
        // Between the look at the handle and the sending the number may have become another connection's: an
        // element answers what it got, so the payload must not say for whom it was.
        const std::string strFrame = Element::Frame(2, std::string());
        TEAsyncIOMgr::Instance()->SendToOutBuffer(At(i).pConnector->Handle(), strFrame.data(),
                                                  static_cast<int>(strFrame.size()));
    }

    void OpenAndClose(int i)
    {
        const std::shared_lock<std::shared_mutex> lock(At(i).mutex);
        Manager().Connect(At(i).pConnector.get());
        Manager().DisConnect(At(i).pConnector.get());
    }

    void Reregister(int i)
    {
        const std::lock_guard<std::shared_mutex> guard(At(i).mutex);
        EXPECT_EQ(At(i).pConnector->UnRegister(), 0);
        At(i).pConnector->Register(); // another thread may ask for its closing meanwhile
    }

    void Replace(int i)
    {
        const std::lock_guard<std::shared_mutex> guard(At(i).mutex);
        Drop(i, true);
        Renew(i);
    }

    Element& m_Element;
    const bool m_bPastManager;
    const std::function<std::unique_ptr<TestConnector>(int)> m_Make;
    std::vector<Slot> m_Slots;
    std::atomic<bool> m_bEnd{false};
    std::atomic<int> m_nDisorder{0};
    std::vector<std::thread> m_Threads;
};

constexpr int TURMOIL_SLOTS = 20;
constexpr int TURMOIL_THREADS = 6;

class ConnectionTurmoil : public ConnectionStress
{
protected:
    void Rage(bool bPastManager);
};

INSTANTIATE_TEST_SUITE_P(Over, ConnectionTurmoil, ::testing::Values(TCP_TYPE, TCP_SSL_TYPE), &TransportName);

void ConnectionTurmoil::Rage(bool bPastManager)
{
    StartWith(TURMOIL_SLOTS);
    const auto tEnd = Clock::now() + std::chrono::seconds(StressRounds(2));
    {
        Turmoil turmoil(TURMOIL_SLOTS, TURMOIL_THREADS, element, bPastManager,
                        [this](int i) { return Make(i); });
        EXPECT_TRUE(WaitUntil([&] { return Clock::now() > tEnd; }, std::chrono::hours(1)));
        turmoil.End();
        // Nothing has been lost: whoever is asked to come back does.
        for (int i = 0; i < TURMOIL_SLOTS; ++i)
        {
            const auto ulTarget = static_cast<unsigned long>(i);
            EXPECT_EQ(Manager().RequestConnect(TestConnector::GROUP, ulTarget), 0);
            auto* pConnector =
                static_cast<TestConnector*>(Manager().GetConnectorByID(TestConnector::GROUP, ulTarget));
            ASSERT_NE(pConnector, nullptr);
            Manager().ReleaseConnector(pConnector);
            EXPECT_TRUE(WaitUntil([&] { return pConnector->Impl()->IsServed(); })) << i;
        }
        turmoil.UnregisterAll();
        EXPECT_EQ(turmoil.Disorder(), 0);
    }
    EXPECT_EQ(nAstray, 0);
    EXPECT_TRUE(WaitUntil([&] {
        TarnConnectorMgrImpl::Existing()->SweepRubbish();
        return element.Open() == 0;
    }));
    EXPECT_EQ(host.CountContaining(1, "RefCount error"), 0);
    EXPECT_EQ(host.CountContaining(1, "Register handle err"), 0);
}

TEST_P(ConnectionTurmoil, EverythingAtOnceOnTheSameConnections)
{
    Rage(false);
}

TEST_P(ConnectionTurmoil, EverythingAtOnceAndPastTheManager)
{
    Rage(true);
}

TEST_P(ConnectionStress, FiniAtAnyMomentLeavesNothing)
{
    std::minstd_rand random(7);
    const std::set<int> threads = Threads();
    Start();
    tarnadapter::Fini();
    FrameMessage::DeleteLeft();
    const int nDescriptors = DescriptorCount();
    for (int iRound = 0; iRound < StressRounds(5); ++iRound)
    {
        StartWith(TURMOIL_SLOTS);
        auto pTurmoil = std::make_unique<Turmoil>(TURMOIL_SLOTS, TURMOIL_THREADS, element, true,
                                                  [this](int i) { return Make(i); });
        const auto tEnd = Clock::now() + std::chrono::milliseconds(random() % 300);
        EXPECT_TRUE(WaitUntil([&] { return Clock::now() > tEnd; }));
        // The callers stop; connections, hooks, threads and queues do not.
        pTurmoil->End();
        element.DropAll(random() % 2 == 0);
        if (random() % 2 == 0)
        {
            pTurmoil->UnregisterAll();
            pTurmoil.reset();
        }
        const auto tBefore = Clock::now();
        tarnadapter::Fini();
        EXPECT_LT(Clock::now() - tBefore, std::chrono::seconds(20));
        EXPECT_TRUE(WaitUntil([&] { return Threads() == threads; })); // the kernel lists them a little longer
        if (pTurmoil != nullptr)
            pTurmoil->Forget();
        pTurmoil.reset();
        FrameMessage::DeleteLeft();
        EXPECT_TRUE(WaitUntil([&] { return element.Open() == 0; }));
        EXPECT_EQ(DescriptorCount(), nDescriptors);
        EXPECT_EQ(nAstray, 0);
    }
}

/// Some elements flood with reports (over TLS also one over TCP), four take in nothing, and the quiet ones are still
/// served.
TEST_P(ConnectionStress, QuietElementsAreServedBesideAFloodAndBesideDeafOnes)
{
    constexpr int DEAF = 4;
    constexpr int QUIET = 50;
    constexpr int FLOODED = DEAF + QUIET;
    const int nConnections = FLOODED + (GetParam() == TCP_TYPE ? 1 : 5);
    Element::Behaviour behaviour;
    behaviour.bRead = false;
    deafElement.Behave(behaviour);
    behaviour.bRead = true;
    behaviour.bFlood = true;
    floodElement.Behave(behaviour);
    StartWith(nConnections);
    std::vector<std::unique_ptr<TestConnector>> connectors;
    for (int i = 0; i < nConnections; ++i)
    {
        connectors.push_back(Make(i));
        if (i < DEAF || i >= FLOODED)
            Reach(*connectors.back(), i < DEAF ? deafElement : floodElement);
        if (i == FLOODED + 4)
            connectors.back()->Renew(static_cast<unsigned long>(i), floodElement.Port());
        ASSERT_EQ(connectors.back()->Register(), 0);
    }
    for (const auto& pConnector : connectors)
        ASSERT_TRUE(WaitUntil([&] { return pConnector->Impl()->IsServed(); }));
    const std::string strBulk = Element::Frame(1, std::string(4 << 20U, 'b'));
    for (int i = 0; i < DEAF; ++i)
        EXPECT_EQ(TEAsyncIOMgr::Instance()->SendToOutBuffer(connectors[static_cast<std::size_t>(i)]->Handle(),
                                                            strBulk.data(), static_cast<int>(strBulk.size())),
                  0);
    for (int i = DEAF; i < FLOODED; ++i)
        ASSERT_TRUE(WaitUntil([&] { return Answered(i) == 1; }));
    std::vector<Clock::duration> waits;
    for (int iRound = 2; iRound <= 1 + StressRounds(3); ++iRound)
        for (int i = DEAF; i < FLOODED; ++i)
        {
            const auto tAsked = Clock::now();
            Ask(*connectors[static_cast<std::size_t>(i)]);
            while (Answered(i) < iRound && Clock::now() - tAsked < std::chrono::seconds(30))
                std::this_thread::yield();
            waits.push_back(Clock::now() - tAsked);
        }
    std::sort(waits.begin(), waits.end());
    const auto inUs = [](Clock::duration wait) {
        return std::chrono::duration_cast<std::chrono::microseconds>(wait).count();
    };
    RecordProperty("median_us", static_cast<int>(inUs(waits[waits.size() / 2])));
    RecordProperty("longest_us", static_cast<int>(inUs(waits.back())));
    std::printf("answers beside a flood: median %ld us, longest %ld us\n", inUs(waits[waits.size() / 2]),
                inUs(waits.back()));
    // Fifty quiet elements on a machine that others use, too: what waits longer is starved, not slow.
    EXPECT_LT(waits[waits.size() / 2], std::chrono::milliseconds(100));
    EXPECT_LT(waits.back(), std::chrono::seconds(2));
    behaviour.bFlood = false;
    floodElement.Behave(behaviour);
    for (const auto& pConnector : connectors)
        EXPECT_EQ(pConnector->UnRegister(), 0);
}

} // namespace
