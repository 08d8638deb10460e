#include "tarnadapterframe/TarnAdapterObject.h"

#include "core/ApplicationCall.h"
#include "tarnadapterframe/TarnAdapterTrace.h"

#include <cstring>
#include <type_traits>

static_assert(std::is_aggregate_v<TarnAdapterRuntimeClass> &&
              std::is_trivially_copyable_v<TarnAdapterRuntimeClass>);

// Both are constant-initialised, so registrars of any file and library may run before or after this one's.
TarnAdapterRuntimeClass* TarnAdapterRuntimeClass::m_pFirstClass = nullptr;

TarnAdapterRuntimeClass TarnAdapterObject::classTarnAdapterObject = {
    "TarnAdapterObject", static_cast<int>(sizeof(TarnAdapterObject)), 0xFFFF, nullptr, nullptr, nullptr};

TarnAdapterObject* TarnAdapterRuntimeClass::CreateObject() const
{
    TarnAdapterObject* pObject = nullptr;
    if (m_pfnCreateObject != nullptr)
    {
        const char* pszClass = m_pszClassName != nullptr ? m_pszClassName : "(no class name)";
        CallApplication("CreateObject", pszClass, [&] { pObject = m_pfnCreateObject(); });
    }
    return pObject;
}

TARN_ADAPTER_CLASSINIT::TARN_ADAPTER_CLASSINIT(TarnAdapterRuntimeClass* pNewClass)
{
    if (pNewClass == nullptr)
    {
        TarnAdapterFrmtTrace(2, "TARN_ADAPTER_CLASSINIT fail, input para pNewClass=null\n");
        return;
    }
    // Chained twice, a record would close the chain into a ring.
    for (const TarnAdapterRuntimeClass* pClass = TarnAdapterRuntimeClass::m_pFirstClass; pClass != nullptr;
         pClass = pClass->m_pNextClass)
    {
        if (pClass == pNewClass)
        {
            TarnAdapterFrmtTrace(2, "TARN_ADAPTER_CLASSINIT, the class is already registered\n");
            return;
        }
    }
    pNewClass->m_pNextClass = TarnAdapterRuntimeClass::m_pFirstClass;
    TarnAdapterRuntimeClass::m_pFirstClass = pNewClass;
}

TarnAdapterRuntimeClass* TarnAdapterObject::GetRuntimeClass() const
{
    return &classTarnAdapterObject;
}

TarnAdapterObject::~TarnAdapterObject() = default;

bool TarnAdapterObject::IsKindOf(const TarnAdapterRuntimeClass* pClass) const
{
    if (pClass == nullptr || pClass->m_pszClassName == nullptr)
    {
        TarnAdapterFrmtTrace(2, "TarnAdapterObject::IsKindOf fail, input para pClass=null\n");
        return false;
    }
    for (const TarnAdapterRuntimeClass* pOwn = RuntimeClassOf(*this); pOwn != nullptr;
         pOwn = pOwn->m_pBaseClass)
    {
        if (pOwn->m_pszClassName != nullptr && std::strcmp(pOwn->m_pszClassName, pClass->m_pszClassName) == 0)
            return true;
    }
    return false;
}
