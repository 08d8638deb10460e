#ifndef TARN_BENCH_QUIETHOST_H
#define TARN_BENCH_QUIETHOST_H

#include <tarnadapterframe/tarnbaseutil.h>

#include <cstring>
#include <string>

/// A host that drops the log and leaves every setting at its default but the hex trace, which is off: the two would be
/// most of what is measured.
inline void InstallQuietHost()
{
    TarnInstallLogSink(
        [](const std::string&, TarnLogLevel, const char*, const AsnType*, bool, bool) { return true; });
    TarnInstallCfgLookup([](const char* pszKey, std::string& strValue, const char* /*pszFile*/) {
        strValue = "0";
        return std::strcmp(pszKey, "bEnableAdapterLog") == 0;
    });
}

#endif
