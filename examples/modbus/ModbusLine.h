#ifndef MODBUS_MODBUSLINE_H
#define MODBUS_MODBUSLINE_H

#include "ModbusCodec.h"

#include <tarnadapterframe/tarnadapterframe.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <deque>
#include <mutex>
#include <optional>
#include <string>

/// A request on the wire, or waiting for its turn.
struct ModbusTurn
{
    std::uint32_t ulSerial = 0; ///< of the sink message, by which the answer finds its source
    ModbusRequest request;
    std::string strFrame;
};

/// A serial line with any number of units on it. All of them share it, and they speak only when they are asked: so one request is under
/// way at a time, and the others wait, in their order.
///
/// **Threads.** Requests come from application threads, answers from the line's watch thread, silence from the adapter's timer thread. One
/// mutex, a leaf: the framework is called without it.
///
/// Register it with TarnConnectorMgr, and unregister it before it is destroyed.
class ModbusLine : public TarnConnector
{
public:
    using Clock = std::chrono::steady_clock;
    static constexpr int GROUP =
        71; ///< of all Modbus lines; the line's number is the target id and the NE id

    ModbusLine(int iLine, const std::string& strPort, int iBaudRate, std::chrono::milliseconds responseTime);

    int OnSockBreak() override;

    /// Sends a request as soon as it is its turn.
    void Ask(ModbusTurn turn);
    /// A frame has been received. @return the request that it answers; none: nobody waits for it
    std::optional<ModbusTurn> TakeAnswered(const std::uint8_t* pFrame);
    /// The timer has come by: the request under way has been silent for too long, perhaps.
    void CheckSilence();
    /// Sends the next request, if none is under way.
    void GoOn();

    /// Silent requests since the last answer, and answers that nobody waited for since the beginning.
    int Silences() const { return m_nSilences; }
    int Unexpected() const { return m_nUnexpected; }

private:
    const std::chrono::milliseconds m_ResponseTime;

    std::mutex m_Mutex;
    // Guarded by m_Mutex.
    std::deque<ModbusTurn> m_Waiting;
    std::optional<ModbusTurn> m_UnderWay;
    Clock::time_point m_Deadline;

    std::atomic<int> m_nSilences{0};
    std::atomic<int> m_nUnexpected{0};
};

#endif
