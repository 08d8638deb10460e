#ifndef TARN_HOST_INICACHE_H
#define TARN_HOST_INICACHE_H

#include "IniFile.h"

#include <memory>
#include <string>

/// The file's current version, parsed; one that is missing or cannot be read is empty. A version is parsed
/// once and shared by everybody until the file changes. Nothing is logged here: whoever asked and can log
/// claims the reports.
///
/// Any thread. It never returns null; std::bad_alloc may leave it.
std::shared_ptr<const IniFile> OpenIniFile(const std::string& strPath);

/// Keep the cache as it is across a fork: locked before, unlocked in both processes after it.
void LockIniCache();
void UnlockIniCache();

#endif
