#include "platform/Tp4File.h"
#include "platform/Tp4Listener.h"
#include "platform/tp4/TcpRelay.h"

#include <charconv>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <exception>
#include <netdb.h>
#include <stdexcept>
#include <sys/resource.h>
#include <sys/signalfd.h>
#include <system_error>
#include <unistd.h>

namespace {

constexpr const char* HELP =
    R"HELP(Puts network elements behind transport addresses of the stand-in for OSI transport class 4.

  tarn-tp4 listen ADDRESS/SELECTOR tcp:HOST:PORT [--backlog N]
      relays every connection to the transport address to a TCP address, both ways, until
      SIGTERM or SIGINT. N connections may wait to be accepted [128].
  tarn-tp4 path ADDRESS/SELECTOR
      prints the local socket of a transport address, for a listener of another kind
  tarn-tp4 --help

ADDRESS is the network address, 0 to 80 hex digits in pairs; SELECTOR the transport selector,
0 to 15 characters. The sockets are in the directory that TARN_TP4_DIR names, else
/run/tarn-tp4; listen makes it where it is missing.

Exit status:
  0  done, or ended by a signal
  1  it cannot be listened there, or the output cannot be written
  2  wrong usage, or HOST is not known

Examples:
  tarn-tp4 listen 49000f0102/snmp tcp:10.0.0.7:161
  socat UNIX-LISTEN:"$(tarn-tp4 path 49000f0102/snmp)",fork EXEC:./element
)HELP";

constexpr int EXIT_FAILED = 1;
constexpr int EXIT_USAGE = 2;
constexpr int DEFAULT_BACKLOG = 128;

class UsageError : public std::runtime_error
{
public:
    using std::runtime_error::runtime_error;
};

struct Endpoint
{
    std::string strSelector;
    std::string strAddress;
};

unsigned ParseNumber(const std::string& strText, int iBase, unsigned uLeast, unsigned uGreatest)
{
    unsigned uNumber = 0;
    const char* pEnd = strText.data() + strText.size();
    const auto result = std::from_chars(strText.data(), pEnd, uNumber, iBase);
    if (result.ec != std::errc() || result.ptr != pEnd || uNumber < uLeast || uNumber > uGreatest)
        throw UsageError("\"" + strText + "\" is not a number from " + std::to_string(uLeast) + " to " +
                         std::to_string(uGreatest) + (iBase == 16 ? ", in hex digits" : ""));
    return uNumber;
}

Endpoint ParseEndpoint(const std::string& strText)
{
    constexpr std::size_t MAX_DIGITS = 80;
    constexpr std::size_t MAX_SELECTOR = 15;
    const std::size_t uSlash = strText.find('/');
    if (uSlash == std::string::npos)
        throw UsageError("\"" + strText + "\" is no transport address; it should be like 49000f0102/snmp");
    if (uSlash % 2 != 0 || uSlash > MAX_DIGITS)
        throw UsageError("a network address has 0 to 80 hex digits, in pairs; there are " +
                         std::to_string(uSlash));
    Endpoint endpoint;
    for (std::size_t i = 0; i < uSlash; i += 2)
        endpoint.strAddress += static_cast<char>(ParseNumber(strText.substr(i, 2), 16, 0, 255));
    endpoint.strSelector = strText.substr(uSlash + 1);
    if (endpoint.strSelector.size() > MAX_SELECTOR)
        throw UsageError("the selector \"" + endpoint.strSelector + "\" has more than 15 characters");
    return endpoint;
}

TcpAddress ParseTarget(const std::string& strText)
{
    constexpr std::size_t SCHEME = 4; // "tcp:"
    const std::size_t uColon = strText.rfind(':');
    if (strText.compare(0, SCHEME, "tcp:") != 0 || uColon <= SCHEME)
        throw UsageError("\"" + strText + "\" is no TCP address; it should be like tcp:10.0.0.7:161");
    std::string strHost = strText.substr(SCHEME, uColon - SCHEME);
    if (strHost.size() > 2 && strHost.front() == '[' && strHost.back() == ']')
        strHost = strHost.substr(1, strHost.size() - 2);
    const std::string strPort = std::to_string(ParseNumber(strText.substr(uColon + 1), 10, 1, 65535));
    addrinfo hints = {};
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* pFound = nullptr;
    const int iResult = getaddrinfo(strHost.c_str(), strPort.c_str(), &hints, &pFound);
    if (iResult != 0)
        throw UsageError("the host \"" + strHost + "\" has no address: " + gai_strerror(iResult));
    TcpAddress target;
    target.uLength = pFound->ai_addrlen;
    std::memcpy(&target.address, pFound->ai_addr, pFound->ai_addrlen);
    freeaddrinfo(pFound);
    return target;
}

/// A descriptor that is readable once the program is to end.
int CatchSignals()
{
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    sigprocmask(SIG_BLOCK, &signals, nullptr);
    const int iDescriptor = signalfd(-1, &signals, SFD_CLOEXEC);
    if (iDescriptor == -1)
        throw std::system_error(errno, std::generic_category(), "signalfd");
    return iDescriptor;
}

/// As many connections as the system lets us have: each takes two descriptors.
void RaiseDescriptorLimit()
{
    rlimit limit = {};
    if (getrlimit(RLIMIT_NOFILE, &limit) == 0)
    {
        limit.rlim_cur = limit.rlim_max;
        setrlimit(RLIMIT_NOFILE, &limit);
    }
}

int Listen(const std::string& strEndpoint, const std::string& strTarget, int iBacklog)
{
    const Endpoint endpoint = ParseEndpoint(strEndpoint);
    const TcpAddress target = ParseTarget(strTarget);
    const int iStop = CatchSignals(); // before the socket exists: whoever sees it can end us in order
    RaiseDescriptorLimit();
    Tp4Listener listener;
    if (const int iError = listener.Open(endpoint.strSelector, endpoint.strAddress, iBacklog))
        throw std::system_error(iError, std::generic_category(),
                                "cannot listen at " + strEndpoint + " in " + Tp4Directory());
    TcpRelay relay(listener, target, [&strTarget](const std::string& strReason) {
        std::fprintf(stderr, "tarn-tp4: %s: %s\n", strTarget.c_str(), strReason.c_str());
    });
    relay.Run(iStop);
    close(iStop);
    return 0;
}

int PrintPath(const std::string& strEndpoint)
{
    const Endpoint endpoint = ParseEndpoint(strEndpoint);
    std::printf("%s/%s\n", Tp4Directory().c_str(),
                Tp4FileName(endpoint.strSelector, endpoint.strAddress).c_str());
    if (std::fflush(stdout) != 0)
        throw std::system_error(errno, std::generic_category(), "the standard output");
    return 0;
}

int Run(const std::vector<std::string>& words)
{
    constexpr std::size_t LISTEN_WORDS = 3;
    if (words.size() == 1 && (words[0] == "--help" || words[0] == "-h"))
    {
        std::fputs(HELP, stdout);
        return 0;
    }
    if (words.size() == 2 && words[0] == "path")
        return PrintPath(words[1]);
    if (words.size() == LISTEN_WORDS && words[0] == "listen")
        return Listen(words[1], words[2], DEFAULT_BACKLOG);
    if (words.size() == LISTEN_WORDS + 2 && words[0] == "listen" && words[LISTEN_WORDS] == "--backlog")
        return Listen(words[1], words[2],
                      static_cast<int>(ParseNumber(words[LISTEN_WORDS + 1], 10, 0, 65535)));
    throw UsageError("a command and what it is for are needed; see --help");
}

} // namespace

int main(int argc, char** argv)
{
    try
    {
        return Run({argv + 1, argv + argc});
    }
    catch (const UsageError& error)
    {
        std::fprintf(stderr, "tarn-tp4: %s\n", error.what());
        return EXIT_USAGE;
    }
    catch (const std::exception& error)
    {
        std::fprintf(stderr, "tarn-tp4: %s\n", error.what());
        return EXIT_FAILED;
    }
}
