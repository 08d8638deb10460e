#include "support/TestAdapters.h"
#include "support/TestHost.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

// A creatable class as an application writes it.
class Leaf : public TarnAdapterObject
{
public:
    static TarnAdapterRuntimeClass classLeaf;
    static TarnAdapterObject* CreateObject() { return new Leaf; }
    TarnAdapterRuntimeClass* GetRuntimeClass() const override { return &classLeaf; }
};

TarnAdapterRuntimeClass Leaf::classLeaf = {"Leaf",
                                           static_cast<int>(sizeof(Leaf)),
                                           0xFFFF,
                                           &Leaf::CreateObject,
                                           &TarnAdapterObject::classTarnAdapterObject,
                                           nullptr};
const TARN_ADAPTER_CLASSINIT g_InitLeaf(&Leaf::classLeaf);

std::vector<std::string> ChainNames()
{
    std::vector<std::string> names;
    for (const auto* p = TarnAdapterRuntimeClass::m_pFirstClass; p != nullptr && names.size() < 100;
         p = p->m_pNextClass)
        names.emplace_back(p->m_pszClassName);
    return names;
}

// The framework's own records in the order of the chain; an application's stand between them anywhere.
std::vector<std::string> FrameworkChain()
{
    std::vector<std::string> names;
    for (const std::string& strName : ChainNames())
    {
        if (strName.rfind("Tarn", 0) == 0)
            names.push_back(strName);
    }
    return names;
}

} // namespace

TEST(RuntimeClasses, RootRecordHasNoFactoryAndNoBase)
{
    const TarnAdapterRuntimeClass& root = TarnAdapterObject::classTarnAdapterObject;
    EXPECT_STREQ(root.m_pszClassName, "TarnAdapterObject");
    EXPECT_EQ(root.m_nObjectSize, static_cast<int>(sizeof(TarnAdapterObject)));
    EXPECT_EQ(root.m_nSchema, 0xFFFFU);
    EXPECT_EQ(root.m_pBaseClass, nullptr);
    EXPECT_EQ(root.CreateObject(), nullptr);
}

TEST(RuntimeClasses, ChainHoldsTheFrameworkRecordsNewestFirstBesideTheApplications)
{
    EXPECT_EQ(FrameworkChain(), (std::vector<std::string>{"TarnAsn1Target", "TarnTarget", "TarnAsn1Message",
                                                          "TarnAdapterObject"}));
    const auto names = ChainNames();
    EXPECT_EQ(std::count(names.begin(), names.end(), "Leaf"), 1);
}

TEST(RuntimeClasses, RegisteringTwiceOrNullLeavesTheChainAlone)
{
    const TestHost host;
    const auto before = ChainNames();
    const TARN_ADAPTER_CLASSINIT again(&Leaf::classLeaf);
    const TARN_ADAPTER_CLASSINIT root(&TarnAdapterObject::classTarnAdapterObject);
    const TARN_ADAPTER_CLASSINIT null(nullptr);
    EXPECT_EQ(ChainNames(), before);
    EXPECT_EQ(host.Lines().size(), 3U);
}

TEST(RuntimeClasses, ObjectIsCreatedFromItsRecord)
{
    const std::unique_ptr<TarnAdapterObject> pObject(Leaf::classLeaf.CreateObject());
    ASSERT_NE(pObject, nullptr);
    EXPECT_EQ(pObject->GetRuntimeClass(), &Leaf::classLeaf);
}

TEST(RuntimeClasses, KindIsMatchedByNameAlongTheBases)
{
    const Leaf leaf;
    const TestMessage message;
    EXPECT_TRUE(leaf.IsKindOf(&Leaf::classLeaf));
    EXPECT_TRUE(leaf.IsKindOf(&TarnAdapterObject::classTarnAdapterObject));
    EXPECT_FALSE(leaf.IsKindOf(&TestMessage::classTestMessage));
    EXPECT_FALSE(message.IsKindOf(&Leaf::classLeaf));
    const TestHost host;
    EXPECT_FALSE(leaf.IsKindOf(nullptr));
    EXPECT_EQ(host.Count(2, "TarnAdapterObject::IsKindOf fail, input para pClass=null\n"), 1);

    const std::string strSameName = "Leaf";
    TarnAdapterRuntimeClass copy = Leaf::classLeaf;
    copy.m_pszClassName = strSameName.c_str();
    EXPECT_TRUE(leaf.IsKindOf(&copy));
    TarnAdapterRuntimeClass rootCopy = TarnAdapterObject::classTarnAdapterObject;
    EXPECT_TRUE(leaf.IsKindOf(&rootCopy));
}
