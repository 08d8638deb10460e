#ifndef TARN_CORE_APPLICATIONCALL_H
#define TARN_CORE_APPLICATIONCALL_H

#include <cxxabi.h>

#include <exception>
#include <new>
#include <typeinfo>

class TarnAdapterObject;
struct TarnAdapterRuntimeClass;

/// @file
/// The way into code that is not the library's: adapters, messages, callbacks. Whatever they throw is logged
/// with the name of their class and goes no further.

/// Logs at level 1 that an exception left pszOperation of a class. pszWhat may be null.
void LogApplicationException(const char* pszOperation, const char* pszClass, const char* pszWhat);
/// The same for a class without record; its name is taken from the language's type information.
void LogApplicationException(const char* pszOperation, const std::type_info& type, const char* pszWhat);

/// Calls fn. @param who  class of the called object: its name, or its type, which stays good when the call
/// deletes the object. @return true when fn returned, false when it threw.
template <class Who, class Function>
bool CallApplication(const char* pszOperation, const Who& who, Function&& fn)
{
    try
    {
        fn();
        return true;
    }
    catch (abi::__forced_unwind&)
    {
        throw; // the thread is being cancelled; swallowing that would abort the process
    }
    catch (const std::exception& error)
    {
        LogApplicationException(pszOperation, who, error.what());
    }
    catch (...)
    {
        LogApplicationException(pszOperation, who, nullptr);
    }
    return false;
}

/// Record of an object's class; null when the object has none to give.
const TarnAdapterRuntimeClass* RuntimeClassOf(const TarnAdapterObject& object);

/// Logs at level 0 that pszOperation ran out of memory.
void LogOutOfMemory(const char* pszOperation);

/// Runs the body of an exported operation that allocates; its result, or `failed` when there was no memory,
/// which is logged: no exception crosses the library's interface.
template <class Result, class Function>
Result WithMemory(const char* pszOperation, Result failed, Function&& fn)
{
    try
    {
        return fn();
    }
    catch (const std::bad_alloc&)
    {
        LogOutOfMemory(pszOperation);
        return failed;
    }
}

#endif
