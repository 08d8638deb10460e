#ifndef TARN_TESTS_SUPPORT_RELAY_H
#define TARN_TESTS_SUPPORT_RELAY_H

#include <sys/types.h>

#include <cstdint>

/// socat(1) between a port of its own on 127.0.0.1 and another port there; it hands on at most seven bytes at a
/// time. For one connection; it ends with that, or with the object.
class Relay
{
public:
    explicit Relay(std::uint16_t usTarget);
    ~Relay();
    Relay(const Relay&) = delete;
    Relay& operator=(const Relay&) = delete;

    std::uint16_t Port() const { return m_usPort; }

private:
    std::uint16_t m_usPort = 0;
    pid_t m_Process = -1;
};

#endif
