#include "core/LogArguments.h"
#include "support/TestAdapters.h"
#include "support/TestHost.h"

#include <cstdio>

class Correlation : public HostTest
{
protected:
    static TEAdapterManager& Manager() { return *TEAdapterManager::Instance(); }

    static bool HasSink(const TEMessage& sink)
    {
        bool bFound = false;
        Manager().FindSrcMsgUnit(UnitOf(sink), bFound);
        return bFound;
    }

    /// The record of a source, null when there is none. Good as long as the test changes no map.
    static TEMessageInfo* Record(const TEMessage& source)
    {
        bool bFound = false;
        const auto it = Manager().FindSrcMsgInfo(UnitOf(source), bFound);
        return bFound ? &it->second : nullptr;
    }

    TestAdapter one{1};
    TestAdapter three{3};
    TestMessageAdapter adapter;
    TestMessageAdapter otherAdapter;
    TestUserData userData;
    TestUserData otherUserData;
    TestMessage source{&one};
    TestMessage sink{&three};
};

TEST_F(Correlation, UnitsOrderByProtocolIdThenSerial)
{
    const TEMessageUnit unit;
    EXPECT_EQ(unit.ulSerial, 0U);
    EXPECT_EQ(unit.ulProtocolID, 2U);
    EXPECT_EQ(unit.ulReserved, 0U);
    EXPECT_TRUE(TEMessageUnit(9, 1) < TEMessageUnit(1, 2));
    EXPECT_TRUE(TEMessageUnit(1, 2) < TEMessageUnit(2, 2));
    EXPECT_TRUE(TEMessageUnit(2, 2) < TEMessageUnit(0x80000000U, 2)) << "unsigned";
    TEMessageUnit reserved(1, 2);
    reserved.ulReserved = 5;
    EXPECT_FALSE(reserved < TEMessageUnit(1, 2) || TEMessageUnit(1, 2) < reserved);
    EXPECT_FALSE(reserved == TEMessageUnit(1, 2));
    EXPECT_TRUE(reserved == TEMessageUnit(reserved));
}

TEST_F(Correlation, RecordNeverSharesItsOwnedMessage)
{
    TEMessageInfo info(&source, &adapter, &sink, 7);
    EXPECT_EQ(info.GetSinkMessageCount(), 1U);
    info.pUserData = &userData;
    info.pOwnedMsg = new TestMessage;
    const int iAlive = TestMessage::Alive();
    char szLine[100];
    std::snprintf(szLine, sizeof(szLine), "~TEMessageInfo() del TestMessage[0x%x]\n", Low32(info.pOwnedMsg));
    {
        const TEMessageInfo copy(info);
        EXPECT_EQ(copy.pOwnedMsg, nullptr);
        EXPECT_EQ(copy.pSource, &source);
        EXPECT_EQ(copy.pMsgAdapter, &adapter);
        EXPECT_EQ(copy.pUserData, &userData);
        EXPECT_EQ(copy.nTimeOut, 7);
        EXPECT_EQ(copy.GetSinkMessageCount(), 1U);
    }
    EXPECT_EQ(TestMessage::Alive(), iAlive);
    TEMessageInfo& same = info;
    info = same;
    EXPECT_NE(info.pOwnedMsg, nullptr);
    EXPECT_EQ(host.Lines().size(), 0U);

    info = TEMessageInfo();
    EXPECT_EQ(info.pOwnedMsg, nullptr);
    EXPECT_EQ(info.nTimeOut, 60);
    EXPECT_EQ(TestMessage::Alive(), iAlive - 1);
    EXPECT_EQ(host.Count(2, szLine), 1);

    info.SetUserData(&userData);
    info.SetUserData(nullptr);
    EXPECT_EQ(info.pUserData, &userData);
    EXPECT_EQ(host.Count(1, "TEMessageInfo::SetUserData fail, input para pUserData=null"), 1);
}

TEST_F(Correlation, NullArgumentsAreRefused)
{
    EXPECT_EQ(Manager().RegisterPrivateMessage(nullptr, nullptr, nullptr, 1), -1);
    EXPECT_EQ(host.Count(2, "TEAdapterManager::RegisterPrivateMessage fail, input para pSource=NULL\n"), 1);
    EXPECT_EQ(Manager().RegisterPrivateMessage(&source, nullptr, nullptr, 1), -1);
    EXPECT_EQ(host.Count(2, "TEAdapterManager::RegisterPrivateMessage fail, input para pMsgAdapter=NULL\n"),
              1);
    EXPECT_EQ(Manager().RegisterMessage(nullptr, &sink), -1);
    EXPECT_EQ(Manager().RegisterMessage(&source, nullptr), -1);
    EXPECT_EQ(host.Count(2, "TEAdapterManager::RegisterMessage fail, input para pSource or pSink is NULL\n"),
              2);
    EXPECT_EQ(Manager().UnRegisterSourceMessage(nullptr), -1);
    EXPECT_EQ(host.Count(2, "TEAdapterManager::UnRegisterSourceMessage fail, input para pSource=null\n"), 1);
    EXPECT_EQ(Manager().UnRegisterSinkMessage(nullptr), -1);
    EXPECT_EQ(host.Count(2, "TEAdapterManager::UnRegisterSinkMessage fail, input para pSinkMsg=NULL\n"), 1);
}

TEST_F(Correlation, SecondAnnouncementChangesTheUserDataOnly)
{
    EXPECT_EQ(adapter.RegisterPrivateMessage(&source, &adapter, &userData, 11), 0);
    EXPECT_EQ(Manager().RegisterPrivateMessage(&source, &otherAdapter, nullptr, 22), 0);
    EXPECT_EQ(Record(source)->pUserData, &userData);
    EXPECT_EQ(Manager().RegisterPrivateMessage(&source, &otherAdapter, &otherUserData, 22), 0);
    const TEMessageInfo* pRecord = Record(source);
    EXPECT_EQ(pRecord->pSource, &source);
    EXPECT_EQ(pRecord->pMsgAdapter, &adapter);
    EXPECT_EQ(pRecord->nTimeOut, 11);
    EXPECT_EQ(pRecord->pUserData, &otherUserData);
    EXPECT_EQ(pRecord->GetSinkMessageCount(), 0U);
    EXPECT_TRUE(host.Lines().empty());
}

TEST_F(Correlation, SameSerialOfTwoProtocolsAreTwoSourcesInProtocolOrder)
{
    TestMessage ofThree(&three);
    TestMessage ofOne(&one);
    ASSERT_EQ(ofThree.GetMessageSerial(), ofOne.GetMessageSerial());
    Manager().RegisterPrivateMessage(&ofThree, &adapter, nullptr, 1);
    Manager().RegisterPrivateMessage(&ofOne, &adapter, nullptr, 1);
    bool bFound = false;
    EXPECT_EQ(Manager().AcquireMsgMapMtx(), 0);
    auto it = Manager().FindSrcMsgInfo(UnitOf(ofOne), bFound);
    EXPECT_TRUE(bFound);
    EXPECT_EQ(it->second.pSource, &ofOne);
    ++it;
    EXPECT_EQ(it->second.pSource, &ofThree);
    EXPECT_EQ(Manager().ReleaseMsgMapMtx(), 0);
}

TEST_F(Correlation, SinkOfAnUnknownSourceMakesARecordWithoutAdapter)
{
    EXPECT_EQ(adapter.RegisterMessage(&source, &sink), 0);
    EXPECT_EQ(host.Count(3, "TEAdapterManager::RegisterMessage, cannot find source msg in the map\n"), 1);
    const TEMessageInfo* pRecord = Record(source);
    ASSERT_NE(pRecord, nullptr);
    EXPECT_EQ(pRecord->pSource, &source);
    EXPECT_EQ(pRecord->pMsgAdapter, nullptr);
    EXPECT_EQ(pRecord->nTimeOut, 60);
    EXPECT_EQ(pRecord->GetSinkMessageCount(), 1U);
    EXPECT_TRUE(HasSink(sink));
}

TEST_F(Correlation, SinkRegisteredTwiceIsListedTwiceAndRemovedOnce)
{
    Manager().RegisterPrivateMessage(&source, &adapter, nullptr, 1);
    Manager().RegisterMessage(&source, &sink);
    Manager().RegisterMessage(&source, &sink);
    TestMessage otherSource(&one);
    Manager().RegisterPrivateMessage(&otherSource, &adapter, nullptr, 1);
    Manager().RegisterMessage(&otherSource, &sink);
    EXPECT_EQ(Record(source)->GetSinkMessageCount(), 2U);

    bool bFound = false;
    EXPECT_TRUE(Manager().FindSrcMsgUnit(UnitOf(sink), bFound)->second == UnitOf(source))
        << "the first link stays";
    EXPECT_EQ(Manager().UnRegisterSinkMessage(&sink), 0);
    EXPECT_FALSE(HasSink(sink));
    EXPECT_EQ(Record(source)->GetSinkMessageCount(), 0U) << "the record stays, empty";
    EXPECT_EQ(Record(otherSource)->GetSinkMessageCount(), 1U);
}

TEST_F(Correlation, UnregisteringASourceTakesItsSinksAlong)
{
    TestMessage second(&three);
    Manager().RegisterPrivateMessage(&source, &adapter, &userData, 1);
    Manager().RegisterMessage(&source, &sink);
    Manager().RegisterMessage(&source, &second);
    Manager().UnRegisterSinkMessage(&second);
    Record(source)->pOwnedMsg = new TestMessage;
    const int iAlive = TestMessage::Alive();
    host.ClearLines();

    EXPECT_EQ(Manager().UnRegisterSourceMessage(&source), 0);
    EXPECT_EQ(TestMessage::Alive(), iAlive - 1) << "the owned message alone";
    EXPECT_FALSE(HasSink(sink));
    EXPECT_EQ(host.Count(2, "Not find Source message in map.\n"), 1);
    EXPECT_EQ(Record(source), nullptr);
    EXPECT_EQ(host.Count(2, "Not find Source message info in map.\n"), 1);

    EXPECT_EQ(Manager().UnRegisterSourceMessage(&source), 0);
    EXPECT_EQ(host.Count(2, "TEAdapterManager::UnRegisterSourceMessage, not found source message in map.\n"),
              1);
    EXPECT_EQ(Manager().UnRegisterSinkMessage(&sink), 0);
    EXPECT_EQ(
        host.Count(2, "TEAdapterManager::UnRegisterSinkMessage, not found sink message in map table.\n"), 1);
}

TEST_F(Correlation, MapsCanBeChangedDirectly)
{
    TEMessageInfo info(&source, &adapter, nullptr, 5);
    info.pOwnedMsg = new TestMessage;
    EXPECT_EQ(Manager().InsertToInfoMap({UnitOf(source), info}), 0);
    EXPECT_EQ(Manager().InsertToInfoMap({UnitOf(source), TEMessageInfo()}), 0);
    EXPECT_EQ(Manager().InsertToUnitMap({UnitOf(sink), UnitOf(source)}), 0);
    EXPECT_EQ(Manager().InsertToUnitMap({UnitOf(sink), TEMessageUnit()}), 0);

    bool bFound = false;
    Manager().AcquireMsgMapMtx();
    const auto itUnit = Manager().FindSrcMsgUnit(UnitOf(sink), bFound);
    EXPECT_TRUE(itUnit->second == UnitOf(source));
    const auto itInfo = Manager().FindSrcMsgInfo(itUnit->second, bFound);
    EXPECT_EQ(itInfo->second.pSource, &source);
    EXPECT_EQ(itInfo->second.pOwnedMsg, nullptr) << "stays with the caller's record";
    EXPECT_EQ(Manager().EraseFromInfoMap(itInfo), 0);

    // A link whose source is gone.
    host.ClearLines();
    EXPECT_EQ(Manager().UnRegisterSinkMessage(&sink), 0);
    EXPECT_EQ(host.Count(1, "TEAdapterManager::UnRegisterSinkMessage, not found sink message in source.\n"),
              1);

    Manager().InsertToUnitMap({UnitOf(sink), UnitOf(source)});
    EXPECT_EQ(Manager().EraseFromUnitMap(Manager().FindSrcMsgUnit(UnitOf(sink), bFound)), 0);
    EXPECT_EQ(Manager().EraseFromUnitMap(Manager().FindSrcMsgUnit(UnitOf(sink), bFound)), -1) << "the end";
    EXPECT_EQ(Manager().EraseFromInfoMap(Manager().FindSrcMsgInfo(UnitOf(source), bFound)), -1);
    Manager().ReleaseMsgMapMtx();
}

TEST_F(Correlation, DestroyingTheManagerEmptiesTheMapsAndLeavesTheMessages)
{
    Manager().RegisterPrivateMessage(&source, &adapter, &userData, 1);
    Manager().RegisterMessage(&source, &sink);
    const int iAlive = TestMessage::Alive();
    TEAdapterManager::Destroy();
    EXPECT_EQ(TestMessage::Alive(), iAlive);
    EXPECT_EQ(Record(source), nullptr);
    EXPECT_FALSE(HasSink(sink));
}
