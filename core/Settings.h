#ifndef TARN_CORE_SETTINGS_H
#define TARN_CORE_SETTINGS_H

#include <cstddef>
#include <string>

/// The process-wide settings, each named like its key in the host's configuration.
///
/// Written only by ReadSettings, inside tarnadapter::Init and before any thread of the library exists; read
/// without a lock afterwards.
struct TarnSettings
{
    static constexpr std::size_t DEVICE_PATH_SIZE = 128;

    /// Commands waiting in the report queue at which a report is discarded.
    int nAppProcessRpgMsgLimit = 1000;
    /// Threads that process responses; 0 or less: none, and no response queue.
    int nAppProcessThreadNum = 4;
    /// Reactor threads that wait on connection handles.
    int nAsyncIOThreadNum = 4;
    /// Most connect threads at once.
    int nConnectThreadNum = 10;
    /// 1: connections record which thread took each reference.
    int nRecordTarnConnectorImplRefInfo = 0;
    /// Seconds between two attempts to connect the same connection.
    int nConnectSleep = 10;
    /// Threads that process reports; 0 or less: none, and reports are refused.
    int nAppProcessRptMsgThreadNum = 1;
    /// The hex trace goes to the host's log.
    bool bEnableAdapterLog = true;
    /// The hex trace goes to the host's console.
    bool bEnableAdapterPrint = false;
    /// The serial send reactor is started with asynchronous I/O.
    bool bEnableSerialCom = false;
    /// Most bytes of one block that the hex trace shows.
    int nTraceQxDataMaxLength = 100;
    /// Device of the OSI transport provider; kept, but no transport consults it.
    char TP4DevicePath[DEVICE_PATH_SIZE] = "/dev/cots";
    /// A failed or broken connection is neither retried nor reopened.
    bool bNoNeReconnect = false;
    /// Factor on the wait of a synchronous command; configured in quarters.
    float nNECmdTimeoutRate = 1.0F;
};

/// The settings in force.
const TarnSettings& Settings();

/// Path of the configuration file that the settings were last read from; empty before the first time.
const std::string& SettingsFile();

/// Reads every setting that the host's configuration holds; the others keep their value. Values are not
/// validated.
void ReadSettings();

#endif
