#include "support/TestHost.h"
#include "tarnadapterframe/tarnadapterframe.h"

#include <memory>
#include <type_traits>

TEST(Targets, AreOrderedByClassNameThenByTheSignedDifferenceOfTheirIds)
{
    const auto compare = [](unsigned long ulLeft, unsigned long ulRight) {
        TarnTarget left;
        TarnTarget right;
        left.SetNeId(ulLeft);
        right.SetNeId(ulRight);
        right.SetProtocolID(9);
        right.SetDevType("another type");
        right.SetDevVersion("2");
        EXPECT_EQ(left.Compare(right), -right.Compare(left) | (ulLeft - ulRight == 0x80000000 ? -1 : 0));
        return left.Compare(right);
    };
    EXPECT_EQ(compare(7, 7), 0);
    EXPECT_EQ(compare(1, 2), -1);
    EXPECT_EQ(compare(0xFFFFFFFF, 0), -1);
    EXPECT_EQ(compare(1, 0x80000000), -1);
    EXPECT_EQ(compare(0x100000003UL, 3), 0); // ids have 32 bits

    // The middle of the ring is behind from either side.
    EXPECT_EQ(TarnTarget(static_cast<int>(0x80000000)).Compare(TarnTarget(0)), -1);
    EXPECT_EQ(TarnTarget(0).Compare(TarnTarget(static_cast<int>(0x80000000))), -1);

    const TarnTarget general(1);
    const TarnAsn1Target asn1(1);
    EXPECT_EQ(general.Compare(asn1), -1);
    EXPECT_EQ(asn1.Compare(general), 1);
    EXPECT_TRUE(general < asn1 && general <= asn1 && general != asn1);
    EXPECT_TRUE(asn1 > general && asn1 >= general && !(asn1 == general));
    EXPECT_TRUE(general == general && general <= general && general >= general);
}

TEST(Targets, AreCopiedByTheirOwnClass)
{
    const TestHost host;
    TarnAsn1Target asn1(-5);
    asn1.SetProtocolID(0x1'0000'0007UL);
    asn1.SetDevType(std::string(100'000, 't').c_str());
    asn1.SetDevVersion("1.2");
    EXPECT_EQ(asn1.GetNeId(), 0xFFFFFFFBUL);
    EXPECT_EQ(asn1.GetProtocolID(), 7UL);
    asn1.SetDevType(nullptr);
    EXPECT_EQ(host.Lines().size(), 1U);

    const auto isCopy = [](TarnTarget& copy) {
        return copy.GetNeId() == 0xFFFFFFFB && copy.GetProtocolID() == 7 &&
               std::string(copy.GetDevType()) == std::string(100'000, 't') &&
               std::string(copy.GetDevVersion()) == "1.2";
    };
    const std::unique_ptr<TarnTarget> pClone(static_cast<const TarnTarget&>(asn1).Clone());
    EXPECT_EQ(pClone->GetRuntimeClass(), &TarnAsn1Target::classTarnAsn1Target);
    EXPECT_TRUE(isCopy(*pClone));
    TarnAsn1Target other;
    TarnTarget& base = other;
    EXPECT_EQ(&(base = asn1), &other);
    EXPECT_TRUE(isCopy(other));
    EXPECT_EQ(other.GetRuntimeClass(), &TarnAsn1Target::classTarnAsn1Target);
    base = static_cast<const TarnTarget&>(other);
    EXPECT_TRUE(isCopy(other));
    TarnTarget general;
    EXPECT_EQ(general.GetProtocolID(), 0UL);
    EXPECT_EQ(general.GetNeId(), 0xFFFFFFFFUL);
    general = asn1;
    EXPECT_TRUE(isCopy(general));
    EXPECT_EQ(general.GetRuntimeClass(), &TarnTarget::classTarnTarget);
}

TEST(Targets, HaveClassRecordsOfTheirOwn)
{
    const TarnAsn1Target asn1;
    EXPECT_TRUE(asn1.IsKindOf(&TarnAsn1Target::classTarnAsn1Target));
    EXPECT_TRUE(asn1.IsKindOf(&TarnAdapterObject::classTarnAdapterObject));
    EXPECT_FALSE(asn1.IsKindOf(&TarnTarget::classTarnTarget));
    for (const TarnAdapterRuntimeClass* pClass :
         {&TarnTarget::classTarnTarget, &TarnAsn1Target::classTarnAsn1Target,
          &TarnAsn1Message::classTarnAsn1Message})
    {
        const std::unique_ptr<TarnAdapterObject> pObject(pClass->CreateObject());
        ASSERT_NE(pObject, nullptr) << pClass->m_pszClassName;
        EXPECT_EQ(pObject->GetRuntimeClass(), pClass);
        EXPECT_EQ(pClass->m_nSchema, 0xFFFFU);
        EXPECT_EQ(pClass->m_pBaseClass, &TarnAdapterObject::classTarnAdapterObject);
    }
    TEAdapterManager::Destroy();
}
