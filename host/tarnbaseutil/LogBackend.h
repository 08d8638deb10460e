#ifndef TARN_HOST_LOGBACKEND_H
#define TARN_HOST_LOGBACKEND_H

#include "LogSettings.h"
#include "LogWriter.h"

#include <spdlog/async_logger.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

/// The default log: a bounded queue, and a thread that writes what is in it.
///
/// Every line that Post takes is either written or counted. What is counted goes to the log as one line as
/// soon as the log thread writes again, so that lines and numbers together are all the lines there were.
///
/// There is one for the process, and it is never destroyed: lines are logged before main and by statics that
/// are destroyed after everything else, and waiting for a thread that a disk holds would keep the process.
/// A child process made by fork starts one of its own with its first line; it leaves alone what it has
/// inherited, whose thread has stayed in the parent.
///
/// Locks, in this order: the start's, m_ConfigureMutex, the cache of INI files, m_WritingMutex,
/// m_SettingsMutex or m_FlushMutex, spdlog's queue.
class LogBackend
{
public:
    /// The process's backend; the first call starts it. An exception means it could not be started, and the
    /// next call tries again.
    static LogBackend& Instance();

    /// The process's backend if it has been started, else null. Waits for a start under way.
    static LogBackend* InstanceIfStarted() noexcept;

    /// Whether Post would let a line of this level and these flags through.
    bool Takes(int iLevel, bool bPrint, bool bLog) const noexcept
    {
        return bPrint || bLog || iLevel <= m_iLevel.load(std::memory_order_relaxed);
    }

    /// Queues one line if its level or its flags let it through. Never waits, except after the process has
    /// begun to exit. Any thread.
    /// @return true when the line has been queued
    bool Post(const std::string& strTag, int iLevel, const char* pszText, bool bPrint, bool bLog) noexcept;

    /// Waits until all lines of before have been written, flushed or counted. Any thread but the log's own.
    bool Flush(std::chrono::microseconds timeout);

    /// Reads the settings again and has the log thread open the log anew. Any thread.
    void Configure() noexcept;

    LogBackend(const LogBackend&) = delete;
    LogBackend& operator=(const LogBackend&) = delete;

private:
    class QueueEnd;
    class ForkHandlers;

    static LogBackend& StartLocked();

    LogBackend();
    ~LogBackend() = default;

    void Adopt(LogSettings settings);
    bool Enqueue(const std::string& strTag, int iLevel, const char* pszText, LogRoute route) noexcept;
    bool IsCrowded() const;
    bool Drop();
    void FlushAtExit();
    void FlushWhileExiting();

    // Run on the log thread.
    void Handle(const spdlog::details::log_msg& msg) noexcept;
    void WriteQueued(const spdlog::details::log_msg& msg) noexcept;
    void AdoptSettings();
    void ReportDrops(std::uint64_t uOverrun, bool bEmpty) noexcept;
    void FlushIfDue(bool bEmpty) noexcept;
    void Linger() noexcept;

    // Constant after construction. The queue is spdlog's, with a lock of its own.
    std::shared_ptr<spdlog::details::thread_pool> m_pQueue;
    std::shared_ptr<spdlog::async_logger> m_pLogger;

    // Read and written by every thread.
    std::atomic<int> m_iLevel{TARN_LOG_WARNING};
    std::atomic<std::uint64_t> m_uPosted{0};   ///< lines queued or about to be
    std::atomic<std::uint64_t> m_uDeparted{0}; ///< lines that have left the queue; written by the log thread
    std::atomic<std::uint64_t> m_uDropped{0};  ///< lines kept out of the queue, not yet fetched for a report
    std::atomic<unsigned> m_uFlushers{0};      ///< threads in Flush
    std::atomic<unsigned> m_uGeneration{0};    ///< of m_Settings
    std::atomic<bool> m_bExiting{false};       ///< from now on every line is flushed by its caller
    std::atomic<std::int64_t> m_iExitWaitedUs{0}; ///< by all flushes since then
    std::atomic<bool> m_bStalled{false};          ///< while exiting, a flush ran out of time: no more waiting

    std::mutex m_ConfigureMutex; ///< one reading of the settings at a time, the latest is adopted last

    // Guarded by m_SettingsMutex.
    std::mutex m_SettingsMutex;
    LogSettings m_Settings;

    // Guarded by m_FlushMutex. The queue's lock may be taken with it held, no other.
    std::mutex m_FlushMutex;
    std::condition_variable m_FlushDone;
    std::condition_variable m_Hurry; ///< the log thread is to look at the queue; a missed signal costs a nap
    std::uint64_t m_uFlushed = 0;    ///< m_uDeparted as of the last flush

    // The log thread's own.
    LogWriter m_Writer;
    unsigned m_uAdopted = 0;          ///< generation of the settings in use
    std::uint64_t m_uHandled = 0;     ///< lines taken out of the queue
    std::uint64_t m_uOverrunSeen = 0; ///< lines pushed out of the full queue and counted in m_uUnreported
    std::uint64_t m_uUnreported = 0;  ///< dropped lines still to be reported
    std::chrono::steady_clock::time_point m_tNextReport;
};

#endif
