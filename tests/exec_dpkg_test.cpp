#include <signal.h>
#include <stdlib.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <vector>

#include "debian_lib.h"
#include "test_util.h"

namespace {

using testutil::SplitLines;
using testutil::Unstamped;
using Lines = std::vector<std::string>;

const char kInstallerLog[] = "/var/log/dpkg_upgrade.log";
const char kBanner[] = " ===========[-i /x/a.deb ]===========";
const char kFailure[] = "Failed to install -i/x/a.deb";
const char kStandinOut[] = "<no stamp>stand-in dpkg: to standard output";
const char kStandinErr[] = "<no stamp>stand-in dpkg: to standard error";

// /usr/bin/dpkg is the recording stand-in; the package /x/a.deb tells it how
// to end ("exit N", "kill SIGNAL").
std::unique_ptr<sandbox::Sandbox> StandinSandbox(const std::string &strHow)
{
    auto sb = testutil::MakeSandbox();
    testutil::InstallStandin(*sb, "/usr/bin/dpkg");
    sb->WriteFile("/x/a.deb", "standin dpkg: " + strHow + "\n");
    return sb;
}

Lines InstallerLog(const sandbox::Sandbox &sb)
{
    Lines lines = SplitLines(sb.ReadFile(kInstallerLog).value_or(""));
    std::transform(lines.begin(), lines.end(), lines.begin(), Unstamped);
    return lines;
}

int InstallA()
{
    return DebianLib::ExecDpkg("-i", "/x/a.deb") ? 0 : 1;
}

struct EndCase {
    const char *szName;
    const char *szHow;
    bool blInstalled;
};

class ExecDpkgEnds : public testing::TestWithParam<EndCase> {};

TEST_P(ExecDpkgEnds, JudgesTheExitAndLogsAroundDpkgsOutput)
{
    REQUIRE_SANDBOX();
    const EndCase &c = GetParam();
    auto sb = StandinSandbox(c.szHow);

    const auto res = sb->Call(InstallA);

    ASSERT_TRUE(res.Exited()) << res.err;
    EXPECT_EQ(res.ExitCode() == 0, c.blInstalled);
    const auto calls = testutil::StandinCalls(*sb);
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_EQ(calls[0].argv, (Lines{"/usr/bin/dpkg", "-i", "/x/a.deb"}));
    EXPECT_EQ(calls[0].fds.at(1), kInstallerLog);
    EXPECT_EQ(calls[0].fds.at(2), kInstallerLog);
    Lines expected = {kBanner, kStandinOut, kStandinErr};
    if (!c.blInstalled)
        expected.push_back(kFailure);
    EXPECT_EQ(InstallerLog(*sb), expected);
    EXPECT_EQ(res.out + res.err, "") << "nothing reaches the caller's outputs";
}

INSTANTIATE_TEST_SUITE_P(Cases, ExecDpkgEnds,
                         testing::Values(EndCase{"ExitZero", "exit 0", true},
                                         EndCase{"ExitOne", "exit 1", false},
                                         EndCase{"ExitTwo", "exit 2", false},
                                         EndCase{"KilledCountsAsInstalled", "kill KILL", true}),
                         [](const testing::TestParamInfo<EndCase> &info) {
                             return info.param.szName;
                         });

TEST(ExecDpkg, MissingDpkgFailsWithTheFailureLine)
{
    REQUIRE_SANDBOX();
    auto sb = testutil::MakeSandbox();
    sb->Remove("/usr/bin/dpkg");
    sb->WriteFile("/x/a.deb", "");

    const auto res = sb->Call(InstallA);

    EXPECT_EQ(res.ExitCode(), 1);
    EXPECT_EQ(InstallerLog(*sb), (Lines{kBanner, kFailure}));
}

TEST(ExecDpkg, ReadOnlyLogLeavesOutputOnTheCallersDescriptors)
{
    REQUIRE_SANDBOX();
    for (const bool blSucceeds : {true, false}) {
        auto sb = StandinSandbox(blSucceeds ? "exit 0" : "exit 3");
        sb->MountReadOnly("/var/log");

        const auto res = sb->Call(InstallA);

        EXPECT_EQ(res.ExitCode(), blSucceeds ? 0 : 1);
        EXPECT_FALSE(sb->Exists(kInstallerLog));
        EXPECT_EQ(res.out, "stand-in dpkg: to standard output\n");
        EXPECT_EQ(res.err, "stand-in dpkg: to standard error\n");
    }
}

TEST(ExecDpkg, ThreeArgumentFormPassesTheFolderOn)
{
    REQUIRE_SANDBOX();
    auto sb = StandinSandbox("exit 1");

    const auto res = sb->Call([] { return DebianLib::ExecDpkg("-i", "/x/a.deb", "/dest") ? 0 : 1; });

    EXPECT_EQ(res.ExitCode(), 1);
    const auto calls = testutil::StandinCalls(*sb);
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_EQ(calls[0].argv, (Lines{"/usr/bin/dpkg", "-i", "/x/a.deb", "/dest"}));
    EXPECT_EQ(InstallerLog(*sb), (Lines{" ===========[-i /x/a.deb /dest]===========", kStandinOut,
                                        kStandinErr, "Failed to install -i/x/a.deb/dest"}));
}

TEST(ExecDpkg, ChildKeepsTheCallersEnvironmentAndDirectory)
{
    REQUIRE_SANDBOX();
    auto sb = StandinSandbox("exit 0");

    sb->Call([] {
        setenv("VYRA_CALLER", "kept", 1);
        return chdir("/x") == 0 ? InstallA() : 2;
    });

    const auto calls = testutil::StandinCalls(*sb);
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_EQ(calls[0].cwd, "/x");
    EXPECT_NE(std::find(calls[0].env.begin(), calls[0].env.end(), "VYRA_CALLER=kept"),
              calls[0].env.end());
}

TEST(ExecDpkg, FailedWaitIsLoggedAndFails)
{
    REQUIRE_SANDBOX();
    auto sb = StandinSandbox("exit 0");

    // With SIGCHLD ignored the child is reaped by the kernel and the wait fails.
    const auto res = sb->Call([] {
        signal(SIGCHLD, SIG_IGN);
        return InstallA();
    });

    EXPECT_EQ(res.ExitCode(), 1);
    ASSERT_EQ(res.log.size(), 1u);
    EXPECT_EQ(res.log[0].priority, LOG_USER | LOG_ERR) << "no facility of its own";
    EXPECT_EQ(testutil::Unsourced(res.log[0].text, "debian_lib.cpp"),
              "Fail to exec [dpkg -i /x/a.deb] error=[No child processes]");
    EXPECT_EQ(InstallerLog(*sb), (Lines{kBanner, kStandinOut, kStandinErr}));
}

TEST(ExecDpkgWithRealDpkg, InstallsAPackageAndReportsABrokenOne)
{
    REQUIRE_SANDBOX();
    auto sb = testutil::MakeSandbox();
    sb->WriteFile("/build/vyra-hello/DEBIAN/control",
                  "Package: vyra-hello\nVersion: 1.0\nArchitecture: all\n"
                  "Maintainer: Tests <tests@example.invalid>\nDescription: test package\n");
    sb->WriteFile("/build/vyra-hello/usr/share/vyra-hello/hello.txt", "hello\n");
    sb->MakeDir("/x");
    const auto built = sb->Run({"/usr/bin/dpkg-deb", "--root-owner-group", "--build",
                                "/build/vyra-hello", "/x/hello.deb"});
    ASSERT_EQ(built.ExitCode(), 0) << built.err;
    sb->WriteFile("/x/broken.deb", "!<arch>\nnot a package at all\n");

    const auto res = sb->Call([] {
        return (DebianLib::ExecDpkg("-i", "/x/hello.deb") ? 1 : 0) |
               (DebianLib::ExecDpkg("-i", "/x/broken.deb") ? 2 : 0);
    });

    EXPECT_EQ(res.ExitCode(), 1) << "the good one installed, the broken one not";
    EXPECT_EQ(sb->ReadFile("/usr/share/vyra-hello/hello.txt"), "hello\n");
    EXPECT_NE(sb->ReadFile("/var/lib/dpkg/status")
                  .value_or("")
                  .find("Package: vyra-hello\nStatus: install ok installed\n"),
              std::string::npos);
    const Lines log = InstallerLog(*sb);
    const auto at = [&log](const std::string &strLine) {
        return std::find(log.begin(), log.end(), strLine) - log.begin();
    };
    const auto nGoodBanner = at(" ===========[-i /x/hello.deb ]===========");
    const auto nBrokenBanner = at(" ===========[-i /x/broken.deb ]===========");
    EXPECT_LT(nGoodBanner, nBrokenBanner);
    EXPECT_LT(nBrokenBanner, static_cast<long>(log.size()) - 2) << "dpkg's complaint follows";
    EXPECT_EQ(log.back(), "Failed to install -i/x/broken.deb");
    EXPECT_EQ(std::count(log.begin(), log.end(), "Failed to install -i/x/hello.deb"), 0);
}

}  // namespace
