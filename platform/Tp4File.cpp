#include "platform/Tp4File.h"

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

std::string Tp4Directory()
{
    const char* pszNamed = std::getenv("TARN_TP4_DIR"); // NOLINT(concurrency-mt-unsafe): only read here
    return pszNamed != nullptr && *pszNamed != '\0' ? pszNamed : "/run/tarn-tp4";
}

std::string Tp4FileName(const std::string& strSelector, const std::string& strAddress)
{
    static constexpr char LETTERS[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_";
    constexpr unsigned LETTER_BITS = 6;
    constexpr unsigned LETTER_MASK = 63;
    const std::string strBytes = static_cast<char>(strSelector.size()) + strSelector + strAddress;
    std::string strName;
    std::uint32_t uBits = 0;
    unsigned nBits = 0;
    for (const char byte : strBytes)
    {
        uBits = uBits << 8U | static_cast<unsigned char>(byte);
        for (nBits += 8; nBits >= LETTER_BITS; nBits -= LETTER_BITS)
            strName += LETTERS[uBits >> (nBits - LETTER_BITS) & LETTER_MASK];
    }
    if (nBits > 0)
        strName += LETTERS[uBits << (LETTER_BITS - nBits) & LETTER_MASK];
    return strName;
}

Tp4File::Tp4File(const std::string& strDirectory, const std::string& strName)
{
    m_Address.sun_family = AF_UNIX;
    if (!SetPath(strDirectory + '/' + strName))
        GoThroughDescriptor(strDirectory, strName);
}

Tp4File::~Tp4File()
{
    if (m_iDirectory != -1)
        close(m_iDirectory);
}

void Tp4File::GoThroughDescriptor(const std::string& strDirectory, const std::string& strName)
{
    m_iDirectory = open(strDirectory.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
    if (m_iDirectory == -1)
        m_iError = errno;
    else if (!SetPath("/proc/self/fd/" + std::to_string(m_iDirectory) + '/' + strName))
        m_iError = ENAMETOOLONG;
}

bool Tp4File::SetPath(const std::string& strPath)
{
    if (strPath.size() >= sizeof(m_Address.sun_path))
        return false;
    std::memcpy(m_Address.sun_path, strPath.c_str(), strPath.size() + 1);
    return true;
}
