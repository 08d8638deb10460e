#ifndef TARN_TESTS_SUPPORT_RELAY_H
#define TARN_TESTS_SUPPORT_RELAY_H

#include "support/Process.h"

/// socat(1) between a port of its own on 127.0.0.1 and another port there; it hands on at most seven bytes at a
/// time. For one connection; it ends with that, or with the object.
class Relay
{
public:
    explicit Relay(std::uint16_t usTarget)
        : m_Socat({"socat", "-b", "7",
                   "TCP-LISTEN:" + std::to_string(m_usPort) + ",bind=127.0.0.1,reuseaddr,nodelay",
                   "TCP:127.0.0.1:" + std::to_string(usTarget) + ",nodelay"})
    {}

    std::uint16_t Port() const { return m_usPort; }

private:
    const std::uint16_t m_usPort = FreePort();
    const Process m_Socat;
};

#endif
