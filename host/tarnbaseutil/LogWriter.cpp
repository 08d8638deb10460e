#include "LogWriter.h"

#include "Configuration.h"
#include "LogText.h"

#include <utility>

namespace {

using spdlog::string_view_t;

constexpr auto RETRY_INTERVAL = std::chrono::seconds(5);

} // namespace

LogWriter::LogWriter()
    : m_Formatter("%Y-%m-%d %H:%M:%S.%f [%t] ", spdlog::pattern_time_type::local, "")
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
    spdlog::memory_buf_t start;
    m_Formatter.format(msg, start);
    std::string strLine;
    strLine.reserve(start.size() + msg.logger_name.size() + msg.payload.size() + 16);
    strLine.append(start.data(), start.size());
    AppendPrintable(strLine, {msg.logger_name.data(), msg.logger_name.size()});
    strLine.append(1, ' ').append(LevelWord(iLevel)).append(1, ' ');
    AppendPrintable(strLine, WithoutLineFeed({msg.payload.data(), msg.payload.size()}));
    strLine += '\n';

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
    if (m_pFile == nullptr && std::chrono::steady_clock::now() >= m_tRetry)
        OpenFile();
    if (m_pFile != nullptr && m_pFile->IsFull(m_strUnflushed.size(), strLine.size()))
        Rotate();
    if (m_pFile == nullptr)
    {
        ++m_uAstray;
        return false;
    }
    m_UnflushedLines.push_back({strLine.size(), bShown});
    m_strUnflushed += strLine;
    return true;
}

void LogWriter::OpenFile()
{
    m_pFile = std::make_unique<LogFile>(m_Settings.strFile, m_Settings.uRotateBytes, m_Settings.uRotateFiles);
    if (const std::error_code error = m_pFile->Open())
        FileFailed(error, 0);
}

void LogWriter::Rotate()
{
    Flush();
    if (m_pFile == nullptr)
        return;
    const std::error_code error = m_pFile->Rotate();
    if (!error)
        m_bCannotRotate = false;
    else if (!m_pFile->IsOpen())
        FileFailed(error, 0);
    else if (!std::exchange(m_bCannotRotate, true))
        WriteOwn("The log file grows without bound, it cannot be rotated: " + error.message() + "\n");
}

/// Ends the use of the file for a while. What it has not taken yet goes to stderr.
/// @param uTaken  bytes of m_strUnflushed that it has taken
void LogWriter::FileFailed(const std::error_code& error, std::size_t uTaken)
{
    if (!m_bFailing)
        WriteToStderr(std::string(BASEUTIL_TAG) + ": log file " + Printable(m_Settings.strFile) +
                      " cannot be written, its lines go to stderr: " + error.message() + "\n");
    m_bFailing = true;
    m_pFile.reset();
    m_tRetry = std::chrono::steady_clock::now() + RETRY_INTERVAL;
    std::size_t uEnd = 0;
    for (const UnflushedLine& line : m_UnflushedLines)
    {
        const std::size_t uStart = uEnd;
        uEnd += line.uBytes;
        if (uEnd <= uTaken)
            continue;
        ++m_uAstray;
        if (!line.bShown && !WriteToStderr(std::string_view(m_strUnflushed).substr(uStart, line.uBytes)))
            ++m_uLost;
    }
    ForgetUnflushed();
}

void LogWriter::ForgetUnflushed()
{
    m_strUnflushed.clear();
    m_UnflushedLines.clear();
}

void LogWriter::Flush()
{
    if (m_pFile == nullptr)
        return;
    std::string_view rest = m_strUnflushed;
    if (const std::error_code error = m_pFile->Append(rest))
    {
        FileFailed(error, m_strUnflushed.size() - rest.size());
        return;
    }
    ForgetUnflushed();
    if (m_bFailing)
        FileWorksAgain();
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
