#ifndef TARN_PLATFORM_TP4_RELAYEDPAIR_H
#define TARN_PLATFORM_TP4_RELAYEDPAIR_H

#include <array>
#include <chrono>
#include <cstddef>
#include <vector>

struct pollfd;

/// Two connected streams whose bytes go from each to the other. An end that one of them sends is handed on behind its
/// last byte, and the other way goes on. What is received for one that is gone is read and dropped, so that the
/// other sees its own bytes taken, and is given LINGER to end.
///
/// For one thread, which polls what Prepare says.
class RelayedPair
{
public:
    using Clock = std::chrono::steady_clock;
    static constexpr std::size_t ENDS = 2;
    static constexpr auto LINGER = std::chrono::seconds(10);

    /// Owns both descriptors, which must be non-blocking. The second may be still connecting.
    RelayedPair(int iFirst, int iSecond);
    ~RelayedPair();
    RelayedPair(const RelayedPair&) = delete;
    RelayedPair& operator=(const RelayedPair&) = delete;

    /// Writes what is to be polled to two entries.
    void Prepare(pollfd* pPolled) const;
    /// Does what poll(2) has found possible. @return false when the pair is over
    bool Serve(const pollfd* pPolled);
    /// When to call Serve at the latest.
    Clock::time_point Deadline() const { return m_tDeadline; }
    /// The errno(3) for which the second did not connect, once the pair is over; else 0.
    int ConnectError() const { return m_iConnectError; }

private:
    /// From one end to the other.
    struct Way
    {
        std::vector<char> bytes; // received and not yet sent
        std::size_t uSent = 0;   // how many of them have been
        bool bEnded = false;     // there is nothing more to receive
        bool bTold = false;      // and the other end has been told
        bool bDropping = false;  // the other end takes nothing any more
        bool IsEmpty() const { return uSent == bytes.size(); }
    };

    short Events(std::size_t uEnd) const;
    bool FinishConnecting(short iEvents);
    void Receive(std::size_t uEnd);
    void Send(std::size_t uEnd);
    void Drop(std::size_t uEnd);

    const std::array<int, ENDS> m_Ends;
    std::array<Way, ENDS> m_Ways; // that lead away from the end of the same number
    bool m_bConnecting = true;
    int m_iConnectError = 0;
    Clock::time_point m_tDeadline = Clock::time_point::max();
};

#endif
