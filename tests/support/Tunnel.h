#ifndef TARN_TESTS_SUPPORT_TUNNEL_H
#define TARN_TESTS_SUPPORT_TUNNEL_H

#include "support/Authority.h"
#include "support/Process.h"

#include <gtest/gtest.h>

#include <fstream>
#include <map>
#include <vector>

/// stunnel(8) that offers TLS in front of some ports of 127.0.0.1.
class Tunnel
{
public:
    Tunnel(const Authority& authority, const std::vector<std::uint16_t>& targets)
        : m_Ports(FreePorts(targets))
        , m_Stunnel({"stunnel4", WriteConfiguration(authority)})
    {
        for (const auto& [usTarget, usPort] : m_Ports)
            EXPECT_TRUE(IsListenedOn(usPort)) << m_Stunnel.Output();
    }

    /// The port that leads to one of the targets.
    std::uint16_t PortTo(std::uint16_t usTarget) const { return m_Ports.at(usTarget); }

private:
    static std::map<std::uint16_t, std::uint16_t> FreePorts(const std::vector<std::uint16_t>& targets)
    {
        std::map<std::uint16_t, std::uint16_t> ports;
        for (const std::uint16_t usTarget : targets)
            ports[usTarget] = FreePort();
        return ports;
    }

    std::string WriteConfiguration(const Authority& authority) const
    {
        const Authority::Issued issued = authority.Issue({});
        std::string strFile = authority.Folder() + "/stunnel.conf";
        std::ofstream file(strFile);
        file << "foreground = yes\npid =\nsyslog = no\ndebug = 3\n"
             << "socket = l:TCP_NODELAY=1\nsocket = r:TCP_NODELAY=1\n"
             << "cert = " << issued.strCertificate << "\nkey = " << issued.strKey << "\n";
        for (const auto& [usTarget, usPort] : m_Ports)
            file << "[to" << usTarget << "]\naccept = 127.0.0.1:" << usPort
                 << "\nconnect = 127.0.0.1:" << usTarget << "\nTIMEOUTclose = 0\n";
        return strFile;
    }

    const std::map<std::uint16_t, std::uint16_t> m_Ports; // by target
    const Process m_Stunnel;
};

#endif
