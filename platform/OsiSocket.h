#ifndef TARN_PLATFORM_OSISOCKET_H
#define TARN_PLATFORM_OSISOCKET_H

#include "platform/tarnplatform.h"

#include <chrono>

/// WSAConnect with another limit to the wait for somebody who listens but has no room for another connection.
int ConnectOsiSocket(SOCKET hSocket, const sockaddr* pAddress, int iLength, std::chrono::milliseconds limit);

#endif
