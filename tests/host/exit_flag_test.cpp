#include "tarnadapterframe/tarnbaseutil.h"
#include "tarnadapterframe/tarntaskmgr.h"

#include <gtest/gtest.h>

#include <atomic>
#include <stdexcept>

namespace {

using Query = bool (*)();

std::atomic<bool> g_bHostExits{false};

bool HostExits()
{
    return g_bHostExits;
}

bool Throws()
{
    throw std::runtime_error("the host's own trouble");
}

/// The two flags behave alike: what is asked, and how the host's own one is installed.
struct Flag
{
    const char* pszName;
    Query pfnAsk;
    Query (*pfnInstall)(Query);
};

class ExitFlag : public testing::TestWithParam<Flag>
{
protected:
    void TearDown() override { GetParam().pfnInstall(nullptr); }
};

TEST_P(ExitFlag, IsTheHostsAndFalseWithoutOne)
{
    EXPECT_FALSE(GetParam().pfnAsk());
    EXPECT_EQ(GetParam().pfnInstall(&HostExits), nullptr);
    g_bHostExits = false;
    EXPECT_FALSE(GetParam().pfnAsk());
    g_bHostExits = true;
    EXPECT_TRUE(GetParam().pfnAsk());
    EXPECT_EQ(GetParam().pfnInstall(nullptr), &HostExits);
    EXPECT_FALSE(GetParam().pfnAsk());
}

TEST_P(ExitFlag, CountsAnExceptionAsNotExiting)
{
    GetParam().pfnInstall(&Throws);
    EXPECT_NO_THROW(EXPECT_FALSE(GetParam().pfnAsk()));
}

INSTANTIATE_TEST_SUITE_P(Both, ExitFlag,
                         testing::Values(Flag{"Application", &TarnAppIsExit, &TarnInstallAppExit},
                                         Flag{"Process", &TarnIsExit, &TarnInstallExit}),
                         [](const testing::TestParamInfo<Flag>& flag) { return flag.param.pszName; });

TEST(ExitFlags, AreIndependent)
{
    g_bHostExits = true;
    TarnInstallAppExit(&HostExits);
    EXPECT_TRUE(TarnAppIsExit());
    EXPECT_FALSE(TarnIsExit());
    TarnInstallAppExit(nullptr);
}

} // namespace
