#include "core/Settings.h"

#include "tarnadapterframe/TarnAdapterTrace.h"
#include "tarnadapterframe/tarnbaseutil.h"

#include <cstring>

namespace {

// Constant-initialised: the trace may ask for them before main.
TarnSettings g_Settings;

std::string& FileInForce()
{
    static std::string strFile;
    return strFile;
}

bool LookUp(const char* pszKey, int& iValue)
{
    return TarnGetCfgInt(pszKey, iValue, SettingsFile().c_str());
}

void ReadInt(const char* pszKey, int& iSetting)
{
    int iValue = 0;
    if (LookUp(pszKey, iValue))
        iSetting = iValue;
}

void ReadBool(const char* pszKey, bool& bSetting)
{
    int iValue = 0;
    if (LookUp(pszKey, iValue))
        bSetting = iValue != 0;
}

void ReadDevicePath()
{
    char szValue[TarnSettings::DEVICE_PATH_SIZE] = {};
    if (!TarnGetCfgString("TP4DevicePath", szValue, static_cast<int>(sizeof(szValue)),
                          SettingsFile().c_str()))
        return;
    // A host may have filled the buffer to its last byte.
    szValue[sizeof(szValue) - 1] = '\0';
    std::memcpy(g_Settings.TP4DevicePath, szValue, sizeof(szValue));
}

void ReadTimeoutRate()
{
    int iQuarters = 0;
    if (!LookUp("nNECmdTimeoutRate", iQuarters))
        return;
    g_Settings.nNECmdTimeoutRate = static_cast<float>(iQuarters) * 0.25F;
    TarnAdapterFrmtTrace(3, "nNECmdTimeoutRate=%f\n", static_cast<double>(g_Settings.nNECmdTimeoutRate));
}

} // namespace

const TarnSettings& Settings()
{
    return g_Settings;
}

const std::string& SettingsFile()
{
    return FileInForce();
}

void ReadSettings()
{
    FileInForce() = TarnGetDefaultCfgFile();

    ReadInt("nAppProcessRpgMsgLimit", g_Settings.nAppProcessRpgMsgLimit);
    ReadInt("nAppProcessThreadNum", g_Settings.nAppProcessThreadNum);
    ReadInt("nAsyncIOThreadNum", g_Settings.nAsyncIOThreadNum);
    ReadInt("nConnectThreadNum", g_Settings.nConnectThreadNum);
    ReadInt("nRecordTarnConnectorImplRefInfo", g_Settings.nRecordTarnConnectorImplRefInfo);
    ReadInt("nConnectSleep", g_Settings.nConnectSleep);
    ReadInt("nAppProcessRptMsgThreadNum", g_Settings.nAppProcessRptMsgThreadNum);
    ReadBool("bEnableAdapterLog", g_Settings.bEnableAdapterLog);
    ReadBool("bEnableAdapterPrint", g_Settings.bEnableAdapterPrint);
    ReadBool("bEnableSerialCom", g_Settings.bEnableSerialCom);
    ReadInt("nTraceQxDataMaxLength", g_Settings.nTraceQxDataMaxLength);
    ReadDevicePath();
    ReadBool("bNoNeReconnect", g_Settings.bNoNeReconnect);
    ReadTimeoutRate();
}
