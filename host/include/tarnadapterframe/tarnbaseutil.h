#ifndef TARNADAPTERFRAME_TARNBASEUTIL_H
#define TARNADAPTERFRAME_TARNBASEUTIL_H

/// @file
/// The host's utility library: configuration look-ups, the log, and the application's exit flag.
///
/// The adapter framework reaches its host process through these functions only. This library is the default
/// host: an INI file and an asynchronous log file. A server that has services of its own installs a function
/// for each (TarnInstallCfgLookup, TarnInstallLogSink, TarnInstallAppExit), before it starts the framework.
///
/// Every function here may be called from any thread, also before `main` and while statics are destroyed.
/// No exception leaves any of them; one that an installed function lets out counts as "not found", "not
/// logged" or "not exiting".

#include <string>

#if defined(_WIN32)
#define TARN_HOST_API
#else
#define TARN_HOST_API __attribute__((visibility("default")))
#endif

// ---------------------------------------------------------------------------------------------------------
// Configuration

/// Looks up an integer setting of section `[tarnadapter]`.
/// @param pszKey   name of the setting
/// @param iValue   written only when the result is true
/// @param pszFile  path of the configuration file
/// @return true when the key is there and its value is a whole decimal number that an int holds. Any other
///         value is reported in the log, with file, line and key, and counts as not found.
TARN_HOST_API bool TarnGetCfgInt(const char* pszKey, int& iValue, const char* pszFile);

/// Looks up a text setting of section `[tarnadapter]`.
/// @param pszKey     name of the setting
/// @param pszBuffer  written only when the result is true; always terminated, a longer value is cut
/// @param iLength    size of the buffer in bytes, the terminator included; below 1 nothing is found
/// @param pszFile    path of the configuration file
/// @return true when the key is there; a key without value is an empty text.
TARN_HOST_API bool TarnGetCfgString(const char* pszKey, char* pszBuffer, int iLength, const char* pszFile);

/// Path of the process's configuration file: the environment variable `TARN_CFG_FILE` when it is set and not
/// empty, else `tarnadapter.ini` in the working directory. The file need not exist: a missing one is empty.
TARN_HOST_API std::string TarnGetDefaultCfgFile();

/// A host's own configuration look-up: writes the value's text and returns true when the key is there.
using TarnCfgLookup = bool (*)(const char* pszKey, std::string& strValue, const char* pszFile);

/// Makes TarnGetCfgInt and TarnGetCfgString ask pfnLookup; null brings the INI file back.
/// @return what was installed before, null for the INI file. Calls under way may still be in the old one.
TARN_HOST_API TarnCfgLookup TarnInstallCfgLookup(TarnCfgLookup pfnLookup);

// ---------------------------------------------------------------------------------------------------------
// Log

/// Severity of a log line; smaller is more severe.
enum TarnLogLevel : int
{
    TARN_LOG_RESOURCE = 0, ///< a resource could not be created
    TARN_LOG_ERROR = 1,    ///< an operation failed or found its state broken
    TARN_LOG_WARNING = 2,  ///< a refused argument, something missing or repeated
    TARN_LOG_INFO = 3,     ///< information, hex traces
};

/// The host's type of an ASN.1 value that a log line may carry. The default log ignores it.
class AsnType;

/// A host's own log; the arguments are those of TarnDebugMgr::Trace. It is called on the threads that log,
/// several at once, and holds them as long as it runs.
using TarnLogSink = bool (*)(const std::string& strModule, TarnLogLevel eLevel, const char* pszText,
                             const AsnType* pAsnValue, bool bPrint, bool bLog);

/// Makes TarnDebugMgr::Trace hand every line to pfnSink; null brings the default log back.
/// @return what was installed before, null for the default log. Calls under way may still be in the old one.
TARN_HOST_API TarnLogSink TarnInstallLogSink(TarnLogSink pfnSink);

/// The host's log.
///
/// The default log writes asynchronously, on a thread of its own: a caller pays for a copy of its text and
/// never waits for the log's disk or a terminal (the first line reads the configuration file). Section
/// `[log]` of the configuration file (TarnGetDefaultCfgFile), read when the first line is logged and by
/// Reopen, sets it up:
///
/// | key              | default | meaning                                                             |
/// |------------------|---------|---------------------------------------------------------------------|
/// | `file`           | none    | path of the log file, appended to; without it the log is stderr     |
/// | `level`          | 2       | lines above this level are left out unless a flag asks for them     |
/// | `console`        | 0       | non-zero: what goes to the log file is shown on stderr too          |
/// | `rotate_size_kb` | 10240   | a file about to grow beyond this is rotated; 0: never               |
/// | `rotate_files`   | 5       | rotated files that are kept, 1 to 200                               |
///
/// A file that cannot be opened or written is reported on stderr and tried again every few seconds; its lines
/// go to stderr meanwhile. When lines come faster than the disk takes them, information (level 3) is dropped
/// first; the number of lines dropped is written to the log as soon as it moves again. A line is handed to
/// the file about a millisecond after it was logged, whatever its level; later only while lines come faster than they are written.
class TARN_HOST_API TarnDebugMgr
{
public:
    /// The process's log. Never null, never destroyed.
    static TarnDebugMgr* Instance();

    /// Logs one text.
    /// @param strModule  tag of the module that logs
    /// @param eLevel     severity; decides alone where the text goes when both flags are false
    /// @param pszText    the text, copied; a line feed at its end is optional. Null: nothing is logged
    /// @param pAsnValue  not used by the default log; may be null
    /// @param bPrint     show the text on the console (stderr), whatever its level
    /// @param bLog       write the text to the log, whatever its level
    /// @return true when the text was taken, false when its level kept it out or it had to be dropped
    bool Trace(const std::string& strModule, TarnLogLevel eLevel, const char* pszText,
               const AsnType* pAsnValue, bool bPrint, bool bLog);

    /// Whether Trace would take a text of this level and with these flags: who logs often need not make one that is
    /// left out. Always true when a host's own log is installed. Never waits; the first call starts the log, as the first
    /// Trace does.
    bool Takes(TarnLogLevel eLevel, bool bPrint, bool bLog);

    /// Waits until every line taken before the call has been written or counted as dropped.
    /// The exit of the process does this by itself, for at most two seconds.
    /// @param iTimeoutMs  longest wait in milliseconds
    /// @return false when the time ran out first
    bool Flush(int iTimeoutMs);

    /// Reads section `[log]` again and opens the log file anew, for an operator who has moved it away or
    /// changed the section. Lines taken before the call may still go to the old file.
    void Reopen();

    TarnDebugMgr(const TarnDebugMgr&) = delete;
    TarnDebugMgr& operator=(const TarnDebugMgr&) = delete;

private:
    TarnDebugMgr() = default;
    ~TarnDebugMgr() = default;
};

// ---------------------------------------------------------------------------------------------------------
// Exit flag

/// True while the host application is exiting: the framework then refrains from framing, timing messages
/// out, dispatching and connecting. False unless the host has installed its flag.
TARN_HOST_API bool TarnAppIsExit();

/// A host's own exit flag. It is asked for every received block of bytes, so it should only read a flag.
using TarnAppExitQuery = bool (*)();

/// Makes TarnAppIsExit ask pfnQuery; null: never exiting. @return what was installed before, or null.
TARN_HOST_API TarnAppExitQuery TarnInstallAppExit(TarnAppExitQuery pfnQuery);

#endif
