#ifndef TARN_PLATFORM_TP4FILE_H
#define TARN_PLATFORM_TP4FILE_H

#include <string>

#include <sys/socket.h>
#include <sys/un.h>

/// @file
/// Where the stand-in of the OSI transport provider keeps its transport addresses.

/// The directory that the environment variable TARN_TP4_DIR names, else /run/tarn-tp4.
std::string Tp4Directory();

/// The file of a transport address: the selector's length (a byte), the selector and the network address, in the
/// letters of base64url without padding. So any bytes will do, no two addresses share a name, and a selector of 15
/// and an address of 40 bytes make 75 letters, the first of which is no dash.
std::string Tp4FileName(const std::string& strSelector, const std::string& strAddress);

/// A file of the provider's, as the calls of sockets take it. They take 107 bytes at most: where the path is longer,
/// it goes through a descriptor of the directory, which the object holds.
class Tp4File
{
public:
    Tp4File(const std::string& strDirectory, const std::string& strName);
    ~Tp4File();
    Tp4File(const Tp4File&) = delete;
    Tp4File& operator=(const Tp4File&) = delete;

    /// 0, or the errno(3) for which there is no address: the directory cannot be opened, or the name is too long.
    int Error() const { return m_iError; }
    const sockaddr* Address() const { return reinterpret_cast<const sockaddr*>(&m_Address); }
    static constexpr socklen_t Length() { return sizeof(sockaddr_un); }
    /// The path in the form in which the calls take it.
    const char* Path() const { return m_Address.sun_path; }

private:
    void GoThroughDescriptor(const std::string& strDirectory, const std::string& strName);
    bool SetPath(const std::string& strPath);

    sockaddr_un m_Address{};
    int m_iDirectory = -1;
    int m_iError = 0;
};

#endif
