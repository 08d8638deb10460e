#ifndef TARN_TESTS_SUPPORT_LOOPBACK_H
#define TARN_TESTS_SUPPORT_LOOPBACK_H

#include <netinet/in.h>

#include <cstdint>

/// A port of 127.0.0.1.
inline sockaddr_in Loopback(std::uint16_t usPort)
{
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(usPort);
    return address;
}

#endif
