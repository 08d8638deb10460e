#ifndef TARN_PLATFORM_TP4_TCPRELAY_H
#define TARN_PLATFORM_TP4_TCPRELAY_H

#include "platform/tp4/RelayedPair.h"

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <sys/socket.h>

class Tp4Listener;

/// A TCP address as the system takes it.
struct TcpAddress
{
    sockaddr_storage address = {};
    socklen_t uLength = 0;
};

/// Connects everybody who comes to a listener with a TCP address, see RelayedPair.
class TcpRelay
{
public:
    /// @param complain  is told why a connection has come to nothing
    TcpRelay(const Tp4Listener& listener, const TcpAddress& target,
             std::function<void(const std::string&)> complain);

    /// Relays until a descriptor is readable, then closes all connections.
    void Run(int iStop);

private:
    void Accept();
    void ServePairs(const std::vector<pollfd>& polled);
    int WaitMs() const;
    bool MayAccept() const;

    const Tp4Listener& m_Listener;
    const TcpAddress m_Target;
    const std::function<void(const std::string&)> m_Complain;
    std::vector<std::unique_ptr<RelayedPair>> m_Pairs;
    // Who has come waits that long, since there was no descriptor for him.
    RelayedPair::Clock::time_point m_tAcceptAgain = {};
};

#endif
