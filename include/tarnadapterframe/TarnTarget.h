#ifndef TARNADAPTERFRAME_TARNTARGET_H
#define TARNADAPTERFRAME_TARNTARGET_H

#include "tarnadapterframe/Export.h"
#include "tarnadapterframe/TarnAdapterObject.h"

#include <cstdint>
#include <string>

/// A managed network element that messages are addressed to: its network element id (NE id), the id of the
/// protocol adapter that reaches it, and its device type and version as free text.
///
/// A value: copied, assigned and compared by its own operations, not guarded against use by several threads.
/// Ids have 32 bits; of a wider number the low 32 bits are taken.
class TARN_ADAPTER_API TarnTarget : public TarnAdapterObject
{
public:
    static TarnAdapterRuntimeClass classTarnTarget;
    static TarnAdapterObject* CreateObject();

    /// NE id 0xFFFFFFFF, protocol id 0 (no adapter has it), empty texts.
    TarnTarget();
    /// The same with an NE id.
    explicit TarnTarget(int neId);
    TarnTarget(const TarnTarget& other);
    /// Assign. Through a reference to a base it copies with the Assign of the object's own class.
    TarnTarget& operator=(const TarnTarget& other);

    TarnAdapterRuntimeClass* GetRuntimeClass() const override;
    ~TarnTarget() override;

    virtual unsigned long GetProtocolID();
    virtual void SetNeId(unsigned long ulNeId);
    /// Set a text, NUL-terminated and of any length; null is refused with a log line.
    virtual void SetDevType(const char* pszDevType);
    virtual void SetDevVersion(const char* pszDevVersion);
    /// A copy of the object's own class. @return owned by the caller
    virtual TarnTarget* Clone() const;
    /// Takes over all four fields. @return this target
    virtual TarnTarget& Assign(const TarnTarget& other);
    /// Orders targets by the names of their classes, the later name first, then by the signed difference of
    /// their NE ids. The other fields take no part. The difference wraps, so two ids 0x80000000 apart are each less
    /// than the other: no order for std::set, std::map or sorting, unless all ids lie within half the range.
    /// @return -1, 0 or 1
    virtual int Compare(const TarnTarget& other) const;

    void SetProtocolID(unsigned long ulProtocolID);
    unsigned long GetNeId() const;
    /// The texts, good until the field is changed or the target is destroyed.
    const char* GetDevType() const;
    const char* GetDevVersion() const;

    // Compare against zero.
    bool operator==(const TarnTarget& other) const;
    bool operator!=(const TarnTarget& other) const;
    bool operator<(const TarnTarget& other) const;
    bool operator>(const TarnTarget& other) const;
    bool operator<=(const TarnTarget& other) const;
    bool operator>=(const TarnTarget& other) const;

private:
    std::uint32_t m_ulProtocolID = 0;
    std::uint32_t m_ulNeId = 0xFFFFFFFF;
    std::string m_strDevType;
    std::string m_strDevVersion;
};

/// The target class of ASN.1 messages. Its class record does not pass through TarnTarget's: IsKindOf with that
/// one is false.
class TARN_ADAPTER_API TarnAsn1Target : public TarnTarget
{
public:
    static TarnAdapterRuntimeClass classTarnAsn1Target;
    static TarnAdapterObject* CreateObject();

    TarnAsn1Target();
    explicit TarnAsn1Target(int neId);
    TarnAsn1Target(const TarnAsn1Target& other);
    TarnAsn1Target& operator=(const TarnAsn1Target& other);

    TarnAdapterRuntimeClass* GetRuntimeClass() const override;
    ~TarnAsn1Target() override;
    TarnTarget* Clone() const override;
};

#endif
