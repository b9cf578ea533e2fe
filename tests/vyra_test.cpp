// The core library and the package library function by function, and
// small_update run whole on a machine of build 2668 (sandbox::Machine). A
// table's comment says what a row sets up and what is checked; every check
// names its row.
#include <limits.h>
#include <string.h>

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

// VLIBCErrLogSet of szText to szFile (in a scratch directory unless absolute),
// where "log" held szBefore (none: no log): the result, what "log" holds then,
// and the record. No call leaves a descriptor open.
TEST(ErrLogSet, AppendsOneLineOrRecordsWhy)
{
    const Record kBad = {ERR_BAD_PARAMETERS, "error_log_set.cpp", 32};
    const std::string strLong(1 << 20, 'x');  // more than a stream buffer
    struct Row {
        const char *szName;
        const char *szFile = "log";
        const char *szBefore = nullptr;
        const char *szText = "x";
        int nResult = -1;
        const char *szLog = "";
        Record record = kEarlier;
    };
    const Row rows[] = {
        {.szName = "creates the log", .szText = "one", .nResult = 0, .szLog = "one\n"},
        {.szName = "appends", .szBefore = "a\nb", .szText = "c", .nResult = 0, .szLog = "a\nbc\n"},
        {.szName = "no conversion", .szText = "%% %n%s%", .nResult = 0, .szLog = "% %n%s%\n"},
        {.szName = "null log", .szFile = nullptr, .record = kBad},
        {.szName = "null text", .szText = nullptr, .record = kBad},
        {.szName = "no directory",
         .szFile = "no/log",
         .record = {ERR_OPEN_FAILED, kBad.strFile, 37}},
        {.szName = "full device",
         .szFile = "/dev/full",
         .szText = strLong.c_str(),
         .record = {ERR_WRITE_FAILED, kBad.strFile, 51}},
    };
    for (const Row &row : rows) {
        fs::remove(Scratch("log"));
        if (row.szBefore != nullptr)
            WriteFile(Scratch("log"), row.szBefore);
        const bool blScratch = row.szFile != nullptr && row.szFile[0] != '/';
        const std::string strFile = blScratch ? Scratch(row.szFile) : "";
        const auto cFds = std::distance(fs::directory_iterator("/proc/self/fd"), {});
        RecordEarlier();
        const int ret = VLIBCErrLogSet(blScratch ? strFile.c_str() : row.szFile, row.szText);
        EXPECT_EQ(ret, row.nResult) << row.szName;
        EXPECT_EQ(ReadFile(Scratch("log")), row.szLog) << row.szName;
        EXPECT_EQ(Recorded(), row.record) << row.szName;
        EXPECT_EQ(std::distance(fs::directory_iterator("/proc/self/fd"), {}), cFds) << row.szName;
    }
}

// VLIBCStrTrimSpace of szInput (at offset 1 of a buffer) into the output that
// starts nOffset bytes after it (none: NULL): the result, the text at the
// output (at the input after a failure or in place), and the record.
TEST(StrTrimSpace, TrimsBlanksThenOnePairOfQuotes)
{
    const Record kInside = {ERR_BAD_PARAMETERS, "string_trim_space.cpp", 112};
    struct Row {
        const char *szName;
        const char *szInput;
        std::optional<int> nOffset;
        int nResult;
        const char *szText;
        Record record = kEarlier;
    };
    const Row rows[] = {
        {"blanks and CR LF around quotes", "  \"7321\" \r\n", {}, 4, "7321"},
        {"blanks inside the quotes stay", "\" a \"", {}, 3, " a "},
        {"a lone quote stays", "\"", {}, 1, "\""},
        {"two quotes leave nothing", "\"\"", {}, 0, ""},
        {"single quotes are no quotes", "\t'x' ", {}, 3, "'x'"},
        {"VT, FF and high bytes are no blanks", "\v x \f\x89", {}, 6, "\v x \f\x89"},
        {"blanks only", "   ", {}, 0, ""},
        {"output on the input", " ab ", 0, 2, "ab"},
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

// VLIBCStrTokIndex over szInput with szSep until it gives NULL: the tokens.
TEST(StrTokIndex, HandsOutNonEmptyTokens)
{
    struct Row {
        const char *szName;
        const char *szInput;
        const char *szSep;
        Lines tokens;
    };
    const Row rows[] = {
        {"runs of separators are one", "a==b", "=", {"a", "b"}},
        {"a leading separator is skipped", "=value", "=", {"value"}},
        {"separators only", "\n\n", "\n", {}},
        {"any byte of the set separates", "a=b\nc", "\n=", {"a", "b", "c"}},
    };
    for (const Row &row : rows) {
        std::string strInput = row.szInput;
        char *pchCursor = strInput.data();
        Lines tokens;
        for (const char *sz; (sz = VLIBCStrTokIndex(&pchCursor, row.szSep)) != nullptr;)
            tokens.push_back(sz);
        EXPECT_EQ(tokens, row.tokens) << row.szName;
        EXPECT_EQ(pchCursor, nullptr) << row.szName << ": the cursor after the last token";
    }
    char szText[] = "a", *pchCursor = szText, *pchNull = nullptr;
    EXPECT_EQ(VLIBCStrTokIndex(nullptr, "="), nullptr);
    EXPECT_EQ(VLIBCStrTokIndex(&pchNull, "="), nullptr);
    EXPECT_EQ(VLIBCStrTokIndex(&pchCursor, nullptr), nullptr);
}

// VLIBCFileGetKeyValue of szKey in a file holding szFile (none: no file) into
// a buffer holding "before" (no buffer where blMeasure), said to be of
// sizeMax bytes: the result, the buffer, and the record.
TEST(FileGetKeyValue, ReadsTheValueOfAKey)
{
    const Record kNone = {ERR_KEY_NOT_FOUND, "file_get_key_value.cpp", 108};
    const Record kBig = {ERR_NOT_ENOUGH_MEMORY, kNone.strFile, 88};
    const Record kBad = {ERR_BAD_PARAMETERS, kNone.strFile, 52};
    const char kTwo[] = "k=1\nk=22\n";
    struct Row {
        const char *szName;
        const char *szFile;
        const char *szKey = "k";
        int sizeMax = 32;
        bool blMeasure = false;
        int flag = 0;
        int nResult;
        const char *szValue = "before";
        Record record = kEarlier;
    };
    const Row rows[] = {
        {.szName = "quoted", .szFile = "k=\"7321\"\n", .nResult = 5, .szValue = "7321"},
        {.szName = "blanks and CR LF", .szFile = " k = 7321 \r\n", .nResult = 5, .szValue = "7321"},
        {.szName = "measured", .szFile = "k=7321", .sizeMax = 0, .blMeasure = true, .nResult = 5},
        {.szName = "fits", .szFile = "k=7321", .sizeMax = 5, .nResult = 5, .szValue = "7321"},
        {.szName = "a byte short", .szFile = "k=7321", .sizeMax = 4, .nResult = -1, .record = kBig},
        {.szName = "first wins", .szFile = kTwo, .nResult = 2, .szValue = "1"},
        {.szName = "last wins", .szFile = kTwo, .flag = 1, .nResult = 3, .szValue = "22"},
        {.szName = "other flag bits", .szFile = kTwo, .flag = 2, .nResult = 2, .szValue = "1"},
        {.szName = "a later value too long",
         .szFile = "k=1\nk=12345\n",
         .sizeMax = 4,
         .flag = 1,
         .nResult = -1,
         .szValue = "1",
         .record = kBig},
        {.szName = "no value forgets the buffer",
         .szFile = "k\nk=1234\n",
         .sizeMax = 4,
         .flag = 1,
         .nResult = 5},
        {.szName = "comments", .szFile = "#k=1\n;k=2\n", .nResult = 0, .record = kNone},
        {.szName = "a blank before #",
         .szFile = " #k=1\n",
         .szKey = "#k",
         .nResult = 2,
         .szValue = "1"},
        {.szName = "leading =", .szFile = "=k=1=2\n", .nResult = 4, .szValue = "1=2"},
        {.szName = "empty value", .szFile = "k=\n", .nResult = 0, .record = kNone},
        {.szName = "blank value", .szFile = "k= \n", .nResult = 1, .szValue = ""},
        {.szName = "no =", .szFile = "k", .nResult = 0, .record = kNone},
        {.szName = "no file",
         .szFile = nullptr,
         .nResult = -1,
         .record = {ERR_OPEN_FAILED, kNone.strFile, 56}},
        {.szName = "null key", .szFile = "", .szKey = nullptr, .nResult = -1, .record = kBad},
        {.szName = "negative flag", .szFile = "", .flag = -1, .nResult = -1, .record = kBad},
        {.szName = "no buffer", .szFile = "", .blMeasure = true, .nResult = -1, .record = kBad},
    };
    for (const Row &row : rows) {
        fs::remove(Scratch("VERSION"));
        if (row.szFile != nullptr)
            WriteFile(Scratch("VERSION"), row.szFile);
        char szBuffer[64] = "before";
        RecordEarlier();
        const int ret =
            VLIBCFileGetKeyValue(Scratch("VERSION").c_str(), row.szKey,
                                 row.blMeasure ? nullptr : szBuffer, row.sizeMax, row.flag);
        EXPECT_EQ(ret, row.nResult) << row.szName;
        EXPECT_STREQ(szBuffer, row.szValue) << row.szName;
        EXPECT_EQ(Recorded(), row.record) << row.szName;
    }
    char szLine[] = "k=v";
    EXPECT_EQ(VLIBCFileGetKeyValue(nullptr, "k", szLine, 4, 0), -1);
    EXPECT_EQ(Recorded(), kBad);
    EXPECT_EQ(VLIBCILineKeyMatch(szLine, nullptr), 0);
    EXPECT_EQ(Recorded(), (Record{ERR_BAD_PARAMETERS, "file_line_key_match.cpp", 36}));
    RecordEarlier();
    EXPECT_EQ(VLIBCILineKeyMatch(nullptr, "k"), 0);
    EXPECT_EQ(Recorded(), (Record{ERR_BAD_PARAMETERS, "file_line_key_match.cpp", 36}));
}

TEST(FileCloseLock, FreesEveryRowUpToTheTerminator)
{
    uint32_t uBits = 0;  // each lock is a bit of its own, above the lowest four
    for (int idx = 0; idx < 28; ++idx) {
        const auto uBit = static_cast<uint32_t>(rgslckList[idx].idFile);
        EXPECT_GT(uBit, 0x8u) << rgslckList[idx].szFile;
        EXPECT_EQ(uBit & (uBit - 1), 0u) << rgslckList[idx].szFile << ": one bit";
        EXPECT_EQ(uBits & uBit, 0u) << rgslckList[idx].szFile << ": a bit of its own";
        uBits |= uBit;
    }
    EXPECT_EQ(VLIBCFileCloseLock(), 0) << "a fresh table holds nothing";
    for (const auto &[nRow, cLock] : {std::pair(1, 2), {2, 1}, {27, 1}}) {
        rgslckList[nRow].pfFile = fopen(Scratch("lock" + std::to_string(nRow)).c_str(), "w");
        rgslckList[nRow].cLock = cLock;
    }
    rgslckList[3].cLock = 4;              // a count without a stream
    close(fileno(rgslckList[2].pfFile));  // its close will fail
    EXPECT_EQ(VLIBCFileCloseLock(), -1);
    for (const VLIBLOCK &row : rgslckList) {
        EXPECT_EQ(row.pfFile, nullptr) << row.szFile;
        EXPECT_EQ(row.cLock, 0) << row.szFile;
    }
    EXPECT_EQ(VLIBCFileCloseLock(), 0) << "nothing left to close";
    rgslckList[6].cLock = 3;
    rgslckList[5].idFile = 0;  // an early terminator
    EXPECT_EQ(VLIBCFileCloseLock(), 0);
    EXPECT_EQ(rgslckList[6].cLock, 3) << "rows after the terminator are never visited";
}

// What a program that the probe started found of the probe's, by name.
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
    for (unsigned idx = 0; idx < std::size(rgszNames); ++idx) {
        if ((found >> idx & 1) != 0)
            *pout << rgszNames[idx] << "; ";
    }
}
Found Saw(const sandbox::StandinCall &call)
{
    const auto on = [&call](const std::string &strTarget) {
        std::set<int> fds;
        for (const auto &[fd, str] : call.fds)
            fds.insert(fds.end(), str == strTarget ? fd : -1);
        fds.erase(-1);
        return fds;
    };
    const std::pair<bool, Found> flags[] = {
        {call.env.find("VYRA_CALLER=") != std::string::npos, kCallerEnv},
        {call.env.find("PATH=") != std::string::npos, kPath},
        {call.fds.count(3) && call.fds.at(3) == "/etc/hostname (read-only)", kFd3},
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

// A run of the probe (probe.cpp): what it printed, and what else was seen.
struct Probed {
    int nResult = 0;
    Record record;
    bool blNoCldWait = false;  // SIGCHLD has SA_NOCLDWAIT after the call
    Found found = kNotStarted;
    bool blErr = false;  // the program's standard error reached the probe's
    Lines journal;       // the system log, sorted: a runner that gave up waits for nothing
};
Probed Probe(const Lines &runner, const std::string &strCall, const std::string &strHow)
{
    WriteFile("/how", strHow);
    WriteFile("/x/a.deb", strHow);
    fs::remove("/var/log/dpkg_upgrade.log");
    const size_t cCalls = sandbox::Calls().size();
    Lines argv = runner;
    argv.insert(argv.end(), {VYRA_PROBE_COMMAND, strCall});
    const auto res = sandbox::Run(argv, Env(argv));
    Probed probed;
    int code = 0;
    std::istringstream(res.out) >> probed.nResult >> code >> probed.record.strFile >>
        probed.record.nLine >> probed.blNoCldWait;
    probed.record.code = VYRAERR(code);
    probed.record.strFile = probed.record.strFile == "-" ? "" : probed.record.strFile;
    const auto calls = sandbox::Calls();
    probed.found = calls.size() > cCalls ? Saw(calls.back()) : kNotStarted;
    probed.blErr = res.err.find("to standard error") != std::string::npos;
    probed.journal = Journal(res.log);
    std::sort(probed.journal.begin(), probed.journal.end());
    EXPECT_EQ(ReadFile("/tmp/once"), "once") << strCall << ": buffered output was written twice";
    return probed;
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
const Lines kNoClone = Strace("clone:error=EAGAIN:when=1");
const Lines kWaitInterrupted = Strace("wait4:error=EINTR:when=1");
// A /dev that holds nothing but the system log's socket.
const std::string kOnlyDevLog =
    "mount --bind /dev /mnt && mount -t tmpfs none /dev && ln -s /mnt/log /dev/log";
const Lines kNoDevNull = First(kOnlyDevLog);

// The probe calls szCall (see probe.cpp), started by runner, where /how tells
// the stand-in /usr/bin/prog strHow: the result and the record, whether
// SIGCHLD kept SA_NOCLDWAIT, what the program found, and the system log: the
// program's start, and szLogged. Its standard error reaches the probe's when
// it is not /dev/null.
TEST(ProcessExecution, PreparesTheChildAsAskedAndTellsHowItEnded)
{
    NEEDS_SANDBOX();
    const Record kFailed = {ERR_OP_FAILURE, "proc_execl.cpp", 90};
    const Found kByExec = kPath | kFd3 | kNullStdio | kInRoot | kLeader;
    const std::string kExit3 = "standin prog: exit 3\n";
    struct Row {
        const char *szName;
        const char *szCall;
        int nResult;
        Found found = kNotStarted;
        Record record = {};
        Lines runner = {};
        std::string strHow = "standin prog: exit 3\n";
        const char *szLogged = nullptr;
    };
    const Row rows[] = {
        {"FORK_NULL_STDIO", "execl 1", 3, kAsCaller | kNullStdio},
        {"FORK_CLOSE_LOCKS", "execl 2", 3, kCallerEnv | kPath | kFd3},
        {"FORK_CLOSE_ALL_FDS", "execl 4", 3, kCallerEnv | kPath},
        {"FORK_PATH_ONLY_ENV", "execl 8", 3, kPath | kFd3 | kLock},
        {"FORK_CHDIR_ROOT", "execl 16", 3, kAsCaller | kInRoot},
        {"FORK_NEW_SESSION", "execl 32", 3, kAsCaller | kLeader},
        {"FORK_DETACH", "execl 64", 0, kAsCaller},
        {"VLIBCExec", "exec", 3, kByExec},
        {"killed", "exec", -1, kByExec, kFailed, {}, "standin prog: kill KILL\n"},
        {"no such program", "missing", 255},
        {"SIGCHLD ignored",
         "exec",
         0,
         kByExec,
         {},
         {"/bin/bash", "-c", "trap '' CHLD; exec \"$@\"", "bash"}},
        {"SA_NOCLDWAIT kept", "exec nocldwait", 3, kByExec},
        {"no fork", "fork", -1, kNotStarted, {ERR_FORK_FAIL, "proc_fork.cpp", 54}, kNoClone},
        {"no fork to exec", "exec", -1, kNotStarted, kFailed, kNoClone},
        {"interrupted wait", "exec", 3, kByExec, {}, kWaitInterrupted},
        {"no second fork to detach", "detach", -1, kNotStarted, kFailed,
         Strace("clone:error=EAGAIN:when=1", {"-f"}), "",
         "proc_fork.cpp:104 Failed to fork(). errno=[11/Resource temporarily unavailable]"},
        {"detach's wait fails", "detach", -1, kNotStarted, kFailed,
         Strace("wait4:error=EINVAL:when=1")},
        {"no /dev/null", "exec", 3, kPath | kFd3 | kInRoot | kLeader, {}, kNoDevNull},
    };
    sandbox::InstallStandin("/usr/bin/prog");
    for (const Row &row : rows) {
        const Probed probed = Probe(row.runner, row.szCall, row.strHow);
        Lines journal;
        if (row.found != kNotStarted)
            journal.push_back("$ /usr/bin/prog /how b");
        if (row.szLogged != nullptr)
            journal.push_back(row.szLogged);
        EXPECT_EQ(probed.nResult, row.nResult) << row.szName;
        EXPECT_EQ(probed.record, row.record) << row.szName;
        EXPECT_EQ(probed.blNoCldWait, strstr(row.szCall, "nocldwait") != nullptr) << row.szName;
        EXPECT_EQ(probed.found, row.found) << row.szName;
        EXPECT_EQ(probed.blErr, row.found != kNotStarted && (row.found & kNullStdio) == 0)
            << row.szName;
        EXPECT_EQ(probed.journal, journal) << row.szName;
    }
}

// DebianLib::ExecDpkg("-i", "/x/a.deb"[, szFolder]) by the probe, started by
// runner, where /x/a.deb tells the stand-in dpkg szHow: whether it installed,
// the record, what dpkg found, the installer log, and the system log: dpkg's
// start, and szLogged. The log has the mode of any file the caller makes.
TEST(ExecDpkg, RunsDpkgWithItsOutputInTheInstallerLog)
{
    NEEDS_SANDBOX();
    static const std::string kBanner = " ===========[-i /x/a.deb ]===========";
    static const std::string kOut = "<not a record>stand-in dpkg: to standard output";
    static const std::string kErr = "<not a record>stand-in dpkg: to standard error";
    const Record kNoBanner = {ERR_OPEN_FAILED, "error_log_set.cpp", 37};
    struct Row {
        const char *szName;
        bool blInstalled;
        Lines installerLog;
        Found found = kAsCaller | kToLog;
        Record record = {};
        Lines runner = {};
        const char *szHow = "";
        const char *szLogged = nullptr;
    };
    const Row rows[] = {
        {"installed", true, {kBanner, kOut, kErr}},
        {"killed",
         true,
         {kBanner, kOut, kErr},
         kAsCaller | kToLog,
         {},
         {},
         "standin dpkg: kill KILL\n"},
        {"no dpkg to run",
         false,
         {kBanner, "Failed to install -i/x/a.deb"},
         kNotStarted,
         {},
         First("mount --bind /dev/null /usr/bin/dpkg")},
        {"read-only log",
         false,
         {},
         kAsCaller,
         kNoBanner,
         First("mount -o bind,ro /var/log /var/log"),
         "standin dpkg: exit 3\n"},
        {"the banner cannot open the log",
         true,
         {kOut, kErr},
         kAsCaller | kToLog,
         kNoBanner,
         Strace("openat:error=EMFILE:when=1", {"-P", "/var/log/dpkg_upgrade.log"})},
        {"no fork",
         false,
         {kBanner},
         kNotStarted,
         {},
         kNoClone,
         "",
         "debian_lib.cpp: Fail to fork"},
        {"interrupted wait",
         false,
         {kBanner, kOut, kErr},
         kAsCaller | kToLog,
         {},
         kWaitInterrupted,
         "",
         "debian_lib.cpp: Fail to exec [dpkg -i /x/a.deb] error=[Interrupted system call]"},
    };
    sandbox::InstallStandin("/usr/bin/dpkg");
    for (const Row &row : rows) {
        const Probed probed = Probe(row.runner, "dpkg", row.szHow);
        Lines journal;
        if (row.found != kNotStarted)
            journal.push_back("$ /usr/bin/dpkg -i /x/a.deb");
        if (row.szLogged != nullptr)
            journal.push_back(row.szLogged);
        std::sort(journal.begin(), journal.end());
        EXPECT_EQ(probed.nResult, row.blInstalled ? 1 : 0) << row.szName;
        EXPECT_EQ(probed.record, row.record) << row.szName;
        EXPECT_EQ(probed.found, row.found) << row.szName;
        EXPECT_EQ(probed.blErr, row.found == kAsCaller) << row.szName;
        EXPECT_EQ(LogLines("/var/log/dpkg_upgrade.log"), row.installerLog) << row.szName;
        EXPECT_EQ(probed.journal, journal) << row.szName;
        const auto perms = fs::status("/var/log/dpkg_upgrade.log").permissions();
        if (perms != fs::perms::unknown) {
            EXPECT_EQ(perms, fs::status("/tmp/once").permissions()) << row.szName;
        }
    }
    // The three-argument form: a failure, with a folder that joins the rest.
    const Probed probed = Probe({}, "dpkg /dest", "standin dpkg: exit 1\n");
    EXPECT_EQ(probed.nResult, 0);
    EXPECT_EQ(probed.journal, Lines{"$ /usr/bin/dpkg -i /x/a.deb /dest"});
    EXPECT_EQ(LogLines("/var/log/dpkg_upgrade.log"),
              (Lines{" ===========[-i /x/a.deb /dest]===========", kOut, kErr,
                     "Failed to install -i/x/a.deb/dest"}));
}

// FindSmallFixNumfromDeb on strDeb, where /etc.defaults/VERSION holds
// szVersion (none: no file): the small-fix number, and the system log.
TEST(FindSmallFixNumfromDeb, ReadsTheSmallFixOfANameMadeForThisBuild)
{
    NEEDS_SANDBOX();
    const std::string k31(31, '3'), kGetFail = "debian_lib.cpp: Get buildnumber Fail\n";
    const std::string strBuild31 = "buildnumber=" + k31 + "\n", strBuild32 = "buildnumber=3" + k31;
    const char kV[] = "buildnumber=\"2668\"\n";
    const auto other = [](const std::string &strName) {
        return Lines{"debian_lib.cpp: different buildnumber of deb [" + strName +
                     "] with system buildnumber [2668]\n"};
    };
    struct Row {
        const char *szName;
        std::string strDeb;
        const char *szVersion;
        int nSmallFix;
        Lines journal = {};
    };
    const Row rows[] = {
        {"accepted", "/smallupd@te/x_4.1-2668-s5_all.deb", kV, 5},
        {"the build in the package field", "hotfix-2668-s_4.1-s9_all.deb", kV, 9},
        {"the last -s", "x_4.1-2668-s5-s8_all.deb", kV, 8},
        {"clamped up", "x_4.1-2668-s99999999999_all.deb", kV, INT_MAX},
        {"clamped down", "x_4.1-2668-s-99999999999_all.deb", kV, INT_MIN},
        {"another build", "x_4.1-2669-s5_all.deb", kV, -1, other("x_4.1-2669-s5_all.deb")},
        {"the build as text", "x_4.1-02668-s5_all.deb", kV, -1, other("x_4.1-02668-s5_all.deb")},
        {"one underscore", "x_4.1-2668-s5.deb", kV, -1},
        {"three underscores", "x_y_4.1-2668-s5_all.deb", kV, -1},
        {"adjacent underscores", "x-2668-s1__all.deb", kV, -1},
        {"no -s in the version", "x-2668-s_4.1_all.deb", kV, -1},
        {"not .deb", "x_4.1-2668-s5_all.DEB", kV, -1},
        {"empty", "", kV, -1},
        {"no VERSION", "x_4.1-2668-s5_all.deb", nullptr, -1, {kGetFail}},
        {"refused before VERSION is read", "x_4.1-2668-s5.deb", nullptr, -1},
        {"no buildnumber", "x_4.1-2668-s5_all.deb", "model=x\n", -1, {kGetFail}},
        {"blanks, comments, CR LF", "x_4.1-2668-s5_all.deb",
         "# buildnumber=1\r\nbuildnumber = \"2668\" \r\nbuildnumber=1\r\n", 5},
        {"a build of 31 bytes", "x_4.1-" + k31 + "-s6_all.deb", strBuild31.c_str(), 6},
        {"a build of 32 bytes",
         "x_4.1-" + k31 + "3-s6_all.deb",
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
        << "equal numbers";
}

// CheckDebian on a path that the directory scan never hands over, on build
// 2668: whether it accepts it, and what it said on standard error (sent to
// the system log here) and in the system log.
TEST(CheckDebian, RefusesWhatItCannotInstallAndSaysWhy)
{
    NEEDS_SANDBOX();
    WriteFile("/etc.defaults/VERSION", "buildnumber=2668\n");
    struct Row {
        const char *szName;
        const char *szPath;
        bool blAccepted;
        std::string strSaid = {};
    };
    const Row rows[] = {
        {"the upper-case directory", "/smallUpd@te/smallupdate_4.1-2668-s5_all.deb", true},
        {"no slash", "x_4.1-2668-s5.deb", false, "invalid debian url [x_4.1-2668-s5.deb]\n"},
        {"no name", "/smallupd@te/", false, "invalid debian name []\n"},
    };
    for (const Row &row : rows) {
        const auto res = sandbox::CallLogged([&row] { return CheckDebian(row.szPath) ? 0 : 1; });
        EXPECT_EQ(res.Code() == 0, row.blAccepted) << row.szName;
        const Lines said = {row.strSaid, "small_update.cpp: " + row.strSaid};
        EXPECT_EQ(Journal(res.log), row.strSaid.empty() ? Lines{} : said) << row.szName;
    }
}

const std::string kDir = "/smallupd@te/", kUpdateLog = "/var/log/vyraupdate.log";
const std::string kInstallerLog = "/var/log/dpkg_upgrade.log";
const std::string kFinished = "Finished critical update!!!";
const std::string kFailedRun = "Failed to update critical update";

// What befalls a file of the update directory in a run, in the order the
// journal tells it; strHow is what the file tells the stand-ins.
enum class Fate { kUnseen, kInstalled, kFailed, kNotForked, kRefused, kBadName, kOtherBuild };
struct Event {
    Fate fate;
    std::string strName;
    std::string strHow = {};
};
// The verdict of a run: none when it found nothing.
Lines Verdict(const std::vector<Event> &events)
{
    const auto is = [&events](Fate fate) {
        return std::any_of(events.begin(), events.end(),
                           [fate](auto &e) { return e.fate == fate; });
    };
    if (std::all_of(events.begin(), events.end(), [](auto &e) { return e.fate == Fate::kUnseen; }))
        return {};
    const bool blBad = is(Fate::kFailed) || is(Fate::kNotForked) || is(Fate::kRefused) ||
                       is(Fate::kBadName) || is(Fate::kOtherBuild);
    return {blBad ? kFailedRun : kFinished};
}

// The journal (see Journal) of a run from its events: with the standard-error
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

// What starts the tool, and whether it closes the tool's standard error.
struct Runner {
    Lines argv;
    bool blStderrClosed = false;
};
const Runner kStderrClosed = {{"/bin/sh", "-c", "exec 2>&-; exec \"$@\"", "sh"}, true};
const Runner kValgrind = {{"/usr/bin/valgrind", "-q", "--error-exitcode=99", "--leak-check=full",
                           "--errors-for-leak-kinds=definite,indirect",
                           "--child-silent-after-fork=yes"}};
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
void MachineOf(const std::vector<Event> &events)
{
    std::vector<sandbox::UpdateFile> files;
    for (const Event &event : events)
        files.push_back({event.strName, event.strHow});
    sandbox::Machine(files);
}

// small_update started by the runner, where the update directory holds the
// events' files: its exit code, the journal from the events (standard error
// included unless the runner closed it), the update log, and the installer
// log where the row gives one. No stand-in gets a descriptor the tool opened.
TEST(SmallUpdate, ReportsEveryPackageOnEveryChannelAndEndsWithOneVerdict)
{
    NEEDS_SANDBOX();
    const std::string kA = "a_1-2668-s1_all.deb";
    struct Row {
        const char *szName;
        std::vector<Event> events;
        Runner runner = {};
        Lines installerLog = {};
    };
    const Row rows[] = {
        {"no candidate",
         {{Fate::kUnseen, "a_1-2668-s1_all.tar"},
          {Fate::kUnseen, "b_1-2668-s1_all.DEB"},
          {Fate::kUnseen, ".c_1-2668-s1_all.deb"},
          {Fate::kUnseen, "../smallUpd@te/d_1-2668-s1_all.deb"}}},
        {"every kind of name", kMixed},
        {"standard error closed", kMixed, kStderrClosed},
        {"under valgrind", kMixed, VYRA_VALGRIND ? kValgrind : Runner{}},
        {"no fork for dpkg", {{Fate::kNotForked, kA}}, {kNoClone}},
        {"no /dev/null, standard error closed",
         {{Fate::kInstalled, kA}},
         {First(kOnlyDevLog + " && exec 2>&-"), true},
         {" ===========[-i /smallupd@te/" + kA + " ]===========",
          "<not a record>stand-in dpkg: to standard output",
          "<not a record>stand-in dpkg: to standard error"}},
    };
    for (const Row &row : rows) {
        MachineOf(row.events);
        const auto res = RunTool(row.runner.argv);
        const Lines verdict = Verdict(row.events);
        EXPECT_EQ(res.Code(), verdict == Lines{kFinished} ? 0 : 255) << row.szName;
        EXPECT_EQ(Journal(res.log), Expected(row.events, !row.runner.blStderrClosed, true))
            << row.szName;
        EXPECT_EQ(LogLines(kUpdateLog), verdict) << row.szName;
        if (!row.installerLog.empty()) {
            EXPECT_EQ(LogLines(kInstallerLog), row.installerLog) << row.szName;
        }
    }
    for (const sandbox::StandinCall &call : sandbox::Calls())
        EXPECT_EQ(call.fds.size(), 3u) << call.argv[0] << ": 0-2 only";
}

// Traced (strace -y), the tool appends records to its logs: each must be
// synced before the tool's next fork, exec or exit, and the log's directory
// after the first record, which creates the log, and after no other.
TEST(SmallUpdate, SyncsEveryRecordBeforeItsNextStep)
{
    NEEDS_SANDBOX();
    MachineOf(kMixed);
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
        << "6 banners and 2 failures to the installer log, a verdict; the trace:\n"
        << ReadFile("/tmp/strace");
}

// vyra-<name>_<version>-2668-s<small fix>_all.deb, made of package.
sandbox::UpdateFile Fix(const std::string &strName, int nSmallFix, sandbox::Package package = {})
{
    package.strName = "vyra-" + strName;
    return {package.strName + "_" + package.strVersion + "-2668-s" + std::to_string(nSmallFix) +
                "_all.deb",
            "", package};
}

// Real packages installed by the real dpkg with standard input on /dev/null,
// after the packages of before were installed: the exit code and the journal
// from the events, the verdict, dpkg's state of every package, what the
// postinsts appended to /tmp/trace, and texts dpkg wrote to the installer log.
TEST(SmallUpdate, InstallsRealPackagesAndReportsWhatDpkgRefuses)
{
    NEEDS_SANDBOX();
    const std::string kTrace = "echo $DPKG_MAINTSCRIPT_PACKAGE >> /tmp/trace\n";
    const std::string kEdit = "echo changed on the unit >> /etc/vyra-f.conf\n";
    const auto a = Fix("a", 3, {.strPostinst = kTrace}), b = Fix("b", 1, {.strPostinst = kTrace});
    const auto c = Fix("c", 2, {.strPostinst = kTrace}), d = Fix("d", 1, {.strDepends = "vyra-z"});
    const auto e = Fix("e", 2),
               f1 = Fix("f", 0, {.strConffile = "shipped\n", .strPostinst = kEdit});
    const auto f2 = Fix("f", 1, {.strVersion = "2.0", .strConffile = "shipped anew\n"});
    struct Row {
        const char *szName;
        std::vector<sandbox::UpdateFile> debs;
        std::vector<Event> events;
        Lines states;
        Lines trace = {};
        std::vector<sandbox::UpdateFile> before = {};
        Lines inInstallerLog = {};
    };
    const Row rows[] = {
        {"scripts run in small-fix order",
         {a, b, c},
         {{Fate::kInstalled, b.strName},
          {Fate::kInstalled, c.strName},
          {Fate::kInstalled, a.strName}},
         {"vyra-a ii", "vyra-b ii", "vyra-c ii"},
         {"vyra-b", "vyra-c", "vyra-a"}},
        {"a missing dependency",
         {d, e},
         {{Fate::kFailed, d.strName}, {Fate::kInstalled, e.strName}},
         {"vyra-d iU", "vyra-e ii"},
         {},
         {},
         {"dpkg: dependency problems prevent configuration of vyra-d:"}},
        {"a configuration file changed on the unit",
         {f2},
         {{Fate::kFailed, f2.strName}},
         {"vyra-f iU"},
         {},
         {f1},
         {"Configuration file '/etc/vyra-f.conf'", "end of file on stdin at conffile prompt"}},
    };
    for (const Row &row : rows) {
        sandbox::Machine(row.debs, true);
        for (const sandbox::UpdateFile &deb : row.before) {
            ASSERT_TRUE(sandbox::BuildDeb(deb.package, "/tmp/" + deb.strName)) << row.szName;
            sandbox::Run({"/usr/bin/dpkg", "-i", "/tmp/" + deb.strName});
        }
        const auto res = RunTool();
        EXPECT_EQ(res.Code(), Verdict(row.events) == Lines{kFinished} ? 0 : 255) << row.szName;
        EXPECT_EQ(Journal(res.log), Expected(row.events, true, false)) << row.szName;
        EXPECT_EQ(LogLines(kUpdateLog), Verdict(row.events)) << row.szName;
        EXPECT_EQ(sandbox::PackageStates("vyra-*"), row.states) << row.szName;
        EXPECT_EQ(Split(ReadFile("/tmp/trace")), row.trace) << row.szName;
        for (const std::string &strText : row.inInstallerLog)
            EXPECT_NE(ReadFile(kInstallerLog).find(strText), std::string::npos)
                << row.szName << ": no " << strText << " in\n"
                << ReadFile(kInstallerLog);
        fs::remove("/tmp/trace");
    }
}

// A run of real packages cut short as the row says (by a package's postinst or
// report, or by the runner), the power back on where it was cut, and a second
// run: the records that the installer log kept of the first run (every one
// synced before the cut, whole), the update log after the second run, every
// package installed, and nothing for dpkg --audit to tell.
enum class Cut { kNone, kDuring, kAfter };  // the power, during or after the first run
struct Interrupted {
    const char *szName;
    std::vector<sandbox::UpdateFile> debs;
    Lines records;
    Lines updateLog;
    Cut cut = Cut::kNone;
    Lines runner = {};  // what starts the first run
};
// The shell text that runs strWhat only the first time in a row.
std::string Once(const std::string &strWhat)
{
    return "[ -e /tmp/done ] || { : > /tmp/done; " + strWhat + "; }\n";
}
void Interrupt(const Interrupted &row)
{
    sandbox::Machine(row.debs, true);
    fs::remove("/tmp/done");
    RunTool(row.runner);
    if (row.cut == Cut::kAfter)
        sandbox::Run({"/bin/sh", "-c", sandbox::kCutPower});
    if (row.cut != Cut::kNone)
        sandbox::PowerOn();
    Lines records = LogLines(kInstallerLog);
    std::erase_if(records, [](auto &str) { return str.rfind("<not a record>", 0) == 0; });
    EXPECT_EQ(records, row.records) << row.szName;
    RunTool();
    EXPECT_EQ(LogLines(kUpdateLog), row.updateLog) << row.szName;
    for (const std::string &strState : sandbox::PackageStates("vyra-*"))
        EXPECT_TRUE(strState.ends_with(" ii")) << row.szName << ": " << strState;
    EXPECT_EQ(sandbox::Run({"/usr/bin/dpkg", "--audit"}).out, "") << row.szName;
}
std::string Banner(const sandbox::UpdateFile &deb)
{
    return " ===========[-i " + kDir + deb.strName + " ]===========";
}
const sandbox::UpdateFile a = Fix("a", 1), b = Fix("b", 2), c = Fix("c", 3);

TEST(SmallUpdate, KeepsEverySyncedRecordThroughAPowerCut)
{
    NEEDS_SANDBOX();
    const std::string strWhyNot = sandbox::PowerCutUnavailable();
    RUN_ONLY_IF(strWhyNot.empty(), "the power cannot be cut here: " + strWhyNot);
    const std::string kCutOnce = Once(sandbox::kCutPower);
    const sandbox::UpdateFile kCutting = {c.strName, "standin vyralogset1: run " + kCutOnce};
    const Interrupted rows[] = {
        {"in a maintainer script",
         {a, Fix("b", 2, {.strPostinst = kCutOnce}), c},
         {Banner(a), Banner(b)},
         {kFinished},
         Cut::kDuring},
        {"while a report's tool runs",
         {a, b, kCutting},
         {Banner(a), Banner(b), Banner(c), "Failed to install -i" + kDir + c.strName},
         {kFailedRun},
         Cut::kDuring},
        {"after the run", {a, b}, {Banner(a), Banner(b)}, {kFinished, kFinished}, Cut::kAfter},
    };
    for (const Interrupted &row : rows)
        Interrupt(row);
}

TEST(SmallUpdate, CompletesAKilledRunOnTheNext)
{
    NEEDS_SANDBOX();
    const std::string kKillOnce =
        "[ -e /tmp/killed ] || { : > /tmp/killed\n"
        "read -r _ _ _ tool _ < /proc/$PPID/stat; kill -KILL $tool $PPID; }\n";
    const Interrupted rows[] = {
        {"at the second banner",
         {a, b, c},
         {Banner(a)},
         {kFinished},
         Cut::kNone,
         Strace("openat:signal=KILL:when=2", {"-P", kInstallerLog, "-e", "trace=openat"})},
        {"in a maintainer script",
         {a, Fix("b", 2, {.strPostinst = kKillOnce}), c},
         {Banner(a), Banner(b)},
         {kFinished}},
    };
    for (const Interrupted &row : rows)
        Interrupt(row);
}

}  // namespace
