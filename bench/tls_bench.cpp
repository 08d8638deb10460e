// What TLS costs beside TCP, over loopback, to an element in this process: connections opened, asked once and closed, in
// full, with the last session taken up, and plain; then requests and answers of 64 and of 16,000 bytes on 1 and on 100
// connections, 4 under way on each. In front of the element stands stunnel(8), so that TLS has a hop more than TCP; its
// processor time is not in the figures, the element's is.
//
//   tls_bench [seconds for each figure, 3 unless given]
#include "QuietHost.h"
#include "RoadLoad.h"
#include "support/Tunnel.h"

#include <ace/INET_Addr.h>

#include <memory>

namespace {

constexpr std::size_t FRAME_HEAD = 8;

/// Opens, asks once, and closes, again and again.
void OpenAndAsk(const TARN_SSL_Option& option, std::uint16_t usPort, Latencies& latencies,
                Clock::time_point tEnd)
{
    TARN_SOCK_Connector connector;
    connector.set_ssl_option(option);
    const std::string strFrame = Element::Frame(1, "hello");
    while (Clock::now() < tEnd)
    {
        TARN_SOCK_Stream stream;
        const auto tStart = Clock::now();
        if (connector.connect(stream, ACE_INET_Addr(usPort, "127.0.0.1")) != 0 ||
            stream.send_n(strFrame.data(), strFrame.size()) != static_cast<int>(strFrame.size()))
            Fail("not connected");
        char bytes[100];
        for (int iReceived = 0; iReceived < static_cast<int>(strFrame.size());)
        {
            const int iNow = stream.recv(bytes, sizeof(bytes));
            if (iNow <= 0)
                Fail("no answer");
            iReceived += iNow;
        }
        latencies.Add(tStart);
    }
}

void MeasureRequests(const char* pszTransport, std::uint16_t usPort, TARN_SSL_Option* pOption, double seconds)
{
    for (const int nConnectors : {1, 100})
    {
        Connector::s_nOpen = 0;
        std::vector<std::unique_ptr<Connector>> connectors;
        for (int i = 0; i < nConnectors; ++i)
            connectors.push_back(std::make_unique<Connector>(i, usPort, pOption));
        WaitUntilOpen(nConnectors);
        for (const std::size_t uBytes : {std::size_t{64}, std::size_t{16'000}})
        {
            const std::string strName = std::string(pszTransport) + ", " + std::to_string(uBytes) +
                                        " bytes on " + std::to_string(nConnectors);
            Measure(strName.c_str(), seconds, [&](Latencies& latencies, Clock::time_point tEnd) {
                AskAsynchronously(4 * nConnectors, nConnectors, std::string(uBytes - FRAME_HEAD, 'x'),
                                  latencies, tEnd);
            });
        }
    }
}

} // namespace

int main(int argc, char** argv)
{
    const double seconds = argc > 1 ? std::atof(argv[1]) : 3; // NOLINT(cert-err34-c): a wrong one is 0
    InstallQuietHost();
    Element element;
    const Authority authority("Benchmark authority");
    const Tunnel tunnel(authority, {element.Port()});
    const std::uint16_t usTlsPort = tunnel.PortTo(element.Port());
    TARN_SSL_Option option;
    if (option.set_authorities(authority.File().c_str(), nullptr) != 0)
        Fail("no authority");

    TARN_SSL_Option full = option;
    full.set_session_reuse(false);
    TARN_SSL_Option plain = option;
    plain.set_ssl(false);
    const auto measureOpening = [&](const char* pszName, const TARN_SSL_Option& chosen,
                                    std::uint16_t usPort) {
        Measure(pszName, seconds, [&](Latencies& latencies, Clock::time_point tEnd) {
            OpenAndAsk(chosen, usPort, latencies, tEnd);
        });
    };
    measureOpening("open, full handshake", full, usTlsPort);
    measureOpening("open, session taken up", option, usTlsPort);
    measureOpening("open, plain TCP", plain, element.Port());

    const Road road;
    MeasureRequests("TLS", usTlsPort, &option, seconds);
    MeasureRequests("TCP", element.Port(), nullptr, seconds);
    return 0;
}
