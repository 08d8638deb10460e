#ifndef TARNADAPTERFRAME_TARNADAPTERTRACE_H
#define TARNADAPTERFRAME_TARNADAPTERTRACE_H

/// @file
/// The framework's log functions; adapters may use them too. Both hand their text to the host's log under the
/// module tag "tarnadpfrm", may be called from any thread, and let no exception out. Levels: 0 a resource
/// could not be created, 1 an error, 2 a refused argument or a warning, 3 information.

#include "tarnadapterframe/Export.h"

/// Logs a printf-style message; the host decides by the level where it goes.
///
/// A message that cannot be formatted, is empty, or has more than 2048 characters is not logged; a line on
/// the console names errno instead.
TARN_ADAPTER_API void TarnAdapterFrmtTrace(int iLevel, const char* pszFormat, ...) TARN_PRINTF_FORMAT(2, 3);

/// Logs a text as it is, without formatting it.
/// @param bPrint  asks the host to show the text on its console
/// @param bLog    asks the host to write the text to its log
TARN_ADAPTER_API void TarnAdapterTrace(int iLevel, const char* pszText, bool bPrint, bool bLog);

#endif
