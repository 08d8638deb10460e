// Reads and writes what Modbus RTU devices on a serial line hold; see --help.

#include "ModbusAdapter.h"

#include <tarnadapterframe/tarnbaseutil.h>
#include <tarnadapterframe/tarntaskmgr.h>

#include <CLI/CLI.hpp>

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <map>
#include <mutex>
#include <poll.h>
#include <string>
#include <vector>

namespace {

constexpr int LINE = 1;
constexpr int FAILED = 1;
constexpr int USAGE = 2;

std::atomic<bool> g_bVerbose{false};
std::atomic<bool> g_bInterrupted{false};

struct Options
{
    std::string strPort;
    int iBaudRate = 9600;
    double dTimeOut = 1;
    double dInterval = 1;
    int nTimes = 0; // 0: until it is interrupted
    ModbusRequest request;
};

bool IsInterrupted()
{
    return g_bInterrupted;
}

bool Configure(const char* pszKey, std::string& strValue, const char* /*pszFile*/)
{
    strValue = "1";
    return std::strcmp(pszKey, "bEnableSerialCom") == 0 || std::strcmp(pszKey, "nConnectSleep") == 0;
}

/// Shows why a port cannot be used, once; everything, if that is asked for.
bool Log(const std::string& /*strModule*/, TarnLogLevel eLevel, const char* pszText,
         const AsnType* /*pAsnValue*/, bool /*bPrint*/, bool /*bLog*/)
{
    static std::mutex s_Mutex;
    static std::string s_strLast;
    const std::lock_guard<std::mutex> guard(s_Mutex);
    const bool bForUsers = eLevel == TARN_LOG_RESOURCE ||
                           std::strstr(pszText, "::OpenConnection, cannot") != nullptr ||
                           std::strstr(pszText, "the baud rate is") != nullptr;
    if (!g_bVerbose && (!bForUsers || s_strLast == pszText)) // each attempt says the same
        return true;
    s_strLast = pszText;
    std::fputs(pszText, stderr);
    return true;
}

/// The framework with one line, for as long as it lives.
class Session
{
public:
    explicit Session(const Options& options)
        : m_Line(LINE, options.strPort, options.iBaudRate, Milliseconds(options.dTimeOut))
    {
        auto* pProtocol = new ModbusProtocol;
        if (TEAdapterManager::Instance()->RegisterProtocolAdapter(MODBUS_PROTOCOL, pProtocol, true) != 0)
            throw std::runtime_error("the I/O of the adapter framework could not be started");
        ModbusMessageAdapter::Instance().Use(pProtocol);
        ModbusTimer::Instance().Start();
        TarnConnectorMgr::Instance()->RegisterConnector(&m_Line, false, 0);
        const auto deadline = ModbusLine::Clock::now() + Milliseconds(options.dTimeOut);
        while (m_Line.GetConnState() != STATE_CONNECTED && ModbusLine::Clock::now() < deadline &&
               !g_bInterrupted)
            poll(nullptr, 0, 10);
    }
    ~Session()
    {
        TarnConnectorMgr::Instance()->StopConnectThreads();
        TarnConnectorMgr::Instance()->UnRegisterConnector(ModbusLine::GROUP, LINE);
        ModbusTimer::Instance().Stop();
    }
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    bool IsOpen() { return m_Line.GetConnState() == STATE_CONNECTED; }

    static std::chrono::milliseconds Milliseconds(double dSeconds)
    {
        return std::chrono::milliseconds(static_cast<long>(dSeconds * 1000));
    }

private:
    ModbusLine m_Line;
};

std::string Failure(int iResult)
{
    // Application protocol specification, section 7.
    static const std::map<int, const char*> FAILURES = {
        {1, "illegal function"},
        {2, "illegal data address"},
        {3, "illegal data value"},
        {4, "device failure"},
        {5, "acknowledge: the device needs longer"},
        {6, "device busy"},
        {8, "memory parity error"},
        {10, "gateway path unavailable"},
        {11, "gateway target device failed to respond"},
        {MODBUS_WRONG_ANSWER, "an answer to something else"},
        {ADAPTER_ERR_TIMEOUT, "no answer"},
        {ADAPTER_ERR_INVALID_HANDLE, "the line is not open"},
    };
    const auto it = FAILURES.find(iResult);
    return it != FAILURES.end() ? it->second : "failed with " + std::to_string(iResult);
}

/// Sends a request and shows what comes back. @return true when it worked
bool Exchange(const Options& options, const char* pszWhat)
{
    constexpr int NO_LIMIT_SECONDS = 3600; // the line's response time is the limit
    ModbusMessage message(LINE, options.request);
    const int iSent = message.SyncHandleMessage(NO_LIMIT_SECONDS);
    const int iResult = iSent != 0 ? iSent : message.GetResult();
    if (iResult != 0)
    {
        std::fprintf(stderr, "unit %d: %s\n", options.request.iUnit, Failure(iResult).c_str());
        return false;
    }
    for (std::size_t i = 0; i < message.Values().size(); ++i)
        std::printf("%s %d = %d\n", pszWhat, options.request.iAddress + static_cast<int>(i),
                    message.Values()[i]);
    if (message.Values().empty())
        std::printf("%s %d: %zu written\n", pszWhat, options.request.iAddress, options.request.values.size());
    std::fflush(stdout);
    return true;
}

int Run(const Options& options, const char* pszWhat)
{
    ModbusEncode(options.request);
    if (tarnadapter::Init() != 0)
        throw std::runtime_error("the adapter framework could not be started");
    bool bWorked = true;
    {
        Session session(options);
        if (!session.IsOpen())
        {
            std::fprintf(stderr, "%s: the line cannot be opened\n", options.strPort.c_str());
            bWorked = false;
        }
        for (int i = 1; session.IsOpen() || i > 1; ++i)
        {
            bWorked = Exchange(options, pszWhat);
            if (i == options.nTimes || g_bInterrupted)
                break;
            poll(nullptr, 0, static_cast<int>(options.dInterval * 1000));
        }
    }
    TEAdapterManager::Instance()->UnRegisterProtocolAdapter(MODBUS_PROTOCOL);
    tarnadapter::Fini();
    if (g_bInterrupted)
        return 128 + SIGINT;
    return bWorked ? 0 : FAILED;
}

} // namespace

int main(int argc, char** argv)
try
{
    CLI::App app("Reads and writes what Modbus RTU devices on a serial line hold. Addresses count from 0.\n"
                 "Exit status: 0 it worked, 1 the device has refused or is silent, 2 wrong usage.");
    Options options;
    bool bVerbose = false;
    std::string strTable;
    app.add_option("-p,--port", options.strPort, "serial port, such as /dev/ttyUSB0")->required();
    app.add_option("-b,--baud", options.iBaudRate, "bits a second")->capture_default_str();
    app.add_option("-u,--unit", options.request.iUnit, "of the device on the line, 1 to 247")
        ->capture_default_str();
    app.add_option("-t,--timeout", options.dTimeOut, "seconds that a device may take")
        ->check(CLI::Range(0.01, 3600.0))
        ->capture_default_str();
    app.add_flag("-v,--verbose", bVerbose, "shows the framework's log, and all bytes");
    app.require_subcommand(1);
    app.fallthrough();

    const std::map<std::string, ModbusFunction> READS = {{"coils", ModbusFunction::READ_COILS},
                                                         {"inputs", ModbusFunction::READ_INPUTS},
                                                         {"holding", ModbusFunction::READ_HOLDING},
                                                         {"registers", ModbusFunction::READ_REGISTERS}};
    const auto addReading = [&](CLI::App* pCommand) {
        pCommand->add_option("table", strTable, "coils, inputs (discrete), holding or registers (input)")
            ->required()
            ->check(CLI::IsMember({"coils", "inputs", "holding", "registers"}));
        pCommand->add_option("address", options.request.iAddress, "of the first one")->required();
        pCommand->add_option("count", options.request.iCount, "how many")->capture_default_str();
    };
    CLI::App* pRead = app.add_subcommand("read", "reads once");
    addReading(pRead);
    CLI::App* pWatch = app.add_subcommand("watch", "reads again and again");
    addReading(pWatch);
    pWatch->add_option("-i,--interval", options.dInterval, "seconds between two readings")
        ->check(CLI::Range(0.0, 3600.0))
        ->capture_default_str();
    pWatch->add_option("-n,--times", options.nTimes, "ends after so many")->check(CLI::PositiveNumber);
    CLI::App* pWrite = app.add_subcommand("write", "writes one or several values from an address on");
    std::vector<int> values;
    pWrite->add_option("table", strTable, "coil or holding")
        ->required()
        ->check(CLI::IsMember({"coil", "holding"}));
    pWrite->add_option("address", options.request.iAddress, "of the first one")->required();
    pWrite->add_option("values", values, "0 or 1 for a coil")->required()->check(CLI::Range(0, 65535));
    try
    {
        app.parse(argc, argv);
    }
    catch (const CLI::ParseError& error)
    {
        return app.exit(error) == 0 ? 0 : USAGE;
    }
    options.request.values.assign(values.begin(), values.end());
    if (pWrite->parsed())
    {
        const bool bOne = values.size() == 1;
        options.request.eFunction =
            strTable == "coil" ? (bOne ? ModbusFunction::WRITE_COIL : ModbusFunction::WRITE_COILS)
                               : (bOne ? ModbusFunction::WRITE_REGISTER : ModbusFunction::WRITE_REGISTERS);
    }
    else
        options.request.eFunction = READS.at(strTable);
    if (!pWatch->parsed())
        options.nTimes = 1;
    g_bVerbose = bVerbose;
    TarnInstallCfgLookup(&Configure);
    TarnInstallLogSink(&Log);
    TarnInstallExit(&IsInterrupted);
    for (const int iSignal : {SIGINT, SIGTERM})
        std::signal(iSignal, [](int) { g_bInterrupted = true; });
    return Run(options, strTable.c_str());
}
catch (const ModbusRefused& refused)
{
    std::fprintf(stderr, "modbus: %s\n", refused.what());
    return USAGE;
}
catch (const std::exception& error)
{
    std::fprintf(stderr, "modbus: %s\n", error.what());
    return FAILED;
}
