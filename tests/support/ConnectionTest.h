#ifndef TARN_TESTS_SUPPORT_CONNECTIONTEST_H
#define TARN_TESTS_SUPPORT_CONNECTIONTEST_H

#include "support/Element.h"
#include "support/FrameAdapter.h"
#include "support/TestHost.h"
#include "tarnadapterframe/tarn_ssl.h"

#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <vector>

/// A connector to an Element whose hooks count, check that they alternate, and do what the test says.
class TestConnector : public TarnConnector
{
public:
    explicit TestConnector(unsigned long ulTargetID, std::uint16_t usPort = 0,
                           ECommuProtocolType eType = TCP_TYPE);

    int Reach(std::uint16_t usPort);                            ///< gives the transport its address
    int Reach(std::uint16_t usPort, TARN_SSL_Option option);    ///< the same for one over TLS
    void Renew(unsigned long ulTargetID, std::uint16_t usPort); ///< takes another transport, as the first was
    ACE_HANDLE Handle() { return static_cast<ACE_HANDLE>(reinterpret_cast<std::intptr_t>(GetHandle())); }
    TarnConnectorImpl* Impl() { return static_cast<TarnConnectorImpl*>(GetTarnConnectorImpl()); }
    int Register(bool bWait = false, int nAttempts = 0);
    int UnRegister();
    int Send(std::uint32_t ulSerial, const std::string& strPayload);

    bool IsInHook() const { return m_nInside != 0; }

    int OnConnectOK() override;
    int OnSockBreak() override;

    std::function<void()> onOpened;
    std::function<void()> onBroken;
    std::atomic<int> nOpened{0};
    std::atomic<int> nBroken{0};
    std::atomic<int> nOverlaps{0}; ///< hooks that ran at the same time
    std::atomic<int> nDisorder{0}; ///< two openings, or two breaks, in a row

    static constexpr int GROUP = 1;
    static constexpr std::uint32_t PROTOCOL = 77;

private:
    void Identify(unsigned long ulTargetID);

    std::atomic<int> m_nInside{0};
    std::atomic<bool> m_bUp{false};
};

/// A started library with a FrameAdapter and an Element.
class ConnectionTest : public HostTest
{
protected:
    void SetUp() override;
    void TearDown() override;

    /// Starts the library with the settings made so far; SetUp does not.
    void Start();
    static TarnConnectorMgr& Manager() { return *TarnConnectorMgr::Instance(); }
    std::unique_ptr<TestConnector> MakeConnector(unsigned long ulTargetID);

    Element element;
    FrameAdapter* pAdapter = nullptr; // the adapter manager's
};

#endif
