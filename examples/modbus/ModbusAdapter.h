#ifndef MODBUS_MODBUSADAPTER_H
#define MODBUS_MODBUSADAPTER_H

/// @file
/// The adapter between the framework and devices that speak Modbus RTU. The road of a request:
///
///     application thread   ModbusMessage::HandleMessage (or SyncHandleMessage, or PSyncHelp)
///                          ModbusMessageAdapter::HandleMessage   announces it, and gives it to its line
///     ... when it is its turn: ModbusLine::GoOn                   sends it
///     watch thread         ModbusProtocol::CheckMessageValid     cuts the answer out, and sends the next request
///     response thread      ModbusAnswer::HandleMessage           decodes it, finds the request, delivers it
///
/// Silence comes from the timer thread instead of the last two.

#include "ModbusLine.h"
#include "ModbusMessage.h"

#include <condition_variable>
#include <map>
#include <mutex>
#include <thread>

/// Sets the result and values of the source of a sink message, and delivers it. Nothing happens when it does not wait any more.
/// Takes the correlation lock; call it with no lock held.
void ModbusDeliver(std::uint32_t ulSinkSerial, int iResult, std::vector<std::uint16_t> values);

/// Comes by at lines whose response time may be over, on a thread of its own, which runs between Start and Stop. Its mutex is a leaf;
/// lines set times with their own held.
class ModbusTimer
{
public:
    static ModbusTimer& Instance();

    void Start();
    /// Before the framework is stopped, when no line is registered any more.
    void Stop();
    void At(ModbusLine::Clock::time_point when, int iLine);

private:
    /// Silent requests in a row at which a line is closed and opened again: the port may have gone, and come back.
    static constexpr int SILENCES_TO_REOPEN = 3;

    void Run();
    static void ComeBy(int iLine);

    std::thread m_Thread;
    std::mutex m_Mutex;
    std::condition_variable m_Changed;
    // Guarded by m_Mutex.
    std::multimap<ModbusLine::Clock::time_point, int> m_Times;
    bool m_bStop = true;
};

/// The sink adapter. Register it under MODBUS_PROTOCOL, with asynchronous I/O.
class ModbusProtocol : public TarnProtocolAdapter
{
public:
    ModbusProtocol()
        : TarnProtocolAdapter(MODBUS_PROTOCOL)
    {}
    int CheckMessageValid(void* pHandle, std::vector<unsigned char>& data) override;
};

/// Carries ModbusMessages to ModbusProtocol. One object for the whole process; Use it after each start of the framework.
class ModbusMessageAdapter : public TEMessageAdapter
{
public:
    static ModbusMessageAdapter& Instance();
    void Use(ModbusProtocol* pProtocol) { m_pSinkAdapter = pProtocol; }

    bool CanTranslate(TEMessage* pMessage) override;
    int HandleMessage(TEMessage* pMessage) override;
    int HandleAsyncError(TEMessage* pSource, void* pUserData, EAdapterError eError) override;

private:
    ModbusMessageAdapter();
};

/// Bytes to or from a device, as the framework's queues carry them.
class ModbusSinkMessage : public TEMessage
{
public:
    using TEMessage::TEMessage;
    TEMessageAdapter* GetMessageAdapter() override { return nullptr; }
};

/// The answer to a request, not decoded yet.
class ModbusAnswer : public ModbusSinkMessage
{
public:
    ModbusAnswer(TarnProtocolAdapter* pProtocol, ModbusTurn turn, const unsigned char* pFrame,
                 std::size_t uLength)
        : ModbusSinkMessage(pProtocol, RESPONSE_MESSAGE)
        , m_Turn(std::move(turn))
        , m_Frame(pFrame, pFrame + uLength)
    {}
    int HandleMessage() override;

private:
    const ModbusTurn m_Turn;
    const std::vector<std::uint8_t> m_Frame;
};

#endif
