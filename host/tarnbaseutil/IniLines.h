#ifndef TARN_HOST_INILINES_H
#define TARN_HOST_INILINES_H

#include <string>
#include <string_view>
#include <utility>
#include <vector>

/// The lines of an INI file on their way to the parser.
///
/// The parser refuses a file as a whole, and without a line number, over a byte that is no UTF-8 or a name
/// it does not like; a NUL byte makes it lose the rest of a line silently. This class takes such lines out
/// first and says which they are. Line numbers stay what they are in the file.
class IniLines
{
public:
    /// @param text  has to outlive this object
    explicit IniLines(std::string_view text);

    /// Takes out what the parser must not see. @return line number and reason of each, in order
    std::vector<std::pair<unsigned, std::string>> TakeOutUnparsable();

    /// Takes one line out, by its number from 1. Where a section header goes, a section that nobody reads
    /// starts.
    void TakeOut(unsigned uLine);

    /// What is left, a line feed after every line.
    std::string Text() const;

private:
    std::vector<std::string_view> m_Lines; ///< without leading blanks
};

#endif
