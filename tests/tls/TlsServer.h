#ifndef TARN_TESTS_TLS_TLSSERVER_H
#define TARN_TESTS_TLS_TLSSERVER_H

#include "support/Authority.h"
#include "support/Process.h"
#include "support/TestHost.h"

/// openssl-s_server(1) on a port of its own on 127.0.0.1. What is written to it goes to its peer; lines that begin with
/// some capital letters are orders to itself, when they stand at the beginning of what is written.
class TlsServer
{
public:
    explicit TlsServer(const Authority::Issued& issued, std::vector<std::string> options = {})
        : process(Arguments(issued, std::move(options)))
    {
        const std::string strBefore = "ACCEPT 127.0.0.1:";
        EXPECT_TRUE(process.HasWritten(strBefore)) << process.Output();
        const std::size_t uAt = process.Output().find(strBefore);
        EXPECT_TRUE(process.HasWritten("\n", uAt));
        m_usPort = static_cast<std::uint16_t>(std::stoi(process.Output().substr(uAt + strBefore.size())));
    }

    std::uint16_t Port() const { return m_usPort; }

    Process process;

private:
    static std::vector<std::string> Arguments(const Authority::Issued& issued,
                                              std::vector<std::string> options)
    {
        std::vector<std::string> arguments = {"openssl",     "s_server",   "-accept",
                                              "127.0.0.1:0", "-cert",      issued.strCertificate,
                                              "-key",        issued.strKey};
        arguments.insert(arguments.end(), options.begin(), options.end());
        return arguments;
    }

    std::uint16_t m_usPort = 0;
};

#endif
