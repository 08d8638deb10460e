#include "platform/Tp4Listener.h"

#include "platform/Tp4File.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr mode_t DIRECTORY_MODE = 0755;

/// The provider's directory, locked: between two listeners of one address only one at a time looks whether the file
/// is alive, and replaces or removes it.
class LockedDirectory
{
public:
    explicit LockedDirectory(const std::string& strDirectory)
        : m_iDescriptor(open(strDirectory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC))
    {
        if (m_iDescriptor == -1)
            return;
        while (flock(m_iDescriptor, LOCK_EX) == -1 && errno == EINTR)
        {}
    }
    ~LockedDirectory()
    {
        if (m_iDescriptor != -1)
            close(m_iDescriptor);
    }
    LockedDirectory(const LockedDirectory&) = delete;
    LockedDirectory& operator=(const LockedDirectory&) = delete;

    int Descriptor() const { return m_iDescriptor; }

private:
    const int m_iDescriptor;
};

/// True for the socket of somebody who does not listen any more.
bool IsLeftOver(const Tp4File& file)
{
    struct stat status = {};
    if (lstat(file.Path(), &status) == -1 || !S_ISSOCK(status.st_mode))
        return false;
    const int iProbe = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (iProbe == -1)
        return false;
    const bool bRefused = connect(iProbe, file.Address(), Tp4File::Length()) == -1 && errno == ECONNREFUSED;
    close(iProbe);
    return bRefused;
}

} // namespace

Tp4Listener::~Tp4Listener()
{
    if (m_iSocket == -1)
        return;
    {
        const LockedDirectory directory(m_strDirectory);
        if (directory.Descriptor() != -1 && IsOwnFile(directory.Descriptor()))
            unlinkat(directory.Descriptor(), m_strName.c_str(), 0);
    }
    close(m_iSocket);
}

int Tp4Listener::Open(const std::string& strSelector, const std::string& strAddress, int iBacklog)
{
    if (m_iSocket != -1)
        return EISCONN;
    m_strDirectory = Tp4Directory();
    m_strName = Tp4FileName(strSelector, strAddress);
    if (mkdir(m_strDirectory.c_str(), DIRECTORY_MODE) == -1 && errno != EEXIST)
        return errno;
    const LockedDirectory directory(m_strDirectory);
    if (directory.Descriptor() == -1)
        return errno;
    m_iSocket = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (m_iSocket == -1)
        return errno;
    const int iError = Bind(directory.Descriptor(), iBacklog);
    if (iError == 0)
        return 0;
    close(m_iSocket);
    m_iSocket = -1;
    return iError;
}

/// With the directory locked. @return 0, or the errno
int Tp4Listener::Bind(int iDirectory, int iBacklog)
{
    const Tp4File file(m_strDirectory, m_strName);
    if (file.Error() != 0)
        return file.Error();
    if (bind(m_iSocket, file.Address(), Tp4File::Length()) == -1)
    {
        const int iError = errno;
        if (iError != EADDRINUSE || !IsLeftOver(file))
            return iError;
        unlinkat(iDirectory, m_strName.c_str(), 0);
        if (bind(m_iSocket, file.Address(), Tp4File::Length()) == -1)
            return errno;
    }
    struct stat status = {};
    if (listen(m_iSocket, iBacklog) == -1 ||
        fstatat(iDirectory, m_strName.c_str(), &status, AT_SYMLINK_NOFOLLOW) == -1)
        return errno;
    m_Device = status.st_dev;
    m_Inode = status.st_ino;
    return 0;
}

bool Tp4Listener::IsOwnFile(int iDirectory) const
{
    struct stat status = {};
    return fstatat(iDirectory, m_strName.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0 &&
           status.st_dev == m_Device && status.st_ino == m_Inode;
}

int Tp4Listener::Accept() const
{
    return accept4(m_iSocket, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
}
