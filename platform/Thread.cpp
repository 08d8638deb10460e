#include "platform/Waitable.h"

#include <cerrno>
#include <csignal>
#include <ctime>
#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

thread_local DWORD t_dwThreadId = 0; // 0: not asked for yet

// The only thread of a child process has another id than the one that it continues.
[[maybe_unused]] const int g_iForkHandler = pthread_atfork(nullptr, nullptr, [] { t_dwThreadId = 0; });

/// A thread; signalled when it has left its body.
class ThreadObject : public Waitable
{
public:
    ThreadObject()
        : Waitable(true, false)
    {}

    struct Beginning
    {
        std::shared_ptr<ThreadObject> pSelf;
        DWORD (*pfnBody)(void*);
        void* pArgument;
    };

    /// @return 0, or an error number
    int Start(std::unique_ptr<Beginning> pStart)
    {
        // A thread inherits the mask of its creator: no handler of the host may run in its work.
        sigset_t all;
        sigset_t before;
        sigfillset(&all);
        pthread_sigmask(SIG_SETMASK, &all, &before);
        const int iError = pthread_create(&m_Thread, nullptr, &ThreadObject::Run, pStart.get());
        pthread_sigmask(SIG_SETMASK, &before, nullptr);
        if (iError != 0)
            return iError;
        static_cast<void>(pStart.release()); // the thread's now
        std::unique_lock<std::mutex> lock(m_Mutex);
        m_Begun.wait(lock, [this] { return m_dwThreadId != 0; });
        return 0;
    }
    DWORD Id() const { return m_dwThreadId; }

    void OnClosed() override
    {
        Waitable::OnClosed();
        // One that has left its body is at its end in no time.
        if (IsSignalled() && pthread_equal(pthread_self(), m_Thread) == 0)
            pthread_join(m_Thread, nullptr);
        else
            pthread_detach(m_Thread);
    }

private:
    /// Also when the body is left by pthread_exit.
    struct Ending
    {
        ThreadObject& thread;
        ~Ending() { thread.Signal(); }
    };

    static void* Run(void* pStart)
    {
        const std::unique_ptr<Beginning> pBeginning(static_cast<Beginning*>(pStart));
        const Ending ending{*pBeginning->pSelf};
        pBeginning->pSelf->Begin();
        pBeginning->pfnBody(pBeginning->pArgument);
        return nullptr;
    }
    void Begin()
    {
        const std::lock_guard<std::mutex> guard(m_Mutex);
        m_dwThreadId = GetCurrentThreadId();
        m_Begun.notify_one();
    }

    pthread_t m_Thread{};
    std::mutex m_Mutex; // a leaf
    std::condition_variable m_Begun;
    DWORD m_dwThreadId = 0; // guarded by m_Mutex until it has begun
};

} // namespace

DWORD GetTickCount()
{
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<DWORD>(now.tv_sec) * 1000 + static_cast<DWORD>(now.tv_nsec / 1'000'000);
}

DWORD GetCurrentThreadId()
{
    // The system call costs more than all the rest of queuing a block.
    if (t_dwThreadId == 0)
        t_dwThreadId = static_cast<DWORD>(syscall(SYS_gettid));
    return t_dwThreadId;
}

HANDLE CreateThread(void* /*pAttributes*/, std::size_t /*uStackSize*/, DWORD (*pfnBody)(void*),
                    void* pArgument, DWORD /*dwFlags*/, DWORD* pThreadId)
{
    try
    {
        const auto pThread = std::make_shared<ThreadObject>();
        auto pStart =
            std::make_unique<ThreadObject::Beginning>(ThreadObject::Beginning{pThread, pfnBody, pArgument});
        // Its place in the table first: a thread that runs cannot be taken back.
        const HANDLE handle = AddKernelObject(pThread);
        if (handle == nullptr)
            return nullptr;
        const int iError = pThread->Start(std::move(pStart));
        if (iError == 0)
        {
            if (pThreadId != nullptr)
                *pThreadId = pThread->Id();
            return handle;
        }
        TakeKernelObject(handle);
        FailWith(static_cast<DWORD>(iError));
    }
    catch (const std::bad_alloc&)
    {
        FailWith(ENOMEM);
    }
    return nullptr;
}
