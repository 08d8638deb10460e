#ifndef TARN_BENCH_ELEMENTPROCESS_H
#define TARN_BENCH_ELEMENTPROCESS_H

#include <sys/types.h>

#include <atomic>
#include <cstdint>

/// What an element process has done; in memory that it shares with the process that has started it.
struct ElementCounts
{
    std::atomic<int> nOpen{0};
    std::atomic<long> nFrames{0};
    std::atomic<std::int64_t> tLastFrame{0}; ///< steady clock, ns
};

/// An element for thousands of connections, in a process of its own so that neither its descriptors nor its processor time mix
/// with what is measured: answers each frame with the same bytes. A frame is that of the tests' Element.
class ElementProcess
{
public:
    /// Forks: before there are threads.
    ElementProcess();
    /// Ends the process and waits for it.
    ~ElementProcess();
    ElementProcess(const ElementProcess&) = delete;
    ElementProcess& operator=(const ElementProcess&) = delete;

    /// The port of a connection: several take turns, so that their backlogs hold more than comes before it is accepted.
    std::uint16_t Port(int iConnection) const { return m_Ports.listening[iConnection % LISTENERS]; }
    /// A port whose connects are never answered.
    std::uint16_t HangingPort() const { return m_Ports.usHanging; }
    /// A port whose connects are refused.
    std::uint16_t RefusingPort() const { return m_Ports.usRefusing; }
    const ElementCounts& Counts() const { return *m_pCounts; }
    /// Has it close all its connections at once.
    void DropAll();

private:
    static constexpr int LISTENERS = 4;
    struct Ports
    {
        std::uint16_t listening[LISTENERS] = {};
        std::uint16_t usHanging = 0;
        std::uint16_t usRefusing = 0;
    };

    ElementCounts* m_pCounts = nullptr; // mapped
    pid_t m_Child = -1;
    int m_iControl = -1; // pipe; the process ends with its end
    Ports m_Ports;
};

/// Memory, zeroed, that this process shares with those it forks. Aborts without.
void* SharedMemory(std::size_t uBytes);

#endif
