#ifndef TARN_BENCH_QUIETHOST_H
#define TARN_BENCH_QUIETHOST_H

#include <tarnadapterframe/tarnbaseutil.h>

#include <cstring>
#include <map>
#include <string>

/// What a quiet host's configuration holds beside the hex trace; to be filled before the library starts.
inline std::map<std::string, std::string> g_QuietSettings;

/// A host that drops the log and leaves every setting at its default but the hex trace, which is off: the two would be
/// most of what is measured.
inline void InstallQuietHost()
{
    TarnInstallLogSink(
        [](const std::string&, TarnLogLevel, const char*, const AsnType*, bool, bool) { return true; });
    TarnInstallCfgLookup([](const char* pszKey, std::string& strValue, const char* /*pszFile*/) {
        strValue = "0";
        const auto it = g_QuietSettings.find(pszKey);
        if (it != g_QuietSettings.end())
            strValue = it->second;
        return it != g_QuietSettings.end() || std::strcmp(pszKey, "bEnableAdapterLog") == 0;
    });
}

#endif
