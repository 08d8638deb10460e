#include "LogFile.h"

#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <limits>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace {

namespace fs = std::filesystem;

std::error_code LastError()
{
    return {errno, std::generic_category()};
}

fs::path Numbered(const fs::path& path, std::size_t uNumber)
{
    if (uNumber == 0)
        return path;
    return path.parent_path() /
           (path.stem().string() + "." + std::to_string(uNumber) + path.extension().string());
}

} // namespace

LogFile::LogFile(std::string strPath, std::uint64_t uMaxBytes, std::size_t uKept)
    : m_strPath(std::move(strPath))
    , m_uMaxBytes(uMaxBytes)
    , m_uKept(uKept)
{}

LogFile::~LogFile()
{
    Close();
}

void LogFile::Close()
{
    if (m_iFd >= 0)
        close(m_iFd);
    m_iFd = -1;
}

std::error_code LogFile::Open()
{
    constexpr mode_t MODE = 0666; // less the process's umask
    std::error_code ignored;      // the opening tells
    if (const fs::path folder = fs::path(m_strPath).parent_path(); !folder.empty())
        fs::create_directories(folder, ignored);
    m_iFd = open(m_strPath.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, MODE);
    if (m_iFd < 0)
        return LastError();
    struct stat status = {};
    m_uBytes = fstat(m_iFd, &status) == 0 && S_ISREG(status.st_mode)
                   ? static_cast<std::uint64_t>(status.st_size)
                   : 0;
    m_uFullAt = m_uMaxBytes != 0 ? m_uMaxBytes : std::numeric_limits<std::uint64_t>::max();
    return {};
}

bool LogFile::IsFull(std::uint64_t uToCome, std::uint64_t uMore) const
{
    return m_uBytes + uToCome != 0 && m_uBytes + uToCome + uMore > m_uFullAt;
}

std::error_code LogFile::Rotate()
{
    std::error_code error;
    for (std::size_t u = m_uKept; u > 0 && !error; --u)
    {
        const fs::path from = Numbered(m_strPath, u - 1);
        if (fs::exists(from, error)) // somebody may have moved it
            fs::rename(from, Numbered(m_strPath, u), error);
    }
    if (error)
    {
        m_uFullAt = m_uBytes + m_uMaxBytes;
        return error;
    }
    Close();
    return Open();
}

std::error_code LogFile::Append(std::string_view& text)
{
    while (!text.empty())
    {
        const ssize_t iWritten = write(m_iFd, text.data(), text.size());
        if (iWritten >= 0)
        {
            text.remove_prefix(static_cast<std::size_t>(iWritten));
            m_uBytes += static_cast<std::uint64_t>(iWritten);
        }
        else if (errno != EINTR)
            return LastError();
    }
    return {};
}
