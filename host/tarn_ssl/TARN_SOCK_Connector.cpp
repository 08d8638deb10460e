#include "OptionState.h"
#include "StreamState.h"

#include <ace/INET_Addr.h>
#include <ace/SOCK_Connector.h>
#include <ace/SOCK_Stream.h>

#include <sys/socket.h>

#include <cerrno>
#include <mutex>
#include <optional>
#include <utility>

namespace {

constexpr std::size_t TEXT_SIZE = 100;

std::string AddressText(const ACE_INET_Addr& address)
{
    char szText[TEXT_SIZE] = {};
    return address.addr_to_string(szText, sizeof(szText), 1) == 0 ? szText : "unknown";
}

std::string HostText(const ACE_INET_Addr& address)
{
    char szText[TEXT_SIZE] = {};
    return address.get_host_addr(szText, sizeof(szText)) != nullptr ? szText : "unknown";
}

} // namespace

struct TARN_SOCK_Connector::State
{
    /// What the next connection is made with.
    struct Plan
    {
        TARN_SSL_Option::State option;
        std::shared_ptr<TlsSessions> pSessions;
    };

    Plan PlanFor(const std::string& strPeer);
    int Secure(TlsConnection& connection, const ACE_INET_Addr& remote,
               const TlsConnection::Deadline& deadline);

    std::mutex mutex;                       // a leaf
    TARN_SSL_Option::State option;          // guarded by mutex, as the next
    std::shared_ptr<TlsSessions> pSessions; // of the last peer
};

TARN_SOCK_Connector::TARN_SOCK_Connector()
    : m_pState(std::make_unique<State>())
{}

TARN_SOCK_Connector::~TARN_SOCK_Connector() = default;

void TARN_SOCK_Connector::set_ssl_option(const TARN_SSL_Option& option)
{
    const std::lock_guard<std::mutex> guard(m_pState->mutex);
    m_pState->option = *option.m_pState;
    m_pState->pSessions.reset(); // what was proved was proved to other conditions
}

TARN_SOCK_Connector::State::Plan TARN_SOCK_Connector::State::PlanFor(const std::string& strPeer)
{
    const std::lock_guard<std::mutex> guard(mutex);
    if (!option.bSsl)
        return {option, nullptr};
    if (option.pContext == nullptr)
        option.pContext = DefaultTlsContext(); // whatever was set has made one
    if (!option.bSessionReuse)
        pSessions.reset();
    else if (pSessions == nullptr || pSessions->Peer() != strPeer)
        pSessions = std::make_shared<TlsSessions>(strPeer, std::chrono::seconds(option.iSessionTimeout));
    return {option, pSessions};
}

/// @return 0; -1 with errno
int TARN_SOCK_Connector::State::Secure(TlsConnection& connection, const ACE_INET_Addr& remote,
                                       const TlsConnection::Deadline& deadline)
{
    const Plan plan = PlanFor(AddressText(remote));
    if (!plan.option.bSsl)
        return 0;
    if (plan.option.pContext == nullptr)
    {
        errno = ENOMEM;
        return -1;
    }
    const PeerCheck check = {plan.option.bAuthPeer, plan.option.bCheckName,
                             plan.option.strPeerName.empty() ? HostText(remote) : plan.option.strPeerName};
    return connection.StartTls(*plan.option.pContext, check, plan.pSessions, deadline);
}

int TARN_SOCK_Connector::connect(TARN_SOCK_Stream& stream, const ACE_Addr& remote,
                                 const ACE_Time_Value* pTimeout)
{
    stream.close();
    const std::uint64_t uClosings = stream.m_pState->Closings();
    if (remote.get_type() != AF_INET && remote.get_type() != AF_INET6)
    {
        errno = EAFNOSUPPORT;
        return -1;
    }
    const auto& address = static_cast<const ACE_INET_Addr&>(remote);
    const TlsConnection::Deadline deadline = DeadlineAfter(pTimeout);
    // Made here: the connector's own would not be close-on-exec.
    ACE_SOCK_Stream tcpStream(socket(address.get_type(), SOCK_STREAM | SOCK_CLOEXEC, 0));
    ACE_SOCK_Connector tcpConnector;
    if (tcpConnector.connect(tcpStream, address, pTimeout, ACE_Addr::sap_any, 0, 0, 0, 0) < 0)
    {
        const int iError = errno;
        tcpStream.close(); // a time-out leaves it open
        errno = iError;
        return -1;
    }
    const auto pConnection = std::make_shared<TlsConnection>(tcpStream.get_handle(), AddressText(address));
    tcpStream.set_handle(ACE_INVALID_HANDLE);
    // From here on somebody who closes the stream ends the handshake.
    errno = ECANCELED;
    if (stream.m_pState->Take(pConnection, uClosings) &&
        m_pState->Secure(*pConnection, address, deadline) == 0)
    {
        pConnection->SetOpen();
        if (!pConnection->IsClosed())
            return 0;
        errno = ECANCELED;
    }
    const int iError = errno;
    pConnection->Close();
    if (stream.m_pState->Connection() == pConnection)
        stream.close();
    errno = iError;
    return -1;
}
