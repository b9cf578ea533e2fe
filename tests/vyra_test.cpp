// The core library and the package library call by call, then small_update
// run whole on a machine of build 2668 (sandbox::Machine), each run compared
// with its transcript (Transcript), written out as it must read.
#include <fcntl.h>
#include <limits.h>
#include <signal.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <set>
#include <sstream>

#include "debian_lib.h"
#include "sandbox.h"
#include "smallupdate.h"
#include "vyracore.h"
#include "gtest/gtest.h"

namespace {

using sandbox::Lines;
using Files = std::vector<std::pair<std::string, std::string>>;  // path, content

// Where VYRA_SANDBOX_REQUIRED is set (CI, as root) a test that cannot run fails.
#define RUN_ONLY_IF(blCan, strWhy)                      \
    if (!(blCan)) {                                     \
        if (getenv("VYRA_SANDBOX_REQUIRED") != nullptr) \
            FAIL() << (strWhy);                         \
        GTEST_SKIP() << (strWhy);                       \
    }
#define NEEDS_SANDBOX()                                                                \
    RUN_ONLY_IF(sandbox::Inside(), "it writes the system's paths: it runs as root in " \
                                   "vyra-sandbox")

// The core library's error record in words.
std::string Recorded()
{
    static const std::map<VYRAERR, const char *> kNames = {
        {ERR_SUCCESS, "ERR_SUCCESS"},         {ERR_NOT_ENOUGH_MEMORY, "ERR_NOT_ENOUGH_MEMORY"},
        {ERR_OPEN_FAILED, "ERR_OPEN_FAILED"}, {ERR_WRITE_FAILED, "ERR_WRITE_FAILED"},
        {ERR_OP_FAILURE, "ERR_OP_FAILURE"},   {ERR_BAD_PARAMETERS, "ERR_BAD_PARAMETERS"},
        {ERR_FORK_FAIL, "ERR_FORK_FAIL"},     {ERR_KEY_NOT_FOUND, "ERR_KEY_NOT_FOUND"}};
    const char *szFile = VLIBCErrorGetFile();
    if (vyraerrno == ERR_SUCCESS && szFile == nullptr && VLIBCErrorGetLine() == 0)
        return "no record";
    return (kNames.count(vyraerrno) != 0 ? kNames.at(vyraerrno) : std::to_string(vyraerrno)) +
           " at " + (szFile != nullptr ? szFile : "(null)") + ":" +
           std::to_string(VLIBCErrorGetLine());
}
// Recorded before a call, and still there after it: the call recorded nothing.
const char kEarlier[] = "ERR_OP_FAILURE at earlier.c:5";
void RecordEarlier()
{
    VLIBCErrSetEx(ERR_OP_FAILURE, "earlier.c", 5);
}

// The path of a file in memory that holds strContent: nothing on a disk.
std::string MemFile(const std::string &strContent)
{
    const int fd = memfd_create("vyra-test", 0);
    if (fd < 0 || write(fd, strContent.data(), strContent.size()) < 0)
        throw std::runtime_error("no file in memory");
    return "/proc/self/fd/" + std::to_string(fd);
}

TEST(ErrSet, KeepsTheLastRecordAsGiven)
{
    EXPECT_EQ(Recorded(), "no record") << "before the first failure";
    RecordEarlier();
    VLIBCErrSet(ERR_KEY_NOT_FOUND);
    EXPECT_EQ(Recorded(), "ERR_KEY_NOT_FOUND at (null):0");
}

TEST(ErrLogSet, AppendsOneLineOrRecordsWhy)
{
    const std::string strLog = MemFile("a\nb"), strLong(1 << 20, 'x');  // past a stream buffer
    const char kBad[] = "ERR_BAD_PARAMETERS at error_log_set.cpp:32", kAll[] = "a\nbc\n% %n%s%\n";
    // VLIBCErrLogSet(szFile, szText): the result, what strLog ("a\nb" at
    // first) then holds, the record; no descriptor is left open.
    struct Row {
        const char *szName, *szFile, *szText;
        int nResult;
        const char *szLog, *szRecord = kEarlier;
    } const rows[] = {
        {"appends", strLog.c_str(), "c", 0, "a\nbc\n"},
        {"reads no argument", strLog.c_str(), "%% %n%s%", 0, kAll},
        {"null log", nullptr, "x", -1, kAll, kBad},
        {"null text", strLog.c_str(), nullptr, -1, kAll, kBad},
        {"no directory", "/no/log", "x", -1, kAll, "ERR_OPEN_FAILED at error_log_set.cpp:37"},
        {"full", "/dev/full", strLong.c_str(), -1, kAll,
         "ERR_WRITE_FAILED at error_log_set.cpp:51"},
    };
    for (const Row &row : rows) {
        const auto cFds = std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
        RecordEarlier();
        EXPECT_EQ(VLIBCErrLogSet(row.szFile, row.szText), row.nResult) << row.szName;
        EXPECT_EQ(sandbox::ReadFile(strLog), row.szLog) << row.szName;
        EXPECT_EQ(Recorded(), row.szRecord) << row.szName;
        EXPECT_EQ(std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {}), cFds)
            << row.szName;
    }
}

TEST(StrTrimSpace, TrimsBlanksThenOnePairOfQuotes)
{
    const char kInside[] = "ERR_BAD_PARAMETERS at string_trim_space.cpp:112";
    const int kInPlace = INT_MIN;
    // VLIBCStrTrimSpace of szInput into the output nOffset bytes after it: the
    // result, the text at the output (at the input after a failure), the record.
    struct Row {
        const char *szName, *szInput;
        int nOffset, nResult;
        const char *szText, *szRecord = kEarlier;
    } const rows[] = {
        {"a lone quote stays", " \" ", kInPlace, 1, "\""},
        {"two quotes leave nothing", "\"\"", kInPlace, 0, ""},
        {"one pair, inner blanks stay", "\t\" a \"\r\n", kInPlace, 3, " a "},
        {"VT, FF and high bytes stay", "\v 'x' \f\x89", kInPlace, 8, "\v 'x' \f\x89"},
        {"blanks only", " \t\r\n", kInPlace, 0, ""},
        {"output on the input", " ab ", 0, 2, "ab"},
        {"output before the input", " ab ", -1, 2, "ab"},
        {"output past the terminator", " ab ", 5, 2, "ab"},
        {"output inside the input", " ab ", 1, -1, " ab ", kInside},
        {"output on the terminator", " ab ", 4, -1, " ab ", kInside},
    };
    for (const Row &row : rows) {
        char buf[32] = {};
        char *szInput = strcpy(buf + 1, row.szInput);
        char *szOutput = row.nOffset == kInPlace ? nullptr : szInput + row.nOffset;
        RecordEarlier();
        const int ret = VLIBCStrTrimSpace(szInput, szOutput);
        EXPECT_EQ(ret, row.nResult) << row.szName;
        EXPECT_STREQ(ret < 0 || szOutput == nullptr ? szInput : szOutput, row.szText) << row.szName;
        EXPECT_EQ(Recorded(), row.szRecord) << row.szName;
    }
    EXPECT_EQ(VLIBCStrTrimSpace(nullptr, nullptr), -1);
    EXPECT_EQ(Recorded(), "ERR_BAD_PARAMETERS at string_trim_space.cpp:104");
}

TEST(FileGetKeyValue, ReadsTheValueOfAKey)
{
    const char kNone[] = "ERR_KEY_NOT_FOUND at file_get_key_value.cpp:108";
    const char kBig[] = "ERR_NOT_ENOUGH_MEMORY at file_get_key_value.cpp:88";
    const char kBad[] = "ERR_BAD_PARAMETERS at file_get_key_value.cpp:52";
    const int kMeasure = -1, kNullSized = -2;  // no buffer, with the size 0 or 4
    // VLIBCFileGetKeyValue of szKey in a file holding szFile (nullptr: none)
    // into a buffer of sizeMax bytes that held "before", with flag: the
    // result, the buffer, the record.
    struct Row {
        const char *szName, *szFile, *szKey;
        int sizeMax, flag, nResult;
        const char *szValue, *szRecord = kEarlier;
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
        {"quotes, blanks, CR LF", "K=2\r\n \"k\" = \"7\" \r\n", "k", 32, 0, 2, "7"},
        {"empty value", "k=\n", "k", 32, 0, 0, "before", kNone},
        {"blank value", "k= \n", "k", 32, 0, 1, ""},
        {"no file", nullptr, "k", 32, 0, -1, "before",
         "ERR_OPEN_FAILED at file_get_key_value.cpp:56"},
        {"null key", "", nullptr, 32, 0, -1, "before", kBad},
        {"negative flag", "", "k", 32, -1, -1, "before", kBad},
        {"no buffer, a size", "", "k", kNullSized, 0, -1, "before", kBad},
    };
    for (const Row &row : rows) {
        const std::string strFile = row.szFile != nullptr ? MemFile(row.szFile) : "/no/file";
        char szBuffer[64] = "before";
        const bool blNull = row.sizeMax == kMeasure || row.sizeMax == kNullSized;
        RecordEarlier();
        EXPECT_EQ(VLIBCFileGetKeyValue(strFile.c_str(), row.szKey, blNull ? nullptr : szBuffer,
                                       row.sizeMax == kNullSized ? 4 : std::max(row.sizeMax, 0),
                                       row.flag),
                  row.nResult)
            << row.szName;
        EXPECT_STREQ(szBuffer, row.szValue) << row.szName;
        EXPECT_EQ(Recorded(), row.szRecord) << row.szName;
    }
    char szLine[] = "k=v";
    EXPECT_EQ(VLIBCFileGetKeyValue(nullptr, "k", szLine, 4, 0), -1);
    EXPECT_EQ(Recorded(), kBad);
    EXPECT_EQ(VLIBCILineKeyMatch(szLine, nullptr), 0);
    EXPECT_EQ(Recorded(), "ERR_BAD_PARAMETERS at file_line_key_match.cpp:36");
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
    for (const int idx : {1, 2, 27})
        rgslckList[idx].pfFile = fopen("/dev/null", "w"), rgslckList[idx].cLock = 1;
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

const char kUpdateLog[] = "/var/log/vyraupdate.log", kInstallerLog[] = "/var/log/dpkg_upgrade.log";
const time_t tStart = time(nullptr);

// The system log as text: standard error as "2> TEXT", a stand-in's start as
// "$ " and what it found (standin.sh), every other message as "<PRI>TEXT"
// without the line number after its file name, marked " (no newline)" where
// it lacks its line end.
std::string Journal(const Lines &log)
{
    std::string str;
    for (std::string strMsg : log) {
        const auto posLine = strMsg.find(".cpp:"), posText = strMsg.find(' ', posLine);
        if (strMsg.rfind("<13>", 0) == 0)
            strMsg.replace(0, 4, "$ ") += "\n";
        else if (strMsg.rfind('<', 0) != 0)
            strMsg.insert(0, "2> ");
        else if (posLine != std::string::npos && posText != std::string::npos)
            strMsg.erase(posLine + 5, posText - posLine - 5);
        str += strMsg.back() == '\n' ? strMsg : strMsg + " (no newline)\n";
    }
    return str;
}
// A run as text, from a line end on, so that a transcript written in R"(...)"
// starts on a line of its own: "exit N" or "signal N" unless it exited 0; what
// it printed; the system log; each log that exists, after "--- PATH MODE", a
// record stamped with local time (kEnv) since this program started as "[stamp]
// TEXT", and dpkg's own output as it is, or left out where !blOutput.
std::string Transcript(const sandbox::Result &res, bool blOutput = true)
{
    std::string str = "\n";
    if (res.status != 0)
        str += (WIFEXITED(res.status) ? "exit " : "signal ") + std::to_string(res.Code() % 1000) +
               "\n";
    str += res.out + Journal(res.log);
    for (const char *szLog : {kUpdateLog, kInstallerLog}) {
        const auto st = std::filesystem::status(szLog);
        if (!std::filesystem::exists(st))
            continue;
        char szMode[8] = "";
        snprintf(szMode, sizeof(szMode), " %04o", static_cast<unsigned>(st.permissions()));
        str += std::string("--- ") + szLog + szMode + "\n";
        std::istringstream in(sandbox::ReadFile(szLog));
        for (std::string strLine; std::getline(in, strLine);) {
            struct tm tm = {};
            const char *pchEnd = strptime(strLine.c_str(), "%Y/%m/%d %H:%M:%S", &tm);
            const time_t tStamp = timegm(&tm) - 5 * 3600;
            if (strLine.size() > 20 && pchEnd == &strLine[19] && *pchEnd == '\t' &&
                tStamp >= tStart - 1 && tStamp <= time(nullptr))
                str += "[stamp] " + strLine.substr(20) + "\n";
            else if (blOutput)
                str += strLine + "\n";
        }
    }
    return str;
}

// Every run's: local time five hours east of UTC, where a stamp in UTC shows.
const Lines kEnv = {"PATH=/usr/sbin:/usr/bin:/sbin:/bin", "TZ=XYZ-5"};
const Lines kTool = {VYRA_TOOL_COMMAND, "-x", "a.deb"};  // arguments change nothing

Lines operator+(Lines argv, const Lines &more)
{
    argv.insert(argv.end(), more.begin(), more.end());
    return argv;
}
// Runs the rest under strace, without LeakSanitizer, which cannot trace then.
Lines Strace(const std::string &strWhat, const Lines &options = {})
{
    return Lines{"/usr/bin/strace", "-qq", "-o", "/tmp/strace", "-e", strWhat} + options +
           Lines{"--", "/usr/bin/env", "ASAN_OPTIONS=detect_leaks=0"};
}
// Runs the rest in a mount namespace of its own after strFirst, with descriptor 0
// reopened there to name /dev/null, and without the PWD that sh exports.
Lines First(const std::string &strFirst)
{
    const std::string strScript = "exec < /dev/null; unset PWD; " + strFirst + " && exec \"$@\"";
    return {"/usr/bin/unshare", "-m", "/bin/sh", "-c", strScript, "sh"};
}
const Lines kWaitInterrupted = Strace("inject=wait4:error=EINTR:when=1");

// A fresh machine that holds the files (a relative path lies in the update
// directory, one that ends in "/" is a directory), the stand-in prog, and what
// the probe's programs are told to do.
void Prepare(Files files)
{
    sandbox::Machine();
    sandbox::InstallStandin("/usr/bin/prog");
    files.insert(files.end(), {{"/exit3", "standin prog: exit 3\n"},
                               {"/kill", "standin prog: kill -KILL $$\n"},
                               {"/x/a.deb", "standin dpkg: exit 1\n"},
                               {"/x/kill.deb", "standin dpkg: kill -KILL $$\n"}});
    for (const auto &[strName, strContent] : files) {
        const std::string strPath = (strName[0] == '/' ? "" : "/smallupd@te/") + strName;
        if (strPath.back() == '/')
            std::filesystem::create_directories(strPath);
        else
            sandbox::WriteFile(strPath, strContent);
    }
}
// On a fresh machine that holds the files, a run of argv.
struct Scenario {
    const char *szName;
    Lines argv;
    Files files;
    const char *szTranscript;
};
void Check(const Scenario &row)
{
    Prepare(row.files);
    EXPECT_EQ(Transcript(sandbox::Run(row.argv, kEnv)), row.szTranscript) << row.szName;
}

// The probe: this program run again as "--probe 'CALL; ...'", a caller that
// holds what a child keeps or drops only as told (TZ, /etc/passwd on descriptor
// 3, output that stdio keeps buffered) and makes each call (see Call) in turn.
// Once its children ended, it says on standard error how the call ended,
// unless it returned 0 without a record and left SIGCHLD alone: the
// result, the record, and how SIGCHLD is handled. "lock" takes lock row 1 on
// /tmp/lock first, and "nocldwait" catches SIGCHLD with SA_NOCLDWAIT.
void OnChild(int)
{
}
std::string Call(const std::string &strCall)
{
    std::istringstream in(strCall);
    std::string strVerb, strPath, strArg;
    in >> strVerb >> strPath >> strArg;
    if (strVerb == "execl")
        return std::to_string(
            VLIBCExecl("/usr/bin/prog", std::stoi(strPath), strPath.c_str(), nullptr));
    if (strVerb == "exec")
        return std::to_string(VLIBCExec(strPath.c_str(), strArg.c_str(), "b", nullptr, "c"));
    if (strVerb == "fork") {
        const pid_t pid = VLIBCProcForkEx(0);
        if (pid == 0)
            _exit(0);
        return pid > 0 ? "a child" : std::to_string(pid);
    }
    if (strVerb == "detach") {
        // The detached program holds descriptor 9, and its end tells when it ends:
        // no one waits for it, and qemu-user cannot make the sandbox its subreaper.
        int fds[2];
        if (fork() == 0)  // strace -f fails each process's first fork: this takes the probe's
            _exit(0);
        if (pipe2(fds, O_CLOEXEC) != 0 || dup2(fds[1], 9) != 9 || close(fds[1]) != 0)
            return "no pipe";
        const int ret = VLIBCExecl(strPath.c_str(), FORK_DETACH, strArg.c_str(), nullptr);
        close(9);
        for (char ch; read(fds[0], &ch, 1) > 0;) {
        }
        close(fds[0]);
        return std::to_string(ret);
    }
    const bool blInstalled = strArg.empty() ? DebianLib::ExecDpkg("-i", strPath)
                                            : DebianLib::ExecDpkg("-i", strPath, strArg);
    return blInstalled ? "installed" : "not installed";
}
int Probe(char **argv)
{
    if (open("/etc/passwd", O_RDONLY) != 3)
        return fprintf(stderr, "probe: descriptor 3 was taken\n"), 2;
    FILE *pfOnce = fopen("/tmp/once", "we");
    fputs("once", pfOnce);
    std::istringstream calls(argv[2]);
    for (std::string strCall; std::getline(calls >> std::ws, strCall, ';');) {
        struct sigaction sa = {};
        sa.sa_handler = OnChild;
        sa.sa_flags = SA_NOCLDWAIT | SA_RESTART;
        if (strCall == "lock")
            rgslckList[1].pfFile = fopen("/tmp/lock", "w");
        else if (strCall == "nocldwait")
            sigaction(SIGCHLD, &sa, nullptr);
        if (strCall == "lock" || strCall == "nocldwait")
            continue;
        VLIBCErrSet(ERR_SUCCESS);
        const std::string strResult = Call(strCall);
        while (wait(nullptr) > 0) {
        }
        sigaction(SIGCHLD, nullptr, &sa);
        const std::string strSigchld = sa.sa_handler == SIG_DFL   ? ""
                                       : sa.sa_handler == SIG_IGN ? "; SIGCHLD ignored"
                                       : sa.sa_handler == OnChild ? "; SIGCHLD caught"
                                                                  : "; SIGCHLD changed";
        const std::string strSaid = strResult + ", " + Recorded() + strSigchld +
                                    ((sa.sa_flags & SA_NOCLDWAIT) != 0 ? ", SA_NOCLDWAIT" : "") +
                                    ((sa.sa_flags & SA_RESTART) != 0 ? ", SA_RESTART" : "");
        if (strSaid != "0, no record")
            fprintf(stderr, "%s: %s\n", strCall.c_str(), strSaid.c_str());
    }
    fclose(pfOnce);
    if (sandbox::ReadFile("/tmp/once") != "once")
        fprintf(stderr, "output that stdio held before a call was written twice\n");
    return 0;
}
Lines Probe(const std::string &strCalls)
{
    return {VYRA_TEST_COMMAND, "--probe", strCalls};
}

TEST(ProcessExecution, PreparesTheChildAsAskedAndTellsHowItEnded)
{
    NEEDS_SANDBOX();
    const std::string kEach =
        "lock; execl 1; execl 2; execl 4; execl 8; execl 16; execl 32; detach /usr/bin/prog /exit3";
    const std::string kExit3 = "exec /usr/bin/prog /exit3", kDetach = "detach /bin/true";
    const std::string kHowItEnds =
        "lock; " + kExit3 + "; exec /usr/bin/prog /kill; exec /no/such; nocldwait; " + kExit3;
    const Lines kIgnoring = {"/bin/bash", "-c", "trap '' CHLD; exec \"$@\"", "bash"};
    const Lines kNoClone = Strace("inject=clone:error=EAGAIN");
    const Lines kNoSecondClone = Strace("inject=clone:error=EAGAIN:when=1", {"-f"});
    const Lines kNoWait = Strace("inject=wait4:error=EINVAL:when=1");
    const Scenario rows[] = {
        {"each flag", Probe(kEach), {}, R"(
$ prog 1 | PATH TZ | /tmp | 0-2<>/dev/null 3</etc/passwd 5>/tmp/lock | not leader
$ prog 2 | PATH TZ | /tmp | 0</dev/null 1<>deleted 2<>socket 3</etc/passwd | not leader
$ prog 4 | PATH TZ | /tmp | 0</dev/null 1<>deleted 2<>socket | not leader
$ prog 8 | PATH | /tmp | 0</dev/null 1<>deleted 2<>socket 3</etc/passwd 5>/tmp/lock | not leader
$ prog 16 | PATH TZ | / | 0</dev/null 1<>deleted 2<>socket 3</etc/passwd 5>/tmp/lock | not leader
$ prog 32 | PATH TZ | /tmp | 0</dev/null 1<>deleted 2<>socket 3</etc/passwd 5>/tmp/lock | leader
$ prog /exit3 | PATH TZ | /tmp | 0</dev/null 1<>deleted 2<>socket 3</etc/passwd 5>/tmp/lock 9>pipe | not leader
2> stand-in prog: exit 3
)"},
        {"VLIBCExec, and how a program ends", Probe(kHowItEnds), {}, R"(
$ prog /exit3 b | PATH | / | 0-2<>/dev/null 3</etc/passwd | leader
2> exec /usr/bin/prog /exit3: 3, no record
$ prog /kill b | PATH | / | 0-2<>/dev/null 3</etc/passwd | leader
2> exec /usr/bin/prog /kill: -1, ERR_OP_FAILURE at proc_execl.cpp:90
2> exec /no/such: 255, no record
$ prog /exit3 b | PATH | / | 0-2<>/dev/null 3</etc/passwd | leader
2> exec /usr/bin/prog /exit3: 3, no record; SIGCHLD caught, SA_NOCLDWAIT, SA_RESTART
)"},
        {"SIGCHLD ignored", kIgnoring + Probe(kExit3 + "; " + kDetach), {}, R"(
$ prog /exit3 b | PATH | / | 0-2<>/dev/null 3</etc/passwd | leader
2> exec /usr/bin/prog /exit3: 0, no record; SIGCHLD ignored
2> detach /bin/true: 0, no record; SIGCHLD ignored
)"},
        {"no fork", kNoClone + Probe("fork; " + kExit3), {}, R"(
2> fork: -1, ERR_FORK_FAIL at proc_fork.cpp:54
2> exec /usr/bin/prog /exit3: -1, ERR_OP_FAILURE at proc_execl.cpp:90
)"},
        {"an interrupted wait", kWaitInterrupted + Probe(kExit3), {}, R"(
$ prog /exit3 b | PATH | / | 0-2<>/dev/null 3</etc/passwd | leader
2> exec /usr/bin/prog /exit3: 3, no record
)"},
        {"no second fork to detach", kNoSecondClone + Probe(kDetach), {}, R"(
<11>proc_fork.cpp: Failed to fork(). errno=[11/Resource temporarily unavailable] (no newline)
2> detach /bin/true: -1, ERR_OP_FAILURE at proc_execl.cpp:90
)"},
        {"the detach's wait fails", kNoWait + Probe(kDetach), {}, R"(
2> detach /bin/true: -1, ERR_OP_FAILURE at proc_execl.cpp:90
)"},
    };
    for (const Scenario &row : rows)
        Check(row);
}

TEST(ExecDpkg, RunsDpkgWithItsOutputInTheInstallerLog)
{
    NEEDS_SANDBOX();
    const Lines kNoBanner = Strace("inject=openat:error=EMFILE:when=1", {"-P", kInstallerLog});
    const Lines kTrueDpkg = First("mount --bind /bin/true /usr/bin/dpkg");
    const Lines kFailAndKill = Probe("dpkg /x/a.deb /f; dpkg /x/kill.deb");
    const Scenario rows[] = {
        {"a failure, with a folder, and a signal", kFailAndKill, {}, R"(
$ dpkg -i /x/a.deb /f | PATH TZ | /tmp | 0</dev/null 1-2<>/var/log/dpkg_upgrade.log 3</etc/passwd | not leader
2> dpkg /x/a.deb /f: not installed, no record
$ dpkg -i /x/kill.deb | PATH TZ | /tmp | 0</dev/null 1-2<>/var/log/dpkg_upgrade.log 3</etc/passwd | not leader
2> dpkg /x/kill.deb: installed, no record
--- /var/log/dpkg_upgrade.log 0644
[stamp]  ===========[-i /x/a.deb /f]===========
stand-in dpkg: exit 1
[stamp] Failed to install -i/x/a.deb/f
[stamp]  ===========[-i /x/kill.deb ]===========
stand-in dpkg: kill -KILL $$
)"},
        {"the banner cannot open the log", kNoBanner + Probe("dpkg /x/a.deb"), {}, R"(
$ dpkg -i /x/a.deb | ASAN_OPTIONS PATH TZ | /tmp | 0</dev/null 1-2<>/var/log/dpkg_upgrade.log 3</etc/passwd | not leader
2> dpkg /x/a.deb: not installed, ERR_OPEN_FAILED at error_log_set.cpp:37
--- /var/log/dpkg_upgrade.log 0644
stand-in dpkg: exit 1
[stamp] Failed to install -i/x/a.deb
)"},
        {"an interrupted wait", kTrueDpkg + kWaitInterrupted + Probe("dpkg /x/a.deb"), {}, R"(
<11>debian_lib.cpp: Fail to exec [dpkg -i /x/a.deb] error=[Interrupted system call] (no newline)
2> dpkg /x/a.deb: not installed, no record
--- /var/log/dpkg_upgrade.log 0644
[stamp]  ===========[-i /x/a.deb ]===========
)"},
    };
    for (const Scenario &row : rows)
        Check(row);
}

TEST(FindSmallFixNumfromDeb, ReadsTheSmallFixOfANameMadeForThisBuild)
{
    NEEDS_SANDBOX();
    const std::string k31(31, '3'), kGetFail = "<11>debian_lib.cpp: Get buildnumber Fail\n";
    const char kV[] = "buildnumber=\"2668\"\n";
    const auto other = [](const std::string &strName) {
        return "<11>debian_lib.cpp: different buildnumber of deb [" + strName +
               "] with system buildnumber [2668]\n";
    };
    // FindSmallFixNumfromDeb(strDeb) where /etc.defaults/VERSION holds
    // strVersion (none where empty): the small-fix number, and the system log.
    struct Row {
        const char *szName;
        std::string strDeb, strVersion;
        int nSmallFix;
        std::string strLog = "";
    } const rows[] = {
        {"accepted", "/smallupd@te/x_4.1-2668-s5_all.deb", kV, 5},
        {"the build in the package field", "hotfix-2668-s_4.1-s9_all.deb", kV, 9},
        {"the last -s, decimal digits", "x_4.1-2668-s5-s08a_all.deb", kV, 8},
        {"clamped up", "x_4.1-2668-s99999999999_all.deb", kV, INT_MAX},
        {"clamped down", "x_4.1-2668-s-99999999999_all.deb", kV, INT_MIN},
        {"another build", "x_4.1-2669-s5_all.deb", kV, -1, other("x_4.1-2669-s5_all.deb")},
        {"the build as text", "x_4.1-02668-s5_all.deb", kV, -1, other("x_4.1-02668-s5_all.deb")},
        {"one underscore", "x_4.1-2668-s5.deb", kV, -1},
        {"three underscores", "x_y_4.1-2668-s5_all.deb", kV, -1},
        {"adjacent underscores", "x-2668-s1__all.deb", kV, -1},
        {"no -s in the version", "x-2668-s_4.1_all.deb", kV, -1},
        {"not .deb", "x_4.1-2668-s5_all.DEB", kV, -1},
        {"no VERSION", "x_4.1-2668-s5_all.deb", "", -1, kGetFail},
        {"no buildnumber", "x_4.1-2668-s5_all.deb", "model=x\n", -1, kGetFail},
        {"the first buildnumber", "x_4.1-2668-s5_all.deb", "buildnumber=2668\nbuildnumber=1\n", 5},
        {"a build of 31 bytes", "x_4.1-" + k31 + "-s6_all.deb", "buildnumber=" + k31, 6},
        {"a build of 32 bytes", "x_4.1-3" + k31 + "-s6_all.deb", "buildnumber=3" + k31, -1,
         kGetFail},
        {"an empty build", "x_4.1--s4_all.deb", "buildnumber=  \n", 4},
    };
    sandbox::TakeLog();
    for (const Row &row : rows) {
        std::filesystem::remove("/etc.defaults/VERSION");
        if (!row.strVersion.empty())
            sandbox::WriteFile("/etc.defaults/VERSION", row.strVersion);
        EXPECT_EQ(DebianLib::FindSmallFixNumfromDeb(row.strDeb), row.nSmallFix) << row.szName;
        EXPECT_EQ(Journal(sandbox::TakeLog()), row.strLog) << row.szName;
    }
    EXPECT_THROW(DebianLib::FindSmallFixNumfromDeb("deb"), std::out_of_range);
    EXPECT_FALSE(DebianLib::InstallDebCompare("a_1-2668-s5_all.deb", "b_1-2668-s05_all.deb"))
        << "equal numbers are in no order";
}

TEST(CheckDebian, RefusesTwoPrefixesAndWhatTheScanNeverHandsOver)
{
    NEEDS_SANDBOX();
    sandbox::Machine();
    // CheckDebian(szPath): the transcript of a child that exits 1 where it refuses.
    struct Row {
        const char *szName, *szPath, *szTranscript;
    } const rows[] = {
        {"refused", "/smallupd@te/smallupdate_1-2668-s1_x.deb", "\nexit 1\n"},
        {"only those prefixes", "/smallupd@te/smallupdates_1-2668-s1_x.deb", "\n"},
        {"no slash", "x_4.1-2668-s5.deb", R"(
exit 1
2> invalid debian url [x_4.1-2668-s5.deb]
<11>small_update.cpp: invalid debian url [x_4.1-2668-s5.deb]
)"},
    };
    for (const Row &row : rows) {
        const auto res = sandbox::Call([&row] { return CheckDebian(row.szPath) ? 0 : 1; });
        EXPECT_EQ(Transcript(res), row.szTranscript) << row.szName;
    }
}

const Files kMixed = {
    {"%n%s_1-2668-s1_x.deb", ""},        {"%s_1-2669-s1_x.deb", ""}, {"f_1-2668-sx_x.deb", ""},
    {"flashupdate_1-2668-s3_x.deb", ""}, {"g_1-2668-s2_x.deb/", ""},
};

TEST(SmallUpdate, ReportsEveryPackageOnEveryChannelAndEndsWithOneVerdict)
{
    NEEDS_SANDBOX();
    const char kMixedRun[] = R"(
exit 255
<11>debian_lib.cpp: different buildnumber of deb [%s_1-2669-s1_x.deb] with system buildnumber [2668]
2> invalid debian name [%s_1-2669-s1_x.deb]
<11>small_update.cpp: invalid debian name [%s_1-2669-s1_x.deb]
2> Unexpected Debian [/smallupd@te/%s_1-2669-s1_x.deb], skip install.
<11>small_update.cpp: Unexpected Debian [/smallupd@te/%s_1-2669-s1_x.deb], skip install.
$ vyralogset1 sys err 0x11B01030 /smallupd@te/%s_1-2669-s1_x.deb | PATH | / | 0-2<>/dev/null | leader
$ vyradeknotify @administrators update:small_update_check_failed /smallupd@te/%s_1-2669-s1_x.deb | PATH | / | 0-2<>/dev/null | leader
2> Unexpected Debian [/smallupd@te/flashupdate_1-2668-s3_x.deb], skip install.
<11>small_update.cpp: Unexpected Debian [/smallupd@te/flashupdate_1-2668-s3_x.deb], skip install.
$ vyralogset1 sys err 0x11B01030 /smallupd@te/flashupdate_1-2668-s3_x.deb | PATH | / | 0-2<>/dev/null | leader
$ vyradeknotify @administrators update:small_update_check_failed /smallupd@te/flashupdate_1-2668-s3_x.deb | PATH | / | 0-2<>/dev/null | leader
$ dpkg -i /smallupd@te/f_1-2668-sx_x.deb | PATH TZ | /tmp | 0</dev/null 1-2<>/var/log/dpkg_upgrade.log | not leader
$ dpkg -i /smallupd@te/%n%s_1-2668-s1_x.deb | PATH TZ | /tmp | 0</dev/null 1-2<>/var/log/dpkg_upgrade.log | not leader
$ dpkg -i /smallupd@te/g_1-2668-s2_x.deb | PATH TZ | /tmp | 0</dev/null 1-2<>/var/log/dpkg_upgrade.log | not leader
--- /var/log/vyraupdate.log 0644
[stamp] Failed to update critical update
--- /var/log/dpkg_upgrade.log 0644
[stamp]  ===========[-i /smallupd@te/f_1-2668-sx_x.deb ]===========
[stamp]  ===========[-i /smallupd@te/%n%s_1-2668-s1_x.deb ]===========
[stamp]  ===========[-i /smallupd@te/g_1-2668-s2_x.deb ]===========
)";
    const Lines kValgrind =
        VYRA_VALGRIND ? Lines{"/usr/bin/valgrind.bin", "-q", "--error-exitcode=99",
                              "--leak-check=full", "--errors-for-leak-kinds=definite,indirect"}
                      : Lines{};
    const Lines kNoStderrNoFork = Strace("inject=clone:error=EAGAIN:when=1") +
                                  Lines{"/bin/sh", "-c", "exec 2>&-; unset PWD; exec \"$@\"", "sh"};
    const Lines kNoDevNull = First("mount --bind /dev /mnt && mount -t tmpfs none /dev && "
                                   "ln -s /mnt/log /dev/log && exec 2>&-");  // stderr closed too

    const Scenario rows[] = {
        {"nothing found", kTool, {{".a_1-2668-s1_x.deb", ""}, {"b.DEB", ""}}, "\nexit 255\n"},
        {"every kind of name, under valgrind where it runs", kValgrind + kTool, kMixed, kMixedRun},
        {"standard error closed, no fork for dpkg",
         kNoStderrNoFork + kTool,
         {{"a_1-2668-s1_x.deb", ""}, {"b_1-2668-s2_x.deb", "standin dpkg: exit 1\n"}},
         R"(
exit 255
<11>debian_lib.cpp: Fail to fork (no newline)
<11>small_update.cpp: Failed to install [/smallupd@te/a_1-2668-s1_x.deb]
$ vyralogset1 sys err 0x11B01031 /smallupd@te/a_1-2668-s1_x.deb | PATH | / | 0-2<>/dev/null | leader
$ vyradeknotify @administrators update:small_update_install_failed /smallupd@te/a_1-2668-s1_x.deb | PATH | / | 0-2<>/dev/null | leader
$ dpkg -i /smallupd@te/b_1-2668-s2_x.deb | ASAN_OPTIONS PATH TZ | /tmp | 0</dev/null 1-2<>/var/log/dpkg_upgrade.log | not leader
<11>small_update.cpp: Failed to install [/smallupd@te/b_1-2668-s2_x.deb]
$ vyralogset1 sys err 0x11B01031 /smallupd@te/b_1-2668-s2_x.deb | PATH | / | 0-2<>/dev/null | leader
$ vyradeknotify @administrators update:small_update_install_failed /smallupd@te/b_1-2668-s2_x.deb | PATH | / | 0-2<>/dev/null | leader
--- /var/log/vyraupdate.log 0644
[stamp] Failed to update critical update
--- /var/log/dpkg_upgrade.log 0644
[stamp]  ===========[-i /smallupd@te/a_1-2668-s1_x.deb ]===========
[stamp]  ===========[-i /smallupd@te/b_1-2668-s2_x.deb ]===========
stand-in dpkg: exit 1
[stamp] Failed to install -i/smallupd@te/b_1-2668-s2_x.deb
)"},
        {"no /dev/null, standard error closed", kNoDevNull + kTool, {{"a_1-2668-s1_x.deb", ""}}, R"(
$ dpkg -i /smallupd@te/a_1-2668-s1_x.deb | PATH TZ | /tmp | 0</dev/null 1-2<>/var/log/dpkg_upgrade.log | not leader
--- /var/log/vyraupdate.log 0644
[stamp] Finished critical update!!!
--- /var/log/dpkg_upgrade.log 0644
[stamp]  ===========[-i /smallupd@te/a_1-2668-s1_x.deb ]===========
)"},
    };
    for (const Scenario &row : rows)
        Check(row);
}

// Traced, every record the tool appends to a log is synced before its next
// fork, exec or exit, and the log's directory after the record that created
// the log, and after no other.
TEST(SmallUpdate, SyncsEveryRecordBeforeItsNextStep)
{
    NEEDS_SANDBOX();
    Prepare({{"a_1-2668-s1_x.deb", "standin dpkg: exit 1\n"}, {"b_1-2668-s2_x.deb", ""}});
    const sandbox::Result res = sandbox::Run(
        Strace("trace=write,fsync,fork,vfork,clone,clone3,execve,exit_group", {"-y"}) + kTool,
        kEnv);
    std::string strRecords, strLog;  // the log whose record waits for the next step
    std::set<std::string> logs;
    std::istringstream in(sandbox::ReadFile("/tmp/strace"));
    for (std::string strLine; std::getline(in, strLine);) {
        const auto pos = strLine.find("</var/log");
        const std::string strOn = pos == std::string::npos
                                      ? ""
                                      : strLine.substr(pos + 1, strLine.find('>', pos) - pos - 1);
        const bool blWrite = strLine.rfind("write(", 0) == 0;
        if (blWrite && !strOn.empty() && strOn != strLog)
            strRecords += (strLog = strOn) + (logs.insert(strOn).second ? " (new)" : "");
        else if (blWrite && strOn == strLog)
            strRecords += ", written";
        else if (strLine.rfind("fsync(", 0) == 0 && !strLog.empty())
            strRecords += ", " + (strOn == strLog ? "" : strOn + " ") + "synced";
        else if (!blWrite && !strLog.empty())
            strRecords += "\n", strLog.clear();
    }
    EXPECT_EQ(strRecords, R"(/var/log/dpkg_upgrade.log (new), synced, /var/log synced
/var/log/dpkg_upgrade.log, synced
/var/log/dpkg_upgrade.log, synced
/var/log/vyraupdate.log (new), synced, /var/log synced
)") << "a banner, a failure, a banner, the verdict; the run:"
    << Transcript(res) << "the trace:\n"
    << sandbox::ReadFile("/tmp/strace");
}

// Twice with the real dpkg: the power under /var/log fails in a maintainer
// script of the first run, which ends with it, and the next completes the work.
TEST(SmallUpdate, InstallsRealPackagesAndCompletesARunThatThePowerCut)
{
    NEEDS_SANDBOX();
    const std::string strLogFs = sandbox::ReadFile("/.vyra-sandbox");
    RUN_ONLY_IF(strLogFs.find(": none:") == std::string::npos,
                "the power cannot be cut: " + strLogFs);
    const std::string kTrace = "echo $DPKG_MAINTSCRIPT_PACKAGE >> /tmp/trace\n";
    const std::string kCut =
        "[ -e /tmp/cut ] || { exec > /dev/null 2>&1; : > /tmp/cut; xfs_io -x -c shutdown /var/log; "
        "read -r _ _ _ tool _ < /proc/$PPID/stat; kill -KILL $tool $PPID; }\n";
    sandbox::Machine(true);
    const std::vector<sandbox::Package> packages = {{"vyra-y", "", kTrace},
                                                    {"vyra-d", "vyra-x", kTrace},
                                                    {"vyra-x", "", kTrace},
                                                    {"vyra-z", "", kTrace + kCut}};
    for (size_t idx = 0; idx < packages.size(); ++idx)  // small fixes 1 to 4
        ASSERT_TRUE(sandbox::BuildDeb(packages[idx], "/smallupd@te/" + packages[idx].strName +
                                                         "_1.0-2668-s" + std::to_string(idx + 1) +
                                                         "_all.deb"));
    const sandbox::Result res = sandbox::Run(kTool, kEnv);
    ASSERT_FALSE(std::ofstream("/var/log/.power")) << "the power was on: nothing cut it";
    const sandbox::Result resOn =
        sandbox::Run({"/bin/sh", "-c", "umount /var/log && mount /var/log"});
    ASSERT_EQ(resOn.Code(), 0) << Journal(resOn.log);
    EXPECT_EQ(Transcript(res, false), R"(
signal 9
2> Failed to install [/smallupd@te/vyra-d_1.0-2668-s2_all.deb]
<11>small_update.cpp: Failed to install [/smallupd@te/vyra-d_1.0-2668-s2_all.deb]
$ vyralogset1 sys err 0x11B01031 /smallupd@te/vyra-d_1.0-2668-s2_all.deb | PATH | / | 0-2<>/dev/null | leader
$ vyradeknotify @administrators update:small_update_install_failed /smallupd@te/vyra-d_1.0-2668-s2_all.deb | PATH | / | 0-2<>/dev/null | leader
--- /var/log/dpkg_upgrade.log 0644
[stamp]  ===========[-i /smallupd@te/vyra-y_1.0-2668-s1_all.deb ]===========
[stamp]  ===========[-i /smallupd@te/vyra-d_1.0-2668-s2_all.deb ]===========
[stamp] Failed to install -i/smallupd@te/vyra-d_1.0-2668-s2_all.deb
[stamp]  ===========[-i /smallupd@te/vyra-x_1.0-2668-s3_all.deb ]===========
[stamp]  ===========[-i /smallupd@te/vyra-z_1.0-2668-s4_all.deb ]===========
)") << "the first run: vyra-d lacks vyra-x, installed next; the records kept through the cut";
    std::filesystem::remove(kInstallerLog);
    EXPECT_EQ(Transcript(sandbox::Run(kTool, kEnv), false), R"(
--- /var/log/vyraupdate.log 0644
[stamp] Finished critical update!!!
--- /var/log/dpkg_upgrade.log 0644
[stamp]  ===========[-i /smallupd@te/vyra-y_1.0-2668-s1_all.deb ]===========
[stamp]  ===========[-i /smallupd@te/vyra-d_1.0-2668-s2_all.deb ]===========
[stamp]  ===========[-i /smallupd@te/vyra-x_1.0-2668-s3_all.deb ]===========
[stamp]  ===========[-i /smallupd@te/vyra-z_1.0-2668-s4_all.deb ]===========
)") << "the run once the power is back";
    EXPECT_EQ(sandbox::ReadFile("/tmp/trace"),
              "vyra-y\nvyra-x\nvyra-z\nvyra-y\nvyra-d\nvyra-x\nvyra-z\n")
        << "the maintainer scripts that ran, in order";
    EXPECT_EQ(
        sandbox::Run({"/usr/bin/dpkg", "--audit", "vyra-d", "vyra-x", "vyra-y", "vyra-z"}).out, "")
        << "nothing half installed";
}

}  // namespace

int main(int argc, char **argv)
{
    umask(022);  // the modes of the logs that runs create
    if (argc == 3 && strcmp(argv[1], "--probe") == 0)
        return Probe(argv);
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
