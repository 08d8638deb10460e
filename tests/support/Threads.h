#ifndef TARN_TESTS_SUPPORT_THREADS_H
#define TARN_TESTS_SUPPORT_THREADS_H

#include <functional>
#include <set>

/// Kernel ids of this process's threads, see proc(5).
std::set<int> Threads();

/// Open descriptors of this process.
int DescriptorCount();

/// Whether a thread of this process blocks the signal.
bool ThreadBlocks(int iThread, int iSignal);

/// Runs fn(0) … fn(iThreads - 1), each on a thread of its own, released together; returns when all have
/// ended.
void RunTogether(int iThreads, const std::function<void(int)>& fn);

#endif
