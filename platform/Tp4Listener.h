#ifndef TARN_PLATFORM_TP4LISTENER_H
#define TARN_PLATFORM_TP4LISTENER_H

#include <string>

#include <sys/types.h>

/// Somebody who listens at a transport address of the stand-in for the OSI transport provider. For one thread.
class Tp4Listener
{
public:
    Tp4Listener() = default;
    /// Takes the address back.
    ~Tp4Listener();
    Tp4Listener(const Tp4Listener&) = delete;
    Tp4Listener& operator=(const Tp4Listener&) = delete;

    /// Begins to listen, without waiting. The provider's directory is made where it is missing (not what is above it);
    /// the file of a listener that is gone is replaced.
    /// @return 0, or an errno(3): EADDRINUSE when somebody listens there, or the file is no socket
    int Open(const std::string& strSelector, const std::string& strAddress, int iBacklog);
    /// A connection, close-on-exec and non-blocking; it belongs to the caller. @return -1 with errno; EAGAIN: none now
    int Accept() const;
    /// Readable when there is somebody to accept.
    int Descriptor() const { return m_iSocket; }

private:
    int Bind(int iDirectory, int iBacklog);
    bool IsOwnFile(int iDirectory) const;

    std::string m_strDirectory;
    std::string m_strName;
    int m_iSocket = -1;
    // Of the file, which somebody else may have replaced.
    dev_t m_Device = 0;
    ino_t m_Inode = 0;
};

#endif
