#ifndef TARN_CORE_LOGARGUMENTS_H
#define TARN_CORE_LOGARGUMENTS_H

#include "core/ApplicationCall.h"
#include "tarnadapterframe/TarnAdapterObject.h"

#include <cstdint>

/// @file
/// Values in the form in which the log's formats take them.

/// Low 32 bits of an address, for "0x%x".
template <class T>
std::uint32_t Low32(T* pAddress)
{
    return static_cast<std::uint32_t>(reinterpret_cast<std::uintptr_t>(pAddress));
}

/// Low 32 bits of a number, such as ACE's 64-bit thread ids.
inline std::uint32_t Low32(unsigned long ulNumber)
{
    return static_cast<std::uint32_t>(ulNumber);
}

/// A protocol id or another unsigned number, for "%d".
inline int AsInt(std::uint32_t ulNumber)
{
    return static_cast<int>(ulNumber);
}

/// Class name of an object's record, for "%s".
inline const char* ClassName(const TarnAdapterObject& object)
{
    const TarnAdapterRuntimeClass* pClass = RuntimeClassOf(object);
    return pClass != nullptr && pClass->m_pszClassName != nullptr ? pClass->m_pszClassName
                                                                  : "(no class name)";
}

#endif
