#include "platform/KernelObject.h"

#include <cerrno>
#include <mutex>
#include <new>
#include <shared_mutex>
#include <unordered_map>

namespace {

thread_local DWORD t_dwLastError = 0;

/// Never destroyed: threads may outlive the statics.
struct Table
{
    std::shared_mutex mutex; // a leaf
    std::uintptr_t uLast = 0;
    std::unordered_map<std::uintptr_t, std::shared_ptr<KernelObject>> objects;
};

Table& Handles()
{
    static auto& table = *new Table;
    return table;
}

} // namespace

DWORD GetLastError()
{
    return t_dwLastError;
}

BOOL FailWith(DWORD dwError)
{
    t_dwLastError = dwError;
    return FALSE;
}

HANDLE AddKernelObject(std::shared_ptr<KernelObject> pObject) noexcept
{
    try
    {
        Table& table = Handles();
        const std::lock_guard<std::shared_mutex> guard(table.mutex);
        const std::uintptr_t uHandle = table.uLast + 1;
        table.objects.emplace(uHandle, std::move(pObject));
        table.uLast = uHandle;
        return reinterpret_cast<HANDLE>(uHandle);
    }
    catch (const std::bad_alloc&)
    {
        FailWith(ENOMEM);
        return nullptr;
    }
}

std::shared_ptr<KernelObject> FindKernelObject(HANDLE handle)
{
    Table& table = Handles();
    const std::shared_lock<std::shared_mutex> guard(table.mutex);
    const auto it = table.objects.find(reinterpret_cast<std::uintptr_t>(handle));
    return it != table.objects.end() ? it->second : nullptr;
}

std::shared_ptr<KernelObject> TakeKernelObject(HANDLE handle)
{
    Table& table = Handles();
    const std::lock_guard<std::shared_mutex> guard(table.mutex);
    const auto it = table.objects.find(reinterpret_cast<std::uintptr_t>(handle));
    if (it == table.objects.end())
        return nullptr;
    auto pObject = std::move(it->second);
    table.objects.erase(it);
    return pObject;
}

BOOL CloseHandle(HANDLE handle)
{
    const auto pObject = TakeKernelObject(handle);
    if (pObject == nullptr)
        return FailWith(EBADF);
    pObject->OnClosed();
    return TRUE;
}
