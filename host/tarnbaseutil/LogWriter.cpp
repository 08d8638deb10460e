#include "LogWriter.h"

#include "Configuration.h"
#include "LogText.h"

#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/sinks/rotating_file_sink.h>

#include <cerrno>
#include <unistd.h>

namespace {

using spdlog::string_view_t;

constexpr auto RETRY_INTERVAL = std::chrono::seconds(5);

std::unique_ptr<spdlog::formatter> VerbatimFormatter()
{
    return std::make_unique<spdlog::pattern_formatter>("%v", spdlog::pattern_time_type::local, "");
}

/// spdlog's rotation empties a file that it cannot rename, so it must not be asked to where that is known.
bool MayRenameBeside(const std::string& strFile)
{
    const std::string strFolder = spdlog::details::os::dir_name(strFile);
    return access(strFolder.empty() ? "." : strFolder.c_str(), W_OK | X_OK) == 0 ||
           (errno != EACCES && errno != EROFS);
}

} // namespace

LogWriter::LogWriter()
    : m_Formatter("%Y-%m-%d %H:%M:%S.%f [%t] %n %v", spdlog::pattern_time_type::local, "\n")
{}

void LogWriter::Configure(LogSettings settings)
{
    Flush();
    m_pFile.reset();
    m_Settings = std::move(settings);
    m_tRetry = {};
}

bool LogWriter::Write(const spdlog::details::log_msg& msg, int iLevel, LogRoute route)
{
    const std::string strTag = Printable({msg.logger_name.data(), msg.logger_name.size()});
    const std::string strText = std::string(LevelWord(iLevel)) + ' ' +
                                Printable(WithoutLineFeed({msg.payload.data(), msg.payload.size()}));
    spdlog::details::log_msg clean = msg;
    clean.logger_name = string_view_t(strTag.data(), strTag.size());
    clean.payload = string_view_t(strText.data(), strText.size());
    spdlog::memory_buf_t formatted;
    m_Formatter.format(clean, formatted);
    const std::string strLine(formatted.data(), formatted.size());

    const bool bConsole = route.bPrint || (route.bLog && m_Settings.bConsole);
    const bool bShown = bConsole && WriteToStderr(strLine);
    const bool bInFile = route.bLog && WriteToFile(strLine, bShown);
    return bShown || bInFile || (!bConsole && WriteToStderr(strLine));
}

bool LogWriter::WriteOwn(const std::string& strText)
{
    const spdlog::details::log_msg msg(spdlog::source_loc{}, BASEUTIL_TAG, spdlog::level::err,
                                       string_view_t(strText.data(), strText.size()));
    return Write(msg, TARN_LOG_ERROR, {false, true});
}

/// @param bShown  the line is on stderr already
/// @return true when the file has taken it
bool LogWriter::WriteToFile(const std::string& strLine, bool bShown)
{
    if (m_Settings.strFile.empty())
        return false;
    try
    {
        if (m_pFile != nullptr || OpenFile())
        {
            m_pFile->log(
                {string_view_t(), spdlog::level::info, string_view_t(strLine.data(), strLine.size())});
            if (!bShown)
                m_strUnflushed += strLine;
            m_uUnflushed += bShown ? 0 : 1;
            return true;
        }
    }
    catch (const std::exception& failure)
    {
        FileFailed(failure.what());
    }
    ++m_uAstray;
    return false;
}

/// Opens the log file unless it has failed a moment ago. @return false when it has; throws when it cannot
bool LogWriter::OpenFile()
{
    if (std::chrono::steady_clock::now() < m_tRetry)
        return false;
    const std::string& strFile = m_Settings.strFile;
    const bool bFixedFolder = m_Settings.uRotateBytes != 0 && !MayRenameBeside(strFile);
    if (m_Settings.uRotateBytes == 0 || bFixedFolder)
        m_pFile = std::make_unique<spdlog::sinks::basic_file_sink_st>(strFile);
    else
        m_pFile = std::make_unique<spdlog::sinks::rotating_file_sink_st>(strFile, m_Settings.uRotateBytes,
                                                                         m_Settings.uRotateFiles);
    m_pFile->set_formatter(VerbatimFormatter());
    if (bFixedFolder)
        WriteOwn("The log file grows without bound: its folder is not writable, it cannot be rotated\n");
    return m_pFile != nullptr; // that line may have failed
}

/// Ends the use of the file for a while. What it has not written yet goes to stderr.
void LogWriter::FileFailed(const char* pszReason)
{
    if (!m_bFailing)
        WriteToStderr(std::string(BASEUTIL_TAG) + ": log file " + Printable(m_Settings.strFile) +
                      " cannot be written, its lines go to stderr: " + pszReason + "\n");
    m_bFailing = true;
    m_pFile.reset();
    m_tRetry = std::chrono::steady_clock::now() + RETRY_INTERVAL;
    m_uAstray += m_uUnflushed;
    if (!WriteToStderr(m_strUnflushed))
        m_uLost += m_uUnflushed;
    m_strUnflushed.clear();
    m_uUnflushed = 0;
}

void LogWriter::Flush()
{
    if (m_pFile == nullptr)
        return;
    try
    {
        m_pFile->flush();
        m_strUnflushed.clear();
        m_uUnflushed = 0;
        if (m_bFailing)
            FileWorksAgain();
    }
    catch (const std::exception& failure)
    {
        FileFailed(failure.what());
    }
}

void LogWriter::FileWorksAgain()
{
    m_bFailing = false;
    const std::uint64_t uAstray = m_uAstray;
    m_uAstray = 0;
    WriteOwn("The log file works again, " + std::to_string(uAstray) + " lines went to stderr instead\n");
    Flush();
}

std::uint64_t LogWriter::TakeLost()
{
    const std::uint64_t uLost = m_uLost;
    m_uLost = 0;
    return uLost;
}
