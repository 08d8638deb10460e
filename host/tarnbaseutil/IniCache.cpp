#include "IniCache.h"

#include "CancellationBlocked.h"

#include <cerrno>
#include <cstdlib>
#include <ctime>
#include <fcntl.h>
#include <map>
#include <mutex>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>

namespace {

const std::size_t MAX_FILE_BYTES = std::size_t{16} << 20U;
const std::size_t MAX_FILE_LINES = 10000; // the parser's time grows with the square of it
const std::size_t MAX_CACHED_FILES = 64;
const int MAX_READS = 5;

/// What tells two versions of a file apart without reading them.
struct FileIdentity
{
    int iError = 0; ///< errno value when there is nothing to identify
    dev_t device = 0;
    ino_t inode = 0;
    off_t size = 0;
    timespec modified{};
    timespec changed{};
};

bool operator==(const timespec& left, const timespec& right)
{
    return left.tv_sec == right.tv_sec && left.tv_nsec == right.tv_nsec;
}

bool operator==(const FileIdentity& left, const FileIdentity& right)
{
    return left.iError == right.iError && left.device == right.device && left.inode == right.inode &&
           left.size == right.size && left.modified == right.modified && left.changed == right.changed;
}

FileIdentity Failed(int iError)
{
    FileIdentity identity;
    identity.iError = iError;
    return identity;
}

FileIdentity ToIdentity(const struct stat& status)
{
    return {0, status.st_dev, status.st_ino, status.st_size, status.st_mtim, status.st_ctim};
}

/// Whether a file that was open all the time has been written to in between. The time of the last change does
/// not tell: replacing the file by another of its name changes that, too.
bool IsSameContent(const FileIdentity& before, const FileIdentity& after)
{
    return before.size == after.size && before.modified == after.modified;
}

/// A file system stamps changes with a clock of some milliseconds' grain: a file changed a moment ago may
/// change again without looking different.
bool IsSettled(const FileIdentity& identity)
{
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    return identity.iError != 0 || now.tv_sec - identity.changed.tv_sec > 1;
}

class FileDescriptor
{
public:
    explicit FileDescriptor(int iFd)
        : m_iFd(iFd)
    {}
    ~FileDescriptor()
    {
        if (m_iFd >= 0)
            close(m_iFd);
    }
    FileDescriptor(const FileDescriptor&) = delete;
    FileDescriptor& operator=(const FileDescriptor&) = delete;

    int Get() const { return m_iFd; }

private:
    const int m_iFd;
};

struct Content
{
    FileIdentity identity;
    std::string strText;
    std::string strRefusal; ///< why strText is not to be used; empty: it is
    bool bMayPass = false;  ///< the system refused, which it may not do again though the file stays as it is
};

/// Reads until the end or the size limit, whichever is first. @return errno value
int ReadText(int iFd, std::string& strText)
{
    strText.clear();
    char buffer[16384];
    while (strText.size() <= MAX_FILE_BYTES)
    {
        const ssize_t iRead = read(iFd, buffer, sizeof buffer);
        if (iRead == 0)
            return 0;
        if (iRead > 0)
            strText.append(buffer, static_cast<std::size_t>(iRead));
        else if (errno != EINTR)
            return errno;
    }
    return 0;
}

std::string TooLarge(const std::string& strText)
{
    if (strText.size() > MAX_FILE_BYTES)
        return "larger than " + std::to_string(MAX_FILE_BYTES >> 20U) + " MiB";
    std::size_t uLines = 0;
    for (const char c : strText)
        uLines += c == '\n' ? 1 : 0;
    return uLines > MAX_FILE_LINES ? "more than " + std::to_string(MAX_FILE_LINES) + " lines" : std::string();
}

/// One reading. @return true when the file stayed as it was meanwhile
bool ReadOnce(const std::string& strPath, Content& content)
{
    content = Content();
    // Not blocking, or a named pipe would hold the caller until somebody writes to it.
    const FileDescriptor file(open(strPath.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    struct stat before = {};
    struct stat after = {};
    if (file.Get() < 0 || fstat(file.Get(), &before) != 0)
    {
        const int iError = errno;
        struct stat status = {};
        content.identity = stat(strPath.c_str(), &status) == 0 ? ToIdentity(status) : Failed(errno);
        if (iError == ENOENT)
            return content.identity.iError == ENOENT; // or it has come meanwhile
        content.strRefusal = std::generic_category().message(iError);
        content.bMayPass = true;
        return true;
    }
    content.identity = ToIdentity(before);
    if (!S_ISREG(before.st_mode))
    {
        content.strRefusal = S_ISDIR(before.st_mode) ? "a directory" : "not a regular file";
        return true;
    }
    const int iError = ReadText(file.Get(), content.strText);
    content.strRefusal = iError != 0 ? std::generic_category().message(iError) : TooLarge(content.strText);
    content.bMayPass = iError != 0;
    if (!content.strRefusal.empty())
        content.strText.clear();
    return fstat(file.Get(), &after) == 0 && IsSameContent(content.identity, ToIdentity(after));
}

Content ReadStable(const std::string& strPath)
{
    Content content;
    for (int i = 0; i < MAX_READS; ++i)
        if (ReadOnce(strPath, content))
            return content;
    content.strText.clear();
    content.strRefusal = "it keeps changing while it is read";
    return content;
}

std::vector<IniReport> EmptyFileReports(const std::string& strPath, const Content& content)
{
    if (!content.strRefusal.empty())
        return {{TARN_LOG_ERROR, strPath + ": cannot be read, taken as empty: " + content.strRefusal + "\n"}};
    // Somebody who names a file expects it to be there.
    const char* pszNamed = getenv("TARN_CFG_FILE"); // NOLINT(concurrency-mt-unsafe): only read here
    if (pszNamed != nullptr && strPath == pszNamed)
        return {{TARN_LOG_INFO, strPath + ": is missing, taken as empty\n"}};
    return {};
}

std::shared_ptr<const IniFile> ToIniFile(const std::string& strPath, const Content& content)
{
    if (content.identity.iError != 0 || !content.strRefusal.empty())
        return std::make_shared<const IniFile>(EmptyFileReports(strPath, content));
    return std::make_shared<const IniFile>(strPath, content.strText);
}

struct CacheEntry
{
    Content content;
    bool bSettled = false; ///< the identity tells every later change
    std::shared_ptr<const IniFile> pFile;
};

using CacheEntries = std::map<std::string, CacheEntry>;

/// Guards the table, also while a file is read: it is read once however many threads ask. Nobody logs with
/// it held.
std::mutex g_CacheMutex;
CacheEntries* g_pEntries =
    nullptr; ///< never destroyed: settings are looked up while statics are destroyed, too

std::shared_ptr<const IniFile> ReloadLocked(CacheEntries& entries, const std::string& strPath)
{
    Content content = ReadStable(strPath);
    if (entries.size() >= MAX_CACHED_FILES && entries.count(strPath) == 0)
        entries.clear();
    CacheEntry& entry = entries[strPath];
    // A file that was only touched keeps its snapshot, and is not reported on again.
    const bool bSame = entry.pFile != nullptr && entry.content.strText == content.strText &&
                       entry.content.strRefusal == content.strRefusal &&
                       entry.content.identity.iError == content.identity.iError;
    if (!bSame)
        entry.pFile = ToIniFile(strPath, content);
    entry.bSettled = !content.bMayPass && IsSettled(content.identity);
    entry.content = std::move(content);
    return entry.pFile;
}

} // namespace

std::shared_ptr<const IniFile> OpenIniFile(const std::string& strPath)
{
    const CancellationBlocked uncancelled; // closing a file is a place to be cancelled, and must not throw
    struct stat status = {};
    const FileIdentity now = stat(strPath.c_str(), &status) == 0 ? ToIdentity(status) : Failed(errno);
    const std::lock_guard<std::mutex> lock(g_CacheMutex);
    if (g_pEntries == nullptr)
        g_pEntries = new CacheEntries;
    const auto it = g_pEntries->find(strPath);
    if (it != g_pEntries->end() && it->second.bSettled && it->second.content.identity == now)
        return it->second.pFile;
    return ReloadLocked(*g_pEntries, strPath);
}

void LockIniCache()
{
    g_CacheMutex.lock();
}

void UnlockIniCache()
{
    g_CacheMutex.unlock();
}
