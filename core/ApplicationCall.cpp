#include "core/ApplicationCall.h"

#include "tarnadapterframe/TarnAdapterObject.h"
#include "tarnadapterframe/TarnAdapterTrace.h"

#include <cstdlib>
#include <memory>

void LogApplicationException(const char* pszOperation, const char* pszClass, const char* pszWhat)
{
    TarnAdapterFrmtTrace(1, "%s of %.512s, exception: %.1024s\n", pszOperation, pszClass,
                         pszWhat != nullptr ? pszWhat : "not a std::exception");
}

void LogApplicationException(const char* pszOperation, const std::type_info& type, const char* pszWhat)
{
    int iStatus = 0;
    const std::unique_ptr<char, decltype(&std::free)> pszName(
        abi::__cxa_demangle(type.name(), nullptr, nullptr, &iStatus), &std::free);
    LogApplicationException(pszOperation, pszName != nullptr ? pszName.get() : type.name(), pszWhat);
}

const TarnAdapterRuntimeClass* RuntimeClassOf(const TarnAdapterObject& object)
{
    const TarnAdapterRuntimeClass* pClass = nullptr;
    CallApplication("GetRuntimeClass", typeid(object), [&] { pClass = object.GetRuntimeClass(); });
    return pClass;
}

void LogOutOfMemory(const char* pszOperation)
{
    TarnAdapterFrmtTrace(0, "%s, out of memory\n", pszOperation);
}
