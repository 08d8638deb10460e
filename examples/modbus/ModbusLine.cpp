#include "ModbusLine.h"

#include "ModbusAdapter.h"

#include <utility>

ModbusLine::ModbusLine(int iLine, const std::string& strPort, int iBaudRate,
                       std::chrono::milliseconds responseTime)
    : TarnConnector(SERIAL_TYPE)
    , m_ResponseTime(responseTime)
{
    SetGroupID(GROUP);
    SetTargetID(static_cast<unsigned long>(iLine));
    SetAdapterProtocolID(MODBUS_PROTOCOL);
    std::string strName = strPort; // the parameters are pointers to what may be changed
    std::vector<void*> parameters = {strName.data(), &iBaudRate};
    InitCommuPara(parameters);
}

void ModbusLine::Ask(ModbusTurn turn)
{
    {
        const std::lock_guard<std::mutex> guard(m_Mutex);
        m_Waiting.push_back(std::move(turn));
    }
    GoOn();
}

void ModbusLine::GoOn()
{
    for (;;)
    {
        ModbusTurn turn;
        {
            const std::lock_guard<std::mutex> guard(m_Mutex);
            if (m_UnderWay || m_Waiting.empty())
                return;
            turn = m_Waiting.front();
            m_Waiting.pop_front();
            m_UnderWay = turn;
            m_Deadline = Clock::now() + m_ResponseTime;
            ModbusTimer::Instance().At(m_Deadline, static_cast<int>(GetTargetID()));
        }
        if (SendToOutBuffer(turn.strFrame.data(), static_cast<int>(turn.strFrame.size())) == 0)
            return;
        {
            const std::lock_guard<std::mutex> guard(m_Mutex);
            if (m_UnderWay && m_UnderWay->ulSerial == turn.ulSerial)
                m_UnderWay.reset();
        }
        ModbusDeliver(turn.ulSerial, ADAPTER_ERR_INVALID_HANDLE, {});
    }
}

std::optional<ModbusTurn> ModbusLine::TakeAnswered(const std::uint8_t* pFrame)
{
    const std::lock_guard<std::mutex> guard(m_Mutex);
    if (!m_UnderWay || !ModbusAnswers(m_UnderWay->request, pFrame))
    {
        ++m_nUnexpected; // too late, or not to us
        return std::nullopt;
    }
    m_nSilences = 0;
    return std::exchange(m_UnderWay, std::nullopt);
}

void ModbusLine::CheckSilence()
{
    std::optional<ModbusTurn> silent;
    {
        const std::lock_guard<std::mutex> guard(m_Mutex);
        if (!m_UnderWay || Clock::now() < m_Deadline)
            return;
        silent = std::exchange(m_UnderWay, std::nullopt);
        ++m_nSilences;
    }
    ModbusDeliver(silent->ulSerial, ADAPTER_ERR_TIMEOUT, {});
    GoOn();
}

/// The line has been closed: nobody will answer what was sent, and what waits cannot be sent.
int ModbusLine::OnSockBreak()
{
    std::deque<ModbusTurn> failed;
    {
        const std::lock_guard<std::mutex> guard(m_Mutex);
        failed.swap(m_Waiting);
        if (m_UnderWay)
            failed.push_front(*std::exchange(m_UnderWay, std::nullopt));
    }
    for (const ModbusTurn& turn : failed)
        ModbusDeliver(turn.ulSerial, ADAPTER_ERR_INVALID_HANDLE, {});
    return 0;
}
