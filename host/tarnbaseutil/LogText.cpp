#include "LogText.h"

#include <array>
#include <cerrno>
#include <cstddef>
#include <poll.h>
#include <unistd.h>

namespace {

/// By byte: whether it may be, or begin, a control character. Most are printable ones of ASCII.
constexpr std::array<bool, 256> SUSPECTS = [] {
    std::array<bool, 256> suspects{};
    for (unsigned u = 0; u < 0x20; ++u)
        suspects[u] = u != '\n' && u != '\r' && u != '\t';
    suspects[0x7F] = true;
    suspects[0xC2] = true;
    return suspects;
}();

/// Length of the control character at text[uAt], a suspect; 0 when it is none. Those of two bytes are U+0080 to
/// U+009F: terminals obey them like their escape sequences.
std::size_t ControlLength(std::string_view text, std::size_t uAt)
{
    const auto byte = static_cast<unsigned char>(text[uAt]);
    if (byte != 0xC2)
        return 1;
    if (uAt + 1 >= text.size())
        return 0;
    const auto next = static_cast<unsigned char>(text[uAt + 1]);
    return next >= 0x80 && next <= 0x9F ? 2 : 0;
}

void AppendEscaped(std::string& strText, char c)
{
    constexpr const char* DIGITS = "0123456789ABCDEF";
    const auto byte = static_cast<unsigned char>(c);
    strText.append("\\x").append(1, DIGITS[byte >> 4U]).append(1, DIGITS[byte & 15U]);
}

} // namespace

void AppendPrintable(std::string& strLine, std::string_view text)
{
    std::size_t uCopied = 0; // up to here; what needs no escape is copied by the run
    for (std::size_t uAt = 0; uAt < text.size();)
    {
        if (!SUSPECTS[static_cast<unsigned char>(text[uAt])])
        {
            ++uAt;
            continue;
        }
        const std::size_t uControl = ControlLength(text, uAt);
        if (uControl != 0)
        {
            strLine.append(text, uCopied, uAt - uCopied);
            for (std::size_t u = 0; u < uControl; ++u)
                AppendEscaped(strLine, text[uAt + u]);
            uCopied = uAt + uControl;
        }
        uAt += uControl == 0 ? 1 : uControl;
    }
    strLine.append(text, uCopied);
}

std::string Printable(std::string_view text)
{
    std::string strPrintable;
    AppendPrintable(strPrintable, text);
    return strPrintable;
}

std::string_view WithoutLineFeed(std::string_view text)
{
    if (!text.empty() && text.back() == '\n')
        text.remove_suffix(1);
    return text;
}

const char* LevelWord(int iLevel)
{
    constexpr const char* WORDS[] = {"RESOURCE", "ERROR", "WARNING", "INFO"};
    return WORDS[iLevel < 0 ? 0 : iLevel > 3 ? 3 : iLevel];
}

bool WriteToStderr(std::string_view text) noexcept
{
    while (!text.empty())
    {
        const ssize_t iWritten = write(STDERR_FILENO, text.data(), text.size());
        if (iWritten > 0)
            text.remove_prefix(static_cast<std::size_t>(iWritten));
        else if (iWritten < 0 && errno == EAGAIN)
        {
            pollfd waiting = {STDERR_FILENO, POLLOUT, 0}; // somebody sharing stderr has made it non-blocking
            (void)poll(&waiting, 1, -1);
        }
        else if (iWritten == 0 || errno != EINTR)
            return false;
    }
    return true;
}
