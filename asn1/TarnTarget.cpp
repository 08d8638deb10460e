#include "tarnadapterframe/TarnTarget.h"

#include "core/ApplicationCall.h"
#include "core/LogArguments.h"
#include "tarnadapterframe/TarnAdapterTrace.h"

#include <cstring>

namespace {

void SetText(std::string& strField, const char* pszText, const char* pszOperation)
{
    if (pszText == nullptr)
    {
        TarnAdapterFrmtTrace(1, "TarnTarget::%s fail, input para is NULL\n", pszOperation);
        return;
    }
    WithMemory(pszOperation, 0, [&] {
        strField = pszText;
        return 0;
    });
}

int Sign(int iNumber)
{
    return iNumber < 0 ? -1 : iNumber > 0 ? 1 : 0;
}

} // namespace

TarnAdapterRuntimeClass TarnTarget::classTarnTarget = {"TarnTarget",
                                                       static_cast<int>(sizeof(TarnTarget)),
                                                       0xFFFF,
                                                       &TarnTarget::CreateObject,
                                                       &TarnAdapterObject::classTarnAdapterObject,
                                                       nullptr};

TarnAdapterObject* TarnTarget::CreateObject()
{
    return new TarnTarget;
}

TarnTarget::TarnTarget() = default;

TarnTarget::TarnTarget(int neId)
    : m_ulNeId(static_cast<std::uint32_t>(neId))
{}

TarnTarget::TarnTarget(const TarnTarget& other) = default;

TarnTarget& TarnTarget::operator=(const TarnTarget& other) // NOLINT(bugprone-unhandled-self-assignment)
{
    return Assign(other);
}

TarnTarget::~TarnTarget() = default;

TarnAdapterRuntimeClass* TarnTarget::GetRuntimeClass() const
{
    return &classTarnTarget;
}

unsigned long TarnTarget::GetProtocolID()
{
    return m_ulProtocolID;
}

void TarnTarget::SetNeId(unsigned long ulNeId)
{
    m_ulNeId = static_cast<std::uint32_t>(ulNeId);
}

void TarnTarget::SetDevType(const char* pszDevType)
{
    SetText(m_strDevType, pszDevType, "SetDevType");
}

void TarnTarget::SetDevVersion(const char* pszDevVersion)
{
    SetText(m_strDevVersion, pszDevVersion, "SetDevVersion");
}

TarnTarget* TarnTarget::Clone() const
{
    return new TarnTarget(*this);
}

TarnTarget& TarnTarget::Assign(const TarnTarget& other)
{
    if (this == &other)
        return *this;
    m_ulNeId = other.m_ulNeId;
    m_ulProtocolID = other.m_ulProtocolID;
    m_strDevType = other.m_strDevType;
    m_strDevVersion = other.m_strDevVersion;
    return *this;
}

int TarnTarget::Compare(const TarnTarget& other) const
{
    if (this == &other)
        return 0;
    const int iNames = Sign(std::strcmp(ClassName(other), ClassName(*this)));
    return iNames != 0 ? iNames : Sign(static_cast<std::int32_t>(m_ulNeId - other.m_ulNeId));
}

void TarnTarget::SetProtocolID(unsigned long ulProtocolID)
{
    m_ulProtocolID = static_cast<std::uint32_t>(ulProtocolID);
}

unsigned long TarnTarget::GetNeId() const
{
    return m_ulNeId;
}

const char* TarnTarget::GetDevType() const
{
    return m_strDevType.c_str();
}

const char* TarnTarget::GetDevVersion() const
{
    return m_strDevVersion.c_str();
}

bool TarnTarget::operator==(const TarnTarget& other) const
{
    return Compare(other) == 0;
}

bool TarnTarget::operator!=(const TarnTarget& other) const
{
    return Compare(other) != 0;
}

bool TarnTarget::operator<(const TarnTarget& other) const
{
    return Compare(other) < 0;
}

bool TarnTarget::operator>(const TarnTarget& other) const
{
    return Compare(other) > 0;
}

bool TarnTarget::operator<=(const TarnTarget& other) const
{
    return Compare(other) <= 0;
}

bool TarnTarget::operator>=(const TarnTarget& other) const
{
    return Compare(other) >= 0;
}

TarnAdapterRuntimeClass TarnAsn1Target::classTarnAsn1Target = {"TarnAsn1Target",
                                                               static_cast<int>(sizeof(TarnAsn1Target)),
                                                               0xFFFF,
                                                               &TarnAsn1Target::CreateObject,
                                                               &TarnAdapterObject::classTarnAdapterObject,
                                                               nullptr};

TarnAdapterObject* TarnAsn1Target::CreateObject()
{
    return new TarnAsn1Target;
}

TarnAsn1Target::TarnAsn1Target() = default;

TarnAsn1Target::TarnAsn1Target(int neId)
    : TarnTarget(neId)
{}

TarnAsn1Target::TarnAsn1Target(const TarnAsn1Target& other) = default;

TarnAsn1Target&
TarnAsn1Target::operator=(const TarnAsn1Target& other) // NOLINT(bugprone-unhandled-self-assignment)
{
    Assign(other);
    return *this;
}

TarnAsn1Target::~TarnAsn1Target() = default;

TarnAdapterRuntimeClass* TarnAsn1Target::GetRuntimeClass() const
{
    return &classTarnAsn1Target;
}

TarnTarget* TarnAsn1Target::Clone() const
{
    return new TarnAsn1Target(*this);
}
