#include <signal.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <vector>

#include "debian_lib.h"
#include "test_util.h"

namespace {

using Lines = std::vector<std::string>;

const char kInstallerLog[] = "/var/log/dpkg_upgrade.log";
const char kBanner[] = " ===========[-i /x/a.deb ]===========";
const char kFailure[] = "Failed to install -i/x/a.deb";
const char kOut[] = "<no stamp>stand-in dpkg: to standard output";
const char kErr[] = "<no stamp>stand-in dpkg: to standard error";
const char kBoth[] = "stand-in dpkg: to standard output\nstand-in dpkg: to standard error\n";

enum Setup { kPlain = 0, kNoDpkg = 1, kReadOnlyLog = 2, kIgnoreSigchld = 4 };

struct RunCase {
    const char *szName;
    int nSetup;
    const char *szHow;     // how the stand-in dpkg is asked to end
    const char *szFolder;  // "" for the two-argument form
    bool blInstalled;
    Lines log;                 // the installer log, stamps removed
    const char *szCallerSees;  // on the caller's standard output, then error
    Lines syslog;              // see testutil::LogTexts
};

TEST(ExecDpkg, RunsDpkgAsTheCallerAndTheLogsSeeIt)
{
    REQUIRE_SANDBOX();
    const RunCase cases[] = {
        {"exit 0", kPlain, "exit 0", "", true, {kBanner, kOut, kErr}, "", {}},
        {"exit 1", kPlain, "exit 1", "", false, {kBanner, kOut, kErr, kFailure}, "", {}},
        {"exit 2", kPlain, "exit 2", "", false, {kBanner, kOut, kErr, kFailure}, "", {}},
        {"killed counts as installed", kPlain, "kill KILL", "", true, {kBanner, kOut, kErr}, "", {}},
        {"no dpkg", kNoDpkg, "", "", false, {kBanner, kFailure}, "", {}},
        {"read-only log, success", kReadOnlyLog, "exit 0", "", true, {}, kBoth, {}},
        {"read-only log, failure", kReadOnlyLog, "exit 3", "", false, {}, kBoth, {}},
        {"three arguments",
         kPlain,
         "exit 1",
         "/dest",
         false,
         {" ===========[-i /x/a.deb /dest]===========", kOut, kErr,
          "Failed to install -i/x/a.deb/dest"},
         "",
         {}},
        {"failed wait", kIgnoreSigchld, "exit 0", "", false, {kBanner, kOut, kErr}, "",
         {"debian_lib.cpp: Fail to exec [dpkg -i /x/a.deb] error=[No child processes]"}},
    };
    for (const RunCase &c : cases) {
        SCOPED_TRACE(c.szName);
        auto sb = testutil::MakeSandbox();
        if (c.nSetup & kNoDpkg)
            sb->Remove("/usr/bin/dpkg");
        else
            sb->InstallStandin("/usr/bin/dpkg");
        if (c.nSetup & kReadOnlyLog)
            sb->MountReadOnly("/var/log");
        sb->WriteFile("/x/a.deb", std::string("standin dpkg: ") + c.szHow + "\n");

        const auto res = sb->Call([&c] {
            if (c.nSetup & kIgnoreSigchld)
                signal(SIGCHLD, SIG_IGN);  // the kernel reaps dpkg, so the wait fails
            setenv("VYRA_CALLER", "kept", 1);
            if (chdir("/x") != 0)
                return 2;
            return DebianLib::ExecDpkg("-i", "/x/a.deb", c.szFolder) ? 0 : 1;
        });

        ASSERT_TRUE(res.Exited()) << res.err;
        EXPECT_EQ(res.ExitCode() == 0, c.blInstalled);
        EXPECT_EQ(testutil::LogLines(*sb, kInstallerLog), c.log);
        EXPECT_EQ(res.out + res.err, c.szCallerSees);
        EXPECT_EQ(testutil::LogTexts(res), c.syslog);
        const auto calls = sb->StandinCalls();
        ASSERT_EQ(calls.size(), c.nSetup & kNoDpkg ? 0u : 1u);
        if (calls.empty())
            continue;
        Lines argv = {"/usr/bin/dpkg", "-i", "/x/a.deb"};
        if (*c.szFolder != '\0')
            argv.push_back(c.szFolder);
        EXPECT_EQ(calls[0].argv, argv);
        EXPECT_EQ(calls[0].cwd, "/x");
        EXPECT_NE(std::find(calls[0].env.begin(), calls[0].env.end(), "VYRA_CALLER=kept"),
                  calls[0].env.end());
        if (!(c.nSetup & kReadOnlyLog)) {
            EXPECT_EQ(calls[0].fds.at(1), kInstallerLog);
            EXPECT_EQ(calls[0].fds.at(2), kInstallerLog);
        }
    }
}

TEST(ExecDpkgWithRealDpkg, InstallsAPackageAndReportsABrokenOne)
{
    REQUIRE_SANDBOX();
    auto sb = testutil::MakeSandbox();
    ASSERT_TRUE(sb->BuildDeb("vyra-hello", "/x/hello.deb"));
    sb->WriteFile("/x/broken.deb", "!<arch>\nnot a package at all\n");

    const auto res = sb->Call([] {
        return (DebianLib::ExecDpkg("-i", "/x/hello.deb") ? 1 : 0) |
               (DebianLib::ExecDpkg("-i", "/x/broken.deb") ? 2 : 0);
    });

    EXPECT_EQ(res.ExitCode(), 1) << "the good one installed, the broken one not";
    EXPECT_EQ(sb->ReadFile("/usr/share/vyra-hello/hello"), "vyra-hello\n");
    EXPECT_NE(sb->ReadFile("/var/lib/dpkg/status")
                  .value_or("")
                  .find("Package: vyra-hello\nStatus: install ok installed\n"),
              std::string::npos);
    const Lines log = testutil::LogLines(*sb, kInstallerLog);
    const auto at = [&log](const std::string &strLine) {
        return std::find(log.begin(), log.end(), strLine) - log.begin();
    };
    EXPECT_LT(at(" ===========[-i /x/hello.deb ]==========="),
              at(" ===========[-i /x/broken.deb ]==========="));
    EXPECT_LT(at(" ===========[-i /x/broken.deb ]==========="), static_cast<long>(log.size()) - 2)
        << "dpkg's complaint lies between the banner and the failure line";
    EXPECT_EQ(log.back(), "Failed to install -i/x/broken.deb");
    EXPECT_EQ(std::count(log.begin(), log.end(), "Failed to install -i/x/hello.deb"), 0);
}

}  // namespace
