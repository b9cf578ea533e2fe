#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <set>
#include <string>
#include <vector>

#include "test_util.h"
#include "vyracore.h"

namespace {

using Lines = std::vector<std::string>;

const char kProbe[] = "/usr/bin/probe";

// A sandbox whose /usr/bin/probe records what it saw; /how/<x> files tell it
// how to end.
std::unique_ptr<sandbox::Sandbox> ProbeSandbox()
{
    auto sb = testutil::MakeSandbox();
    sb->InstallStandin(kProbe);
    sb->WriteFile("/how/exit3", "standin probe: exit 3\n");
    sb->WriteFile("/how/kill", "standin probe: kill KILL\n");
    return sb;
}

std::set<std::string> Targets(const sandbox::StandinCall &call)
{
    std::set<std::string> targets;
    for (const auto &fd : call.fds)
        targets.insert(fd.second);
    return targets;
}

TEST(Exec, RunsTheProgramSilentInItsOwnSessionWithOnlyPath)
{
    REQUIRE_SANDBOX();
    auto sb = ProbeSandbox();

    const auto res = sb->Call([] {
        setenv("VYRA_CALLER", "dropped", 1);
        rgslckList[1].pfFile = fopen("/tmp/lock_pw", "w");
        rgslckList[1].cLock = 1;
        const int fdKept = open("/etc/passwd", O_RDONLY);  // no close-on-exec
        const int nFirst = VLIBCExec(kProbe, "a", "b", nullptr, "never passed");
        unsetenv("PATH");
        const int nSecond = VLIBCExec(kProbe, nullptr, nullptr, nullptr, nullptr);
        printf("%d %d %d", nFirst, nSecond, static_cast<int>(getpid()));
        return fdKept >= 0 ? 0 : 1;
    });

    ASSERT_EQ(res.ExitCode(), 0) << res.err;
    int nFirst = -2, nSecond = -2;
    long nCaller = 0;
    sscanf(res.out.c_str(), "%d %d %ld", &nFirst, &nSecond, &nCaller);
    EXPECT_EQ(nFirst, 0);
    EXPECT_EQ(nSecond, 0);
    const auto calls = sb->StandinCalls();
    ASSERT_EQ(calls.size(), 2u);
    EXPECT_EQ(calls[0].argv, (Lines{kProbe, "a", "b"}));
    EXPECT_EQ(calls[0].env, Lines{sandbox::Sandbox::DefaultEnv()[0]});
    EXPECT_EQ(calls[0].cwd, "/");
    for (int fd = 0; fd <= 2; ++fd)
        EXPECT_EQ(calls[0].fds.at(fd), "/dev/null") << fd;
    EXPECT_EQ(Targets(calls[0]).count("/etc/passwd"), 1u) << "other descriptors stay open";
    EXPECT_EQ(Targets(calls[0]).count("/tmp/lock_pw"), 0u) << "lock streams are closed";
    EXPECT_EQ(calls[0].sid, calls[0].pid) << "a session leader";
    EXPECT_EQ(calls[0].ppid, nCaller) << "waited for as a direct child";
    EXPECT_EQ(calls[1].argv, (Lines{kProbe}));
    EXPECT_EQ(calls[1].env, Lines{}) << "no PATH to keep";
}

TEST(Execl, ResultsTellHowTheProgramEnded)
{
    REQUIRE_SANDBOX();
    auto sb = ProbeSandbox();

    // One line per run: result, recorded code and line.
    const auto res = sb->Call([] {
        const auto run = [](const char *szPath, const char *szHow) {
            VLIBCErrSet(ERR_SUCCESS);
            const int ret = VLIBCExec(szPath, szHow, nullptr, nullptr, nullptr);
            printf("%d %#x %d\n", ret, static_cast<unsigned>(vyraerrno), VLIBCErrorGetLine());
        };
        run(kProbe, "/how/exit3");
        run(kProbe, "/none");
        run("/no/such/program", nullptr);
        run(kProbe, "/how/kill");
        signal(SIGCHLD, SIG_IGN);
        run(kProbe, "/how/exit3");
        return 0;
    });

    EXPECT_EQ(testutil::SplitLines(res.out),
              (Lines{"3 0 0", "0 0 0", "255 0 0", "-1 0x2a00 90", "0 0 0"}));
}

TEST(Execl, RestoresNoChildWaitOnlyWhenItWasSet)
{
    REQUIRE_SANDBOX();
    auto sb = ProbeSandbox();

    const auto res = sb->Call([] {
        for (const int flags : {SA_NOCLDWAIT, 0}) {
            struct sigaction sa = {};
            sa.sa_handler = SIG_DFL;
            sa.sa_flags = flags;
            sigaction(SIGCHLD, &sa, nullptr);
            const int ret = VLIBCExec(kProbe, "/how/exit3", nullptr, nullptr, nullptr);
            sigaction(SIGCHLD, nullptr, &sa);
            printf("%d %d\n", ret, (sa.sa_flags & SA_NOCLDWAIT) != 0);
        }
        return 0;
    });

    EXPECT_EQ(testutil::SplitLines(res.out), (Lines{"3 1", "3 0"}));
}

TEST(Execl, CloseAllFdsKeepsOnlyTheStandardDescriptors)
{
    REQUIRE_SANDBOX();
    auto sb = ProbeSandbox();

    sb->Call([] {
        open("/etc/passwd", O_RDONLY);
        return VLIBCExecl(kProbe, FORK_CLOSE_ALL_FDS, static_cast<const char *>(nullptr));
    });

    const auto calls = sb->StandinCalls();
    ASSERT_EQ(calls.size(), 1u);
    Lines fds;
    for (const auto &fd : calls[0].fds)
        fds.push_back(std::to_string(fd.first));
    EXPECT_EQ(fds, (Lines{"0", "1", "2"}));
}

TEST(Execl, DetachReturnsAtOnceAndLeavesTheProgramRunning)
{
    REQUIRE_SANDBOX();
    auto sb = ProbeSandbox();

    const auto res = sb->Call([] {
        // The program's standard output is a pipe of ours: its end tells
        // that the program, which nobody waits for, has finished.
        int fds[2];
        if (pipe(fds) != 0)
            return 1;
        const int fdStdout = dup(STDOUT_FILENO);
        dup2(fds[1], STDOUT_FILENO);
        close(fds[1]);
        const int ret =
            VLIBCExecl(kProbe, FORK_DETACH | FORK_NEW_SESSION, "/how/exit3",
                       static_cast<const char *>(nullptr));
        dup2(fdStdout, STDOUT_FILENO);
        char buf[256];
        while (read(fds[0], buf, sizeof(buf)) > 0) {
        }
        printf("%d %d", ret, static_cast<int>(getpid()));
        return 0;
    });

    int ret = -2;
    long nCaller = 0;
    sscanf(res.out.c_str(), "%d %ld", &ret, &nCaller);
    EXPECT_EQ(ret, 0) << "not the program's 3: it was not waited for";
    const auto calls = sb->StandinCalls();
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_NE(calls[0].ppid, nCaller) << "a grandchild";
    EXPECT_EQ(calls[0].sid, calls[0].pid) << "the grandchild leads the new session";
}

TEST(ProcForkEx, FlushesStreamsBeforeAPlainFork)
{
    REQUIRE_SANDBOX();
    auto sb = testutil::MakeSandbox();

    const auto res = sb->Call([] {
        printf("once");  // buffered: standard output is a pipe
        const pid_t pid = VLIBCProcForkEx(0);
        if (pid == 0)
            exit(0);  // would write the buffer a second time
        return pid > 0 && waitpid(pid, nullptr, 0) == pid ? 0 : 1;
    });

    EXPECT_EQ(res.ExitCode(), 0);
    EXPECT_EQ(res.out, "once");
}

// Restores the table after each test, as it is shared by the whole process.
class LockTable : public testing::Test {
protected:
    void TearDown() override
    {
        for (VLIBLOCK &row : rgslckList)
            row = VLIBLOCK{nullptr, row.szFile, row.idFile, 0, 0};
        rgslckList[5].idFile = 0x40;
    }
};

TEST_F(LockTable, HoldsDistinctSingleBitsUnderTmpLock)
{
    std::set<int32_t> bits;
    int nRows = 0;
    for (; rgslckList[nRows].idFile != 0; ++nRows) {
        const uint32_t uBit = static_cast<uint32_t>(rgslckList[nRows].idFile);
        EXPECT_TRUE(uBit > 0x8 && (uBit & (uBit - 1)) == 0) << nRows;
        EXPECT_EQ(std::string(rgslckList[nRows].szFile).rfind("/tmp/lock/lock_", 0), 0u);
        bits.insert(rgslckList[nRows].idFile);
    }
    EXPECT_EQ(nRows, 28);
    EXPECT_EQ(bits.size(), 28u);
    EXPECT_STREQ(rgslckList[28].szFile, "");
    EXPECT_EQ(VLIBCFileCloseLock(), 0) << "a fresh table holds nothing";
}

TEST_F(LockTable, CloseLockFreesEveryRowAndReportsAFailedClose)
{
    testutil::TempDir dir;
    const auto hold = [&dir](int nRow, int cLock) {
        rgslckList[nRow].pfFile = fopen(dir.Path(std::to_string(nRow)).c_str(), "w");
        rgslckList[nRow].cLock = cLock;
    };
    hold(1, 2);
    hold(5, 1);
    rgslckList[3].cLock = 4;  // a count without a stream

    EXPECT_EQ(VLIBCFileCloseLock(), 0);
    for (const VLIBLOCK &row : rgslckList) {
        EXPECT_EQ(row.pfFile, nullptr) << row.szFile;
        EXPECT_EQ(row.cLock, 0) << row.szFile;
    }
    EXPECT_EQ(VLIBCFileCloseLock(), 0) << "nothing left to close";

    hold(1, 1);
    hold(2, 1);
    hold(27, 1);
    close(fileno(rgslckList[2].pfFile));  // its close will fail
    EXPECT_EQ(VLIBCFileCloseLock(), -1);
    EXPECT_EQ(rgslckList[2].pfFile, nullptr);
    EXPECT_EQ(rgslckList[27].pfFile, nullptr) << "the walk goes on after a failure";

    hold(6, 3);
    rgslckList[5].idFile = 0;  // an early terminator
    EXPECT_EQ(VLIBCFileCloseLock(), 0);
    EXPECT_NE(rgslckList[6].pfFile, nullptr) << "rows after the terminator are never visited";
    EXPECT_EQ(rgslckList[6].cLock, 3);
    fclose(rgslckList[6].pfFile);
}

}  // namespace
