#ifndef TARNADAPTERFRAME_TARNADAPTEROBJECT_H
#define TARNADAPTERFRAME_TARNADAPTEROBJECT_H

/// @file
/// Class records: the name, the size, the factory and the base of a class at run time. The framework prints
/// the name of an object's record in its log and tests objects with IsKindOf.
///
/// A class that takes part has a public static record named `class` followed by its name, a public static
/// `CreateObject`, an override of GetRuntimeClass and one static registrar:
///
///     // in the header
///     class Alarm : public TarnAdapterObject
///     {
///     public:
///         static TarnAdapterRuntimeClass classAlarm;
///         static TarnAdapterObject* CreateObject() { return new Alarm; }
///         TarnAdapterRuntimeClass* GetRuntimeClass() const override { return &classAlarm; }
///     };
///
///     // in the source file
///     TarnAdapterRuntimeClass Alarm::classAlarm = {
///         "Alarm", static_cast<int>(sizeof(Alarm)), 0xFFFF, &Alarm::CreateObject,
///         &TarnAdapterObject::classTarnAdapterObject, nullptr};
///     static const TARN_ADAPTER_CLASSINIT initAlarm(&Alarm::classAlarm);
///
/// Records and chain are written only while statics are constructed and are read without locks afterwards.
/// They must stay loaded: a library that registers a record must not be unloaded before the process ends.

#include "tarnadapterframe/Export.h"

#include <cstdint>

class TarnAdapterObject;

/// Record of one class. A plain structure: copied field by field, initialised as an aggregate.
struct TARN_ADAPTER_API TarnAdapterRuntimeClass
{
    const char* m_pszClassName;                ///< the class name; the text must outlive the record
    int m_nObjectSize;                         ///< size of one instance in bytes
    std::uint32_t m_nSchema;                   ///< schema number; 0xFFFF for every class of the framework
    TarnAdapterObject* (*m_pfnCreateObject)(); ///< factory; null for a class that cannot be created
    TarnAdapterRuntimeClass* m_pBaseClass;     ///< record of the base class; null for the root
    TarnAdapterRuntimeClass* m_pNextClass;     ///< next record of the chain; set by the registrar

    /// Makes a new default-constructed instance.
    /// @return the instance, owned by the caller; null when the class has no factory, or when that threw
    TarnAdapterObject* CreateObject() const;

    /// Head of the chain of all registered records, the newest first; null before the first registration.
    static TarnAdapterRuntimeClass* m_pFirstClass;
};

/// Registrar: a static instance puts one record at the head of the chain. A null record, or one that is in
/// the chain already, changes nothing.
class TARN_ADAPTER_API TARN_ADAPTER_CLASSINIT
{
public:
    explicit TARN_ADAPTER_CLASSINIT(TarnAdapterRuntimeClass* pNewClass);
};

/// Root of all messages and targets.
class TARN_ADAPTER_API TarnAdapterObject
{
public:
    static TarnAdapterRuntimeClass classTarnAdapterObject;

    /// Record of the object's class, never null. A class that does not override it counts as its base. The
    /// framework asks for the name it prints, also on its timer thread with the correlation lock held, so an
    /// override returns its record and does nothing else.
    virtual TarnAdapterRuntimeClass* GetRuntimeClass() const;
    virtual ~TarnAdapterObject();

    /// True when pClass names the object's class or one of its bases along the records. Classes are matched
    /// by name, so a copy of a record is as good as the record. False for null.
    bool IsKindOf(const TarnAdapterRuntimeClass* pClass) const;

protected:
    TarnAdapterObject() = default;
    TarnAdapterObject(const TarnAdapterObject&) = default;
    TarnAdapterObject& operator=(const TarnAdapterObject&) = default;
};

#endif
