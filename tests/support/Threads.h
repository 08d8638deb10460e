#ifndef TARN_TESTS_SUPPORT_THREADS_H
#define TARN_TESTS_SUPPORT_THREADS_H

#include <functional>

/// Threads of this process, see proc(5).
int ThreadCount();

/// Open descriptors of this process.
int DescriptorCount();

/// Whether the thread of this process that was started last blocks the signal.
bool NewestThreadBlocks(int iSignal);

/// Runs fn(0) … fn(iThreads - 1), each on a thread of its own, released together; returns when all have
/// ended.
void RunTogether(int iThreads, const std::function<void(int)>& fn);

#endif
