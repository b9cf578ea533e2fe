#include <limits.h>
#include <stdio.h>

#include <algorithm>
#include <functional>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "debian_lib.h"
#include "smallupdate.h"
#include "test_util.h"

namespace {

using Lines = std::vector<std::string>;

const char kVersion[] = "buildnumber=\"2668\"\n";

// Runs fn in a sandbox whose /etc.defaults/VERSION holds version (absent
// when there is none).
sandbox::Result Judged(const std::optional<std::string> &version, const std::function<int()> &fn)
{
    auto sb = testutil::MakeSandbox();
    if (version)
        sb->WriteFile("/etc.defaults/VERSION", *version);
    else
        sb->Remove("/etc.defaults/VERSION");
    return sb->Call(fn);
}

// The small-fix number of strName as the function returns it, and the log.
std::pair<int, Lines> SmallFix(const std::optional<std::string> &version, const std::string &strName)
{
    const auto res = Judged(version, [&strName] {
        printf("%d", DebianLib::FindSmallFixNumfromDeb(strName));
        return 0;
    });
    return {res.out.empty() ? -999 : std::stoi(res.out), testutil::LogTexts(res)};
}

std::string Different(const std::string &strName, const std::string &strBuild = "2668")
{
    return "debian_lib.cpp: different buildnumber of deb [" + strName +
           "] with system buildnumber [" + strBuild + "]\n";
}

const char kGetFail[] = "debian_lib.cpp: Get buildnumber Fail\n";

struct NameCase {
    std::optional<std::string> version;
    std::string strName;
    int nResult;
    Lines logs;
};

TEST(FindSmallFixNumfromDeb, JudgesNamesAgainstTheSystemBuild)
{
    REQUIRE_SANDBOX();
    const std::string strLong31(31, '3');
    const std::vector<NameCase> cases = {
        {kVersion, "smallupdate_4.1-2668-s5_powerpc.deb", 5, {}},
        {kVersion, "flashupdate_4.1-2668-s12_all.deb", 12, {}},
        {kVersion, "smallupdate_4.1-2668-s03_all.deb", 3, {}},
        {kVersion, "smallupdate_4.1-2668-sx_all.deb", 0, {}},
        {kVersion, "smallupdate_4.1-2668-s7b_all.deb", 7, {}},
        {kVersion, "hotfix-2668-s_4.1-s9_all.deb", 9, {}},
        {kVersion, "smallupdate_4.1-2669-s5_powerpc.deb", -1,
         {Different("smallupdate_4.1-2669-s5_powerpc.deb")}},
        {kVersion, "smallupdate_4.1-2668-s5.deb", -1, {}},
        {kVersion, "small_update_4.1-2668-s5_all.deb", -1, {}},
        {kVersion, "smallupdate-2668-s_4.1_all.deb", -1, {}},
        {kVersion, "smallupdate_4.1-2668-s5_all.tar", -1, {}},
        {kVersion, "smallupdate_4.1-2668-s5_all.DEB", -1, {}},
        {kVersion, "/smallupd@te/smallupdate_4.1-2668-s5_powerpc.deb", 5, {}},
        {kVersion, "smallupdate-2668-s1__all.deb", -1, {}},
        {kVersion, "x_4.1-02668-s5_all.deb", -1, {Different("x_4.1-02668-s5_all.deb")}},
        {kVersion, "x_4.1-2668-s-3_all.deb", -3, {}},
        {kVersion, "x_4.1-2668-s_all.deb", 0, {}},
        {kVersion, "x_4.1-2668-s 7_all.deb", 7, {}},
        {kVersion, "x_4.1-2668-s5-s8_all.deb", 8, {}},
        {kVersion, "x_4.1-2668-s99999999999_all.deb", INT_MAX, {}},
        {kVersion, "x_4.1-2668-s-99999999999_all.deb", INT_MIN, {}},
        {kVersion, ".deb", -1, {}},
        {kVersion, "", -1, {}},
        // The build number as the VERSION file may hold it.
        {std::nullopt, "smallupdate_4.1-2668-s5_powerpc.deb", -1, {kGetFail}},
        {std::nullopt, "smallupdate_4.1-2668-s5.deb", -1, {}},  // refused before reading
        {"model=x\n", "smallupdate_4.1-2668-s5_powerpc.deb", -1, {kGetFail}},
        {"# buildnumber=1\r\nbuildnumber = \"2668\" \r\nbuildnumber=1\r\n",
         "smallupdate_4.1-2668-s5_powerpc.deb", 5, {}},
        {"buildnumber=266\n", "x_4.1-1266-s5_all.deb", -1, {Different("x_4.1-1266-s5_all.deb", "266")}},
        {"buildnumber=" + strLong31 + "\n", "x_4.1-" + strLong31 + "-s6_all.deb", 6, {}},
        {"buildnumber=" + strLong31 + "3\n", "x_4.1-" + strLong31 + "3-s6_all.deb", -1, {kGetFail}},
        {"buildnumber=  \n", "x_4.1--s4_all.deb", 4, {}},  // an empty build is still found
    };
    for (const NameCase &c : cases) {
        const auto [nResult, logs] = SmallFix(c.version, c.strName);
        EXPECT_EQ(nResult, c.nResult) << "[" << c.strName << "]";
        EXPECT_EQ(logs, c.logs) << "[" << c.strName << "]";
    }
}

TEST(FindSmallFixNumfromDeb, NamesShorterThanTheSuffixThrow)
{
    for (const char *szName : {"a", "ab", "deb"})
        EXPECT_THROW(DebianLib::FindSmallFixNumfromDeb(szName), std::out_of_range) << szName;
}

TEST(InstallDebCompare, OrdersBySmallFixNumber)
{
    REQUIRE_SANDBOX();
    const auto res = Judged(kVersion, [] {
        std::vector<std::string> names = {"/smallupd@te/a_1-2668-s12_all.deb",
                                          "/smallupd@te/b_1-2668-s5_all.deb", "/smallupd@te/bad.deb",
                                          "/smallupd@te/c_1-2668-s7_all.deb"};
        std::sort(names.begin(), names.end(), DebianLib::InstallDebCompare);
        for (const std::string &str : names)
            printf("%s\n", str.c_str());
        const std::string strA = "a_1-2668-s5_all.deb";
        const std::string strB = "b_1-2668-s05_all.deb";
        printf("%d%d\n", DebianLib::InstallDebCompare(strA, strB),
               DebianLib::InstallDebCompare(strB, strA));
        return 0;
    });
    EXPECT_EQ(res.out,
              "/smallupd@te/bad.deb\n/smallupd@te/b_1-2668-s5_all.deb\n"
              "/smallupd@te/c_1-2668-s7_all.deb\n/smallupd@te/a_1-2668-s12_all.deb\n00\n");
}

struct CheckCase {
    std::string strPath;
    bool blAccepted;
    std::string strErr;
    Lines logs;
};

TEST(CheckDebian, AcceptsRefusesAndSaysWhy)
{
    REQUIRE_SANDBOX();
    const std::string strOtherBuild = "foo_4.1-2669-s5_powerpc.deb";
    const std::vector<CheckCase> cases = {
        {"/smallupd@te/foo_4.1-2668-s5_powerpc.deb", true, "", {}},
        {"/smallupd@te/smallupdate_4.1-2668-s5_powerpc.deb", false, "", {}},
        {"/smallupd@te/flashupdate_4.1-2668-s5_powerpc.deb", false, "", {}},
        {"/smallUpd@te/smallupdate_4.1-2668-s5_powerpc.deb", true, "", {}},
        {"smallupdate_4.1-2668-s5_powerpc.deb", false,
         "invalid debian url [smallupdate_4.1-2668-s5_powerpc.deb]\n",
         {"small_update.cpp: invalid debian url [smallupdate_4.1-2668-s5_powerpc.deb]\n"}},
        {"/smallupd@te/", false, "invalid debian name []\n",
         {"small_update.cpp: invalid debian name []\n"}},
        {"/smallupd@te/" + strOtherBuild, false, "invalid debian name [" + strOtherBuild + "]\n",
         {Different(strOtherBuild), "small_update.cpp: invalid debian name [" + strOtherBuild + "]\n"}},
    };
    for (const CheckCase &c : cases) {
        const auto res = Judged(kVersion, [&c] { return CheckDebian(c.strPath) ? 0 : 1; });
        EXPECT_EQ(res.ExitCode() == 0, c.blAccepted) << c.strPath;
        EXPECT_EQ(res.err, c.strErr) << c.strPath;
        EXPECT_EQ(testutil::LogTexts(res), c.logs) << c.strPath;
    }
}

}  // namespace
