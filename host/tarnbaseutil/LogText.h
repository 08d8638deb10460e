#ifndef TARN_HOST_LOGTEXT_H
#define TARN_HOST_LOGTEXT_H

#include <string>
#include <string_view>

/// A text as it may be shown on a terminal: control characters, which a text taken from the network may
/// carry, become \xNN. Line feeds, carriage returns and tabs stay.
std::string Printable(std::string_view text);
/// The same, appended to a line.
void AppendPrintable(std::string& strLine, std::string_view text);

/// The text without the one line feed at its end that belongs to it already.
std::string_view WithoutLineFeed(std::string_view text);

/// What a line calls its severity.
const char* LevelWord(int iLevel);

/// Writes to stderr, as long as that takes. @return false when stderr is closed or broken
bool WriteToStderr(std::string_view text) noexcept;

#endif
