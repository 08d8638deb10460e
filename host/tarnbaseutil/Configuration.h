#ifndef TARN_HOST_CONFIGURATION_H
#define TARN_HOST_CONFIGURATION_H

#include <string>
#include <string_view>

/// The tag of everything that this library logs itself.
constexpr const char* BASEUTIL_TAG = "tarnbaseutil";

/// Converts a setting's text: a whole decimal number with an optional sign, blanks around it.
/// @return false when it is anything else or an int does not hold it; iValue is then untouched
bool TextToInt(std::string_view text, int& iValue);

/// The log line about a setting that is not what it should be, line feed included; a long value is cut.
/// @param strOrigin    file and, where known, line
/// @param pszComplaint such as "is no number"
std::string BadValueReport(const std::string& strOrigin, std::string_view key, std::string_view value,
                           const char* pszComplaint);

#endif
