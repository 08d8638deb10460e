// A simulated network element behind TLS: one thread, which echoes the frames of the yardstick (see Yardstick.h) as their
// answers. The certificate that it shows is made at its start, for 127.0.0.1, and written where the clients look for it.
//
//   tls_element --ca FILE [--port P] [--nports K] [--seconds S] [--corrupt N]
//
// Ports are P to P + K - 1, or with P 0 a free one. It ends after S seconds (3600), and on SIGTERM or SIGINT. With N, every Nth
// answer of a connection has a wrong bit, to see that a client looks. Each line is a
// JSON object: "ready" with the ports; "run", when the last connection has gone, with how evenly the connections were served
// since the last of them was opened, and what TLS they had agreed on.
#include "TlsChannel.h"

#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>

#include <sys/signalfd.h>

#include <csignal>

namespace {

using yardstick::TlsChannel;

struct Settings
{
    int iPort = 0;
    int nPorts = 1;
    int nCorrupt = 0;
    double seconds = 3600;
    std::string strCaFile;
};

Settings ParseSettings(int argc, char** argv)
{
    Settings settings;
    bool bGood = argc % 2 == 1;
    for (int i = 1; bGood && i < argc; i += 2)
    {
        const std::string strName = argv[i];
        const char* pszValue = argv[i + 1];
        if (strName == "--port")
            settings.iPort = static_cast<int>(std::strtol(pszValue, nullptr, 10));
        else if (strName == "--nports")
            settings.nPorts = static_cast<int>(std::strtol(pszValue, nullptr, 10));
        else if (strName == "--corrupt")
            settings.nCorrupt = static_cast<int>(std::strtol(pszValue, nullptr, 10));
        else if (strName == "--seconds")
            settings.seconds = std::strtod(pszValue, nullptr);
        else if (strName == "--ca")
            settings.strCaFile = pszValue;
        else
            bGood = false;
    }
    if (!bGood || settings.strCaFile.empty() || settings.seconds <= 0 || settings.nPorts < 1 ||
        settings.nCorrupt < 0 || settings.iPort < 0 || (settings.iPort == 0 && settings.nPorts != 1))
    {
        std::fprintf(stderr, "usage: %s --ca FILE [--port P [--nports K]] [--seconds S] [--corrupt N]\n",
                     argv[0]);
        std::exit(2);
    }
    return settings;
}

[[noreturn]] void Fail(const char* pszWhat)
{
    std::perror(pszWhat);
    ERR_print_errors_fp(stderr);
    std::exit(1);
}

/// A new key, and a certificate that it has signed itself, valid for a day.
void MakeCertificate(SSL_CTX* pContext, const std::string& strFile)
{
    constexpr long HOUR = 3600;
    const std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)> pKey(EVP_EC_gen("P-256"), &EVP_PKEY_free);
    const std::unique_ptr<X509, decltype(&X509_free)> pCertificate(X509_new(), &X509_free);
    X509* p = pCertificate.get();
    X509_set_version(p, X509_VERSION_3);
    ASN1_INTEGER_set(X509_get_serialNumber(p), static_cast<long>(yardstick::NowNs() & 0x7FFFFFFFU));
    X509_gmtime_adj(X509_getm_notBefore(p), -HOUR);
    X509_gmtime_adj(X509_getm_notAfter(p), 24 * HOUR);
    X509_NAME_add_entry_by_txt(X509_get_subject_name(p), "CN", MBSTRING_UTF8,
                               reinterpret_cast<const unsigned char*>("element"), -1, -1, 0);
    X509_set_issuer_name(p, X509_get_subject_name(p));
    X509_set_pubkey(p, pKey.get());
    X509_EXTENSION* pNames = X509V3_EXT_conf_nid(nullptr, nullptr, NID_subject_alt_name, "IP:127.0.0.1");
    X509_add_ext(p, pNames, -1);
    X509_EXTENSION_free(pNames);
    if (X509_sign(p, pKey.get(), EVP_sha256()) == 0 || SSL_CTX_use_certificate(pContext, p) != 1 ||
        SSL_CTX_use_PrivateKey(pContext, pKey.get()) != 1)
        Fail("certificate");
    FILE* pFile = std::fopen(strFile.c_str(), "w");
    if (pFile == nullptr || PEM_write_X509(pFile, p) != 1 || std::fclose(pFile) != 0)
        Fail(strFile.c_str());
}

struct Connection
{
    Connection(SSL_CTX* pContext, int iSocket, int iEpoll)
        : channel(pContext, iSocket, iEpoll)
    {
        SSL_set_accept_state(channel.Ssl());
    }

    TlsChannel channel;
    std::uint64_t uServed = 0;
};

class Element
{
public:
    explicit Element(const Settings& settings)
        : m_uCorrupt(static_cast<std::uint64_t>(settings.nCorrupt))
        , m_pContext(yardstick::MakeContext(TLS_server_method()))
        , m_iEpoll(epoll_create1(EPOLL_CLOEXEC))
    {
        MakeCertificate(m_pContext.get(), settings.strCaFile);
        sigset_t signals;
        sigemptyset(&signals);
        sigaddset(&signals, SIGTERM);
        sigaddset(&signals, SIGINT);
        sigprocmask(SIG_BLOCK, &signals, nullptr);
        std::signal(SIGPIPE, SIG_IGN); // OpenSSL writes
        m_iSignals = signalfd(-1, &signals, SFD_NONBLOCK | SFD_CLOEXEC);
        Watch(m_iSignals);
        int iPort = settings.iPort;
        for (int i = 0; i < settings.nPorts; ++i)
            iPort = Listen(settings.iPort == 0 ? 0 : settings.iPort + i) - i;
        std::printf("{\"event\":\"ready\",\"port\":%d,\"nports\":%d}\n", iPort, settings.nPorts);
        std::fflush(stdout);
    }

    /// Until the time comes or a signal says so.
    void Run(std::uint64_t uUntil)
    {
        constexpr std::uint64_t MS = 1'000'000;
        epoll_event events[512];
        for (std::uint64_t uNow = 0; (uNow = yardstick::NowNs()) < uUntil;)
        {
            const auto iWaitMs = static_cast<int>(std::min<std::uint64_t>((uUntil - uNow) / MS + 1, 60'000));
            const int nEvents =
                epoll_wait(m_iEpoll, events, std::size(events), m_Again.empty() ? iWaitMs : 0);
            std::vector<int> again;
            again.swap(m_Again);
            for (int i = 0; i < nEvents; ++i)
            {
                const int iSocket = events[i].data.fd;
                if (iSocket == m_iSignals)
                    return;
                if (std::find(m_Listeners.begin(), m_Listeners.end(), iSocket) != m_Listeners.end())
                    Accept(iSocket);
                else
                    Serve(iSocket);
            }
            for (const int iSocket : again)
                Serve(iSocket);
        }
    }

    void DropAll()
    {
        for (std::size_t u = 0; u < m_Connections.size(); ++u)
            if (m_Connections[u] != nullptr)
                Drop(u);
    }

private:
    struct Served
    {
        std::uint64_t uConnections = 0;
        std::uint64_t uRequests = 0;
        std::uint64_t uLeast = UINT64_MAX;
        std::uint64_t uMost = 0;
    };

    void Watch(int iDescriptor) const
    {
        epoll_event event{};
        event.events = EPOLLIN;
        event.data.fd = iDescriptor;
        epoll_ctl(m_iEpoll, EPOLL_CTL_ADD, iDescriptor, &event);
    }

    /// @return the port
    int Listen(int iPort)
    {
        const int iSocket = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
        const int iOne = 1;
        setsockopt(iSocket, SOL_SOCKET, SO_REUSEADDR, &iOne, sizeof(iOne));
        sockaddr_in address = yardstick::Loopback(iPort);
        socklen_t uLength = sizeof(address);
        auto* pAddress = reinterpret_cast<sockaddr*>(&address);
        if (bind(iSocket, pAddress, uLength) != 0 || listen(iSocket, 4096) != 0 ||
            getsockname(iSocket, pAddress, &uLength) != 0)
            Fail("bind");
        m_Listeners.push_back(iSocket);
        Watch(iSocket);
        return ntohs(address.sin_port);
    }

    void Accept(int iListener)
    {
        int iSocket = -1;
        while ((iSocket = accept4(iListener, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC)) >= 0)
        {
            const auto uPlace = static_cast<std::size_t>(iSocket);
            m_Connections.resize(std::max(m_Connections.size(), uPlace + 1));
            m_Connections[uPlace] = std::make_unique<Connection>(m_pContext.get(), iSocket, m_iEpoll);
        }
    }

    void Serve(int iSocket)
    {
        const auto uPlace = static_cast<std::size_t>(iSocket);
        if (uPlace >= m_Connections.size() || m_Connections[uPlace] == nullptr)
            return; // has gone meanwhile
        if (!Serve(*m_Connections[uPlace], iSocket))
            Drop(uPlace);
    }

    /// @return false: the connection is over
    bool Serve(Connection& connection, int iSocket)
    {
        TlsChannel& channel = connection.channel;
        if (channel.Now() == TlsChannel::State::HANDSHAKE)
        {
            if (channel.Handshake() != TlsChannel::State::OPEN)
                return channel.Now() != TlsChannel::State::FAILED;
            NoteOpened(channel);
            // Requests may have come with the end of the handshake.
        }
        if (!channel.Flush())
            return false;
        if (!channel.MayReceive())
            return true; // the socket's room is announced, and it is looked at then
        const TlsChannel::Input eInput = channel.Receive([&](const char* pFrame, std::size_t uLength) {
            channel.Output().insert(channel.Output().end(), pFrame, pFrame + uLength);
            if (m_uCorrupt != 0 && (connection.uServed + 1) % m_uCorrupt == 0)
                channel.Output().back() ^= 1;
            ++connection.uServed;
        });
        if (eInput == TlsChannel::Input::BROKEN || !channel.Flush())
            return false;
        if (eInput == TlsChannel::Input::MORE && channel.MayReceive())
            m_Again.push_back(iSocket);
        return true;
    }

    void NoteOpened(const TlsChannel& channel)
    {
        m_strAgreed = std::string(SSL_get_version(channel.Ssl())) + ", " + SSL_get_cipher_name(channel.Ssl());
        ++m_nOpen;
        for (const auto& pConnection : m_Connections)
            if (pConnection != nullptr)
                pConnection->uServed = 0; // from here on all are there
    }

    void Drop(std::size_t uPlace)
    {
        const Connection& connection = *m_Connections[uPlace];
        const bool bOpened = connection.channel.Now() == TlsChannel::State::OPEN;
        if (bOpened)
        {
            ++m_Served.uConnections;
            m_Served.uRequests += connection.uServed;
            m_Served.uLeast = std::min(m_Served.uLeast, connection.uServed);
            m_Served.uMost = std::max(m_Served.uMost, connection.uServed);
        }
        m_Connections[uPlace] = nullptr;
        if (!bOpened || --m_nOpen > 0)
            return;
        std::printf("{\"event\":\"run\",\"conns\":%llu,\"requests\":%llu,\"least\":%llu,\"most\":%llu,"
                    "\"tls\":\"%s\"}\n",
                    static_cast<unsigned long long>(m_Served.uConnections),
                    static_cast<unsigned long long>(m_Served.uRequests),
                    static_cast<unsigned long long>(m_Served.uLeast),
                    static_cast<unsigned long long>(m_Served.uMost), m_strAgreed.c_str());
        std::fflush(stdout);
        m_Served = {};
    }

    const std::uint64_t m_uCorrupt;
    const yardstick::Context m_pContext;
    const int m_iEpoll;
    int m_iSignals = -1;
    std::vector<int> m_Listeners;
    std::vector<std::unique_ptr<Connection>> m_Connections; // by socket
    std::vector<int> m_Again;                               // hold bytes that nobody announces
    int m_nOpen = 0;
    Served m_Served; // by those that have gone
    std::string m_strAgreed;
};

} // namespace

int main(int argc, char** argv)
{
    const Settings settings = ParseSettings(argc, argv);
    const auto uNs = static_cast<std::uint64_t>(settings.seconds * 1e9);
    Element element(settings);
    element.Run(yardstick::NowNs() + uNs);
    element.DropAll();
    return 0;
}
