#include "core/LogArguments.h"
#include "core/Settings.h"
#include "support/TestHost.h"
#include "tarnadapterframe/TraceHexData.h"
#include "tarnadapterframe/tarnadapter.h"

#include <ace/Thread.h>

#include <algorithm>
#include <cstdio>
#include <numeric>
#include <string>
#include <vector>

namespace {

std::string Format(const char* pszFormat, unsigned uFirst, unsigned uSecond = 0)
{
    char szText[200];
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
    std::snprintf(szText, sizeof(szText), pszFormat, uFirst, uSecond);
#pragma GCC diagnostic pop
    return szText;
}

std::string Header(const char* pszFormat, unsigned uSecond = 0)
{
    return Format(pszFormat, Low32(ACE_Thread::self()), uSecond);
}

std::string Bytes(int iLength)
{
    std::string strBytes(static_cast<std::size_t>(iLength), '\0');
    std::iota(strBytes.begin(), strBytes.end(), '\xF0');
    return strBytes;
}

// The rendering, one formatted print a byte.
std::string HexLines(const std::string& strBytes, std::size_t stopAt)
{
    std::string strText;
    for (std::size_t i = 0; i < strBytes.size(); ++i)
    {
        strText += Format("%02x ", static_cast<unsigned char>(strBytes[i]));
        if ((i + 1) % 16 != 0)
            continue;
        strText += "\n";
        if (i + 1 >= stopAt && i + 1 < strBytes.size())
            return strText + " more data not print.\n";
    }
    return strText + "\n";
}

struct CallbackCall
{
    const char* pData;
    int iLength;
    int iTraceType;
    std::uint32_t ulThreadId;
};
std::vector<CallbackCall> g_Calls;

void TakeCall(const char* pData, int iLength, int iTraceType, std::uint32_t ulThreadId)
{
    g_Calls.push_back({pData, iLength, iTraceType, ulThreadId});
}

void TakeNothing(const char*, int, int, std::uint32_t) {}

} // namespace

class HexTrace : public HostTest
{
protected:
    void SetUp() override
    {
        Configure("bEnableAdapterLog", 1);
        Configure("bEnableAdapterPrint", 0);
        Configure("nTraceQxDataMaxLength", 100);
    }

    // As the library's start reads the settings, but without starting threads.
    void Configure(const char* pszKey, int iValue)
    {
        host.SetCfg(pszKey, std::to_string(iValue));
        ReadSettings();
        host.ClearLines();
    }

    std::string Trace(const std::string& strData, ETarnAdpterTraceType eType, std::uint32_t ulThreadId = 0)
    {
        host.ClearLines();
        TraceHexData(strData.data(), static_cast<int>(strData.size()), eType, ulThreadId);
        const auto lines = host.Lines();
        return lines.empty() ? "(nothing)" : lines.front().strText;
    }
};

TEST_F(HexTrace, DefaultsGiveOneCallWithTheLogFlag)
{
    EXPECT_EQ(Trace(Bytes(20), TARN_TRACE_ASYNC_IO_RECV),
              Header("Thread:%4x, AsyncIO RecvData <<<... \n") +
                  "f0 f1 f2 f3 f4 f5 f6 f7 f8 f9 fa fb fc fd fe ff \n"
                  "00 01 02 03 \n");
    const auto lines = host.Lines();
    ASSERT_EQ(lines.size(), 1U);
    EXPECT_EQ(lines[0].iLevel, 3);
    EXPECT_TRUE(lines[0].bLog);
    EXPECT_FALSE(lines[0].bPrint);
}

TEST_F(HexTrace, EveryTypeHasItsHeader)
{
    EXPECT_EQ(Trace("a", TARN_TRACE_SEND_TO_NE, 0xBEEF),
              Header("Thread:%4x, Send to ne (from thread 0x%x)>>>... \n", 0xBEEF) + "61 \n");
    EXPECT_EQ(Trace("a", TARN_TRACE_NE_MML), Header("Thread:%4x, Ne mml <<<... \n") + "a\n");
    EXPECT_EQ(Trace("1234a", TARN_TRACE_TL1_RECV),
              Header("Thread:%4x, Recv from Ne TL1 Hex <<<... \n") + "a\n");
    EXPECT_EQ(Trace("1234a", TARN_TRACE_TL1_SEND),
              Header("Thread:%4x, Send to Ne TL1 Hex <<<... \n") + "a\n");
    for (const int iType : {0, 6, -1})
        EXPECT_EQ(Trace("a", static_cast<ETarnAdpterTraceType>(iType)),
                  Header("Thread:%4x, Other Data... \n") + "61 \n");
}

TEST_F(HexTrace, HexIsCutAtTheFirstLineEndFromTheLimitOn)
{
    const std::string strHeader = Header("Thread:%4x, AsyncIO RecvData <<<... \n");
    for (const int iLimit : {-5, 0, 1, 16, 17, 100, 1024, 1025, 5000})
    {
        Configure("nTraceQxDataMaxLength", iLimit);
        const auto stopAt = static_cast<std::size_t>(std::clamp(iLimit, 0, 1025));
        for (const int iLength : {1, 15, 16, 17, 96, 100, 112, 113, 200, 1023, 1024, 1025, 1040, 1041, 2000})
            EXPECT_EQ(Trace(Bytes(iLength), TARN_TRACE_ASYNC_IO_RECV),
                      strHeader + HexLines(Bytes(iLength), stopAt))
                << iLength << " bytes, limit " << iLimit;
    }
}

TEST_F(HexTrace, TextIsCutAtTheLimitAndEndsAtAZeroByte)
{
    const std::string strMml = Header("Thread:%4x, Ne mml <<<... \n");
    const std::string strTl1 = Header("Thread:%4x, Recv from Ne TL1 Hex <<<... \n");
    const std::string strNote = "\n more data not print \n";

    EXPECT_EQ(Trace(std::string(100, 'x'), TARN_TRACE_NE_MML), strMml + std::string(100, 'x') + "\n");
    EXPECT_EQ(Trace(std::string(101, 'x'), TARN_TRACE_NE_MML),
              strMml + std::string(100, 'x') + "\n" + strNote);
    EXPECT_EQ(Trace(std::string("ab\0cd", 5), TARN_TRACE_NE_MML), strMml + "ab\n");
    EXPECT_EQ(Trace(std::string("\x01\x02\0\x04"
                                "567890",
                                10),
                    TARN_TRACE_TL1_RECV),
              strTl1 + "567890\n");
    EXPECT_EQ(Trace(std::string(101, 'y'), TARN_TRACE_TL1_RECV),
              strTl1 + std::string(96, 'y') + "\n" + strNote);

    // No more than 4096 characters, whatever the limit; a limit inside the prefix shows none.
    Configure("nTraceQxDataMaxLength", 10000);
    EXPECT_EQ(Trace(std::string(4096, 'x'), TARN_TRACE_NE_MML), strMml + std::string(4096, 'x') + "\n");
    EXPECT_EQ(Trace(std::string(9000, 'x'), TARN_TRACE_NE_MML),
              strMml + std::string(4096, 'x') + "\n" + strNote);
    Configure("nTraceQxDataMaxLength", 3);
    EXPECT_EQ(Trace(std::string(10, 'x'), TARN_TRACE_TL1_SEND),
              Header("Thread:%4x, Send to Ne TL1 Hex <<<... \n") + "\n" + strNote);
    Configure("nTraceQxDataMaxLength", -1);
    EXPECT_EQ(Trace("x", TARN_TRACE_NE_MML), strMml + "\n" + strNote);
}

TEST_F(HexTrace, NothingIsTracedWithoutDataOrWithoutDestination)
{
    TraceHexData(nullptr, 4, TARN_TRACE_ASYNC_IO_RECV, 0);
    TraceHexData("abcd", 0, TARN_TRACE_ASYNC_IO_RECV, 0);
    TraceHexData("abcd", -1, TARN_TRACE_NE_MML, 0);
    TraceHexData("abcd", 4, TARN_TRACE_TL1_RECV, 0);
    EXPECT_TRUE(host.Lines().empty());

    Configure("bEnableAdapterPrint", 1);
    Trace("a", TARN_TRACE_ASYNC_IO_RECV);
    const auto lines = host.Lines();
    ASSERT_EQ(lines.size(), 2U);
    EXPECT_TRUE(lines[0].bLog && !lines[0].bPrint);
    EXPECT_TRUE(!lines[1].bLog && lines[1].bPrint);

    Configure("bEnableAdapterLog", 0);
    Configure("bEnableAdapterPrint", 0);
    EXPECT_EQ(Trace("a", TARN_TRACE_ASYNC_IO_RECV), "(nothing)");
}

TEST_F(HexTrace, CallbackTakesTheTraceOver)
{
    // With both destinations on and with both off: the callback gets every call, the log none.
    Configure("bEnableAdapterPrint", 1);
    const char szData[] = "raw";
    const unsigned uFirst = Low32(&TakeCall);
    const unsigned uSecond = Low32(&TakeNothing);

    EXPECT_EQ(RegisterTraceHexDataCBFunc(&TakeCall), &TakeCall);
    EXPECT_EQ(host.Count(1, Format("RegisterTraceHexDataCBFunc,register TraceFunc(0x%x)\n", uFirst)), 1);
    g_Calls.clear();
    TraceHexData(szData, 3, TARN_TRACE_SEND_TO_NE, 9);
    EXPECT_EQ(host.Lines().size(), 1U) << "the registration";
    Configure("bEnableAdapterLog", 0);
    Configure("bEnableAdapterPrint", 0);
    TraceHexData(nullptr, -1, TARN_TRACE_TL1_RECV, 0);
    ASSERT_EQ(g_Calls.size(), 2U);
    EXPECT_EQ(g_Calls[0].pData, szData);
    EXPECT_EQ(g_Calls[0].iLength, 3);
    EXPECT_EQ(g_Calls[0].iTraceType, 1);
    EXPECT_EQ(g_Calls[0].ulThreadId, 9U);
    EXPECT_EQ(g_Calls[1].pData, nullptr);

    EXPECT_EQ(RegisterTraceHexDataCBFunc(&TakeNothing), &TakeNothing);
    EXPECT_EQ(RegisterTraceHexDataCBFunc(&TakeNothing), &TakeNothing);
    EXPECT_EQ(RegisterTraceHexDataCBFunc(nullptr), nullptr);
    EXPECT_EQ(RegisterTraceHexDataCBFunc(nullptr), nullptr);

    const std::vector<std::string> expected = {
        Format("RegisterTraceHexDataCBFunc,replace TraceFunc(0x%x),the prevenient TraceFunc(0x%x)\n", uSecond,
               uFirst),
        Format("RegisterTraceHexDataCBFunc,replace TraceFunc(0x%x),the prevenient TraceFunc(0x%x)\n", uSecond,
               uSecond),
        Format("RegisterTraceHexDataCBFunc,you want unregister TraceFunc(0x%x)\n", uSecond),
        "RegisterTraceHexDataCBFunc,NULL==pFunc\n",
    };
    const auto lines = host.Lines();
    ASSERT_EQ(lines.size(), expected.size());
    for (std::size_t i = 0; i < expected.size(); ++i)
    {
        EXPECT_EQ(lines[i].strText, expected[i]);
        EXPECT_EQ(lines[i].iLevel, 1);
    }
}

TEST_F(HexTrace, OutputBufferShowsAtMost112Bytes)
{
    EXPECT_EQ(OutputBuffer(nullptr, 5), "");
    EXPECT_EQ(OutputBuffer("x", 0), "\n");
    EXPECT_EQ(OutputBuffer("x", -3), "\n");
    for (const int iLength : {1, 16, 17, 100, 101, 111, 112, 113, 5000})
        EXPECT_EQ(OutputBuffer(Bytes(iLength).data(), iLength), HexLines(Bytes(iLength), 101)) << iLength;
}
