#include "LogBackend.h"

#include "CancellationBlocked.h"
#include "Configuration.h"
#include "IniCache.h"
#include "LogText.h"

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <poll.h>
#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <vector>

namespace {

const std::size_t QUEUE_LINES = 8192;
const std::uint64_t CROWDED_LINES = QUEUE_LINES / 4 * 3; ///< from here on information is dropped
const std::uint64_t HURRY_LINES = 256;                   ///< how often a lingering log thread is called
constexpr auto EXIT_FLUSH_TIME = std::chrono::seconds(2);
constexpr auto REPORT_INTERVAL = std::chrono::milliseconds(100); ///< between reports while lines are dropped
constexpr auto LINGER_TIME = std::chrono::milliseconds(100);
constexpr auto LINGER_NAP = std::chrono::milliseconds(1); ///< the longest that a line waits meanwhile

// Held while the backend is started, and across each fork.
std::mutex g_StartMutex;
std::atomic<LogBackend*> g_pStarted{nullptr}; ///< changed under g_StartMutex
thread_local std::size_t t_uThreadId = 0;     ///< 0: not asked for yet
LogBackend* g_pInherited = nullptr;           ///< from the parent process, kept only as what is not leaked

/// Blocks every signal for threads that are created meanwhile: the host's handlers do not run on the log
/// thread, and a closed pipe is an error of write there, not the end of the process.
class SignalsBlocked
{
public:
    SignalsBlocked()
    {
        sigset_t all;
        sigfillset(&all);
        pthread_sigmask(SIG_SETMASK, &all, &m_Before);
    }
    ~SignalsBlocked() { pthread_sigmask(SIG_SETMASK, &m_Before, nullptr); }
    SignalsBlocked(const SignalsBlocked&) = delete;
    SignalsBlocked& operator=(const SignalsBlocked&) = delete;

private:
    sigset_t m_Before = {};
};

/// The kernel's id of the calling thread. spdlog's own way keeps the parent's in a child process.
std::size_t ThreadId()
{
    if (t_uThreadId == 0)
        t_uThreadId = static_cast<std::size_t>(syscall(SYS_gettid));
    return t_uThreadId;
}

/// A queued line carries its level and its route in the line number of its source position.
int Pack(int iLevel, LogRoute route)
{
    return iLevel * 4 + (route.bPrint ? 2 : 0) + (route.bLog ? 1 : 0);
}

int LevelOf(const spdlog::details::log_msg& msg)
{
    return msg.source.line / 4;
}

LogRoute RouteOf(const spdlog::details::log_msg& msg)
{
    return {(msg.source.line & 2) != 0, (msg.source.line & 1) != 0};
}

/// The end of the process does not wait for stderr either.
void TellLinesLeft(std::uint64_t uLines)
{
    pollfd ready = {STDERR_FILENO, POLLOUT, 0};
    if (poll(&ready, 1, 0) != 1 || (ready.revents & POLLOUT) == 0)
        return;
    char szText[128];
    const int iLength = std::snprintf(
        szText, sizeof szText, "%s: the log stands still, about %llu lines are lost with the process\n",
        BASEUTIL_TAG, static_cast<unsigned long long>(uLines));
    WriteToStderr({szText, static_cast<std::size_t>(iLength)});
}

} // namespace

/// Where the queue's thread hands the lines over.
class LogBackend::QueueEnd final : public spdlog::sinks::sink
{
public:
    explicit QueueEnd(LogBackend& backend)
        : m_Backend(backend)
    {}

    void log(const spdlog::details::log_msg& msg) override { m_Backend.Handle(msg); }
    void flush() override {}
    void set_pattern(const std::string& /*pattern*/) override {}
    void set_formatter(std::unique_ptr<spdlog::formatter> /*formatter*/) override {}

private:
    LogBackend& m_Backend;
};

/// Without these a fork in the midst of a start or a look-up would leave the child with locks that nobody opens. What
/// the log thread is at does not matter: the child makes a log of its own and does not touch the parent's.
class LogBackend::ForkHandlers
{
public:
    /// As the library is loaded: nothing can have been started before.
    ForkHandlers() { pthread_atfork(&Prepare, &InParent, &InChild); }

private:
    static void Prepare()
    {
        g_StartMutex.lock();
        LockIniCache();
    }

    static void InParent()
    {
        UnlockIniCache();
        g_StartMutex.unlock();
    }

    static void InChild()
    {
        if (g_pStarted != nullptr)
            g_pInherited = g_pStarted;
        g_pStarted = nullptr;
        t_uThreadId = 0; // the child's only thread has another one
        UnlockIniCache();
        g_StartMutex.unlock();
    }

    static ForkHandlers s_Registered;
};

LogBackend::ForkHandlers LogBackend::ForkHandlers::s_Registered;

LogBackend& LogBackend::Instance()
{
    LogBackend* const pStarted = g_pStarted.load(std::memory_order_acquire);
    if (pStarted != nullptr)
        return *pStarted;
    const CancellationBlocked uncancelled;
    const std::lock_guard<std::mutex> lock(g_StartMutex);
    return g_pStarted != nullptr ? *g_pStarted : StartLocked();
}

LogBackend* LogBackend::InstanceIfStarted() noexcept
{
    const std::lock_guard<std::mutex> lock(g_StartMutex);
    return g_pStarted;
}

/// Nothing in here may log by way of TarnDebugMgr: it would wait for itself.
LogBackend& LogBackend::StartLocked()
{
    static bool s_bExitHandled = false; // guarded by g_StartMutex; a child process inherits both
    auto* pBackend = new LogBackend;
    pBackend->Configure();
    if (!s_bExitHandled)
        s_bExitHandled = std::atexit([] {
                             if (LogBackend* pStarted = InstanceIfStarted())
                                 pStarted->FlushAtExit();
                         }) == 0;
    g_pStarted.store(pBackend, std::memory_order_release);
    return *pBackend;
}

LogBackend::LogBackend()
    : m_pLogger(std::make_shared<spdlog::async_logger>("", std::make_shared<QueueEnd>(*this),
                                                       std::weak_ptr<spdlog::details::thread_pool>()))
{
    // Handle lets nothing out. spdlog's own way to tell would be a line on stderr.
    m_pLogger->set_error_handler([](const std::string&) {});
    const SignalsBlocked blocked;
    m_pQueue = std::make_shared<spdlog::details::thread_pool>(
        QUEUE_LINES, 1, [] { pthread_setname_np(pthread_self(), "tarnlog"); });
}

void LogBackend::Configure() noexcept
{
    const CancellationBlocked uncancelled;
    const std::lock_guard<std::mutex> lock(m_ConfigureMutex);
    try
    {
        std::vector<IniReport> reports;
        Adopt(ReadLogSettings(reports));
        for (const IniReport& report : reports)
            Post(BASEUTIL_TAG, report.eLevel, report.strText.c_str(), false, false);
    }
    catch (...)
    {
        Post(BASEUTIL_TAG, TARN_LOG_RESOURCE, "No memory to read the log's settings\n", false, false);
    }
}

void LogBackend::Adopt(LogSettings settings)
{
    const std::lock_guard<std::mutex> lock(m_SettingsMutex);
    m_iLevel = settings.iLevel;
    m_Settings = std::move(settings);
    ++m_uGeneration;
}

bool LogBackend::Post(const std::string& strTag, int iLevel, const char* pszText, bool bPrint,
                      bool bLog) noexcept
{
    if (!Takes(iLevel, bPrint, bLog))
        return false;
    const LogRoute route = {bPrint, Takes(iLevel, false, bLog)};
    const int iKnownLevel = iLevel < TARN_LOG_RESOURCE ? TARN_LOG_RESOURCE
                            : iLevel > TARN_LOG_INFO   ? TARN_LOG_INFO
                                                       : iLevel;
    if (iKnownLevel == TARN_LOG_INFO && IsCrowded() && Drop())
        return false;
    const bool bTaken = Enqueue(strTag, iKnownLevel, pszText, route);
    if (m_bExiting && !m_bStalled)
        FlushWhileExiting();
    return bTaken;
}

bool LogBackend::Enqueue(const std::string& strTag, int iLevel, const char* pszText, LogRoute route) noexcept
{
    using spdlog::string_view_t;
    // Counted before it is queued, so that no count of departed lines gets ahead of it.
    if (++m_uPosted % HURRY_LINES == 0)
        m_Hurry.notify_one(); // a burst
    try
    {
        spdlog::details::log_msg msg(spdlog::source_loc{nullptr, Pack(iLevel, route), nullptr},
                                     string_view_t(strTag.data(), strTag.size()), spdlog::level::info,
                                     string_view_t(pszText, std::strlen(pszText)));
        msg.thread_id = ThreadId();
        m_pQueue->post_log(std::shared_ptr<spdlog::async_logger>(m_pLogger), msg,
                           spdlog::async_overflow_policy::overrun_oldest);
        return true;
    }
    catch (...)
    {
        ++m_uDropped; // no memory to copy the text; reported with the next line
        --m_uPosted;
        return false;
    }
}

bool LogBackend::IsCrowded() const
{
    const std::uint64_t uDeparted = m_uDeparted;
    return m_uPosted - uDeparted > CROWDED_LINES;
}

/// Counts a line as dropped. @return false when it has to be queued after all
bool LogBackend::Drop()
{
    ++m_uDropped;
    if (m_uDeparted < m_uPosted)
        return true; // the log thread looks at the count once more after the line that it still has to handle
    // The queue has drained meanwhile, and perhaps nobody will come to report the drop. So it is taken back,
    // unless it has been fetched already.
    std::uint64_t uDropped = m_uDropped;
    while (uDropped > 0 && !m_uDropped.compare_exchange_weak(uDropped, uDropped - 1))
    {}
    return uDropped == 0;
}

bool LogBackend::Flush(std::chrono::microseconds timeout)
{
    const CancellationBlocked uncancelled;
    const auto tDeadline = std::chrono::steady_clock::now() + timeout;
    const std::uint64_t uTarget = m_uPosted;
    ++m_uFlushers;
    m_Hurry.notify_one();
    std::unique_lock<std::mutex> lock(m_FlushMutex);
    const bool bDone = m_FlushDone.wait_until(lock, tDeadline, [&] { return m_uFlushed >= uTarget; });
    lock.unlock();
    --m_uFlushers;
    return bDone;
}

void LogBackend::FlushAtExit()
{
    m_bExiting = true;
    FlushWhileExiting();
}

/// One limit for all that is waited in the exit: a log that moves slowly must not hold the process with every late
/// line anew. What the process does between its late lines does not count.
void LogBackend::FlushWhileExiting()
{
    using namespace std::chrono;
    const auto tStart = steady_clock::now();
    const bool bDone = Flush(EXIT_FLUSH_TIME - microseconds(m_iExitWaitedUs));
    m_iExitWaitedUs += duration_cast<microseconds>(steady_clock::now() - tStart).count();
    if (!bDone && !m_bStalled.exchange(true))
        TellLinesLeft(m_uPosted - m_uDeparted);
}

void LogBackend::Handle(const spdlog::details::log_msg& msg) noexcept
{
    WriteQueued(msg);
    ++m_uHandled;
    // The queue is asked as little as may be: it is locked each time, and those who log want it.
    const std::uint64_t uOverrun = m_pQueue->overrun_counter();
    m_uDeparted = m_uHandled + uOverrun;
    const bool bEmpty = m_pQueue->queue_size() == 0;
    ReportDrops(uOverrun, bEmpty); // after m_uDeparted is set, see Drop
    FlushIfDue(bEmpty);
    if (bEmpty)
        Linger();
}

void LogBackend::WriteQueued(const spdlog::details::log_msg& msg) noexcept
{
    try
    {
        AdoptSettings();
        if (!m_Writer.Write(msg, LevelOf(msg), RouteOf(msg)))
            ++m_uUnreported;
    }
    catch (...)
    {
        ++m_uUnreported; // no memory to format it
    }
}

void LogBackend::AdoptSettings()
{
    if (m_uAdopted == m_uGeneration)
        return;
    std::unique_lock<std::mutex> lock(m_SettingsMutex);
    m_uAdopted = m_uGeneration;
    LogSettings settings = m_Settings;
    lock.unlock();
    m_Writer.Configure(std::move(settings));
}

void LogBackend::ReportDrops(std::uint64_t uOverrun, bool bEmpty) noexcept
{
    m_uUnreported += uOverrun - m_uOverrunSeen + m_uDropped.exchange(0) + m_Writer.TakeLost();
    m_uOverrunSeen = uOverrun;
    if (m_uUnreported == 0)
        return;
    const auto tNow = std::chrono::steady_clock::now();
    if (tNow < m_tNextReport && m_uFlushers == 0 && !bEmpty)
        return;
    m_tNextReport = tNow + REPORT_INTERVAL;
    try
    {
        if (m_Writer.WriteOwn(std::to_string(m_uUnreported) + " log lines were dropped\n"))
            m_uUnreported = 0;
    }
    catch (...)
    {
        // No memory: the number stays for the next time.
    }
}

void LogBackend::FlushIfDue(bool bEmpty) noexcept
{
    if (m_uFlushers == 0 && !m_Writer.IsFlushDue() && !bEmpty)
        return;
    m_Writer.Flush();
    {
        const std::lock_guard<std::mutex> lock(m_FlushMutex);
        m_uFlushed = m_uDeparted;
    }
    m_FlushDone.notify_all();
}

/// Waits for the next line without sleeping on the queue: waking a sleeper costs the caller of Trace many
/// times what a line does otherwise. After a while of silence the queue is the better place to wait.
void LogBackend::Linger() noexcept
{
    const auto tEnd = std::chrono::steady_clock::now() + LINGER_TIME;
    std::unique_lock<std::mutex> lock(m_FlushMutex);
    while (m_pQueue->queue_size() == 0 && std::chrono::steady_clock::now() < tEnd)
        m_Hurry.wait_for(lock, LINGER_NAP);
}
