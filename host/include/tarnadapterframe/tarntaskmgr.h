#ifndef TARNADAPTERFRAME_TARNTASKMGR_H
#define TARNADAPTERFRAME_TARNTASKMGR_H

/// @file
/// The host's task-manager library: the process's exit flag, which ends blocking waits for answers early.
/// Both functions may be called from any thread; no exception leaves them.

#if defined(_WIN32)
#define TARN_TASKMGR_API
#else
#define TARN_TASKMGR_API __attribute__((visibility("default")))
#endif

/// True while the host process is exiting. False unless the host has installed its flag.
TARN_TASKMGR_API bool TarnIsExit();

/// A host's own exit flag. It is asked once a second by every thread that waits for an answer.
using TarnExitQuery = bool (*)();

/// Makes TarnIsExit ask pfnQuery; null: never exiting. @return what was installed before, or null.
TARN_TASKMGR_API TarnExitQuery TarnInstallExit(TarnExitQuery pfnQuery);

#endif
