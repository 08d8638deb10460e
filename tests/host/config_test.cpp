#include "HostTestSupport.h"

#include <gtest/gtest.h>

#include <atomic>
#include <climits>
#include <ctime>
#include <filesystem>
#include <stdexcept>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

namespace {

const int UNTOUCHED = -77;

class Config : public testing::Test
{
protected:
    int Int(const char* pszKey)
    {
        int iValue = UNTOUCHED;
        const bool bFound = TarnGetCfgInt(pszKey, iValue, m_strFile.c_str());
        EXPECT_EQ(bFound, iValue != UNTOUCHED) << pszKey;
        return iValue;
    }

    std::string Text(const char* pszKey)
    {
        char buffer[64] = "untouched";
        TarnGetCfgString(pszKey, buffer, sizeof buffer, m_strFile.c_str());
        return buffer;
    }

    void Write(const std::string& strText) { WriteText(m_strFile, strText); }

    /// What has been logged since the last call: "LEVEL TEXT", the file's path as FILE.
    std::vector<std::string> Reports()
    {
        std::vector<std::string> reports;
        for (const LoggedLine& line : m_Log.Take())
        {
            EXPECT_EQ(line.strModule, "tarnbaseutil");
            std::string strReport = std::to_string(line.iLevel) + " " + line.strText;
            const std::size_t uAt = strReport.find(m_strFile);
            EXPECT_NE(uAt, std::string::npos) << strReport;
            if (uAt != std::string::npos)
                strReport.replace(uAt, m_strFile.size(), "FILE");
            reports.push_back(strReport);
        }
        return reports;
    }

    using Lines = std::vector<std::string>;

    TempFolder m_Folder;
    const std::string m_strFile = m_Folder.Path("adapter.ini");
    LogRecorder m_Log;
};

TEST_F(Config, MissingOrEmptyFileHasNothingAndIsSilent)
{
    EXPECT_EQ(Int("A"), UNTOUCHED);
    EXPECT_EQ(Text("A"), "untouched");
    Write("");
    EXPECT_EQ(Int("A"), UNTOUCHED);
    EXPECT_EQ(Reports(), Lines());
}

TEST_F(Config, ReadsSectionTarnadapterOnly)
{
    Write("\xEF\xBB\xBF# comment\r\n; comment\r\n[other]\r\nA=1\r\n[TarnAdapter]\r\n  a = 2 \r\nb=x "
          "y\r\nEmpty=\r\n"
          "twice=1\r\n[log]\r\nA=3\r\n[tarnadapter]\r\ntwice=2");
    EXPECT_EQ(Int("A"), 2);
    EXPECT_EQ(Text("B"), "x y");
    EXPECT_EQ(Text("empty"), "");
    EXPECT_EQ(Int("twice"), 2);
    EXPECT_EQ(Text("other"), "untouched");
    EXPECT_EQ(Reports(), Lines());
}

TEST_F(Config, TakesWholeDecimalNumbersOnly)
{
    Write("[tarnadapter]\nplus=+7\nminus=-7\nzeros=007\nmost=2147483647\nleast=-2147483648\n"
          "none=\nhex=0x10\nword=seven\npart=7 8\nfraction=1.5\ntwosigns=+-7\nsign=-\nmore=2147483648\n"
          "less=-2147483649\nhuge=99999999999999999999999\n");
    EXPECT_EQ(Int("plus"), 7);
    EXPECT_EQ(Int("minus"), -7);
    EXPECT_EQ(Int("zeros"), 7);
    EXPECT_EQ(Int("most"), INT_MAX);
    EXPECT_EQ(Int("least"), INT_MIN);
    EXPECT_EQ(Reports(), Lines());
    for (const char* pszKey :
         {"none", "hex", "word", "part", "fraction", "twosigns", "sign", "more", "less", "huge"})
        EXPECT_EQ(Int(pszKey), UNTOUCHED);
    const Lines reports = Reports();
    ASSERT_EQ(reports.size(), 10U);
    EXPECT_EQ(reports[0], "2 FILE:7: none has no value, taken as not set\n");
    EXPECT_EQ(reports[1], "2 FILE:8: hex = 0x10 is no number, taken as not set\n");
    EXPECT_EQ(reports[7], "2 FILE:14: more = 2147483648 is no number, taken as not set\n");
}

TEST_F(Config, TakesValuesOfAnyLengthAndCutsThemToTheBuffer)
{
    const std::string strLong(1 << 20, 'v');
    Write("[tarnadapter]\nlong=" + strLong + "\nnext=5\n");
    std::vector<char> buffer(strLong.size() + 1, '?');
    ASSERT_TRUE(TarnGetCfgString("long", buffer.data(), static_cast<int>(buffer.size()), m_strFile.c_str()));
    EXPECT_EQ(buffer.data(), strLong);
    EXPECT_EQ(Int("next"), 5);

    char small[] = "........";
    ASSERT_TRUE(TarnGetCfgString("long", small, 4, m_strFile.c_str()));
    EXPECT_EQ(std::string(small, sizeof small - 1), std::string("vvv\0....", 8));
    ASSERT_TRUE(TarnGetCfgString("long", small, 1, m_strFile.c_str()));
    EXPECT_STREQ(small, "");
    EXPECT_EQ(Reports(), Lines());

    EXPECT_EQ(Int("long"), UNTOUCHED);
    EXPECT_EQ(Reports(),
              Lines{"2 FILE:2: long = " + std::string(64, 'v') + "... is no number, taken as not set\n"});
}

TEST_F(Config, RefusesNullAndBuffersWithoutRoom)
{
    Write("[tarnadapter]\na=1\n");
    int iValue = UNTOUCHED;
    char buffer[8] = "old";
    EXPECT_FALSE(TarnGetCfgInt(nullptr, iValue, m_strFile.c_str()));
    EXPECT_FALSE(TarnGetCfgInt("a", iValue, nullptr));
    EXPECT_FALSE(TarnGetCfgString(nullptr, buffer, 8, m_strFile.c_str()));
    EXPECT_FALSE(TarnGetCfgString("a", nullptr, 8, m_strFile.c_str()));
    EXPECT_FALSE(TarnGetCfgString("a", buffer, 8, nullptr));
    EXPECT_FALSE(TarnGetCfgString("a", buffer, 0, m_strFile.c_str()));
    EXPECT_FALSE(TarnGetCfgString("a", buffer, -1, m_strFile.c_str()));
    EXPECT_EQ(iValue, UNTOUCHED);
    EXPECT_STREQ(buffer, "old");
}

TEST_F(Config, ALineThatIsNoneCostsOnlyItselfAndIsReportedOnce)
{
    Write(std::string("before=1\n[tarnadapter]\na=1\njust words\n=4\nnul=@\n@\nlatin=\xE4\n"
                      "b!=1\nc\td=1\n// x=1\n") +
          std::string(2000, 'k') + "=1\nlast=9 ! \n");
    std::string strText = ReadText(m_strFile);
    for (char& c : strText)
        c = c == '@' ? '\0' : c;
    Write(strText);

    for (int i = 0; i < 3; ++i)
    {
        EXPECT_EQ(Int("a"), 1);
        EXPECT_EQ(Text("last"), "9 !");
        EXPECT_EQ(Text("nul"), "untouched");
    }
    EXPECT_EQ(
        Reports(),
        (Lines{"2 FILE:1: a line before the first section, left out\n",
               "2 FILE:4: Equal sign is missing, left out\n",
               "2 FILE:5: Property name is missing, left out\n",
               "2 FILE:6: a NUL byte in the line, left out\n", "2 FILE:7: a NUL byte in the line, left out\n",
               "2 FILE:8: not UTF-8, left out\n", "2 FILE:9: a character that a key cannot have, left out\n",
               "2 FILE:10: a character that a key cannot have, left out\n",
               "2 FILE:11: a comment starts with ; or #, left out\n",
               "2 FILE:12: Property name is too long, left out\n"}));
}

TEST_F(Config, KeysBelowABrokenHeaderDoNotJoinTheSectionAbove)
{
    Write("[tarnadapter]\na=1\n\xC3\xA4=1\n[log\na=2\n[]\na=3\n[b!c]\na=4\n[Ger\xC3\xA4t]\na=5\n");
    EXPECT_EQ(Int("a"), 1);
    EXPECT_EQ(Reports(), (Lines{"2 FILE:3: a character that a key cannot have, left out\n",
                                "2 FILE:4: No closing bracket, left out\n",
                                "2 FILE:6: Section name is missing, left out\n",
                                "2 FILE:8: a character that a section name cannot have, left out\n",
                                "2 FILE:10: a character that a section name cannot have, left out\n"}));
}

TEST_F(Config, TheNumberOfReportsIsBounded)
{
    std::string strText = "[tarnadapter]\n";
    for (int i = 0; i < 50; ++i)
        strText += "words\n";
    Write(strText + "a=1\n");
    EXPECT_EQ(Int("a"), 1);
    const Lines reports = Reports();
    ASSERT_EQ(reports.size(), 11U);
    EXPECT_EQ(reports.back(), "2 FILE: and 40 more lines left out\n");
}

TEST_F(Config, AFileThatCannotBeReadIsReportedAndEmpty)
{
    ASSERT_EQ(mkdir(m_strFile.c_str(), 0700), 0);
    EXPECT_EQ(Int("a"), UNTOUCHED);
    EXPECT_EQ(Int("a"), UNTOUCHED);
    EXPECT_EQ(Reports(), Lines{"1 FILE: cannot be read, taken as empty: a directory\n"});
    rmdir(m_strFile.c_str());

    ASSERT_EQ(mkfifo(m_strFile.c_str(), 0600), 0);
    EXPECT_EQ(Int("a"), UNTOUCHED);
    EXPECT_EQ(Reports(), Lines{"1 FILE: cannot be read, taken as empty: not a regular file\n"});
    unlink(m_strFile.c_str());

    std::string strMany = "[tarnadapter]\na=1\n";
    for (int i = 0; i < 10000; ++i)
        strMany += "\n";
    Write(strMany);
    EXPECT_EQ(Int("a"), UNTOUCHED);
    EXPECT_EQ(Reports(), Lines{"1 FILE: cannot be read, taken as empty: more than 10000 lines\n"});

    Write("[tarnadapter]\na=1\n");
    EXPECT_EQ(truncate(m_strFile.c_str(), (16 << 20) + 1), 0);
    EXPECT_EQ(Int("a"), UNTOUCHED);
    EXPECT_EQ(Reports(), Lines{"1 FILE: cannot be read, taken as empty: larger than 16 MiB\n"});
}

TEST_F(Config, AFileThatWasRefusedIsReadWhenItIsNotAnyMoreThoughItStaysAsItIs)
{
    if (geteuid() != 0)
        GTEST_SKIP() << "only root may become somebody else and come back";
    Write("[tarnadapter]\na=1\n");
    ASSERT_EQ(chmod(m_strFile.c_str(), 0600), 0);
    // The age at which a version of a file counts as its last one.
    ASSERT_TRUE(Eventually([&] {
        struct stat status = {};
        return stat(m_strFile.c_str(), &status) == 0 && time(nullptr) - status.st_ctim.tv_sec > 2;
    }));
    ASSERT_EQ(seteuid(65534), 0);
    const int iWithout = Int("a");
    ASSERT_EQ(seteuid(0), 0);
    EXPECT_EQ(iWithout, UNTOUCHED);
    EXPECT_EQ(Int("a"), 1);
    EXPECT_EQ(Reports(), Lines{"1 FILE: cannot be read, taken as empty: Permission denied\n"});
}

TEST_F(Config, AFileWithoutPermissionIsReported)
{
    Write("[tarnadapter]\na=1\n");
    ASSERT_EQ(chmod(m_strFile.c_str(), 0), 0);
    // Root may read everything, so it becomes somebody else for the look-up.
    const uid_t before = geteuid();
    ASSERT_TRUE(before != 0 || seteuid(65534) == 0);
    EXPECT_EQ(Int("a"), UNTOUCHED);
    ASSERT_EQ(seteuid(before), 0);
    EXPECT_EQ(Reports(), Lines{"1 FILE: cannot be read, taken as empty: Permission denied\n"});
}

TEST_F(Config, AChangeIsSeenAtOnceEvenIfTheFileLooksTheSame)
{
    for (int i = 100; i < 200; ++i)
    {
        Write("[tarnadapter]\nbad line\na=" + std::to_string(i) + "\n");
        EXPECT_EQ(Int("a"), i);
    }
    EXPECT_EQ(Reports().size(), 100U); // a new version each, reported once each
    std::filesystem::remove(m_strFile);
    EXPECT_EQ(Int("a"), UNTOUCHED);
}

TEST_F(Config, ALookUpSeesOneWholeVersionWhileTheFileIsReplaced)
{
    const std::string strOld(3000, 'o');
    const std::string strNew(5000, 'n');
    Write("[tarnadapter]\ntext=" + strOld + "\n");
    std::atomic<bool> bDone{false};
    std::thread replacing([&] {
        for (int i = 0; i < 300; ++i)
        {
            WriteText(m_strFile + ".new", "[tarnadapter]\ntext=" + (i % 2 == 0 ? strNew : strOld) + "\n");
            std::filesystem::rename(m_strFile + ".new", m_strFile);
        }
        bDone = true;
    });
    std::vector<std::thread> reading;
    std::atomic<int> iOld{0};
    std::atomic<int> iNew{0};
    std::atomic<int> iOther{0};
    for (int i = 0; i < 3; ++i)
        reading.emplace_back([&] {
            std::vector<char> buffer(8192);
            do
            {
                const bool bFound = TarnGetCfgString("text", buffer.data(), 8192, m_strFile.c_str());
                const std::string strSeen = bFound ? buffer.data() : "";
                ++(strSeen == strOld ? iOld : strSeen == strNew ? iNew : iOther);
            } while (!bDone);
        });
    replacing.join();
    for (std::thread& thread : reading)
        thread.join();
    EXPECT_EQ(iOther, 0);
    EXPECT_EQ(Text("text"), strOld.substr(0, 63));
}

bool HostLookUp(const char* pszKey, std::string& strValue, const char* pszFile)
{
    if (std::string(pszKey) == "throw")
        throw std::runtime_error("the host's own trouble");
    strValue = std::string(pszKey) == "number" ? " 12 " : std::string("from ") + pszFile;
    return std::string(pszKey) != "absent";
}

TEST_F(Config, AnInstalledLookUpIsAskedInsteadOfTheFile)
{
    Write("[tarnadapter]\nnumber=1\n");
    EXPECT_EQ(TarnInstallCfgLookup(&HostLookUp), nullptr);
    EXPECT_EQ(Int("number"), 12);
    EXPECT_EQ(Int("absent"), UNTOUCHED);
    EXPECT_EQ(Int("throw"), UNTOUCHED);
    EXPECT_EQ(Reports(), Lines());
    EXPECT_EQ(Text("text"), ("from " + m_strFile).substr(0, 63));
    EXPECT_EQ(Int("text"), UNTOUCHED);
    EXPECT_EQ(TarnInstallCfgLookup(nullptr), &HostLookUp);
    const std::vector<LoggedLine> log = m_Log.Take();
    ASSERT_EQ(log.size(), 1U);
    EXPECT_EQ(log[0].strText.rfind(m_strFile + ": text = from ", 0), 0U) << log[0].strText;
    EXPECT_EQ(Int("number"), 1);
}

TEST_F(Config, TheDefaultFileIsNamedByTheEnvironment)
{
    setenv("TARN_CFG_FILE", m_strFile.c_str(), 1);
    EXPECT_EQ(TarnGetDefaultCfgFile(), m_strFile);
    EXPECT_EQ(Int("a"), UNTOUCHED);
    EXPECT_EQ(Reports(), Lines{"3 FILE: is missing, taken as empty\n"});
    setenv("TARN_CFG_FILE", "", 1);
    EXPECT_EQ(TarnGetDefaultCfgFile(), "tarnadapter.ini");
    unsetenv("TARN_CFG_FILE");
    EXPECT_EQ(TarnGetDefaultCfgFile(), "tarnadapter.ini");
}

} // namespace
