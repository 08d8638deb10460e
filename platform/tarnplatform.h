#ifndef TARN_PLATFORM_TARNPLATFORM_H
#define TARN_PLATFORM_TARNPLATFORM_H

/// @file
/// The kernel functions that the library calls, under their own names and with their own result rules. On
/// Windows they are the system's; elsewhere this layer implements exactly what is called and nothing more.

#if defined(_WIN32)
#include <windows.h>
#else

#include <cstdint>

using DWORD = std::uint32_t;

/// Suspends the calling thread for at least dwMilliseconds, whatever signals it handles meanwhile and however
/// the system clock is changed.
void Sleep(DWORD dwMilliseconds);

/// Milliseconds since some moment before the process, by a steady clock; starts again at 0 after 49.7 days.
DWORD GetTickCount();

/// The kernel's id of the calling thread, see gettid(2).
DWORD GetCurrentThreadId();

#endif

#endif
