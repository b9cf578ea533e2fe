// The built small_update, run in the sandbox on a machine of build 2668 with
// recording stand-ins for dpkg and the appliance's two tools.
#include <algorithm>
#include <functional>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "test_util.h"

namespace {

using Lines = std::vector<std::string>;
using Packages = std::vector<std::pair<std::string, std::string>>;  // name, content

const std::string kDir = "/smallupd@te/";
const char kDpkg[] = "/usr/bin/dpkg";
const char kLogSet[] = "/usr/vyra/bin/vyralogset1";
const char kNotify[] = "/usr/vyra/bin/vyradeknotify";
const char kUpdateLog[] = "/var/log/vyraupdate.log";
const char kInstallerLog[] = "/var/log/dpkg_upgrade.log";
const char kFail[] = "standin dpkg: exit 1\n";  // a package whose install fails

std::unique_ptr<sandbox::Sandbox> Machine(const Packages &packages, bool blStandinDpkg = true)
{
    auto sb = testutil::MakeSandbox();
    sb->WriteFile("/etc.defaults/VERSION", "buildnumber=\"2668\"\n");
    for (const char *szTool : {kLogSet, kNotify})
        sb->InstallStandin(szTool);
    if (blStandinDpkg)
        sb->InstallStandin(kDpkg);
    sb->EmptyDir("/smallupd@te");
    for (const auto &[strName, strContent] : packages)
        sb->WriteFile(kDir + strName, strContent);
    return sb;
}

// What one run did, on every channel, and what it should have done.
struct Journal {
    int nExit = 255;
    std::vector<Lines> calls;  // argument vectors of the stand-ins, in order
    std::string strErr;
    Lines syslog;  // see testutil::LogTexts
    Lines updateLog;

    Journal &Installed(const std::string &strName) { return Call({kDpkg, "-i", kDir + strName}); }
    Journal &FailedToInstall(const std::string &strName)
    {
        Installed(strName);
        return Report("Failed to install [" + kDir + strName + "]\n", "0x11B01031",
                      "update:small_update_install_failed", strName);
    }
    Journal &BadName(const std::string &strName)
    {
        const std::string strMsg = "invalid debian name [" + strName + "]\n";
        strErr += strMsg;
        syslog.push_back("small_update.cpp: " + strMsg);
        return Rejected(strName);
    }
    Journal &OtherBuild(const std::string &strName)
    {
        syslog.push_back("debian_lib.cpp: different buildnumber of deb [" + strName +
                         "] with system buildnumber [2668]\n");
        return BadName(strName);
    }
    Journal &Rejected(const std::string &strName)
    {
        return Report("Unexpected Debian [" + kDir + strName + "], skip install.\n", "0x11B01030",
                      "update:small_update_check_failed", strName);
    }
    Journal &Verdict(bool blSuccess)
    {
        nExit = blSuccess ? 0 : 255;
        updateLog = {blSuccess ? "Finished critical update!!!" : "Failed to update critical update"};
        return *this;
    }
    // For runs where a program is missing or is not a stand-in, so it
    // leaves no record.
    Journal &Without(const char *szProgram)
    {
        calls.erase(std::remove_if(calls.begin(), calls.end(),
                                   [szProgram](const Lines &argv) { return argv[0] == szProgram; }),
                    calls.end());
        return *this;
    }

private:
    Journal &Call(const Lines &argv)
    {
        calls.push_back(argv);
        return *this;
    }
    Journal &Report(const std::string &strMsg, const char *szCode, const char *szKey,
                const std::string &strName)
    {
        strErr += strMsg;
        syslog.push_back("small_update.cpp: " + strMsg);
        Call({kLogSet, "sys", "err", szCode, kDir + strName});
        return Call({kNotify, "@administrators", szKey, kDir + strName});
    }
};

Journal Observed(const sandbox::Sandbox &sb, const sandbox::Result &res)
{
    Journal run;
    run.nExit = res.Exited() ? res.ExitCode() : 1000 + res.Signal();
    for (const auto &call : sb.StandinCalls())
        run.calls.push_back(call.argv);
    run.strErr = res.err;
    run.syslog = testutil::LogTexts(res);
    run.updateLog = testutil::LogLines(sb, kUpdateLog);
    return run;
}

void ExpectRun(const Journal &actual, const Journal &expected, const std::string &strWhere = "")
{
    EXPECT_EQ(actual.nExit, expected.nExit) << strWhere;
    EXPECT_EQ(actual.calls, expected.calls) << strWhere;
    EXPECT_EQ(actual.strErr, expected.strErr) << strWhere;
    EXPECT_EQ(actual.syslog, expected.syslog) << strWhere;
    EXPECT_EQ(actual.updateLog, expected.updateLog) << strWhere;
}

TEST(SmallUpdate, FindingNothingDoesNothing)
{
    REQUIRE_SANDBOX();
    const std::vector<std::pair<const char *, std::function<void(sandbox::Sandbox &)>>> setups = {
        {"no directory", [](sandbox::Sandbox &sb) { sb.Remove("/smallupd@te"); }},
        {"empty directory", [](sandbox::Sandbox &) {}},
        {"other suffixes",
         [](sandbox::Sandbox &sb) {
             sb.WriteFile(kDir + "a_1-2668-s1_all.tar", "");
             sb.WriteFile(kDir + "a_1-2668-s1_all.debx", "");
             sb.WriteFile(kDir + "a_1-2668-s1_all.DEB", "");
         }},
        {"dot-file", [](sandbox::Sandbox &sb) { sb.WriteFile(kDir + ".a_1-2668-s1_all.deb", ""); }},
        {"other case",
         [](sandbox::Sandbox &sb) { sb.WriteFile("/smallUpd@te/a_1-2668-s1_all.deb", ""); }},
    };
    for (const auto &[szWhat, setup] : setups) {
        auto sb = Machine({});
        setup(*sb);
        const auto res = sb->Run(testutil::ToolCommand());
        ExpectRun(Observed(*sb, res), Journal(), szWhat);
        EXPECT_EQ(res.out, "") << szWhat;
        EXPECT_FALSE(sb->Exists(kUpdateLog) || sb->Exists(kInstallerLog)) << szWhat;
    }
}

TEST(SmallUpdate, InstallsInSmallFixOrderWhateverTheArguments)
{
    REQUIRE_SANDBOX();
    auto sb = Machine({{"a_1-2668-s12_all.deb", ""}, {"b_1-2668-s5_all.deb", ""},
                       {"c_1-2668-s7_all.deb", ""}});

    const auto res = sb->Run(testutil::ToolCommand({"--help", "-x", "/smallupd@te/a_1-2668-s12_all.deb"}));

    ExpectRun(Observed(*sb, res), Journal()
                                      .Installed("b_1-2668-s5_all.deb")
                                      .Installed("c_1-2668-s7_all.deb")
                                      .Installed("a_1-2668-s12_all.deb")
                                      .Verdict(true));
    EXPECT_EQ(res.out, "");
}

TEST(SmallUpdate, ReportsEveryRejectionFirstAndGoesOnAfterAFailure)
{
    REQUIRE_SANDBOX();
    auto sb = Machine({{"a_1-2668-s2_all.deb", ""},
                       {"b_1-2669-s1_all.deb", ""},
                       {"c_1-2668-s3_all.deb", kFail},
                       {"d.deb", ""},
                       {"e_1-2668-s4_all.deb", kFail},
                       {"smallupdate_1-2668-s1_all.deb", ""},
                       {"x.deb", ""}});
    sb->MakeDir(kDir + "f_1-2668-s1_all.deb");  // a directory is a candidate too

    const auto res = sb->Run(testutil::ToolCommand());

    ExpectRun(Observed(*sb, res), Journal()
                                      .OtherBuild("b_1-2669-s1_all.deb")
                                      .BadName("d.deb")
                                      .Rejected("smallupdate_1-2668-s1_all.deb")
                                      .BadName("x.deb")
                                      .Installed("f_1-2668-s1_all.deb")
                                      .Installed("a_1-2668-s2_all.deb")
                                      .FailedToInstall("c_1-2668-s3_all.deb")
                                      .FailedToInstall("e_1-2668-s4_all.deb")
                                      .Verdict(false));
}

TEST(SmallUpdate, RejectingEverythingRunsNoDpkg)
{
    REQUIRE_SANDBOX();
    auto sb = Machine({{"a_1-2669-s1_all.deb", ""}, {"flashupdate_1-2668-s1_all.deb", ""}});

    const auto res = sb->Run(testutil::ToolCommand());

    ExpectRun(Observed(*sb, res), Journal()
                                      .OtherBuild("a_1-2669-s1_all.deb")
                                      .Rejected("flashupdate_1-2668-s1_all.deb")
                                      .Verdict(false));
}

// Descriptor 7 stands for whatever the tool's caller leaves open: the design
// passes it on to every child, but nothing the tool opens itself.
TEST(SmallUpdate, ChildrenGetOnlyWhatTheDesignLetsThrough)
{
    REQUIRE_SANDBOX();
    auto sb = Machine({{"a_1-2668-s1_all.deb", kFail}});
    auto env = sandbox::Sandbox::DefaultEnv();
    env.push_back("VYRA_CALLER=kept");

    auto command = testutil::ToolCommand();
    command.insert(command.begin(),
                   {"/bin/sh", "-c", "cd /tmp && exec 7</etc/hostname && exec \"$@\"", "sh"});
    sb->Run(command, env);

    const auto calls = sb->StandinCalls();
    ASSERT_EQ(calls.size(), 3u);
    const auto &dpkg = calls[0];
    EXPECT_EQ(dpkg.cwd, "/tmp");
    EXPECT_NE(std::find(dpkg.env.begin(), dpkg.env.end(), "VYRA_CALLER=kept"), dpkg.env.end());
    EXPECT_EQ(dpkg.fds, (std::map<int, std::string>{{0, "/dev/null"},
                                                    {1, kInstallerLog},
                                                    {2, kInstallerLog},
                                                    {7, "/etc/hostname"}}));
    for (const auto &tool : {calls[1], calls[2]}) {
        EXPECT_EQ(tool.env, Lines{sandbox::Sandbox::DefaultEnv()[0]}) << tool.argv[0];
        EXPECT_EQ(tool.cwd, "/") << tool.argv[0];
        EXPECT_EQ(tool.sid, tool.pid) << tool.argv[0];
        EXPECT_EQ(tool.ppid, dpkg.ppid) << "a child of the tool: " << tool.argv[0];
        EXPECT_EQ(tool.fds, (std::map<int, std::string>{{0, "/dev/null"},
                                                        {1, "/dev/null"},
                                                        {2, "/dev/null"},
                                                        {7, "/etc/hostname"}}))
            << tool.argv[0];
    }
}

TEST(SmallUpdate, HostileNamesAreJudgedLikeAnyOther)
{
    REQUIRE_SANDBOX();
    const Lines good = {"%n%s_1-2668-s1_all.deb", "a b'\";c_1-2668-s2_all.deb",
                        "\xc3\xa9\xff_1-2668-s3_all.deb", "-x_1-2668-s4_all.deb",
                        std::string(210, 'l') + "_1-2668-s5_all.deb"};
    Packages packages;
    for (const std::string &strName : good)
        packages.push_back({strName, ""});
    for (const char *szName : {"%n%n.deb", "%s_1-2669-s1_all.deb", "-rf.deb"})
        packages.push_back({szName, ""});
    auto sb = Machine(packages);

    const auto res = sb->Run(testutil::ToolCommand());

    Journal expected;
    expected.BadName("%n%n.deb").OtherBuild("%s_1-2669-s1_all.deb").BadName("-rf.deb");
    for (const std::string &strName : good)
        expected.Installed(strName);
    ExpectRun(Observed(*sb, res), expected.Verdict(false));
    Lines banners;
    for (const std::string &strLine : testutil::LogLines(*sb, kInstallerLog)) {
        if (strLine.rfind(" ===", 0) == 0)
            banners.push_back(strLine);
    }
    ASSERT_EQ(banners.size(), good.size());
    for (size_t i = 0; i < good.size(); ++i)
        EXPECT_EQ(banners[i], " ===========[-i " + kDir + good[i] + " ]===========");
}

// Faults around the tool: each run behaves as it would without the fault,
// less only what the fault itself prevents, and loses nothing written.
TEST(SmallUpdateFaults, FullLogDiskLosesOnlyWhatNoLongerFits)
{
    REQUIRE_SANDBOX();
    auto sb = Machine({{"a_1-2668-s1_all.deb", ""}, {"b_1-2668-s2_all.deb", kFail}});
    sb->MountTmpfs("/var/log", "size=4k");  // one page: the installer log's

    const auto res = sb->Run(testutil::ToolCommand());

    Journal expected;
    expected.Installed("a_1-2668-s1_all.deb").FailedToInstall("b_1-2668-s2_all.deb").Verdict(false);
    expected.updateLog = {};  // created, but its line found no room
    ExpectRun(Observed(*sb, res), expected);
    EXPECT_EQ(sb->ReadFile(kUpdateLog), "");
    EXPECT_EQ(testutil::LogLines(*sb, kInstallerLog),
              (Lines{" ===========[-i /smallupd@te/a_1-2668-s1_all.deb ]===========",
                     "<no stamp>stand-in dpkg: to standard output",
                     "<no stamp>stand-in dpkg: to standard error",
                     " ===========[-i /smallupd@te/b_1-2668-s2_all.deb ]===========",
                     "<no stamp>stand-in dpkg: to standard output",
                     "<no stamp>stand-in dpkg: to standard error",
                     "Failed to install -i/smallupd@te/b_1-2668-s2_all.deb"}));
}

TEST(SmallUpdateFaults, ReadOnlyLogDirectorySendsDpkgOutputToTheCaller)
{
    REQUIRE_SANDBOX();
    auto sb = Machine({{"a_1-2668-s1_all.deb", ""}, {"b_1-2668-s2_all.deb", kFail}});
    sb->MountReadOnly("/var/log");

    const auto res = sb->Run(testutil::ToolCommand());

    Journal expected;
    expected.Installed("a_1-2668-s1_all.deb").FailedToInstall("b_1-2668-s2_all.deb").Verdict(false);
    expected.updateLog = {};
    expected.strErr = "stand-in dpkg: to standard error\nstand-in dpkg: to standard error\n" +
                      expected.strErr;
    ExpectRun(Observed(*sb, res), expected);
    EXPECT_EQ(res.out, "stand-in dpkg: to standard output\nstand-in dpkg: to standard output\n");
}

TEST(SmallUpdateFaults, TheAppliancesToolsCannotStopTheRun)
{
    REQUIRE_SANDBOX();
    // The event-log tool is missing; the notification tool fails on one
    // package and takes its time on another.
    auto sb = Machine({{"a.deb", "standin vyradeknotify: exit 3\n"},
                       {"b.deb", "standin vyradeknotify: sleep 1\n"},
                       {"c_1-2668-s1_all.deb", ""}});
    sb->Remove(kLogSet);

    const auto res = sb->Run(testutil::ToolCommand());

    Journal expected;
    expected.BadName("a.deb").BadName("b.deb").Installed("c_1-2668-s1_all.deb").Verdict(false);
    ExpectRun(Observed(*sb, res), expected.Without(kLogSet));
    for (const auto &call : sb->StandinCalls())
        EXPECT_EQ(call.pending, std::vector<int>{}) << "one child at a time: " << call.argv[0];
}

TEST(SmallUpdateFaults, VersionFileThatIsADirectoryRefusesEveryName)
{
    REQUIRE_SANDBOX();
    auto sb = Machine({{"a_1-2668-s1_all.deb", ""}});
    sb->Remove("/etc.defaults/VERSION");
    sb->MakeDir("/etc.defaults/VERSION");

    const auto res = sb->Run(testutil::ToolCommand());

    Journal expected;
    expected.syslog.push_back("debian_lib.cpp: Get buildnumber Fail\n");
    ExpectRun(Observed(*sb, res), expected.BadName("a_1-2668-s1_all.deb").Verdict(false));
}

TEST(SmallUpdateFaults, UnreadableUpdateDirectoryIsLikeAnEmptyOne)
{
    REQUIRE_SANDBOX();
    auto sb = Machine({{"a_1-2668-s1_all.deb", ""}});
    sb->MakeDir("/smallupd@te", 0);
    // As root the directory's mode would not matter: the run loses the
    // capabilities that override it.
    auto command = testutil::ToolCommand();
    command.insert(command.begin(), {"/usr/bin/setpriv", "--bounding-set=-dac_override,-dac_read_search"});

    const auto res = sb->Run(command);

    ExpectRun(Observed(*sb, res), Journal());
    EXPECT_FALSE(sb->Exists(kUpdateLog));
}

TEST(SmallUpdateFaults, LinksAndPipesAreCandidatesByName)
{
    REQUIRE_SANDBOX();
    auto sb = Machine({});
    sb->WriteFile("/elsewhere/real.deb", "");
    sb->Symlink("/elsewhere/real.deb", kDir + "a_1-2668-s1_all.deb");
    sb->Symlink("/nowhere.deb", kDir + "b_1-2668-s2_all.deb");
    // The tool never opens a candidate, so a pipe cannot hold it up.
    ASSERT_EQ(sb->Run({"/usr/bin/mkfifo", kDir + "c_1-2668-s3_all.deb"}).ExitCode(), 0);

    const auto res = sb->Run(testutil::ToolCommand());

    ExpectRun(Observed(*sb, res), Journal()
                                      .Installed("a_1-2668-s1_all.deb")
                                      .Installed("b_1-2668-s2_all.deb")
                                      .Installed("c_1-2668-s3_all.deb")
                                      .Verdict(true));
}

TEST(SmallUpdateUnderValgrind, RejectsFailsAndInstallsWithoutMemoryErrorsOrLeaks)
{
    REQUIRE_SANDBOX();
    if (!VYRA_VALGRIND_APPLIES)
        GTEST_SKIP() << "valgrind checks the host build only; the sanitizers check this one";
    auto sb = Machine({{"a_1-2668-s1_all.deb", ""},
                       {"b_1-2669-s1_all.deb", ""},
                       {"c_1-2668-s2_all.deb", kFail},
                       {"d.deb", ""}});
    auto command = testutil::ToolCommand();
    command.insert(command.begin(),
                   {"/usr/bin/valgrind", "--error-exitcode=99", "--leak-check=full",
                    "--errors-for-leak-kinds=definite,indirect", "--child-silent-after-fork=yes"});

    const auto res = sb->Run(command);

    EXPECT_EQ(res.ExitCode(), 255) << res.err;
    EXPECT_NE(res.err.find("ERROR SUMMARY: 0 errors"), std::string::npos) << res.err;
    EXPECT_EQ(sb->StandinCalls().size(), 8u) << "two rejections, two installs, one failure";
}

TEST(SmallUpdateWithRealDpkg, InstallsRealPackagesInOrderAndReportsABrokenOne)
{
    REQUIRE_SANDBOX();
    auto sb = Machine({{"vyra-d_1.0-2668-s4_all.deb", "!<arch>\nnot a package\n"}}, false);
    for (const char *szName : {"vyra-a_1.0-2668-s3_all.deb", "vyra-b_1.0-2668-s2_all.deb",
                               "vyra-c_1.0-2668-s1_all.deb"})
        ASSERT_TRUE(sb->BuildDeb(std::string(szName, 6), kDir + szName));

    const auto res = sb->Run(testutil::ToolCommand());

    Journal expected;
    expected.FailedToInstall("vyra-d_1.0-2668-s4_all.deb").Verdict(false);
    ExpectRun(Observed(*sb, res), expected.Without(kDpkg));
    const std::string strStatus = sb->ReadFile("/var/lib/dpkg/status").value_or("");
    for (const char *szPackage : {"vyra-a", "vyra-b", "vyra-c"}) {
        EXPECT_NE(strStatus.find(std::string("Package: ") + szPackage +
                                 "\nStatus: install ok installed\n"),
                  std::string::npos)
            << szPackage;
        EXPECT_EQ(sb->ReadFile(std::string("/usr/share/") + szPackage + "/hello"),
                  std::string(szPackage) + "\n");
    }
    EXPECT_EQ(strStatus.find("Package: vyra-d\n"), std::string::npos);
    std::string strOrder;
    for (const std::string &strLine : testutil::LogLines(*sb, kInstallerLog)) {
        if (strLine.rfind(" ===========[-i /smallupd@te/vyra-", 0) == 0)
            strOrder += strLine[34];
    }
    EXPECT_EQ(strOrder, "cbad");
}

}  // namespace
