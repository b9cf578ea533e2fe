// The core library and the package library function by function, and
// small_update run whole on a machine of build 2668 (sandbox::Machine). A
// table's comment gives its columns; every check names its row.
#include <fcntl.h>
#include <limits.h>
#include <signal.h>
#include <string.h>
#include <sys/wait.h>

#include <algorithm>
#include <optional>
#include <set>
#include <stdexcept>

#include "debian_lib.h"
#include "helper.h"
#include "smallupdate.h"

namespace {

TEST(ErrSet, KeepsTheLastRecordAsGiven)
{
    EXPECT_EQ(Recorded(), Record()) << "nothing is recorded before the first failure";
    static const char szFile[] = "mine.c";
    VLIBCErrSetEx(ERR_KEY_NOT_FOUND, szFile, 7);
    EXPECT_EQ(VLIBCErrorGetFile(), szFile) << "the caller's pointer, not a copy";
    VLIBCErrSet(ERR_OP_FAILURE);
    EXPECT_EQ(Recorded(), (Record{ERR_OP_FAILURE, "", 0})) << "VLIBCErrSet forgets file and line";
}

TEST(ErrLogSet, AppendsOneLineOrRecordsWhy)
{
    const std::string strLog = Scratch("log"), strLong(1 << 20, 'x');  // past a stream buffer
    const Record kBad = {ERR_BAD_PARAMETERS, "error_log_set.cpp", 32};
    const Record kFull = {ERR_WRITE_FAILED, kBad.strFile, 51};
    // VLIBCErrLogSet(szFile, szText) where the log held szBefore (nullptr:
    // none): the result, what the log holds, the record; no descriptor left.
    struct Row {
        const char *szName, *szFile, *szBefore, *szText;
        int nResult;
        const char *szLog;
        Record record = kEarlier;
    } const rows[] = {
        {"appends", strLog.c_str(), "a\nb", "c", 0, "a\nbc\n"},
        {"reads no argument", strLog.c_str(), nullptr, "%% %n%s%", 0, "% %n%s%\n"},
        {"null log", nullptr, nullptr, "x", -1, "", kBad},
        {"null text", strLog.c_str(), nullptr, nullptr, -1, "", kBad},
        {"full", "/dev/full", nullptr, strLong.c_str(), -1, "", kFull},
    };
    for (const Row &row : rows) {
        fs::remove(strLog);
        if (row.szBefore != nullptr)
            WriteFile(strLog, row.szBefore);
        const auto cFds = std::distance(fs::directory_iterator("/proc/self/fd"), {});
        RecordEarlier();
        EXPECT_EQ(VLIBCErrLogSet(row.szFile, row.szText), row.nResult) << row.szName;
        EXPECT_EQ(ReadFile(strLog), row.szLog) << row.szName;
        EXPECT_EQ(Recorded(), row.record) << row.szName;
        EXPECT_EQ(std::distance(fs::directory_iterator("/proc/self/fd"), {}), cFds) << row.szName;
    }
}

TEST(StrTrimSpace, TrimsBlanksThenOnePairOfQuotes)
{
    const Record kInside = {ERR_BAD_PARAMETERS, "string_trim_space.cpp", 112};
    // VLIBCStrTrimSpace of szInput into the output nOffset bytes after it
    // (none: in place): the result, the text at the output (at the input
    // after a failure), the record.
    struct Row {
        const char *szName, *szInput;
        std::optional<int> nOffset;
        int nResult;
        const char *szText;
        Record record = kEarlier;
    } const rows[] = {
        {"a lone quote stays", " \" ", {}, 1, "\""},
        {"two quotes leave nothing", "\"\"", {}, 0, ""},
        {"VT, FF and high bytes stay", "\v 'x' \f\x89", {}, 8, "\v 'x' \f\x89"},
        {"blanks only", " \t\r\n", {}, 0, ""},
        {"output before the input", " ab ", -1, 2, "ab"},
        {"output past the terminator", " ab ", 5, 2, "ab"},
        {"output inside the input", " ab ", 1, -1, " ab ", kInside},
        {"output on the terminator", " ab ", 4, -1, " ab ", kInside},
    };
    for (const Row &row : rows) {
        char buf[32] = {};
        char *szInput = strcpy(buf + 1, row.szInput);
        char *szOutput = row.nOffset ? szInput + *row.nOffset : nullptr;
        RecordEarlier();
        const int ret = VLIBCStrTrimSpace(szInput, szOutput);
        EXPECT_EQ(ret, row.nResult) << row.szName;
        EXPECT_STREQ(ret < 0 || szOutput == nullptr ? szInput : szOutput, row.szText) << row.szName;
        EXPECT_EQ(Recorded(), row.record) << row.szName;
    }
    EXPECT_EQ(VLIBCStrTrimSpace(nullptr, nullptr), -1);
    EXPECT_EQ(Recorded(), (Record{ERR_BAD_PARAMETERS, "string_trim_space.cpp", 104}));
}

TEST(StrTokIndex, HandsOutNonEmptyTokensAndRecordsNothing)
{
    char szText[] = "=a==b", *pchCursor = szText, *pchNull = nullptr;
    EXPECT_STREQ(VLIBCStrTokIndex(&pchCursor, "="), "a");
    EXPECT_STREQ(VLIBCStrTokIndex(&pchCursor, "="), "b");
    EXPECT_EQ(pchCursor, nullptr) << "the cursor after the last token";
    RecordEarlier();
    EXPECT_EQ(VLIBCStrTokIndex(nullptr, "="), nullptr);
    EXPECT_EQ(VLIBCStrTokIndex(&pchNull, "="), nullptr);
    EXPECT_EQ(VLIBCStrTokIndex(&pchCursor, nullptr), nullptr);
    EXPECT_EQ(Recorded(), kEarlier);
}

TEST(FileGetKeyValue, ReadsTheValueOfAKey)
{
    const std::string strFile = Scratch("VERSION");
    const Record kNone = {ERR_KEY_NOT_FOUND, "file_get_key_value.cpp", 108};
    const Record kBig = {ERR_NOT_ENOUGH_MEMORY, kNone.strFile, 88};
    const Record kBad = {ERR_BAD_PARAMETERS, kNone.strFile, 52};
    const int kMeasure = -1, kNullSized = -2;  // no buffer, with the size 0 or 4
    // VLIBCFileGetKeyValue of szKey in a file holding szFile (nullptr: none)
    // into a buffer holding "before" of sizeMax bytes, with flag: the result,
    // the buffer, the record.
    struct Row {
        const char *szName, *szFile, *szKey;
        int sizeMax, flag, nResult;
        const char *szValue;
        Record record = kEarlier;
    } const rows[] = {
        {"measured", "k=7321", "k", kMeasure, 0, 5, "before"},
        {"fits", "k=7321", "k", 5, 0, 5, "7321"},
        {"a byte short", "k=7321", "k", 4, 0, -1, "before", kBig},
        {"last wins", "k=1\nk=22\n", "k", 32, 1, 3, "22"},
        {"other flag bits", "k=1\nk=22\n", "k", 32, 2, 2, "1"},
        {"a later value too long", "k=1\nk=12345\n", "k", 4, 1, -1, "1", kBig},
        {"no value forgets the buffer", "k\nk=1234\n", "k", 4, 1, 5, "before"},
        {"comments", "#k=1\n;k=2\n", "k", 32, 0, 0, "before", kNone},
        {"a blank before #", " #k=1\n", "#k", 32, 0, 2, "1"},
        {"leading =", "=k=1=2\n", "k", 32, 0, 4, "1=2"},
        {"empty value", "k=\n", "k", 32, 0, 0, "before", kNone},
        {"blank value", "k= \n", "k", 32, 0, 1, ""},
        {"no file", nullptr, "k", 32, 0, -1, "before", {ERR_OPEN_FAILED, kNone.strFile, 56}},
        {"null key", "", nullptr, 32, 0, -1, "before", kBad},
        {"negative flag", "", "k", 32, -1, -1, "before", kBad},
        {"no buffer, a size", "", "k", kNullSized, 0, -1, "before", kBad},
    };
    for (const Row &row : rows) {
        fs::remove(strFile);
        if (row.szFile != nullptr)
            WriteFile(strFile, row.szFile);
        char szBuffer[64] = "before";
        RecordEarlier();
        const bool blNull = row.sizeMax == kMeasure || row.sizeMax == kNullSized;
        const int sizeMax = row.sizeMax == kMeasure ? 0 : blNull ? 4 : row.sizeMax;
        EXPECT_EQ(VLIBCFileGetKeyValue(strFile.c_str(), row.szKey, blNull ? nullptr : szBuffer,
                                       sizeMax, row.flag),
                  row.nResult)
            << row.szName;
        EXPECT_STREQ(szBuffer, row.szValue) << row.szName;
        EXPECT_EQ(Recorded(), row.record) << row.szName;
    }
    char szLine[] = "k=v";
    EXPECT_EQ(VLIBCFileGetKeyValue(nullptr, "k", szLine, 4, 0), -1);
    EXPECT_EQ(Recorded(), kBad);
    EXPECT_EQ(VLIBCILineKeyMatch(szLine, nullptr), 0);
    EXPECT_EQ(Recorded(), (Record{ERR_BAD_PARAMETERS, "file_line_key_match.cpp", 36}));
}

TEST(FileCloseLock, FreesEveryRowUpToTheTerminator)
{
    uint32_t uBits = 0;  // each lock is a bit of its own, above the lowest four
    for (int idx = 0; idx < 28; ++idx) {
        const auto uBit = static_cast<uint32_t>(rgslckList[idx].idFile);
        EXPECT_TRUE(uBit > 0x8 && (uBit & (uBit - 1)) == 0 && (uBits & uBit) == 0)
            << rgslckList[idx].szFile << ": not a bit of its own above 0x8";
        uBits |= uBit;
    }
    EXPECT_EQ(VLIBCFileCloseLock(), 0) << "a fresh table holds nothing";
    for (const auto &[nRow, cLock] : {std::pair(1, 2), {2, 1}, {27, 1}}) {
        rgslckList[nRow].pfFile = fopen(Scratch("lock" + std::to_string(nRow)).c_str(), "w");
        rgslckList[nRow].cLock = cLock;
    }
    rgslckList[3].cLock = 4;              // a count without a stream
    close(fileno(rgslckList[2].pfFile));  // its close will fail
    EXPECT_EQ(VLIBCFileCloseLock(), -1) << "row 2's close failed";
    for (const VLIBLOCK &row : rgslckList) {
        EXPECT_EQ(row.pfFile, nullptr) << row.szFile;
        EXPECT_EQ(row.cLock, 0) << row.szFile;
    }
    rgslckList[6].cLock = 3;
    rgslckList[5].idFile = 0;  // an early terminator
    EXPECT_EQ(VLIBCFileCloseLock(), 0) << "nothing left to close";
    EXPECT_EQ(rgslckList[6].cLock, 3) << "rows after the terminator are never visited";
}

// The probe: this program run again as "--probe CALL", a caller that holds
// what a child must not keep by chance (VYRA_CALLER, /etc/passwd on 0,
// /etc/hostname on 3, lock row 1, /tmp as directory, "once" buffered for
// /tmp/once). Once every program it started has ended, it prints the result,
// the record (code, file, line) and whether SIGCHLD has SA_NOCLDWAIT.
int Call(const std::string &strCall, const std::string &strArg)
{
    if (strCall == "execl")
        return VLIBCExecl("/usr/bin/prog", atoi(strArg.c_str()), "/how", "b", (char *)nullptr);
    if (strCall == "exec")
        return VLIBCExec(strArg == "missing" ? "/no/such" : "/usr/bin/prog", "/how", "b", nullptr,
                         "c");
    if (strCall == "dpkg" && strArg.empty())
        return DebianLib::ExecDpkg("-i", "/x/a.deb") ? 1 : 0;
    if (strCall == "dpkg")
        return DebianLib::ExecDpkg("-i", "/x/a.deb", strArg) ? 1 : 0;
    if (strCall == "fork") {
        const pid_t pid = VLIBCProcForkEx(0);
        if (pid == 0)
            exit(0);
        return pid > 0 ? 1 : pid;
    }
    if (fork() == 0)  // a fork of its own, so that a failed first fork is the intermediate's
        _exit(0);
    return VLIBCExecl("/bin/true", FORK_DETACH, (char *)nullptr);
}
int Probe(const std::string &strWhat)
{
    const std::string strCall = strWhat.substr(0, strWhat.find(' '));
    const std::string strArg = strCall == strWhat ? "" : strWhat.substr(strCall.size() + 1);
    int fds[2];
    FILE *pfOnce = nullptr;
    if (dup2(open("/etc/passwd", O_RDONLY | O_CLOEXEC), 0) != 0 ||
        dup2(open("/etc/hostname", O_RDONLY | O_CLOEXEC), 3) != 3 || chdir("/tmp") != 0 ||
        pipe2(fds, O_CLOEXEC) != 0 || (pfOnce = fopen("/tmp/once", "we")) == nullptr)
        return 2;
    fputs("once", pfOnce);
    setenv("VYRA_CALLER", "kept", 1);
    rgslckList[1].pfFile = fopen("/tmp/lock_pw", "w");
    struct sigaction sa = {};
    sa.sa_flags = SA_NOCLDWAIT;
    if (strArg == "nocldwait")
        sigaction(SIGCHLD, &sa, nullptr);
    const int fdOut = fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 0);
    dup2(fds[1], STDOUT_FILENO);  // a pipe, whose end tells when the program ends
    close(fds[1]);
    const int ret = Call(strCall, strArg);
    dup2(fdOut, STDOUT_FILENO);
    for (char buf[64]; read(fds[0], buf, sizeof(buf)) > 0;) {
    }
    while (wait(nullptr) > 0) {
    }
    sigaction(SIGCHLD, nullptr, &sa);
    const char *szFile = VLIBCErrorGetFile();
    printf("%d %d %s %d %d\n", ret, static_cast<int>(vyraerrno), szFile ? szFile : "-",
           static_cast<int>(VLIBCErrorGetLine()), (sa.sa_flags & SA_NOCLDWAIT) != 0);
    return fclose(pfOnce);
}

// What a program the probe started found of the probe's.
enum Found : unsigned {
    kCallerEnv = 1,   // the variable VYRA_CALLER
    kPath = 2,        // PATH
    kFd3 = 4,         // descriptor 3, on /etc/hostname, read-only
    kLock = 8,        // the lock file of row 1
    kNullStdio = 16,  // /dev/null on 0-2, and nowhere else
    kToLog = 32,      // the installer log on 1 and 2, and nowhere else
    kInRoot = 64,     // "/" as working directory
    kLeader = 128,    // the leader of a session of its own
    kNotStarted = 256,
    kAsCaller = kCallerEnv | kPath | kFd3 | kLock,
    kByExec = kPath | kFd3 | kNullStdio | kInRoot | kLeader,
};
Found operator|(Found found, Found other)
{
    return Found(unsigned(found) | other);
}
void PrintTo(Found found, std::ostream *pout)
{
    const char *rgszNames[] = {
        "VYRA_CALLER",          "PATH", "descriptor 3",   "lock",       "/dev/null on 0-2",
        "installer log on 1-2", "in /", "session leader", "not started"};
    for (unsigned idx = 0; idx < std::size(rgszNames); ++idx)
        *pout << ((found >> idx & 1) != 0 ? rgszNames[idx] + std::string("; ") : "");
}
Found Saw(const sandbox::StandinCall &call)
{
    const auto on = [&call](const std::string &strTarget) {
        std::set<int> fds;
        for (const auto &[fd, str] : call.fds)
            fds.insert(str == strTarget ? fd : -1);
        fds.erase(-1);
        return fds;
    };
    const std::pair<bool, Found> flags[] = {
        {call.env.find("VYRA_CALLER=") != std::string::npos, kCallerEnv},
        {call.env.find("PATH=") != std::string::npos, kPath},
        {call.fds.count(3) != 0 && call.fds.at(3) == "/etc/hostname (read-only)", kFd3},
        {!on("/tmp/lock_pw").empty(), kLock},
        {on("/dev/null") == std::set{0, 1, 2}, kNullStdio},
        {on("/var/log/dpkg_upgrade.log") == std::set{1, 2}, kToLog},
        {call.cwd == "/", kInRoot},
        {call.sid == call.pid, kLeader}};
    Found found = Found(0);
    for (const auto &[blSeen, flag] : flags)
        found = found | (blSeen ? flag : Found(0));
    return found;
}

Lines Strace(const std::string &strInject, const Lines &options = {})
{
    Lines argv = {"/usr/bin/strace", "-qq", "-o", "/tmp/strace", "-e", "inject=" + strInject};
    argv.insert(argv.end(), options.begin(), options.end());
    argv.push_back("--");
    return argv;
}
// Runs the rest in a mount namespace of its own, after strFirst.
Lines First(const std::string &strFirst)
{
    return {"/usr/bin/unshare", "-m", "/bin/sh", "-c", strFirst + " && exec \"$@\"", "sh"};
}
const std::string kInstallerLog = "/var/log/dpkg_upgrade.log";
const Lines kNoClone = Strace("clone:error=EAGAIN:when=1");
const Lines kWaitInterrupted = Strace("wait4:error=EINTR:when=1");
// A /dev that holds nothing but the system log's socket.
const std::string kOnlyDevLog =
    "mount --bind /dev /mnt && mount -t tmpfs none /dev && ln -s /mnt/log /dev/log";

// The probe's szCall, started by the runner, where /how and /x/a.deb tell the
// stand-ins /usr/bin/prog and /usr/bin/dpkg strHow: the result and record it
// printed, whether SIGCHLD kept SA_NOCLDWAIT (it sets it for "nocldwait"),
// what the program found, the installer log, and the system log: the
// program's start, and szLogged. The program's standard error reaches the
// probe's unless it is /dev/null or the log, which has the mode of any file
// the probe makes. Nothing buffered is written twice.
struct ProbeRow {
    const char *szName, *szCall;
    int nResult;
    Found found = kNotStarted;
    Record record = {};
    Lines runner = {};
    std::string strHow = "standin prog: exit 3\n";
    Lines installerLog = {};
    const char *szLogged = nullptr;
};
void Check(const ProbeRow &row)
{
    WriteFile("/how", row.strHow);
    WriteFile("/x/a.deb", row.strHow);
    fs::remove("/var/log/dpkg_upgrade.log");
    const size_t cCalls = sandbox::Calls().size();
    Lines argv = row.runner;
    argv.insert(argv.end(), {VYRA_TEST_COMMAND, "--probe", row.szCall});
    const auto res = sandbox::Run(argv, Env(argv));
    Record record;
    int nResult = 0, code = 0, blNoCldWait = 0;
    std::istringstream(res.out) >> nResult >> code >> record.strFile >> record.nLine >> blNoCldWait;
    record.code = VYRAERR(code);
    record.strFile = record.strFile == "-" ? "" : record.strFile;
    const auto calls = sandbox::Calls();
    const std::string strCall = row.szCall;
    Lines journal = Journal(res.log), expected;
    if (row.found != kNotStarted)
        expected.push_back(strCall.rfind("dpkg", 0) == 0
                               ? "$ /usr/bin/dpkg -i /x/a.deb" + strCall.substr(4)
                               : "$ /usr/bin/prog /how b");
    if (row.szLogged != nullptr)
        expected.push_back(row.szLogged);
    std::sort(journal.begin(), journal.end());
    std::sort(expected.begin(), expected.end());
    EXPECT_EQ(nResult, row.nResult) << row.szName;
    EXPECT_EQ(record, row.record) << row.szName;
    EXPECT_EQ(blNoCldWait != 0, strCall.find("nocldwait") != std::string::npos) << row.szName;
    EXPECT_EQ(calls.size() > cCalls ? Saw(calls.back()) : kNotStarted, row.found) << row.szName;
    EXPECT_EQ(res.err.find("to standard error") != std::string::npos,
              row.found != kNotStarted && (row.found & (kNullStdio | kToLog)) == 0)
        << row.szName;
    EXPECT_EQ(LogLines("/var/log/dpkg_upgrade.log"), row.installerLog) << row.szName;
    EXPECT_EQ(journal, expected) << row.szName;
    EXPECT_EQ(ReadFile("/tmp/once"), "once") << row.szName << ": buffered output written twice";
    const auto perms = fs::status("/var/log/dpkg_upgrade.log").permissions();
    if (perms != fs::perms::unknown) {
        EXPECT_EQ(perms, fs::status("/tmp/once").permissions()) << row.szName;
    }
}

TEST(ProcessExecution, PreparesTheChildAsAskedAndTellsHowItEnded)
{
    NEEDS_SANDBOX();
    const Record kFailed = {ERR_OP_FAILURE, "proc_execl.cpp", 90};
    const Record kForkFail = {ERR_FORK_FAIL, "proc_fork.cpp", 54};
    const Lines kIgnoring = {"/bin/bash", "-c", "trap '' CHLD; exec \"$@\"", "bash"};
    const Lines kNoSecondFork = Strace("clone:error=EAGAIN:when=1", {"-f"});
    const char kSecondForkFail[] = "proc_fork.cpp:104 Failed to fork(). errno=[11/Resource "
                                   "temporarily unavailable]";
    const std::string kKill = "standin prog: kill KILL\n";
    const ProbeRow rows[] = {
        {"FORK_NULL_STDIO", "execl 1", 3, kAsCaller | kNullStdio},
        {"FORK_CLOSE_LOCKS", "execl 2", 3, kCallerEnv | kPath | kFd3},
        {"FORK_CLOSE_ALL_FDS", "execl 4", 3, kCallerEnv | kPath},
        {"FORK_PATH_ONLY_ENV", "execl 8", 3, kPath | kFd3 | kLock},
        {"FORK_CHDIR_ROOT", "execl 16", 3, kAsCaller | kInRoot},
        {"FORK_NEW_SESSION", "execl 32", 3, kAsCaller | kLeader},
        {"FORK_DETACH", "execl 64", 0, kAsCaller},
        {"VLIBCExec", "exec", 3, kByExec},
        {"killed", "exec", -1, kByExec, kFailed, {}, kKill},
        {"no such program", "exec missing", 255},
        {"SIGCHLD ignored", "exec", 0, kByExec, {}, kIgnoring},
        {"SA_NOCLDWAIT kept", "exec nocldwait", 3, kByExec},
        {"no fork", "fork", -1, kNotStarted, kForkFail, kNoClone},
        {"no fork to exec", "exec", -1, kNotStarted, kFailed, kNoClone},
        {"interrupted wait", "exec", 3, kByExec, {}, kWaitInterrupted},
        {"no second fork to detach",
         "detach",
         -1,
         kNotStarted,
         kFailed,
         kNoSecondFork,
         "",
         {},
         kSecondForkFail},
        {"detach's wait fails", "detach", -1, kNotStarted, kFailed,
         Strace("wait4:error=EINVAL:when=1")},
        {"no /dev/null", "exec", 3, kPath | kFd3 | kInRoot | kLeader, {}, First(kOnlyDevLog)},
    };
    sandbox::InstallStandin("/usr/bin/prog");
    for (const ProbeRow &row : rows)
        Check(row);
}

TEST(ExecDpkg, RunsDpkgWithItsOutputInTheInstallerLog)
{
    NEEDS_SANDBOX();
    const std::string kBanner = " ===========[-i /x/a.deb ]===========";
    const std::string kOut = "<not a record>stand-in dpkg: to standard output";
    const std::string kErr = "<not a record>stand-in dpkg: to standard error";
    const Lines kLog = {kBanner, kOut, kErr},
                kNoDpkgLog = {kBanner, "Failed to install -i/x/a.deb"};
    const Lines kFolderLog = {" ===========[-i /x/a.deb /f]===========", kOut, kErr,
                              "Failed to install -i/x/a.deb/f"};
    const Lines kNoDpkg = First("mount --bind /dev/null /usr/bin/dpkg");
    const Lines kReadOnly = First("mount -o bind,ro /var/log /var/log");
    const Lines kNoBannerOpen = Strace("openat:error=EMFILE:when=1", {"-P", kInstallerLog});
    const Record kNoBanner = {ERR_OPEN_FAILED, "error_log_set.cpp", 37};
    const Found kToLogged = kAsCaller | kToLog;
    const std::string kKill = "standin dpkg: kill KILL\n", kExit1 = "standin dpkg: exit 1\n";
    const char kForkFail[] = "debian_lib.cpp: Fail to fork";
    const char kWaitFail[] = "debian_lib.cpp: Fail to exec [dpkg -i /x/a.deb] error=[Interrupted "
                             "system call]";
    // As ProcessExecution's, where the probe prints 1 when ExecDpkg said installed.
    const ProbeRow rows[] = {
        {"killed", "dpkg", 1, kToLogged, {}, {}, kKill, kLog},
        {"failed, with a folder", "dpkg /f", 0, kToLogged, {}, {}, kExit1, kFolderLog},
        {"no dpkg to run", "dpkg", 0, kNotStarted, {}, kNoDpkg, "", kNoDpkgLog},
        {"read-only log", "dpkg", 0, kAsCaller, kNoBanner, kReadOnly, "standin dpkg: exit 3\n"},
        {"the banner cannot open the log",
         "dpkg",
         1,
         kToLogged,
         kNoBanner,
         kNoBannerOpen,
         "",
         {kOut, kErr}},
        {"no fork", "dpkg", 0, kNotStarted, {}, kNoClone, "", {kBanner}, kForkFail},
        {"interrupted wait", "dpkg", 0, kToLogged, {}, kWaitInterrupted, "", kLog, kWaitFail},
    };
    sandbox::InstallStandin("/usr/bin/dpkg");
    for (const ProbeRow &row : rows)
        Check(row);
}

TEST(FindSmallFixNumfromDeb, ReadsTheSmallFixOfANameMadeForThisBuild)
{
    NEEDS_SANDBOX();
    const std::string k31(31, '3'), kGetFail = "debian_lib.cpp: Get buildnumber Fail\n";
    const std::string strBuild31 = "buildnumber=" + k31, strBuild32 = "buildnumber=3" + k31;
    const char kV[] = "buildnumber=\"2668\"\n";
    const auto other = [](const std::string &strName) {
        return Lines{"debian_lib.cpp: different buildnumber of deb [" + strName +
                     "] with system buildnumber [2668]\n"};
    };
    // FindSmallFixNumfromDeb(strDeb) where /etc.defaults/VERSION holds
    // szVersion (nullptr: none): the small-fix number, and the system log.
    struct Row {
        const char *szName;
        std::string strDeb;
        const char *szVersion;
        int nSmallFix;
        Lines journal = {};
    } const rows[] = {
        {"accepted", "/smallupd@te/x_4.1-2668-s5_all.deb", kV, 5},
        {"the build in the package field", "hotfix-2668-s_4.1-s9_all.deb", kV, 9},
        {"the last -s, decimal digits", "x_4.1-2668-s5-s8a_all.deb", kV, 8},
        {"clamped up", "x_4.1-2668-s99999999999_all.deb", kV, INT_MAX},
        {"clamped down", "x_4.1-2668-s-99999999999_all.deb", kV, INT_MIN},
        {"another build", "x_4.1-2669-s5_all.deb", kV, -1, other("x_4.1-2669-s5_all.deb")},
        {"the build as text", "x_4.1-02668-s5_all.deb", kV, -1, other("x_4.1-02668-s5_all.deb")},
        {"one underscore", "x_4.1-2668-s5.deb", kV, -1},
        {"three underscores", "x_y_4.1-2668-s5_all.deb", kV, -1},
        {"adjacent underscores", "x-2668-s1__all.deb", kV, -1},
        {"no -s in the version", "x-2668-s_4.1_all.deb", kV, -1},
        {"not .deb", "x_4.1-2668-s5_all.DEB", kV, -1},
        {"no VERSION", "x_4.1-2668-s5_all.deb", nullptr, -1, {kGetFail}},
        {"no buildnumber", "x_4.1-2668-s5_all.deb", "model=x\n", -1, {kGetFail}},
        {"blanks, comments, CR LF", "x_4.1-2668-s5_all.deb",
         "# buildnumber=1\r\nbuildnumber = \"2668\" \r\nbuildnumber=1\r\n", 5},
        {"a build of 31 bytes", "x_4.1-" + k31 + "-s6_all.deb", strBuild31.c_str(), 6},
        {"a build of 32 bytes",
         "x_4.1-3" + k31 + "-s6_all.deb",
         strBuild32.c_str(),
         -1,
         {kGetFail}},
        {"an empty build", "x_4.1--s4_all.deb", "buildnumber=  \n", 4},
    };
    for (const Row &row : rows) {
        fs::remove("/etc.defaults/VERSION");
        if (row.szVersion != nullptr)
            WriteFile("/etc.defaults/VERSION", row.szVersion);
        EXPECT_EQ(DebianLib::FindSmallFixNumfromDeb(row.strDeb), row.nSmallFix) << row.szName;
        EXPECT_EQ(Journal(sandbox::TakeLog()), row.journal) << row.szName;
    }
    EXPECT_THROW(DebianLib::FindSmallFixNumfromDeb("deb"), std::out_of_range);
}

TEST(InstallDebCompare, OrdersBySmallFixNumber)
{
    NEEDS_SANDBOX();
    WriteFile("/etc.defaults/VERSION", "buildnumber=2668\n");
    EXPECT_TRUE(DebianLib::InstallDebCompare("a_1-2668-s7_all.deb", "b_1-2668-s12_all.deb"));
    EXPECT_FALSE(DebianLib::InstallDebCompare("b_1-2668-s12_all.deb", "a_1-2668-s7_all.deb"));
    EXPECT_TRUE(DebianLib::InstallDebCompare("bad.deb", "a_1-2668-s0_all.deb")) << "refused first";
    EXPECT_FALSE(DebianLib::InstallDebCompare("a_1-2668-s5_all.deb", "b_1-2668-s05_all.deb"))
        << "equal numbers are no order";
}

TEST(CheckDebian, RefusesWhatTheScanNeverHandsOver)
{
    NEEDS_SANDBOX();
    WriteFile("/etc.defaults/VERSION", "buildnumber=2668\n");
    const auto check = [](const char *szPath) {
        return sandbox::CallLogged([szPath] { return CheckDebian(szPath) ? 0 : 1; });
    };
    EXPECT_EQ(check("/smallUpd@te/smallupdate_4.1-2668-s5_all.deb").Code(), 0) << "another case";
    const auto res = check("x_4.1-2668-s5.deb");
    EXPECT_EQ(res.Code(), 1) << "no slash";
    EXPECT_EQ(Journal(res.log),
              (Lines{"invalid debian url [x_4.1-2668-s5.deb]\n",
                     "small_update.cpp: invalid debian url [x_4.1-2668-s5.deb]\n"}));
}

const std::string kDir = "/smallupd@te/", kUpdateLog = "/var/log/vyraupdate.log";
const std::string kFinished = "Finished critical update!!!";
const std::string kFailedRun = "Failed to update critical update";

// What befalls a file of the update directory in a run, in the order the
// journal tells it, and what the file tells the stand-ins.
enum class Fate { kUnseen, kInstalled, kFailed, kNotForked, kRefused, kBadName, kOtherBuild };
struct Event {
    Fate fate;
    std::string strName, strHow = {};
};
// The exit code of a run: 0 when it installed everything it found.
int ExitCode(const std::vector<Event> &events)
{
    const auto is = [](Fate fate) { return [fate](const Event &e) { return e.fate == fate; }; };
    const auto cUnseen = std::count_if(events.begin(), events.end(), is(Fate::kUnseen));
    const auto cInstalled = std::count_if(events.begin(), events.end(), is(Fate::kInstalled));
    return cInstalled > 0 && cInstalled + cUnseen == std::ssize(events) ? 0 : 255;
}

// The journal (see Journal) of a run from its events, with the standard-error
// lines where blSaid, and the starts of a stand-in dpkg where blStandinDpkg.
Lines Expected(const std::vector<Event> &events, bool blSaid, bool blStandinDpkg)
{
    Lines journal;
    const auto say = [&journal, blSaid](const std::string &strMsg) {
        journal.insert(journal.end(), blSaid ? 1 : 0, strMsg);
        journal.push_back("small_update.cpp: " + strMsg);
    };
    for (const auto &[fate, strName, strHow] : events) {
        const std::string strPath = kDir + strName;
        const bool blFailed = fate == Fate::kFailed || fate == Fate::kNotForked;
        if (fate == Fate::kOtherBuild)
            journal.push_back("debian_lib.cpp: different buildnumber of deb [" + strName +
                              "] with system buildnumber [2668]\n");
        if (fate == Fate::kOtherBuild || fate == Fate::kBadName)
            say("invalid debian name [" + strName + "]\n");
        if (blStandinDpkg && (fate == Fate::kInstalled || fate == Fate::kFailed))
            journal.push_back("$ /usr/bin/dpkg -i " + strPath);
        if (fate == Fate::kNotForked)
            journal.push_back("debian_lib.cpp: Fail to fork");
        if (fate == Fate::kInstalled || fate == Fate::kUnseen)
            continue;
        say(blFailed ? "Failed to install [" + strPath + "]\n"
                     : "Unexpected Debian [" + strPath + "], skip install.\n");
        journal.push_back("$ /usr/vyra/bin/vyralogset1 sys err " +
                          std::string(blFailed ? "0x11B01031 " : "0x11B01030 ") + strPath);
        journal.push_back("$ /usr/vyra/bin/vyradeknotify @administrators update:small_update_" +
                          std::string(blFailed ? "install_failed " : "check_failed ") + strPath);
    }
    return journal;
}

sandbox::Result RunTool(const Lines &runner = {})
{
    Lines argv = runner;
    if (const char *szTool = getenv("VYRA_TOOL"))  // an installed program
        argv.push_back(szTool);
    else
        argv.insert(argv.end(), {VYRA_TOOL_COMMAND});
    argv.insert(argv.end(), {"-x", "a.deb"});  // arguments change nothing
    return sandbox::RunLogged(argv, Env(argv));
}

const std::vector<Event> kMixed = {
    {Fate::kOtherBuild, "%s_1-2669-s1_all.deb"},
    {Fate::kOtherBuild, "b_1-2669-s1_all.deb"},
    {Fate::kBadName, "d.deb", "standin vyradeknotify: exit 3\n"},
    {Fate::kRefused, "flashupdate_1-2668-s1_all.deb"},
    {Fate::kBadName, "g_1-2668-s-3_all.deb"},
    {Fate::kRefused, "smallupdate_1-2668-s1_all.deb"},
    {Fate::kInstalled, "f_1-2668-sx_all.deb"},
    {Fate::kFailed, "e_1-2668-s1_all.deb", "standin dpkg: exit 1\n"},
    {Fate::kInstalled, "%n%s_1-2668-s2_all.deb"},
    {Fate::kFailed, "a b'\";c_1-2668-s3_all.deb", "standin dpkg: exit 1\n"},
    {Fate::kInstalled, "-x_1-2668-s4_all.deb"},
    {Fate::kInstalled, "\xc3\xa9\xff_1-2668-s12_all.deb"}};
void Machine(const std::vector<Event> &events)
{
    std::vector<sandbox::UpdateFile> files;
    for (const Event &event : events)
        files.push_back({event.strName, event.strHow});
    sandbox::Machine(files);
}

TEST(SmallUpdate, ReportsEveryPackageOnEveryChannelAndEndsWithOneVerdict)
{
    NEEDS_SANDBOX();
    const Lines kValgrind = {"/usr/bin/valgrind",
                             "-q",
                             "--error-exitcode=99",
                             "--leak-check=full",
                             "--errors-for-leak-kinds=definite,indirect",
                             "--child-silent-after-fork=yes"};
    const Lines kStderrClosed = {"/bin/sh", "-c", "exec 2>&-; exec \"$@\"", "sh"};
    const Lines kNoDevNull = First(kOnlyDevLog + " && exec 2>&-");  // standard error closed too
    const std::string kA = "a_1-2668-s1_all.deb";
    const std::vector<Event> kUnseen = {{Fate::kUnseen, "a_1-2668-s1_all.tar"},
                                        {Fate::kUnseen, "b_1-2668-s1_all.DEB"},
                                        {Fate::kUnseen, ".c_1-2668-s1_all.deb"},
                                        {Fate::kUnseen, "../smallUpd@te/" + kA}};
    const Lines kLogged = {" ===========[-i /smallupd@te/" + kA + " ]===========",
                           "<not a record>stand-in dpkg: to standard output",
                           "<not a record>stand-in dpkg: to standard error"};
    // small_update started by the runner (which closes its standard error where
    // blStderrClosed) where the update directory holds the events' files: the
    // exit code, the journal from the events, the verdict, and the installer log
    // where given. No stand-in gets a descriptor that the tool opened.
    struct Row {
        const char *szName;
        std::vector<Event> events;
        Lines runner = {};
        bool blStderrClosed = false;
        Lines installerLog = {};
    } const rows[] = {
        {"no candidate", kUnseen},
        {"a refused name alone", {{Fate::kBadName, "d.deb"}, {Fate::kInstalled, kA}}},
        {"every kind of name, under valgrind where it runs", kMixed,
         VYRA_VALGRIND ? kValgrind : Lines{}},
        {"standard error closed", kMixed, kStderrClosed, true},
        {"no fork for dpkg", {{Fate::kNotForked, kA}}, kNoClone},
        {"no /dev/null", {{Fate::kInstalled, kA}}, kNoDevNull, true, kLogged},
    };
    for (const Row &row : rows) {
        Machine(row.events);
        const auto res = RunTool(row.runner);
        const bool blFound = std::any_of(row.events.begin(), row.events.end(),
                                         [](auto &event) { return event.fate != Fate::kUnseen; });
        EXPECT_EQ(res.Code(), ExitCode(row.events)) << row.szName;
        EXPECT_EQ(Journal(res.log), Expected(row.events, !row.blStderrClosed, true)) << row.szName;
        const Lines verdict = {ExitCode(row.events) == 0 ? kFinished : kFailedRun};
        EXPECT_EQ(LogLines(kUpdateLog), blFound ? verdict : Lines{}) << row.szName;
        if (!row.installerLog.empty()) {
            EXPECT_EQ(LogLines(kInstallerLog), row.installerLog) << row.szName;
        }
    }
    for (const sandbox::StandinCall &call : sandbox::Calls())
        EXPECT_EQ(call.fds.size(), 3u) << call.argv[0] << ": 0-2 only";
}

// Traced, every record the tool appends to a log is synced before its next
// fork, exec or exit, and the log's directory after the first record, which
// creates the log, and after no other.
TEST(SmallUpdate, SyncsEveryRecordBeforeItsNextStep)
{
    NEEDS_SANDBOX();
    Machine(kMixed);
    RunTool({"/usr/bin/strace", "-qq", "-o", "/tmp/strace", "-y", "-e",
             "trace=write,fsync,fork,vfork,clone,clone3,execve,exit_group", "--"});
    Lines records;       // each record appended under /var/log, and what befell it
    std::string strLog;  // the log whose record waits for the next step
    std::set<std::string> logs;
    for (const std::string &strLine : Split(ReadFile("/tmp/strace"))) {
        const auto pos = strLine.find("</var/log");
        const std::string strOn = pos == std::string::npos
                                      ? ""
                                      : strLine.substr(pos + 1, strLine.find('>', pos) - pos - 1);
        const bool blWrite = strLine.rfind("write(", 0) == 0;
        if (blWrite && !strOn.empty() && strOn != strLog) {
            strLog = strOn;
            records.push_back(strOn + (logs.insert(strOn).second ? " (new)" : ""));
        } else if (strLine.rfind("fsync(", 0) == 0 && !strLog.empty()) {
            records.back() += strOn == strLog ? ", synced" : ", " + strOn + " synced";
        } else if (!blWrite) {
            strLog.clear();
        }
    }
    const std::string kLater = "/var/log/dpkg_upgrade.log, synced";
    EXPECT_EQ(records, (Lines{"/var/log/dpkg_upgrade.log (new), synced, /var/log synced", kLater,
                              kLater, kLater, kLater, kLater, kLater, kLater,
                              "/var/log/vyraupdate.log (new), synced, /var/log synced"}))
        << "6 banners and 2 failures to the installer log, and the verdict; the trace:\n"
        << ReadFile("/tmp/strace");
}

// vyra-<name>_<version>-2668-s<small fix>_all.deb, made of package.
sandbox::UpdateFile Fix(const std::string &strName, int nSmallFix, sandbox::Package package = {})
{
    package.strName = "vyra-" + strName;
    const std::string strSmallFix = "-2668-s" + std::to_string(nSmallFix);
    return {package.strName + "_" + package.strVersion + strSmallFix + "_all.deb", "", package};
}
std::string Banner(const sandbox::UpdateFile &deb)
{
    return " ===========[-i " + kDir + deb.strName + " ]===========";
}
std::string Failed(const sandbox::UpdateFile &deb)
{
    return "Failed to install -i" + kDir + deb.strName;
}
// The shell text that runs strWhat the first time a row asks for it.
std::string Once(const std::string &strWhat)
{
    return "[ -e /tmp/done ] || { : > /tmp/done; " + strWhat + "; }\n";
}
const sandbox::UpdateFile a = Fix("a", 1), b = Fix("b", 2), c = Fix("c", 3);
const Lines kAbc = {"vyra-a ii", "vyra-b ii", "vyra-c ii"};
std::vector<Event> Installed(const std::vector<sandbox::UpdateFile> &debs)
{
    std::vector<Event> events;
    for (const sandbox::UpdateFile &deb : debs)
        events.push_back({Fate::kInstalled, deb.strName});
    return events;
}

enum class Cut { kNone, kDuring, kAfter };  // the power, during or after the first run
// Real packages built with dpkg-deb (those of before installed first) and run
// twice by the real dpkg with standard input on /dev/null: first as the
// runner starts the tool, where the run may be killed or the power cut (by a
// package's script or report, or after the run), then, with the power back
// on, as usual. The records the installer log kept of the first run (every
// one synced before a cut, whole), the journal of the second run from its
// events, the update log, dpkg's state of the packages (nothing for dpkg
// --audit when all are installed), what the postinsts appended to /tmp/trace,
// and texts that dpkg wrote into the installer log.
struct RealRun {
    const char *szName;
    std::vector<sandbox::UpdateFile> debs;
    Lines records;
    std::vector<Event> events;
    Lines updateLog, states;
    Cut cut = Cut::kNone;
    Lines runner = {}, trace = {}, inInstallerLog = {};
    std::vector<sandbox::UpdateFile> before = {};
};
void Check(const RealRun &row)
{
    sandbox::Machine(row.debs, true);
    fs::remove("/tmp/done");
    fs::remove("/tmp/trace");
    for (const sandbox::UpdateFile &deb : row.before) {
        ASSERT_TRUE(sandbox::BuildDeb(deb.package, "/tmp/" + deb.strName)) << row.szName;
        ASSERT_EQ(sandbox::Run({"/usr/bin/dpkg", "-i", "/tmp/" + deb.strName}).Code(), 0)
            << row.szName;
    }
    RunTool(row.runner);
    if (row.cut == Cut::kAfter) {
        ASSERT_EQ(sandbox::Run({"/bin/sh", "-c", sandbox::kCutPower}).Code(), 0) << row.szName;
    }
    if (row.cut != Cut::kNone)
        sandbox::PowerOn();
    Lines records = LogLines(kInstallerLog);
    std::erase_if(records, [](auto &str) { return str.rfind("<not a record>", 0) == 0; });
    EXPECT_EQ(records, row.records) << row.szName;
    const auto res = RunTool();
    EXPECT_EQ(res.Code(), ExitCode(row.events)) << row.szName;
    EXPECT_EQ(Journal(res.log), Expected(row.events, true, false)) << row.szName;
    EXPECT_EQ(LogLines(kUpdateLog), row.updateLog) << row.szName;
    const Lines states = sandbox::PackageStates("vyra-*");
    EXPECT_EQ(states, row.states) << row.szName;
    if (std::all_of(states.begin(), states.end(), [](auto &str) { return str.ends_with(" ii"); })) {
        EXPECT_EQ(sandbox::Run({"/usr/bin/dpkg", "--audit"}).out, "") << row.szName;
    }
    EXPECT_EQ(Split(ReadFile("/tmp/trace")), row.trace) << row.szName;
    for (const std::string &strText : row.inInstallerLog)
        EXPECT_NE(ReadFile(kInstallerLog).find(strText), std::string::npos)
            << row.szName << ": no " << strText << " in\n"
            << ReadFile(kInstallerLog);
}

TEST(SmallUpdate, InstallsRealPackagesAndCompletesAKilledRunOnTheNext)
{
    NEEDS_SANDBOX();
    const std::string kTrace = "echo $DPKG_MAINTSCRIPT_PACKAGE >> /tmp/trace\n";
    const auto x = Fix("x", 3, {.strPostinst = kTrace}), y = Fix("y", 1, {.strPostinst = kTrace});
    const auto z = Fix("z", 2, {.strPostinst = kTrace}), d = Fix("d", 0, {.strDepends = "vyra-no"});
    const auto f1 =
        Fix("f", 0, {.strConffile = "1\n", .strPostinst = "echo 2 >> /etc/vyra-f.conf"});
    const auto f2 = Fix("f", 1, {.strVersion = "2.0", .strConffile = "3\n"});
    const std::string kKill = "read -r _ _ _ tool _ < /proc/$PPID/stat; kill -KILL $tool $PPID";
    const RealRun rows[] = {
        {.szName = "scripts in small-fix order",
         .debs = {x, y, z},
         .records = {Banner(y), Banner(z), Banner(x)},
         .events = Installed({y, z, x}),
         .updateLog = {kFinished, kFinished},
         .states = {"vyra-x ii", "vyra-y ii", "vyra-z ii"},
         .trace = {"vyra-y", "vyra-z", "vyra-x", "vyra-y", "vyra-z", "vyra-x"}},
        {.szName = "a missing dependency",
         .debs = {d, a},
         .records = {Banner(d), Failed(d), Banner(a)},
         .events = {{Fate::kFailed, d.strName}, {Fate::kInstalled, a.strName}},
         .updateLog = {kFailedRun, kFailedRun},
         .states = {"vyra-a ii", "vyra-d iU"},
         .inInstallerLog = {"dpkg: dependency problems prevent configuration of vyra-d:"}},
        {.szName = "a configuration file changed on the unit",
         .debs = {f2},
         .records = {Banner(f2), Failed(f2)},
         .events = {{Fate::kFailed, f2.strName}},
         .updateLog = {kFailedRun, kFailedRun},
         .states = {"vyra-f iU"},
         .inInstallerLog = {"Configuration file '/etc/vyra-f.conf'",
                            "end of file on stdin at conffile prompt"},
         .before = {f1}},
        {.szName = "killed at the second banner",
         .debs = {a, b, c},
         .records = {Banner(a)},
         .events = Installed({a, b, c}),
         .updateLog = {kFinished},
         .states = kAbc,
         .runner =
             Strace("openat:signal=KILL:when=2", {"-P", kInstallerLog, "-e", "trace=openat"})},
        {.szName = "killed in a maintainer script",
         .debs = {a, Fix("b", 2, {.strPostinst = Once(kKill)}), c},
         .records = {Banner(a), Banner(b)},
         .events = Installed({a, b, c}),
         .updateLog = {kFinished},
         .states = kAbc},
    };
    for (const RealRun &row : rows)
        Check(row);
}

TEST(SmallUpdate, KeepsEverySyncedRecordThroughAPowerCut)
{
    NEEDS_SANDBOX();
    const std::string strWhyNot = sandbox::PowerCutUnavailable();
    RUN_ONLY_IF(strWhyNot.empty(), "the power cannot be cut here: " + strWhyNot);
    const std::string kCut = Once(sandbox::kCutPower);
    const sandbox::UpdateFile kCutting = {c.strName, "standin vyralogset1: run " + kCut};
    const RealRun rows[] = {
        {.szName = "in a maintainer script",
         .debs = {a, Fix("b", 2, {.strPostinst = kCut}), c},
         .records = {Banner(a), Banner(b)},
         .events = Installed({a, b, c}),
         .updateLog = {kFinished},
         .states = kAbc,
         .cut = Cut::kDuring},
        {.szName = "while a report's tool runs",
         .debs = {a, b, kCutting},
         .records = {Banner(a), Banner(b), Banner(c), Failed(c)},
         .events = {{Fate::kInstalled, a.strName},
                    {Fate::kInstalled, b.strName},
                    {Fate::kFailed, c.strName}},
         .updateLog = {kFailedRun},
         .states = {"vyra-a ii", "vyra-b ii"},
         .cut = Cut::kDuring},
        {.szName = "after the run",
         .debs = {a, b, c},
         .records = {Banner(a), Banner(b), Banner(c)},
         .events = Installed({a, b, c}),
         .updateLog = {kFinished, kFinished},
         .states = kAbc,
         .cut = Cut::kAfter},
    };
    for (const RealRun &row : rows)
        Check(row);
}

}  // namespace

int main(int argc, char **argv)
{
    if (argc == 3 && strcmp(argv[1], "--probe") == 0)
        return Probe(argv[2]);
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
