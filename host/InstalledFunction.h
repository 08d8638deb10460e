#ifndef TARN_HOST_INSTALLEDFUNCTION_H
#define TARN_HOST_INSTALLEDFUNCTION_H

#include <cxxabi.h>

#include <atomic>
#include <utility>

/// The seam through which a host process brings a service of its own: a plain function that may be installed,
/// replaced and removed while other threads call it. Constant-initialised, so it works before main.
template <class Result, class... Args>
class InstalledFunction
{
public:
    using Pointer = Result (*)(Args...);

    Pointer Install(Pointer pfnNew) noexcept { return m_pfn.exchange(pfnNew, std::memory_order_acq_rel); }

    bool IsInstalled() const noexcept { return m_pfn.load(std::memory_order_relaxed) != nullptr; }

    /// Calls the installed function; without one the result is fallback(). An exception that the installed
    /// function lets out goes no further: the result is then `failed`.
    template <class Fallback, class... Actual>
    Result CallOr(Result failed, Fallback&& fallback, Actual&&... args) const
    {
        const Pointer pfn = m_pfn.load(std::memory_order_acquire);
        if (pfn == nullptr)
            return fallback();
        try
        {
            return pfn(std::forward<Actual>(args)...);
        }
        catch (abi::__forced_unwind&)
        {
            throw; // the thread is being cancelled; swallowing that would abort the process
        }
        catch (...)
        {
            return failed;
        }
    }

private:
    std::atomic<Pointer> m_pfn{nullptr};
};

#endif
