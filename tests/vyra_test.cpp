// The core library and the package library call by call, small_update run
// whole on a machine of build 2668 (sandbox::Machine), then the service's
// judgement and files, and the service run whole; each run compared with its
// transcript (Transcript), written out as it must read.
#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>

#include "debian_lib.h"
#include "sandbox.h"
#include "service.h"
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
#define NEEDS_SANDBOX() RUN_ONLY_IF(sandbox::Inside(), "it runs as root in vyra-sandbox")

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

// The path of a file in memory that holds strContent: nothing on a disk.
std::string MemFile(const std::string &strContent)
{
    const int fd = memfd_create("vyra-test", 0);
    if (fd < 0 || write(fd, strContent.data(), strContent.size()) < 0)
        throw std::runtime_error("no file in memory");
    return "/proc/self/fd/" + std::to_string(fd);
}

// How many descriptors this process holds.
ptrdiff_t OpenFds()
{
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
}

TEST(ErrLogSet, AppendsOneLineOrRecordsWhy)
{
    const std::string strLog = MemFile("a\nb");
    const char kAll[] = "a\nbc\n% %n%s%\n";
    // VLIBCErrLogSet(szFile, szText): the result, what strLog ("a\nb" at
    // first) then holds, the record; no stream is left open.
    struct Row {
        const char *szName, *szFile, *szText;
        int nResult;
        const char *szLog, *szRecord = "no record";
    } const rows[] = {
        {"appends", strLog.c_str(), "c", 0, "a\nbc\n"},
        {"reads no argument", strLog.c_str(), "%% %n%s%", 0, kAll},
        {"no directory", "/no/log", "x", -1, kAll, "ERR_OPEN_FAILED at error_log_set.cpp:37"},
    };
    for (const Row &row : rows) {
        const ptrdiff_t cFds = OpenFds();
        VLIBCErrSet(ERR_SUCCESS);
        EXPECT_EQ(VLIBCErrLogSet(row.szFile, row.szText), row.nResult) << row.szName;
        EXPECT_EQ(sandbox::ReadFile(strLog), row.szLog) << row.szName;
        EXPECT_EQ(Recorded(), row.szRecord) << row.szName;
        EXPECT_EQ(OpenFds(), cFds) << row.szName;
    }
}

TEST(StrTrimSpace, TrimsBlanksThenOnePairOfQuotes)
{
    char szQuoted[] = "\t\" a \"\r\n";
    EXPECT_EQ(VLIBCStrTrimSpace(szQuoted, nullptr), 3) << "in place";
    EXPECT_STREQ(szQuoted, " a ") << "in place";
    EXPECT_EQ(VLIBCStrTrimSpace(nullptr, nullptr), -1);
    EXPECT_EQ(Recorded(), "ERR_BAD_PARAMETERS at string_trim_space.cpp:104");
}

TEST(FileGetKeyValue, ReadsTheValueOfAKey)
{
    const char kNone[] = "ERR_KEY_NOT_FOUND at file_get_key_value.cpp:108";
    const char kBig[] = "ERR_NOT_ENOUGH_MEMORY at file_get_key_value.cpp:88";
    // VLIBCFileGetKeyValue of "k" in a file holding szFile (nullptr: none) into
    // a buffer of sizeMax bytes that held "before": the result, the buffer, the record.
    struct Row {
        const char *szName, *szFile;
        int sizeMax, nResult;
        const char *szValue, *szRecord = "no record";
    } const rows[] = {
        {"fits", "k=7321", 5, 5, "7321"},
        {"a byte short", "k=7321", 4, -1, "before", kBig},
        {"quotes, blanks, CR LF", "K=2\r\n \"k\" = \"7\" \r\n", 32, 2, "7"},
        {"empty value", "k=\n", 32, 0, "before", kNone},
        {"blank value", "k= \n", 32, 1, ""},
        {"no file", nullptr, 32, -1, "before", "ERR_OPEN_FAILED at file_get_key_value.cpp:56"},
    };
    for (const Row &row : rows) {
        const std::string strFile = row.szFile != nullptr ? MemFile(row.szFile) : "/no/file";
        char szBuffer[64] = "before";
        VLIBCErrSet(ERR_SUCCESS);
        EXPECT_EQ(VLIBCFileGetKeyValue(strFile.c_str(), "k", szBuffer, row.sizeMax, 0), row.nResult)
            << row.szName;
        EXPECT_STREQ(szBuffer, row.szValue) << row.szName;
        EXPECT_EQ(Recorded(), row.szRecord) << row.szName;
    }
}

TEST(FileCloseLock, FreesEveryRow)
{
    EXPECT_EQ(VLIBCFileCloseLock(), 0) << "a fresh table holds nothing";
    for (const int idx : {1, 2, 27})
        rgslckList[idx].pfFile = fopen("/dev/null", "w");
    close(fileno(rgslckList[2].pfFile));  // its close will fail
    EXPECT_EQ(VLIBCFileCloseLock(), -1) << "row 2's close failed";
    for (const VLIBLOCK &row : rgslckList)
        EXPECT_EQ(row.pfFile, nullptr) << row.szFile;
}

const char kUpdateLog[] = "/var/log/vyraupdate.log", kInstallerLog[] = "/var/log/dpkg_upgrade.log";
const char kRecord[] = "/var/lib/small-update/last-run";
const time_t tStart = time(nullptr);

// The system log as text: standard error as "2> TEXT", a stand-in's start as
// "$ " and what it found (standin.sh), every other message as "<PRI>TEXT"
// without its line number, marked " (no newline)" where it lacks its line end.
std::string Journal(const Lines &log)
{
    std::string str;
    for (std::string strMsg : log) {
        const auto posLine = strMsg.find(".cpp:"), posText = strMsg.find(' ', posLine);
        // The variable that Strace sets for the sanitizers is none of the tool's.
        if (const size_t pos = strMsg.find("| ASAN_OPTIONS "); pos != std::string::npos)
            strMsg.erase(pos + 2, 13);
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
// Each SHA-256 as "[sha256]": the packages are built afresh for every run.
std::string Sha256Masked(std::string str)
{
    const char kHex[] = "0123456789abcdef";
    for (size_t idx = 0; (idx = str.find_first_of(kHex, idx)) != std::string::npos;) {
        const size_t cb = std::min(str.find_first_not_of(kHex, idx), str.size()) - idx;
        idx += cb == 64 ? str.replace(idx, 64, "[sha256]"), 8 : cb;
    }
    return str;
}

// A run as text from a line end on: "exit N" or "signal N" unless it exited 0;
// what it printed; the system log; each of the files that exists after "--- PATH
// MODE", a record stamped with local time (kEnv) since this program started as
// "[stamp] TEXT", a SHA-256 as "[sha256]", and lines of other programs (dpkg's
// output) as they are, or left out where !blOutput.
std::string Transcript(const sandbox::Result &res, bool blOutput = true,
                       const Lines &files = {kUpdateLog, kInstallerLog})
{
    std::string str = "\n";
    if (res.status != 0)
        str += (WIFEXITED(res.status) ? "exit " : "signal ") + std::to_string(res.Code() % 1000) +
               "\n";
    str += res.out + Journal(res.log);
    for (const std::string &strFile : files) {
        const auto st = std::filesystem::status(strFile);
        if (!std::filesystem::exists(st))
            continue;
        char szMode[8] = "";
        snprintf(szMode, sizeof(szMode), " %04o", static_cast<unsigned>(st.permissions()));
        str += "--- " + strFile + szMode + "\n";
        std::istringstream in(sandbox::ReadFile(strFile));
        for (std::string strLine; std::getline(in, strLine);) {
            struct tm tm = {};
            const char *pchEnd = strptime(strLine.c_str(), "%Y/%m/%d %H:%M:%S", &tm);
            const time_t tStamp = timegm(&tm) - 5 * 3600;
            if (strLine.size() > 20 && pchEnd == &strLine[19] && *pchEnd == '\t' &&
                tStamp >= tStart - 1 && tStamp <= time(nullptr))
                str += "[stamp] " + strLine.substr(20) + "\n";
            else if (blOutput)
                str += Sha256Masked(strLine) + "\n";
        }
    }
    return str;
}

// Every run's: local time five hours east of UTC, where a stamp in UTC shows.
const Lines kEnv = {"PATH=/usr/sbin:/usr/bin:/sbin:/bin", "TZ=XYZ-5"};
const Lines kTool = {VYRA_TOOL_COMMAND, "-x", "a.deb"};  // arguments change nothing
// Where it runs: neither an emulated nor a sanitized program.
const Lines kValgrind =
    VYRA_VALGRIND ? Lines{"/usr/bin/valgrind.bin", "-q", "--error-exitcode=99", "--leak-check=full",
                          "--errors-for-leak-kinds=definite,indirect"}
                  : Lines{};

Lines operator+(Lines argv, const Lines &more)
{
    argv.insert(argv.end(), more.begin(), more.end());
    return argv;
}
// Runs the rest under strace, and without LeakSanitizer, which cannot trace then.
Lines Strace(const std::string &strWhat, const Lines &options = {})
{
    return Lines{"/usr/bin/strace", "-qq", "-o", "/tmp/strace", "-e", strWhat} + options +
           (VYRA_SANITIZE ? Lines{"--", "/usr/bin/env", "ASAN_OPTIONS=detect_leaks=0"} : Lines{});
}

// A fresh machine that holds the files (a relative path lies in the update
// directory, one that ends in "/" is a directory). The modes of the logs that
// runs create are those of umask 022.
void Prepare(const Files &files, bool blRealDpkg = false)
{
    umask(022);
    sandbox::Machine(blRealDpkg);
    for (const auto &[strName, strContent] : files) {
        const std::string strPath = (strName[0] == '/' ? "" : "/smallupd@te/") + strName;
        if (strPath.back() == '/')
            std::filesystem::create_directories(strPath);
        else
            sandbox::WriteFile(strPath, strContent);
    }
}

// szPath opened on descriptor fd, which a program started later inherits.
int OpenAt(const char *szPath, int flags, int fd)
{
    const int fdOpen = open(szPath, flags | O_CLOEXEC, 0644);
    if (fdOpen < 0 || dup2(fdOpen, fd) != fd || fcntl(fd, F_SETFD, 0) != 0)
        throw std::runtime_error(std::string("cannot open ") + szPath);
    return fd;
}
// On standard error, once the programs that call started ended: the call, its
// result, the record, and how SIGCHLD is then handled. The next call starts
// without a record.
#define TELL(call) Tell(#call, (call))
void OnChild(int)
{
}
void Tell(const char *szCall, long nResult)
{
    while (wait(nullptr) > 0) {
    }
    struct sigaction sa = {};
    sigaction(SIGCHLD, nullptr, &sa);
    fprintf(stderr, "%s: %ld, %s%s%s%s\n", szCall, nResult, Recorded().c_str(),
            sa.sa_handler == SIG_IGN   ? "; SIGCHLD ignored"
            : sa.sa_handler == OnChild ? "; SIGCHLD caught"
                                       : "",
            (sa.sa_flags & SA_NOCLDWAIT) != 0 ? ", SA_NOCLDWAIT" : "",
            (sa.sa_flags & SA_RESTART) != 0 ? ", SA_RESTART" : "");
    VLIBCErrSet(ERR_SUCCESS);
}
// The detached program holds descriptor 9, and its end tells when it ends:
// no one waits for it, and qemu-user cannot make the sandbox its subreaper.
int Detach(const char *szPath, const char *szArg)
{
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0 || dup2(fds[1], 9) != 9 || close(fds[1]) != 0)
        throw std::runtime_error("no pipe");
    const int ret = VLIBCExecl(szPath, FORK_DETACH, szArg, nullptr);
    close(9);
    for (char ch; read(fds[0], &ch, 1) > 0;) {
    }
    return ret;
}

// A child of sandbox::Call that holds what a started program keeps or drops
// only as told: the variables PATH and TZ alone, /etc/passwd on descriptor 3,
// lock row 1's stream on descriptor 5, and output that stdio keeps buffered.
TEST(ProcessExecution, PreparesTheChildAsAskedAndTellsHowItEnded)
{
    NEEDS_SANDBOX();
    Prepare({{"/exit3", "standin prog: exit 3\n"}, {"/kill", "standin prog: kill -KILL $$\n"}});
    sandbox::InstallStandin("/usr/bin/prog");
    const sandbox::Result res = sandbox::Call([] {
        clearenv();
        for (const std::string &strVar : kEnv)
            putenv(const_cast<char *>(strVar.c_str()));
        OpenAt("/etc/passwd", O_RDONLY, 3);
        rgslckList[1].pfFile = fdopen(OpenAt("/tmp/lock", O_WRONLY | O_CREAT, 5), "w");
        fputs("held\n", stdout);
        for (const int flag : {1, 2, 4, 8, 16, 32})
            VLIBCExecl("/usr/bin/prog", flag, std::to_string(flag).c_str(), nullptr);
        TELL(Detach("/usr/bin/prog", "/exit3"));
        TELL(VLIBCExec("/usr/bin/prog", "/exit3", "b", nullptr, "c"));
        TELL(VLIBCExec("/usr/bin/prog", "/kill", nullptr, nullptr, nullptr));
        TELL(VLIBCExec("/no/such", nullptr, nullptr, nullptr, nullptr));
        struct sigaction sa = {};
        sa.sa_handler = OnChild;
        sa.sa_flags = SA_NOCLDWAIT | SA_RESTART;
        sigaction(SIGCHLD, &sa, nullptr);
        TELL(VLIBCExec("/usr/bin/prog", "/exit3", nullptr, nullptr, nullptr));
        signal(SIGCHLD, SIG_IGN);
        TELL(VLIBCExec("/usr/bin/prog", "/exit3", nullptr, nullptr, nullptr));
        TELL(Detach("/bin/true", nullptr));
        return 0;
    });
    EXPECT_EQ(Transcript(res), R"(
held
$ prog 1 | PATH TZ | /tmp | 0-2<>/dev/null 3</etc/passwd 5>/tmp/lock | not leader
$ prog 2 | PATH TZ | /tmp | 0</dev/null 1<>deleted 2<>socket 3</etc/passwd | not leader
$ prog 4 | PATH TZ | /tmp | 0</dev/null 1<>deleted 2<>socket | not leader
$ prog 8 | PATH | /tmp | 0</dev/null 1<>deleted 2<>socket 3</etc/passwd 5>/tmp/lock | not leader
$ prog 16 | PATH TZ | / | 0</dev/null 1<>deleted 2<>socket 3</etc/passwd 5>/tmp/lock | not leader
$ prog 32 | PATH TZ | /tmp | 0</dev/null 1<>deleted 2<>socket 3</etc/passwd 5>/tmp/lock | leader
$ prog /exit3 | PATH TZ | /tmp | 0</dev/null 1<>deleted 2<>socket 3</etc/passwd 5>/tmp/lock 9>pipe | not leader
2> stand-in prog: exit 3
2> Detach("/usr/bin/prog", "/exit3"): 0, no record
$ prog /exit3 b | PATH | / | 0-2<>/dev/null 3</etc/passwd | leader
2> VLIBCExec("/usr/bin/prog", "/exit3", "b", nullptr, "c"): 3, no record
$ prog /kill | PATH | / | 0-2<>/dev/null 3</etc/passwd | leader
2> VLIBCExec("/usr/bin/prog", "/kill", nullptr, nullptr, nullptr): -1, ERR_OP_FAILURE at proc_execl.cpp:90
2> VLIBCExec("/no/such", nullptr, nullptr, nullptr, nullptr): 255, no record
$ prog /exit3 | PATH | / | 0-2<>/dev/null 3</etc/passwd | leader
2> VLIBCExec("/usr/bin/prog", "/exit3", nullptr, nullptr, nullptr): 3, no record; SIGCHLD caught, SA_NOCLDWAIT, SA_RESTART
$ prog /exit3 | PATH | / | 0-2<>/dev/null 3</etc/passwd | leader
2> VLIBCExec("/usr/bin/prog", "/exit3", nullptr, nullptr, nullptr): 0, no record; SIGCHLD ignored, SA_RESTART
2> Detach("/bin/true", nullptr): 0, no record; SIGCHLD ignored, SA_RESTART
)") << "each flag, then how a program ends, with SIGCHLD caught with SA_NOCLDWAIT, then ignored";
}

TEST(FindSmallFixNumfromDeb, ReadsTheSmallFixOfANameMadeForThisBuild)
{
    NEEDS_SANDBOX();
    const std::string kGetFail = "<11>debian_lib.cpp: Get buildnumber Fail\n";
    const char kV[] = "buildnumber=\"2668\"\n";
    // FindSmallFixNumfromDeb(strDeb) where /etc.defaults/VERSION holds
    // strVersion (none where empty): the small-fix number, and the system log.
    struct Row {
        const char *szName;
        std::string strDeb, strVersion;
        int nSmallFix;
        std::string strLog = "";
    } const rows[] = {
        {"accepted", "/smallupd@te/x_4.1-2668-s5_all.deb", kV, 5},
        {"the last -s, decimal digits", "x_4.1-2668-s5-s08a_all.deb", kV, 8},
        {"the build as text", "x_4.1-02668-s5_all.deb", kV, -1,
         "<11>debian_lib.cpp: different buildnumber of deb [x_4.1-02668-s5_all.deb] with system "
         "buildnumber [2668]\n"},
        {"one underscore", "x_4.1-2668-s5.deb", kV, -1},
        {"three underscores", "x_y_4.1-2668-s5_all.deb", kV, -1},
        {"no -s in the version", "x-2668-s_4.1_all.deb", kV, -1},
        {"no VERSION", "x_4.1-2668-s5_all.deb", "", -1, kGetFail},
        {"the first buildnumber", "x_4.1-2668-s5_all.deb", "buildnumber=2668\nbuildnumber=1\n", 5},
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
    EXPECT_FALSE(DebianLib::InstallDebCompare("a_1-2668-s5_all.deb", "b_1-2668-s05_all.deb"))
        << "equal numbers are in no order";
}

// A fresh machine that holds the files, and a run of argv on it as text.
std::string RunOn(const Files &files, const Lines &argv)
{
    Prepare(files);
    return Transcript(sandbox::Run(argv, kEnv));
}

TEST(SmallUpdate, FindsNothingAndSaysNothing)
{
    NEEDS_SANDBOX();
    EXPECT_EQ(RunOn({{".a_1-2668-s1_x.deb", ""}, {"b.DEB", ""}}, kTool), "\nexit 255\n");
}

TEST(SmallUpdate, ReportsEveryRefusedNameOnEveryChannelAndInstallsTheRestInOrder)
{
    NEEDS_SANDBOX();
    EXPECT_EQ(RunOn({{"%n%s_1-2668-s1_x.deb", ""},
                     {"%s_1-2669-s1_x.deb", ""},
                     {"f_1-2668-sx_x.deb", ""},
                     {"flashupdate_1-2668-s3_x.deb", ""},
                     {"g_1-2668-s2_x.deb/", ""},
                     {"smallupdate_1-2668-s5_x.deb", ""},
                     {"smallupdates_1-2668-s4_x.deb", ""}},
                    kValgrind + kTool),
              R"(
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
2> Unexpected Debian [/smallupd@te/smallupdate_1-2668-s5_x.deb], skip install.
<11>small_update.cpp: Unexpected Debian [/smallupd@te/smallupdate_1-2668-s5_x.deb], skip install.
$ vyralogset1 sys err 0x11B01030 /smallupd@te/smallupdate_1-2668-s5_x.deb | PATH | / | 0-2<>/dev/null | leader
$ vyradeknotify @administrators update:small_update_check_failed /smallupd@te/smallupdate_1-2668-s5_x.deb | PATH | / | 0-2<>/dev/null | leader
$ dpkg -i /smallupd@te/f_1-2668-sx_x.deb | PATH TZ | /tmp | 0</dev/null 1-2<>/var/log/dpkg_upgrade.log | not leader
$ dpkg -i /smallupd@te/%n%s_1-2668-s1_x.deb | PATH TZ | /tmp | 0</dev/null 1-2<>/var/log/dpkg_upgrade.log | not leader
$ dpkg -i /smallupd@te/g_1-2668-s2_x.deb | PATH TZ | /tmp | 0</dev/null 1-2<>/var/log/dpkg_upgrade.log | not leader
$ dpkg -i /smallupd@te/smallupdates_1-2668-s4_x.deb | PATH TZ | /tmp | 0</dev/null 1-2<>/var/log/dpkg_upgrade.log | not leader
--- /var/log/vyraupdate.log 0644
[stamp] Failed to update critical update
--- /var/log/dpkg_upgrade.log 0644
[stamp]  ===========[-i /smallupd@te/f_1-2668-sx_x.deb ]===========
[stamp]  ===========[-i /smallupd@te/%n%s_1-2668-s1_x.deb ]===========
[stamp]  ===========[-i /smallupd@te/g_1-2668-s2_x.deb ]===========
[stamp]  ===========[-i /smallupd@te/smallupdates_1-2668-s4_x.deb ]===========
)") << "under valgrind where it runs";
}

TEST(SmallUpdate, ReportsAFailedForkAndAFailedDpkgWithStandardErrorClosed)
{
    NEEDS_SANDBOX();
    const Lines noStderrNoFork = Strace("inject=clone:error=EAGAIN:when=1") +
                                 Lines{"/bin/sh", "-c", "exec 2>&-; unset PWD; exec \"$@\"", "sh"};

    EXPECT_EQ(RunOn({{"a_1-2668-s1_x.deb", ""},
                     {"b_1-2668-s2_x.deb", "standin dpkg: exit 1\n"},
                     {"c_1-2668-s3_x.deb", "standin dpkg: kill -KILL $$\n"}},
                    noStderrNoFork + kTool),
              R"(
exit 255
<11>debian_lib.cpp: Fail to fork (no newline)
<11>small_update.cpp: Failed to install [/smallupd@te/a_1-2668-s1_x.deb]
$ vyralogset1 sys err 0x11B01031 /smallupd@te/a_1-2668-s1_x.deb | PATH | / | 0-2<>/dev/null | leader
$ vyradeknotify @administrators update:small_update_install_failed /smallupd@te/a_1-2668-s1_x.deb | PATH | / | 0-2<>/dev/null | leader
$ dpkg -i /smallupd@te/b_1-2668-s2_x.deb | PATH TZ | /tmp | 0</dev/null 1-2<>/var/log/dpkg_upgrade.log | not leader
<11>small_update.cpp: Failed to install [/smallupd@te/b_1-2668-s2_x.deb]
$ vyralogset1 sys err 0x11B01031 /smallupd@te/b_1-2668-s2_x.deb | PATH | / | 0-2<>/dev/null | leader
$ vyradeknotify @administrators update:small_update_install_failed /smallupd@te/b_1-2668-s2_x.deb | PATH | / | 0-2<>/dev/null | leader
$ dpkg -i /smallupd@te/c_1-2668-s3_x.deb | PATH TZ | /tmp | 0</dev/null 1-2<>/var/log/dpkg_upgrade.log | not leader
--- /var/log/vyraupdate.log 0644
[stamp] Failed to update critical update
--- /var/log/dpkg_upgrade.log 0644
[stamp]  ===========[-i /smallupd@te/a_1-2668-s1_x.deb ]===========
[stamp]  ===========[-i /smallupd@te/b_1-2668-s2_x.deb ]===========
stand-in dpkg: exit 1
[stamp] Failed to install -i/smallupd@te/b_1-2668-s2_x.deb
[stamp]  ===========[-i /smallupd@te/c_1-2668-s3_x.deb ]===========
stand-in dpkg: kill -KILL $$
)") << "no fork for dpkg, then a dpkg that fails and one killed";
}

// Traced, every record the tool appends to a log is synced before its next
// fork, exec or exit, and the log's directory after the record that created
// the log, and after no other. Writes elsewhere are no step.
TEST(SmallUpdate, SyncsEveryRecordBeforeItsNextStep)
{
    NEEDS_SANDBOX();
    Prepare({{"a_1-2668-s1_x.deb", "standin dpkg: exit 1\n"}, {"b_1-2668-s2_x.deb", ""}});
    const sandbox::Result res = sandbox::Run(
        Strace("trace=write,fsync,fork,vfork,clone,clone3,execve,exit_group", {"-y"}) + kTool,
        kEnv);
    std::string strSteps = "\n";  // a line for each step's calls on the logs
    std::istringstream in(sandbox::ReadFile("/tmp/strace"));
    for (std::string strLine; std::getline(in, strLine);) {
        const auto pos = strLine.find("</var/log");
        if (pos != std::string::npos)
            strSteps += (strSteps.back() == '\n' ? "" : ", ") +
                        strLine.substr(0, strLine.find('(')) + " " +
                        strLine.substr(pos + 1, strLine.find('>', pos) - pos - 1);
        else if (strLine.rfind("write(", 0) != 0 && strSteps.back() != '\n')
            strSteps += "\n";
    }
    EXPECT_EQ(strSteps, R"(
write /var/log/dpkg_upgrade.log, fsync /var/log/dpkg_upgrade.log, fsync /var/log
write /var/log/dpkg_upgrade.log, fsync /var/log/dpkg_upgrade.log
write /var/log/dpkg_upgrade.log, fsync /var/log/dpkg_upgrade.log
write /var/log/vyraupdate.log, fsync /var/log/vyraupdate.log, fsync /var/log
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
    Prepare({}, true);
    const sandbox::Package packages[] = {{"vyra-y", "", kTrace},
                                         {"vyra-d", "vyra-x", kTrace},
                                         {"vyra-x", "", kTrace},
                                         {"vyra-z", "", kTrace + kCut}};
    for (int idx = 0; idx < 4; ++idx)  // small fixes 1 to 4
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
}

using Service::Candidate;
using Service::Outcome;
using Service::Record;

const Candidate kA = {"/smallupd@te/a_1-2668-s1_all.deb", 'f', "a1", "vyra-a:all"};
const Candidate kB = {"/smallupd@te/b\nc_1-2668-s2_all.deb", 'f', "b2", "vyra-b:powerpc"};
const char kGaveUpOnB[] = "<3>gave up on /smallupd@te/b\\012c_1-2668-s2_all.deb after 3 attempts; "
                          "once they are mended, systemctl start small-update.service, or replace "
                          "or remove them";

std::optional<Record> Rec(int nAttempt, Outcome outcome, bool blTold = false,
                          const Lines &failed = {})
{
    return Record{nAttempt, outcome, blTold, "2668", {}, failed};
}

// What the judgement answers: the journal's line, its exit code, whom it
// tells, and whether it clears the units' failed state.
TEST(Judge, AnswersFromWhatWasRead)
{
    struct Row {
        const char *szName;
        std::optional<Record> record;
        const char *szLine;
        int nExit = 1;
        Lines tell = {};
        bool blReset = false;
        bool blSame = true;  // the record's candidates are kA and kB
        const char *szBuild = "2668";
        std::vector<Candidate> candidates = {kA, kB};
        Service::Audit audit = {};
        pid_t pidDpkgLock = 0;
        Lines writing = {};
        bool blAsked = false;
    } const rows[] = {
        {"no record", std::nullopt, "<5>a run is owed: changed", 0},
        {.szName = "a fix replaced",
         .record = Rec(1, Outcome::Clean),
         .szLine = "<5>a run is owed: changed",
         .nExit = 0,
         .blSame = false},
        {.szName = "another build",
         .record = Rec(1, Outcome::Clean),
         .szLine = "<5>a run is owed: changed",
         .nExit = 0,
         .szBuild = "2669"},
        {"clean", Rec(1, Outcome::Clean), "<7>nothing to do: a clean run of these candidates"},
        {.szName = "clean, a package no candidate holds half done",
         .record = Rec(1, Outcome::Clean),
         .szLine = "<7>nothing to do: a clean run of these candidates",
         .audit = {false, {"vyra-z", "vyra-a-doc"}}},
        {.szName = "clean, a candidate's package half done",
         .record = Rec(1, Outcome::Clean),
         .szLine = "<5>a run is owed: half done",
         .nExit = 0,
         .audit = {false, {"vyra-b"}}},
        {.szName = "clean, the audit failed",
         .record = Rec(1, Outcome::Clean),
         .szLine = "<5>a run is owed: half done",
         .nExit = 0,
         .audit = {true, {}}},
        {"cut short", Rec(1, Outcome::Cut), "<5>a run is owed: cut short, attempt 1 of 3", 0},
        {"failed twice", Rec(2, Outcome::Failed), "<5>a run is owed: failed, attempt 2 of 3", 0},
        {"failed a third time",
         Rec(3, Outcome::Failed, false, {kB.strPath}),
         kGaveUpOnB,
         255,
         {kB.strPath}},
        {"told of it", Rec(3, Outcome::Failed, true, {kB.strPath}), kGaveUpOnB, 255},
        {.szName = "cut a third time, its package half done",
         .record = Rec(3, Outcome::Cut),
         .szLine = kGaveUpOnB,
         .nExit = 255,
         .tell = {kB.strPath},
         .audit = {false, {"vyra-b"}}},
        {"cut a third time, nothing failed", Rec(3, Outcome::Cut, true),
         "<3>gave up on /smallupd@te/a_1-2668-s1_all.deb /smallupd@te/b\\012c_1-2668-s2_all.deb "
         "after 3 attempts; once they are mended, systemctl start small-update.service, or "
         "replace or remove them",
         255},
        {.szName = "owed while dpkg's lock is held",
         .record = Rec(1, Outcome::Cut),
         .szLine = "<6>a run is owed: cut short, attempt 1 of 3; nothing started while process "
                   "42 holds dpkg's lock",
         .pidDpkgLock = 42},
        {.szName = "given up while dpkg's lock is held",
         .record = Rec(3, Outcome::Failed, true, {kB.strPath}),
         .szLine = kGaveUpOnB,
         .nExit = 255,
         .pidDpkgLock = 42},
        {.szName = "asked for after giving up",
         .record = Rec(3, Outcome::Failed, true),
         .szLine = "<5>a run is owed: asked for",
         .nExit = 0,
         .blAsked = true},
        {.szName = "a file still being written",
         .record = std::nullopt,
         .szLine = "<6>nothing started: still being written: /smallupd@te/c\\040d.deb",
         .writing = {"/smallupd@te/c d.deb"},
         .blAsked = true},
        {.szName = "no candidate after a clean run",
         .record = Rec(1, Outcome::Clean),
         .szLine = "<7>nothing to do: no candidate",
         .candidates = {}},
        {.szName = "no candidate after giving up",
         .record = Rec(3, Outcome::Cut, true),
         .szLine = "<7>nothing to do: no candidate",
         .blReset = true,
         .candidates = {}},
        {.szName = "no candidate after a failed attempt",
         .record = Rec(1, Outcome::Failed),
         .szLine = "<7>nothing to do: no candidate",
         .blReset = true,
         .candidates = {}},
        {.szName = "no candidate, no record",
         .record = std::nullopt,
         .szLine = "<7>nothing to do: no candidate",
         .blReset = true,
         .candidates = {}},
    };
    for (const Row &row : rows) {
        const Service::Seen seen = {row.record,  row.szBuild, row.candidates,  row.blSame,
                                    row.writing, row.audit,   row.pidDpkgLock, row.blAsked};
        const Service::Answer answer = Service::Judge(seen);
        EXPECT_EQ(answer.strLine, row.szLine) << row.szName;
        EXPECT_EQ(Service::ExitCode(answer.verdict), row.nExit) << row.szName;
        EXPECT_EQ(answer.tell, row.tell) << row.szName;
        EXPECT_EQ(answer.blResetFailed, row.blReset) << row.szName;
    }
}

TEST(JudgeAttempt, CountsWhatWasNotClean)
{
    const char *const kOutcomes[] = {"cut", "failed", "clean"};
    // JudgeAttempt(status, blSynced, blFailed, blHalfDone, pidDpkgLock).
    struct Row {
        const char *szName;
        int status;
        bool blSynced, blFailed, blHalfDone;
        pid_t pidDpkgLock;
        const char *szOutcome;
    } const rows[] = {
        {"a refusal alone", 255 << 8, true, false, false, 0, "clean"},
        {"the tool killed", SIGKILL, true, false, false, 0, "failed"},
        {"an exit of its own", 1 << 8, true, false, false, 0, "failed"},
        {"a file system not synced", 0, false, false, false, 0, "failed"},
        {"an installation failed", 0, true, true, false, 0, "failed"},
        {"a package left half done", 0, true, false, true, 0, "failed"},
        {"failed while dpkg's lock is held", 255 << 8, true, true, true, 42, "not counted"},
        {"killed while dpkg's lock is held", SIGKILL, true, true, false, 42, "failed"},
        {"clean while dpkg's lock is held", 0, true, false, false, 42, "clean"},
    };
    for (const Row &row : rows) {
        const std::optional<Outcome> outcome = Service::JudgeAttempt(
            row.status, row.blSynced, row.blFailed, row.blHalfDone, row.pidDpkgLock);
        EXPECT_STREQ(outcome ? kOutcomes[static_cast<int>(*outcome)] : "not counted", row.szOutcome)
            << row.szName;
    }
}

TEST(Service, ReadsWhatDpkgAndTheToolPrinted)
{
    const Service::Audit audit = Service::ParseAudit(
        0, R"(The following packages are only half configured, probably due to problems
configuring them the first time.  The configuration should be retried using
dpkg --configure <package> or the configure menu option in dselect:
 vyra-a               a
 vyra-b:powerpc       b

)");
    EXPECT_FALSE(audit.blAll);
    EXPECT_EQ(audit.packages, (Lines{"vyra-a", "vyra-b"}));
    EXPECT_TRUE(Service::ParseAudit(1 << 8, "").blAll) << "dpkg failed";
    EXPECT_TRUE(Service::ParseAudit(0, "half configured: vyra-a\n").blAll) << "no package named";
    EXPECT_EQ(Service::FailedInstalls("Unexpected Debian [/smallupd@te/a_1-2668-s1_all.deb], skip "
                                      "install.\nFailed to install [" +
                                          kB.strPath + "]\n... Failed to install [" + kA.strPath +
                                          "]\n",
                                      {kA, kB}),
              Lines{kB.strPath})
        << "a line of its own, the path with a newline";
}

// Each kind of write, read back: the run's before the tool and after it, the
// judgement's once it told, and once it cleared the failed units.
TEST(ServiceState, ReadsBackWhatItWrote)
{
    const std::vector<Candidate> candidates = {
        kA, kB, {"/smallupd@te/d.deb", 'd'}, {"/smallupd@te/\\ %\x7f.deb", 'o'}};
    const Record records[] = {{2, Outcome::Cut, false, "2668", candidates, {}},
                              {2, Outcome::Failed, false, "2668", candidates, {kB.strPath}},
                              {3, Outcome::Failed, true, "2668", candidates, {kB.strPath}},
                              {1, Outcome::Clean, false, "", {}, {}}};
    for (const Record &record : records) {
        const std::string strText = Service::FormatRecord(record);
        const std::optional<Record> read = Service::ParseRecord(strText);
        EXPECT_EQ(read ? Service::FormatRecord(*read) : "none", strText);
        bool blSame = false;
        EXPECT_TRUE(Service::ReadRecord(MemFile(strText).c_str(), candidates, blSame)) << strText;
        EXPECT_EQ(blSame, record.candidates == candidates) << strText;
        const int fd = memfd_create("torn", 0);
        const std::string strTorn = "/proc/self/fd/" + std::to_string(fd);
        const ptrdiff_t cFds = OpenFds();
        for (size_t cb = 0; cb < strText.size(); ++cb) {
            ASSERT_EQ(ftruncate(fd, 0) + pwrite(fd, strText.data(), cb, 0), ssize_t(cb));
            EXPECT_FALSE(Service::ReadRecord(strTorn.c_str(), candidates, blSame))
                << "torn at " << cb << ":\n"
                << strText;
        }
        EXPECT_EQ(OpenFds(), cFds) << "every file it read closed";
        close(fd);
    }
    EXPECT_EQ(Service::FormatRecord(records[2]), R"(small-update last-run 2
attempt 3 failed told
build 2668
candidate f a1 vyra-a:all /smallupd@te/a_1-2668-s1_all.deb
candidate f b2 vyra-b:powerpc /smallupd@te/b\012c_1-2668-s2_all.deb
candidate d - - /smallupd@te/d.deb
candidate o - - /smallupd@te/\134\040%\177.deb
failed /smallupd@te/b\012c_1-2668-s2_all.deb
end
)") << "as it is on the disk";
    for (const char *szText : {"small-update last-run 2\nattempt 0 cut -\nbuild 2668\nend\n",
                               "small-update last-run 2\nattempt 1 cut -\nbuild 2668\nfailed "
                               "/x.deb\ncandidate d - - /y.deb\nend\n",
                               "1 cut\nbuild buildnumber=\"2668\"\nf 1a vyra-x:all /x.deb\n"})
        EXPECT_FALSE(Service::ParseRecord(szText)) << szText;

    // Thousands, through pieces of the file: only whole entries, in order.
    std::vector<Candidate> many;
    std::vector<Service::Stamp> stamps;
    for (int64_t n = 0; n < 3000; ++n) {
        many.push_back({"/smallupd@te/\n" + std::to_string(n) + ".deb", 'f', "d", "p:all"});
        stamps.push_back({n, n + 1, n + 2, n + 3});
    }
    many[7].strPackage = "-";
    const std::string strDigests = Service::FormatDigests(many, stamps);
    Service::DigestFile digests(MemFile(strDigests).c_str());
    Service::Digest digest;
    for (size_t idx = 0; idx < many.size(); ++idx) {
        if (idx == 7)
            continue;
        ASSERT_TRUE(digests.Next(digest)) << idx;
        EXPECT_EQ(digest.candidate, many[idx]) << idx;
        const Service::Stamp &stamp = digest.stamp;
        EXPECT_EQ(std::tie(stamp.cb, stamp.nsModified, stamp.nsChanged, stamp.nsTaken),
                  std::tie(stamps[idx].cb, stamps[idx].nsModified, stamps[idx].nsChanged,
                           stamps[idx].nsTaken))
            << idx;
    }
    EXPECT_FALSE(digests.Next(digest)) << "past the end";
    EXPECT_EQ(strDigests.substr(0, strDigests.find("\ndigest 1 ") + 1), R"(small-update digests 2
digest 0 1 2 3 d p:all /smallupd@te/\0120.deb
)") << "as it is on the disk";
}

// Packages of those paths, renamed in as a sender does: not still being written.
bool BuildRenamedIn(const Lines &paths)
{
    for (const std::string &strPath : paths) {
        const std::string strName = strPath.substr(strPath.rfind('/') + 1);
        if (!sandbox::BuildDeb({"vyra-" + strName.substr(0, 1)}, strPath))
            return false;
        std::filesystem::last_write_time(strPath, std::filesystem::file_time_type::clock::now() -
                                                      std::chrono::hours(1));
    }
    return true;
}

// Run whole on a machine of build 2668 with the real dpkg and the built tool:
// a run, which records its attempt, and then the judgement.
TEST(Service, RunsTheToolRecordsTheAttemptAndJudgesWhatItLeft)
{
    NEEDS_SANDBOX();
    Prepare({{"%%junk.deb", ""}}, true);
    std::string strTool = "#!/bin/sh\nexec";
    for (const std::string &str : Lines{VYRA_TOOL_COMMAND})
        strTool += " " + str;
    sandbox::WriteFile("/usr/sbin/small_update", strTool + "\n", 0755);
    sandbox::InstallStandin("/bin/systemctl");
    ASSERT_TRUE(BuildRenamedIn({kA.strPath, kB.strPath}));
    EXPECT_EQ(Transcript(sandbox::Run(kValgrind + Lines{VYRA_SERVICE_COMMAND, "run"}, kEnv), true,
                         {kUpdateLog, kRecord}),
              R"(
<11>small_update.cpp: invalid debian name [%%junk.deb]
<11>small_update.cpp: Unexpected Debian [/smallupd@te/%%junk.deb], skip install.
$ vyralogset1 sys err 0x11B01030 /smallupd@te/%%junk.deb | PATH | / | 0-2<>/dev/null | leader
$ vyradeknotify @administrators update:small_update_check_failed /smallupd@te/%%junk.deb | PATH | / | 0-2<>/dev/null | leader
2> invalid debian name [%%junk.deb]
Unexpected Debian [/smallupd@te/%%junk.deb], skip install.
<6>attempt 1: clean
$ systemctl reset-failed small-update-boot.service small-update-check.service small-update.service | PATH | / | 0-2<>/dev/null | leader
--- /var/log/vyraupdate.log 0644
[stamp] Failed to update critical update
--- /var/lib/small-update/last-run 0644
small-update last-run 2
attempt 1 clean -
build 2668
candidate f [sha256] - /smallupd@te/%%junk.deb
candidate f [sha256] vyra-a:all /smallupd@te/a_1-2668-s1_all.deb
candidate f [sha256] vyra-b:all /smallupd@te/b\012c_1-2668-s2_all.deb
end
)") << "a run, under valgrind where it runs: the refusal alone leaves it clean";
    EXPECT_EQ(Transcript(sandbox::Run({VYRA_SERVICE_COMMAND, "pending"}, kEnv), true, {}), R"(
exit 1
<7>nothing to do: a clean run of these candidates
)");
    sandbox::WriteFile("/usr/sbin/small_update", "#!/bin/sh\nexit 3\n", 0755);
    EXPECT_EQ(sandbox::Run({VYRA_SERVICE_COMMAND, "run"}, kEnv).Code(), 1);
    EXPECT_NE(sandbox::ReadFile(kRecord).find("\nattempt 1 failed -\n"), std::string::npos)
        << "failed, nobody told yet:\n"
        << sandbox::ReadFile(kRecord);
    sandbox::WriteFile("/usr/sbin/small_update", "#!/bin/sh\nrm /smallupd@te/*.deb\nexit 3\n",
                       0755);
    EXPECT_EQ(Transcript(sandbox::Run({VYRA_SERVICE_COMMAND, "run"}, kEnv), true, {}), R"(
<6>attempt 2: failed
$ systemctl reset-failed small-update-boot.service small-update-check.service small-update.service | PATH | / | 0-2<>/dev/null | leader
<7>nothing to do: no candidate
)") << "the fixes of a failed attempt removed while it runs: the unit ends well";
    EXPECT_EQ(Transcript(sandbox::Run({VYRA_SERVICE_COMMAND, "pending"}, kEnv), true, {}), R"(
exit 1
<7>nothing to do: no candidate
)") << "cleared once: no unit can be failed now";
}

// Stopped at a time-out or a shutdown while it takes the digests of new
// fixes, a judgement judges nothing and keeps the digests it took, and the
// cache's others, so that thousands are taken over several judgements.
TEST(Service, KeepsTheDigestsTakenWhenStopped)
{
    NEEDS_SANDBOX();
    Prepare({{"%%junk.deb", ""}}, true);
    ASSERT_TRUE(BuildRenamedIn({kA.strPath, kB.strPath}));
    EXPECT_EQ(sandbox::Run({VYRA_SERVICE_COMMAND, "pending"}, kEnv).status, 0) << "owed";
    ASSERT_TRUE(BuildRenamedIn({"/smallupd@te/0_1-2668-s3_all.deb", "/smallupd@te/d.deb"}));
    // After junk's sha256sum and dpkg-deb, as 0's sha256sum ends.
    EXPECT_EQ(Transcript(sandbox::Run(Strace("inject=wait4:signal=SIGTERM:when=3") +
                                          Lines{VYRA_SERVICE_COMMAND, "pending"},
                                      kEnv),
                         true, {}),
              R"(
exit 1
<5>asked to stop: nothing judged
)");
    Lines cached;
    Service::DigestFile digests("/var/lib/small-update/digests");
    for (Service::Digest digest; digests.Next(digest);)
        cached.push_back(digest.candidate.strPath + " " + digest.candidate.strPackage);
    EXPECT_EQ(cached, Lines({"/smallupd@te/0_1-2668-s3_all.deb vyra-0:all",
                             kA.strPath + " vyra-a:all", kB.strPath + " vyra-b:all"}));
}

}  // namespace
