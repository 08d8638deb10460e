#ifndef TARN_HOST_LOGWRITER_H
#define TARN_HOST_LOGWRITER_H

#include "LogFile.h"
#include "LogSettings.h"

#include <spdlog/details/log_msg.h>
#include <spdlog/pattern_formatter.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <system_error>
#include <vector>

/// Where a line is to go.
struct LogRoute
{
    bool bPrint; ///< to the console
    bool bLog;   ///< to the log
};

/// Writes lines to the log file and to stderr. It belongs to the log thread: only that one calls it, and it
/// may take as long as a disk or a terminal takes.
///
/// Lines are gathered and written to the file at a flush. Those that it does not take then go to stderr.
class LogWriter
{
public:
    LogWriter();

    /// Takes new settings. The old file is closed, the new one opened with the next line that goes there.
    void Configure(LogSettings settings);

    /// Writes one line. msg carries the tag, the time, the thread and the text; the line feed at the text's
    /// end is optional.
    /// @return false when the line has got nowhere
    bool Write(const spdlog::details::log_msg& msg, int iLevel, LogRoute route);

    /// Writes a line of the log's own, at level 1. @return as Write
    bool WriteOwn(const std::string& strText);

    /// Makes what has been written reach the disk's cache.
    void Flush();

    /// True when much has been written since the last flush.
    bool IsFlushDue() const { return m_strUnflushed.size() > MAX_UNFLUSHED; }

    /// How many lines got nowhere although Write said otherwise, since this was last asked.
    std::uint64_t TakeLost();

private:
    static constexpr std::size_t MAX_UNFLUSHED = 65536;

    struct UnflushedLine
    {
        std::size_t uBytes;
        bool bShown; ///< on stderr already
    };

    bool WriteToFile(const std::string& strLine, bool bShown);
    void OpenFile();
    void Rotate();
    void FileFailed(const std::error_code& error, std::size_t uTaken);
    void FileWorksAgain();
    void ForgetUnflushed();

    LogSettings m_Settings;
    spdlog::pattern_formatter m_Formatter;
    std::unique_ptr<LogFile> m_pFile;               ///< null: not opened yet, or it failed
    std::chrono::steady_clock::time_point m_tRetry; ///< before this a failed file is left alone
    bool m_bFailing = false;                        ///< a failure has been reported, nothing written since
    bool m_bCannotRotate = false;                   ///< which has been reported
    std::uint64_t m_uAstray = 0;                    ///< lines meant for the file while it was failing
    std::string m_strUnflushed;                     ///< text that the file is to get with the next flush
    std::vector<UnflushedLine> m_UnflushedLines;    ///< of which it consists
    std::uint64_t m_uLost = 0;
};

#endif
