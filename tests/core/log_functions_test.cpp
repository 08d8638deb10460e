#include "support/TestHost.h"
#include "tarnadapterframe/TarnAdapterTrace.h"

#include <string>

using LogFunctions = HostTest;

TEST_F(LogFunctions, FormattedMessageGoesToTheHostUnderTheModuleTagWithoutFlags)
{
    TarnAdapterFrmtTrace(1, "%s has %d of 0x%x\n", "it", 3, 0xABU);

    const auto lines = host.Lines();
    ASSERT_EQ(lines.size(), 1U);
    EXPECT_EQ(lines[0].strModule, "tarnadpfrm");
    EXPECT_EQ(lines[0].iLevel, 1);
    EXPECT_EQ(lines[0].strText, "it has 3 of 0xab\n");
    EXPECT_FALSE(lines[0].bPrint);
    EXPECT_FALSE(lines[0].bLog);
}

TEST_F(LogFunctions, PlainTextIsPassedWithItsPlaceholdersAndFlags)
{
    TarnAdapterTrace(3, "%d %s%n\n", true, false);
    TarnAdapterTrace(0, "second", false, true);

    const auto lines = host.Lines();
    ASSERT_EQ(lines.size(), 2U);
    EXPECT_EQ(lines[0].strText, "%d %s%n\n");
    EXPECT_TRUE(lines[0].bPrint);
    EXPECT_FALSE(lines[0].bLog);
    EXPECT_EQ(lines[1].iLevel, 0);
    EXPECT_FALSE(lines[1].bPrint);
    EXPECT_TRUE(lines[1].bLog);
}

TEST_F(LogFunctions, MessageOf2048CharactersIsLoggedAndOneMoreIsNot)
{
    const std::string strLongest(2048, 'x');
    ::testing::internal::CaptureStdout();
    TarnAdapterFrmtTrace(2, "%s", strLongest.c_str());
    EXPECT_EQ(::testing::internal::GetCapturedStdout(), "");
    EXPECT_EQ(host.Count(2, strLongest), 1);

    host.ClearLines();
    ::testing::internal::CaptureStdout();
    errno = 42;
    TarnAdapterFrmtTrace(2, "%sy", strLongest.c_str());
    EXPECT_EQ(::testing::internal::GetCapturedStdout(), "TarnAdapterFrmtTrace, vsnprintf failed. errno:42\n");
    EXPECT_TRUE(host.Lines().empty());
}

TEST_F(LogFunctions, EmptyOrMissingFormatIsNotLogged)
{
    for (const char* pszFormat : {"%s", static_cast<const char*>(nullptr)})
    {
        ::testing::internal::CaptureStdout();
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
        TarnAdapterFrmtTrace(2, pszFormat, "");
#pragma GCC diagnostic pop
        EXPECT_NE(::testing::internal::GetCapturedStdout().find("vsnprintf failed. errno:"),
                  std::string::npos);
    }
    EXPECT_TRUE(host.Lines().empty());
}
