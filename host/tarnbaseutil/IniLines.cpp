#include "IniLines.h"

#include <algorithm>
#include <cstddef>

namespace {

constexpr std::string_view UNREAD_SECTION = "[?]";

/// Length of the UTF-8 character that starts at text[uAt], 0 when there is none.
std::size_t Utf8Length(std::string_view text, std::size_t uAt)
{
    const auto byte = [&](std::size_t u) { return static_cast<unsigned char>(text[u]); };
    const unsigned uLead = byte(uAt);
    if (uLead < 0x80)
        return 1;
    const std::size_t uLength = uLead >= 0xF0 ? 4 : uLead >= 0xE0 ? 3 : 2;
    if (uLead < 0xC2 || uLead > 0xF4 || text.size() - uAt < uLength)
        return 0;
    for (std::size_t u = 1; u < uLength; ++u)
        if ((byte(uAt + u) & 0xC0U) != 0x80)
            return 0;
    // Overlong forms, surrogates, and what is beyond U+10FFFF.
    const unsigned uNext = byte(uAt + 1);
    const bool bBad = (uLead == 0xE0 && uNext < 0xA0) || (uLead == 0xED && uNext > 0x9F) ||
                      (uLead == 0xF0 && uNext < 0x90) || (uLead == 0xF4 && uNext > 0x8F);
    return bBad ? 0 : uLength;
}

bool IsUtf8(std::string_view text)
{
    for (std::size_t uAt = 0; uAt < text.size();)
    {
        const std::size_t uLength = Utf8Length(text, uAt);
        if (uLength == 0)
            return false;
        uAt += uLength;
    }
    return true;
}

bool HasBadNameByte(std::string_view name)
{
    return std::any_of(name.begin(), name.end(),
                       [](unsigned char c) { return c < ' ' || c == '!' || c >= 0x7F; });
}

std::string_view WithoutTrailingBlanks(std::string_view text)
{
    const std::size_t uLast = text.find_last_not_of(" \t\r");
    return text.substr(0, uLast == std::string_view::npos ? 0 : uLast + 1);
}

/// Why the parser must not see this line; null when it may.
const char* WhyUnparsable(std::string_view line, bool bInSection)
{
    if (line.find('\0') != std::string_view::npos)
        return "a NUL byte in the line";
    if (!IsUtf8(line))
        return "not UTF-8";
    if (line.empty() || line.front() == ';' || line.front() == '#')
        return nullptr;
    if (line.substr(0, 2) == "//" || line.substr(0, 2) == "/*")
        return "a comment starts with ; or #";
    if (line.front() == '[')
        return HasBadNameByte(line) ? "a character that a section name cannot have" : nullptr;
    if (HasBadNameByte(WithoutTrailingBlanks(line.substr(0, line.find('=')))))
        return "a character that a key cannot have";
    return bInSection ? nullptr : "a line before the first section";
}

} // namespace

IniLines::IniLines(std::string_view text)
{
    constexpr std::string_view BYTE_ORDER_MARK = "\xEF\xBB\xBF";
    if (text.substr(0, BYTE_ORDER_MARK.size()) == BYTE_ORDER_MARK)
        text.remove_prefix(BYTE_ORDER_MARK.size());
    while (!text.empty())
    {
        const std::string_view line = text.substr(0, text.find('\n'));
        text.remove_prefix(std::min(text.size(), line.size() + 1));
        m_Lines.push_back(WithoutTrailingBlanks(line));
        m_Lines.back().remove_prefix(
            std::min(m_Lines.back().find_first_not_of(" \t"), m_Lines.back().size()));
    }
}

std::vector<std::pair<unsigned, std::string>> IniLines::TakeOutUnparsable()
{
    std::vector<std::pair<unsigned, std::string>> takenOut;
    bool bInSection = false;
    for (std::size_t u = 0; u < m_Lines.size(); ++u)
    {
        const bool bHeader = !m_Lines[u].empty() && m_Lines[u].front() == '[';
        const char* pszReason = WhyUnparsable(m_Lines[u], bInSection);
        bInSection = bInSection || bHeader;
        if (pszReason == nullptr)
            continue;
        const auto uLine = static_cast<unsigned>(u + 1);
        takenOut.emplace_back(uLine, pszReason);
        TakeOut(uLine);
    }
    return takenOut;
}

void IniLines::TakeOut(unsigned uLine)
{
    if (uLine == 0 || uLine > m_Lines.size())
        return;
    std::string_view& line = m_Lines[uLine - 1];
    line = !line.empty() && line.front() == '[' ? UNREAD_SECTION : std::string_view();
}

std::string IniLines::Text() const
{
    std::string strText;
    for (const std::string_view line : m_Lines)
        strText.append(line).append(1, '\n');
    return strText;
}
