#ifndef TARNADAPTERFRAME_EXPORT_H
#define TARNADAPTERFRAME_EXPORT_H

/// @file
/// Marks what the shared library exports; everything else in it is hidden.

#if defined(_WIN32)
#if defined(TARNADAPTERFRAME_BUILD)
#define TARN_ADAPTER_API __declspec(dllexport)
#else
#define TARN_ADAPTER_API __declspec(dllimport)
#endif
#else
#define TARN_ADAPTER_API __attribute__((visibility("default")))
#endif

/// Lets the compiler check the arguments of a printf-style function; both positions count from 1.
#if defined(__GNUC__)
#define TARN_PRINTF_FORMAT(iFormat, iFirst) __attribute__((format(printf, iFormat, iFirst)))
#else
#define TARN_PRINTF_FORMAT(iFormat, iFirst)
#endif

#endif
