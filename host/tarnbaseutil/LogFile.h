#ifndef TARN_HOST_LOGFILE_H
#define TARN_HOST_LOGFILE_H

#include <cstdint>
#include <string>
#include <string_view>
#include <system_error>

/// A log file that is appended to, and renamed when it is full: FILE.log becomes FILE.1.log, that one FILE.2.log
/// and so on.
///
/// It has no buffer, so a child process made by fork has nothing of it to write once more. And it never shortens a
/// file: one that cannot be renamed grows.
class LogFile
{
public:
    /// @param uMaxBytes  at which the file is full; 0: never
    /// @param uKept      renamed files that are kept
    LogFile(std::string strPath, std::uint64_t uMaxBytes, std::size_t uKept);
    ~LogFile();
    LogFile(const LogFile&) = delete;
    LogFile& operator=(const LogFile&) = delete;

    /// Opens the file, and makes its folder if that is missing.
    std::error_code Open();
    bool IsOpen() const { return m_iFd >= 0; }

    /// Whether the file, with so many bytes to come first, has no room for so many more.
    bool IsFull(std::uint64_t uToCome, std::uint64_t uMore) const;

    /// Renames the file and those before it, and opens a new one. Where a file cannot be renamed the old one stays
    /// open, and is full again when as much has been added once more.
    std::error_code Rotate();

    /// Appends the text. What has been written is removed from it, all when there is no error.
    std::error_code Append(std::string_view& text);

private:
    void Close();

    const std::string m_strPath;
    const std::uint64_t m_uMaxBytes;
    const std::size_t m_uKept;
    int m_iFd = -1;
    std::uint64_t m_uBytes = 0;
    std::uint64_t m_uFullAt = 0;
};

#endif
