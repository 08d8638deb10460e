#ifndef TARN_PLATFORM_KERNELOBJECT_H
#define TARN_PLATFORM_KERNELOBJECT_H

#include "platform/tarnplatform.h"

#include <memory>

/// What a handle stands for. The table of handles owns it, together with the calls that are using it just now.
class KernelObject
{
public:
    KernelObject() = default;
    virtual ~KernelObject() = default;
    KernelObject(const KernelObject&) = delete;
    KernelObject& operator=(const KernelObject&) = delete;

    /// Its handle has been closed: ends what is under way.
    virtual void OnClosed() = 0;
};

/// Puts an object into the table. @return its handle; null without memory
HANDLE AddKernelObject(std::shared_ptr<KernelObject> pObject) noexcept;
/// Takes an object out of the table; null when it is not there.
std::shared_ptr<KernelObject> TakeKernelObject(HANDLE handle);
/// The object of a handle; null when it has been closed.
std::shared_ptr<KernelObject> FindKernelObject(HANDLE handle);

/// The same for a handle of one kind. Null: the last error is EBADF.
template <class Kind>
std::shared_ptr<Kind> FindKernelObjectOf(HANDLE handle);

/// Sets what GetLastError tells the calling thread. @return FALSE
BOOL FailWith(DWORD dwError);

template <class Kind>
std::shared_ptr<Kind> FindKernelObjectOf(HANDLE handle)
{
    constexpr DWORD BAD_HANDLE = 9; // EBADF
    auto pObject = std::dynamic_pointer_cast<Kind>(FindKernelObject(handle));
    if (pObject == nullptr)
        FailWith(BAD_HANDLE);
    return pObject;
}

#endif
