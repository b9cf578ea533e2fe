// The core library and the package library, call by call. A row states what
// one call left behind: its result, what it wrote, and the error record.
#include <limits.h>

#include <algorithm>
#include <map>
#include <stdexcept>

#include "debian_lib.h"
#include "helper.h"
#include "smallupdate.h"

namespace {

namespace fs = std::filesystem;

const char szEarlier[] = "earlier.c";
const std::string kVersion = "buildnumber=\"2668\"\n", kEarlier = "0x2a00 earlier.c:5";

std::string Other(const std::string &strName, const std::string &strBuild = "2668")
{
    return "debian_lib.cpp: different buildnumber of deb [" + strName + "] with system buildnumber [" + strBuild + "]\n";
}

TEST(ErrLogSet, AppendsOneRecordOrRecordsWhyItFailedLeavingNothingOpen)
{
    EXPECT_EQ(Recorded(), "0 -:0") << "nothing is recorded before the first failure";
    const std::string strLong(1 << 20, 'x');  // more than a stream buffer
    // The log, what it held, the line; the result, what it holds, the record.
    const std::tuple<const char *, const char *, const char *, std::string> cases[] = {
        {"/tmp/log", "", "first", "0 first\n" + kEarlier},
        {"/tmp/log", "one\ntwo", "three", "0 one\ntwothree\n" + kEarlier},
        {"/tmp/log", "x\n", "", "0 x\n\n" + kEarlier},
        // No conversion reads an argument that was never passed.
        {"/tmp/log", "x", "100%% %n%s%d%x%p%", "0 x100% %n%s%d%x%p%\n" + kEarlier},
        {nullptr, "", "x", "-1 0xd00 error_log_set.cpp:32"},
        {"/tmp/log", "", nullptr, "-1 0xd00 error_log_set.cpp:32"},
        {"/no/such/log", "", "x", "-1 0x900 error_log_set.cpp:37"},
        {"/dev/full", "", strLong.c_str(), "-1 0xb00 error_log_set.cpp:51"},
    };
    for (const auto &[szFile, szBefore, szLine, strExpected] : cases) {
        fs::remove("/tmp/log");
        if (*szBefore != '\0')
            WriteFile("/tmp/log", szBefore);
        VLIBCErrSetEx(ERR_OP_FAILURE, szEarlier, 5);
        const auto cFds = std::distance(fs::directory_iterator("/proc/self/fd"), {});
        const int ret = VLIBCErrLogSet(szFile, szLine);
        EXPECT_EQ(std::to_string(ret) + " " + ReadFile("/tmp/log") + Recorded(), strExpected);
        EXPECT_EQ(std::distance(fs::directory_iterator("/proc/self/fd"), {}), cFds) << strExpected;
    }
    VLIBCErrSetEx(ERR_OP_FAILURE, szEarlier, 5);
    EXPECT_EQ(VLIBCErrorGetFile(), szEarlier) << "the caller's pointer, not a copy";
    VLIBCErrSet(ERR_OPEN_FAILED);
    EXPECT_EQ(Recorded(), "0x900 -:0");
}

TEST(FileGetKeyValue, ReadsValuesAsTheApplianceWritesThem)
{
    const int nMeasure = -1000;  // no buffer, size 0
    const std::string kQuoted = "buildnumber=\"7321\"\n", kTwo = "buildnumber=1\nbuildnumber=22\n", k = "buildnumber";
    const std::string kTooLong = " 0x100 file_get_key_value.cpp:88", kNone = "0 before 0x2000 file_get_key_value.cpp:108";
    // The file ("-": none), the key, the size, the flag; the result, the
    // buffer, and the record ("earlier" if unchanged).
    const std::tuple<std::string, std::string, int, int, std::string> cases[] = {
        {kQuoted, k, 32, 0, "5 7321 earlier"},
        {kQuoted, k, nMeasure, 0, "5 before earlier"},
        {kQuoted, k, 4, 0, "-1 before" + kTooLong},
        {kQuoted, k, -5, 0, "-1 before" + kTooLong},
        {"buildnumber=" + std::string(32, '7'), k, 32, 0, "-1 before" + kTooLong},
        {kTwo, k, 32, 0, "2 1 earlier"},
        {kTwo, k, 32, 1, "3 22 earlier"},
        {kTwo, k, 32, 2, "2 1 earlier"},
        {"buildnumber=1\nbuildnumber=123456\n", k, 4, 1, "-1 1" + kTooLong},
        {"buildnumber\nbuildnumber=123456\n", k, 4, 1, "7 before earlier"},
        {"#buildnumber=1\n;buildnumber=2\n", k, 32, 0, kNone},
        {"#buildnumber=1\n;x=2\n", "#buildnumber", 32, 0, kNone},
        {" #buildnumber=1\n", "#buildnumber", 32, 0, "2 1 earlier"},
        {"BuildNumber=1\n", k, 32, 0, kNone},
        {"buildnumber=\n", k, 32, 0, kNone},
        {"buildnumber\n", k, 32, 0, kNone},
        {"buildnumber = 7321  \r\n", k, 32, 0, "5 7321 earlier"},
        {"\t\"buildnumber\" =\" a \"", k, 32, 0, "4  a  earlier"},
        {"buildnumber=   \n", k, 32, 0, "1  earlier"},
        {"buildnumber=\"\"\n", k, 32, 0, "1  earlier"},
        {"buildnumber=\"\"\"\n", k, 32, 0, "2 \" earlier"},
        {"buildnumber=\"\n", k, 32, 0, "2 \" earlier"},
        {"buildnumber='x'\n", k, 32, 0, "4 'x' earlier"},
        {"buildnumber=\v x \f\x89\n", k, 32, 0, "7 \v x \f\x89 earlier"},
        {"buildnumber=a=b\n", k, 32, 0, "4 a=b earlier"},
        {"=abc=1\n", "abc", 32, 0, "2 1 earlier"},
        {"a=1\n\nx=" + std::string(100000, 'x') + "\nbuildnumber=9\n", k, 32, 0, "2 9 earlier"},
        {"-", k, 32, 0, "-1 before 0x900 file_get_key_value.cpp:56"},
        {"", k, 32, 0, kNone},
    };
    for (const auto &[strFile, strKey, sizeMax, flag, strExpected] : cases) {
        fs::remove("/tmp/VERSION");
        if (strFile != "-")
            WriteFile("/tmp/VERSION", strFile);
        char szBuffer[64] = "before";
        VLIBCErrSetEx(ERR_OP_FAILURE, szEarlier, 5);
        const int ret = VLIBCFileGetKeyValue("/tmp/VERSION", strKey.c_str(), sizeMax == nMeasure ? nullptr : szBuffer,
                                             sizeMax == nMeasure ? 0 : sizeMax, flag);
        EXPECT_EQ(std::to_string(ret) + " " + szBuffer + " " + (Recorded() == kEarlier ? "earlier" : Recorded()),
                  strExpected) << strFile;
    }
    char sz[8], szLine[] = "k=v", *pchNone = nullptr;
    EXPECT_EQ(VLIBCFileGetKeyValue(nullptr, "k", sz, 8, 0) + VLIBCFileGetKeyValue("/dev/null", nullptr, sz, 8, 0) +
                  VLIBCFileGetKeyValue("/dev/null", "k", sz, 8, -1) + VLIBCFileGetKeyValue("/dev/null", "k", nullptr, 8, 0),
              -4);
    EXPECT_EQ(Recorded(), "0xd00 file_get_key_value.cpp:52");
    VLIBCErrSet(ERR_SUCCESS);
    EXPECT_EQ(VLIBCILineKeyMatch(szLine, nullptr) + VLIBCILineKeyMatch(nullptr, "k"), 0);
    EXPECT_EQ(Recorded(), "0xd00 file_line_key_match.cpp:36");
    EXPECT_TRUE(VLIBCStrTokIndex(nullptr, "=") == nullptr && VLIBCStrTokIndex(&pchNone, "=") == nullptr);
}

TEST(StrTrimSpace, RefusesAnOutputInsideItsInputAndTokensCutOnlyTheirEnds)
{
    // The output may start before " ab ", on it, or past its terminator.
    for (const auto &[nOffset, strExpected] :
         {std::pair(-1, std::string("2 ab 0 -:0")), {0, "2 ab 0 -:0"}, {1, "-1  ab  0xd00 string_trim_space.cpp:112"},
          {4, "-1  ab  0xd00 string_trim_space.cpp:112"}, {5, "2 ab 0 -:0"}}) {
        char buf[16] = "# ab ";
        VLIBCErrSet(ERR_SUCCESS);
        const int ret = VLIBCStrTrimSpace(buf + 1, buf + 1 + nOffset);
        EXPECT_EQ(std::to_string(ret) + " " + (ret < 0 ? buf + 1 : buf + 1 + nOffset) + " " + Recorded(), strExpected);
    }
    EXPECT_EQ(VLIBCStrTrimSpace(nullptr, nullptr), -1);
    EXPECT_EQ(Recorded(), "0xd00 string_trim_space.cpp:104");
    char szText[] = "a==b", *pchCursor = szText;
    EXPECT_STREQ(VLIBCStrTokIndex(&pchCursor, "="), "a");
    EXPECT_STREQ(pchCursor, "=b");
    EXPECT_EQ(VLIBCStrTokIndex(&pchCursor, nullptr), nullptr);
}

TEST(FileCloseLock, FreesEveryRowUpToTheTerminatorAndReportsAFailedClose)
{
    EXPECT_EQ(VLIBCFileCloseLock(), 0) << "a fresh table holds nothing";
    for (const auto &[nRow, cLock] : {std::pair(1, 2), {2, 1}, {27, 1}}) {
        rgslckList[nRow].pfFile = fopen(("/tmp/lock" + std::to_string(nRow)).c_str(), "w");
        rgslckList[nRow].cLock = cLock;
    }
    rgslckList[3].cLock = 4;              // a count without a stream
    close(fileno(rgslckList[2].pfFile));  // its close will fail
    EXPECT_EQ(VLIBCFileCloseLock(), -1);
    for (const VLIBLOCK &row : rgslckList)
        EXPECT_TRUE(row.pfFile == nullptr && row.cLock == 0) << row.szFile;
    EXPECT_EQ(VLIBCFileCloseLock(), 0) << "nothing left to close";
    rgslckList[6].cLock = 3;
    rgslckList[5].idFile = 0;  // an early terminator
    EXPECT_EQ(VLIBCFileCloseLock(), 0);
    EXPECT_EQ(rgslckList[6].cLock, 3) << "rows after the terminator are never visited";
}

// What the program saw, in words: the caller's variable ("env") and PATH
// ("path"), the caller's descriptor 3 ("fd3") and lock stream ("lock"),
// /dev/null on 0-2 ("null") or the installer log on 1-2 only ("tolog"), "/"
// ("root"), a session of its own ("leader"), another parent than the caller
// ("grandchild"); then the installer log, and whether the caller's standard
// error got the program's ("err").
std::string Seen(const sandbox::StandinCall &call, const std::string &strCaller)
{
    size_t cToLog = 0;
    for (size_t pos = 0; (pos = call.fds.find(" /var/log/dpkg_upgrade.log", pos + 1)) != std::string::npos;)
        ++cToLog;
    const std::pair<bool, const char *> words[] = {
        {call.env.find("VYRA_CALLER=") != std::string::npos, " env"}, {call.env.find("PATH=") != std::string::npos, " path"},
        {call.fds.find("3 /etc/hostname\n") != std::string::npos, " fd3"},
        {call.fds.find(" /tmp/lock_pw\n") != std::string::npos, " lock"},
        {call.fds.rfind("0 /dev/null\n1 /dev/null\n2 /dev/null\n", 0) == 0, " null"},
        {cToLog == 2 && call.fds.find("\n2 /var/log/dpkg_upgrade.log\n") != std::string::npos, " tolog"},
        {call.cwd == "/", " root"}, {call.sid == call.pid, " leader"}, {std::to_string(call.ppid) != strCaller, " grandchild"}};
    std::string str;
    for (const auto &[blSeen, szWord] : words)
        str += blSeen ? szWord : "";
    return str;
}

TEST(ProcessExecution, PreparesTheChildAsAskedAndTellsHowItEnded)
{
    const std::string kExit3 = "standin prog: exit 3\n", kProg = "$ /usr/bin/prog /how", kDpkg = "$ /usr/bin/dpkg -i /x/a.deb";
    const std::string kFailed = "-1 0x2a00 proc_execl.cpp:90", kNone = "0 0 -:0", kSeen = " path fd3 null root leader";
    const std::string kAsCaller = " env path fd3 lock tolog log: banner out err";
    const Lines kShell = {"/usr/bin/unshare", "-m", "/bin/sh", "-c"}, kIgnoring = {"/bin/bash", "-c", "trap '' CHLD; exec \"$@\"", "bash"};
    Lines kReadOnlyLog = kShell, kNoDpkg = kShell, kFollowing = Strace("clone:error=EAGAIN:when=1", {"-f", "--"});
    kReadOnlyLog.insert(kReadOnlyLog.end(), {"mount -o bind,ro /var/log /var/log && exec \"$@\"", "sh"});
    kNoDpkg.insert(kNoDpkg.end(), {"mount --bind /dev/null /usr/bin/dpkg && exec \"$@\"", "sh"});
    // What runs the probe, its call, what /how and /x/a.deb tell the stand-in;
    // what the probe printed, what the program saw, the system log (sorted: a
    // runner that gave up waits for nothing).
    const std::tuple<Lines, std::string, std::string, std::string, std::string, Lines> cases[] = {
        {{}, "execl 0", kExit3, "3 0 -:0", " env path fd3 lock err", {kProg}},
        {{}, "execl 1", kExit3, "3 0 -:0", " env path fd3 lock null", {kProg}},  // FORK_NULL_STDIO
        {{}, "execl 2", kExit3, "3 0 -:0", " env path fd3 err", {kProg}},            // FORK_CLOSE_LOCKS
        {{}, "execl 4", kExit3, "3 0 -:0", " env path err", {kProg}},                // FORK_CLOSE_ALL_FDS
        {{}, "execl 8", kExit3, "3 0 -:0", " path fd3 lock err", {kProg}},           // FORK_PATH_ONLY_ENV
        {{}, "execl 16", kExit3, "3 0 -:0", " env path fd3 lock root err", {kProg}},    // FORK_CHDIR_ROOT
        {{}, "execl 32", kExit3, "3 0 -:0", " env path fd3 lock leader err", {kProg}},  // FORK_NEW_SESSION
        {{}, "execl 64", kExit3, kNone, " env path fd3 lock grandchild err", {kProg}},  // FORK_DETACH
        {{}, "exec", kExit3, "3 0 -:0", kSeen, {kProg + " b"}},
        {{}, "exec", "standin prog: kill KILL\n", kFailed, kSeen, {kProg + " b"}},
        {{}, "missing", "", "255 0 -:0", "", {}},
        {kIgnoring, "exec", kExit3, kNone, kSeen, {kProg + " b"}},
        {{}, "exec nocldwait", kExit3, "3 0 -:0 nocldwait", kSeen, {kProg + " b"}},
        {{}, "fork", "", "1 0 -:0", "", {}},
        {Strace("clone:error=EAGAIN:when=1"), "fork", "", "-1 0x9700 proc_fork.cpp:54", "", {}},
        {Strace("clone:error=EAGAIN:when=1"), "exec", kExit3, kFailed, "", {}},
        {Strace("wait4:error=EINTR:when=1"), "exec", kExit3, "3 0 -:0", kSeen, {kProg + " b"}},
        {kFollowing, "detach", "", kFailed, "", {"proc_fork.cpp:104 Failed to fork(). errno=[11/Resource temporarily unavailable]"}},
        {Strace("wait4:error=EINVAL:when=1"), "detach", "", kFailed, "", {}},
        {{}, "dpkg", "", "1 0 -:0", kAsCaller, {kDpkg}},
        {{}, "dpkg", "standin dpkg: exit 2\n", kNone, kAsCaller + " failure", {kDpkg}},
        {{}, "dpkg", "standin dpkg: kill KILL\n", "1 0 -:0", kAsCaller, {kDpkg}},
        {{}, "dpkg /dest", "standin dpkg: exit 1\n", kNone, kAsCaller + " failure/dest", {kDpkg + " /dest"}},
        {kNoDpkg, "dpkg", "", kNone, " log: banner failure", {}},
        {kReadOnlyLog, "dpkg", "standin dpkg: exit 3\n", "0 0x900 error_log_set.cpp:37", " env path fd3 lock err", {kDpkg}},
        {kIgnoring, "dpkg", "", kNone, kAsCaller,
         {kDpkg, "debian_lib.cpp: Fail to exec [dpkg -i /x/a.deb] error=[No child processes]"}},
        {Strace("clone:error=EAGAIN:when=1"), "dpkg", "", kNone, " log: banner", {"debian_lib.cpp: Fail to fork"}},
        {Strace("wait4:error=EINTR:when=1"), "dpkg", "", kNone, kAsCaller,
         {kDpkg, "debian_lib.cpp: Fail to exec [dpkg -i /x/a.deb] error=[Interrupted system call]"}},
        // Without /dev/null the child keeps its descriptors, and still runs.
        {{}, "exec", kExit3, "3 0 -:0", " path fd3 root leader err", {kProg + " b"}},
    };
    const std::map<std::string, std::string> kWords = {
        {" ===========[-i /x/a.deb ]===========", "banner"}, {"Failed to install -i/x/a.deb", "failure"},
        {" ===========[-i /x/a.deb /dest]===========", "banner"}, {"Failed to install -i/x/a.deb/dest", "failure/dest"},
        {"<no stamp>stand-in dpkg: to standard output", "out"}, {"<no stamp>stand-in dpkg: to standard error", "err"}};
    for (const char *szPath : {"/usr/bin/prog", "/usr/bin/dpkg"})
        sandbox::InstallStandin(szPath);
    for (size_t idx = 0; idx < std::size(cases); ++idx) {
        const auto &[prefix, strCall, strHow, strPrinted, strSeen, log] = cases[idx];
        SCOPED_TRACE(strCall + " " + (prefix.empty() ? "" : prefix[prefix.size() - 2]));
        if (idx + 1 == std::size(cases))
            fs::remove("/dev/null");
        WriteFile("/how", strHow);
        WriteFile("/x/a.deb", strHow);
        fs::remove("/var/log/dpkg_upgrade.log");
        const size_t cCalls = sandbox::Calls().size();
        Lines argv = prefix;
        argv.insert(argv.end(), {VYRA_PROBE_COMMAND, strCall.substr(0, strCall.find(' '))});
        if (strCall.find(' ') != std::string::npos)
            argv.push_back(strCall.substr(strCall.find(' ') + 1));
        const auto res = sandbox::Run(argv, Env(argv));
        const auto calls = sandbox::Calls();
        const Lines printed = Split(res.out);  // the result, then the probe's process id
        ASSERT_EQ(printed.size(), 2u) << res.out << res.err;
        std::string strObserved = calls.size() > cCalls ? Seen(calls.back(), printed.back()) : "";
        const Lines installed = LogLines("/var/log/dpkg_upgrade.log");
        strObserved += installed.empty() ? "" : " log:";
        for (const std::string &strLine : installed)
            strObserved += " " + (kWords.count(strLine) != 0 ? kWords.at(strLine) : strLine);
        strObserved += res.err.empty() ? "" : res.err.rfind("stand-in ", 0) == 0 ? " err" : " " + res.err;
        Lines journal = Journal(res.log);
        std::sort(journal.begin(), journal.end());
        EXPECT_EQ(printed.front(), strPrinted);
        EXPECT_EQ(strObserved, strSeen);
        EXPECT_EQ(journal, log);
        EXPECT_EQ(ReadFile("/tmp/once"), "once") << "nothing buffered is written twice";
    }
}

TEST(FindSmallFixNumfromDeb, JudgesNamesAgainstTheSystemBuildForTheInstallOrder)
{
    const std::string k31(31, '3'), kGetFail = "debian_lib.cpp: Get buildnumber Fail\n";
    // VERSION ("-": none), the name, the small-fix number, the system log.
    const std::tuple<std::string, std::string, int, Lines> cases[] = {
        {kVersion, "hotfix-2668-s_4.1-s9_all.deb", 9, {}},
        {kVersion, "smallupdate_4.1-2668-s5.deb", -1, {}},
        {kVersion, "small_update_4.1-2668-s5_all.deb", -1, {}},
        {kVersion, "smallupdate-2668-s_4.1_all.deb", -1, {}},
        {kVersion, "smallupdate_4.1-2668-s5_all.tar", -1, {}},
        {kVersion, "smallupdate_4.1-2668-s5_all.DEB", -1, {}},
        {kVersion, "smallupdate-2668-s1__all.deb", -1, {}},
        {kVersion, "x_4.1-02668-s5_all.deb", -1, {Other("x_4.1-02668-s5_all.deb")}},
        {kVersion, "x_4.1-2668-s5-s8_all.deb", 8, {}},
        {kVersion, "x_4.1-2668-s99999999999_all.deb", INT_MAX, {}},
        {kVersion, "x_4.1-2668-s-99999999999_all.deb", INT_MIN, {}},
        {kVersion, ".deb", -1, {}},
        {kVersion, "", -1, {}},
        {"-", "smallupdate_4.1-2668-s5_powerpc.deb", -1, {kGetFail}},
        {"-", "smallupdate_4.1-2668-s5.deb", -1, {}},  // refused before reading
        {"model=x\n", "smallupdate_4.1-2668-s5_powerpc.deb", -1, {kGetFail}},
        {"# buildnumber=1\r\nbuildnumber = \"2668\" \r\nbuildnumber=1\r\n", "x_4.1-2668-s5_all.deb", 5, {}},
        {"buildnumber=266\n", "x_4.1-1266-s5_all.deb", -1, {Other("x_4.1-1266-s5_all.deb", "266")}},
        {"buildnumber=" + k31 + "\n", "x_4.1-" + k31 + "-s6_all.deb", 6, {}},
        {"buildnumber=" + k31 + "3\n", "x_4.1-" + k31 + "3-s6_all.deb", -1, {kGetFail}},
        {"buildnumber=  \n", "x_4.1--s4_all.deb", 4, {}},  // an empty build is still found
    };
    for (const auto &[strVersion, strName, nResult, log] : cases) {
        fs::remove("/etc.defaults/VERSION");
        if (strVersion != "-")
            WriteFile("/etc.defaults/VERSION", strVersion);
        EXPECT_EQ(DebianLib::FindSmallFixNumfromDeb(strName), nResult) << "[" << strName << "]";
        EXPECT_EQ(Journal(sandbox::TakeLog()), log) << "[" << strName << "]";
    }
    EXPECT_THROW(DebianLib::FindSmallFixNumfromDeb("deb"), std::out_of_range);
    WriteFile("/etc.defaults/VERSION", kVersion);
    EXPECT_TRUE(DebianLib::InstallDebCompare("bad.deb", "a_1-2668-s5_all.deb")) << "refused names sort first";
    EXPECT_FALSE(DebianLib::InstallDebCompare("a_1-2668-s5_all.deb", "b_1-2668-s05_all.deb") ||
                 DebianLib::InstallDebCompare("b_1-2668-s05_all.deb", "a_1-2668-s5_all.deb"));
}

// What the tool's directory scan never hands over.
TEST(CheckDebian, RefusesPathsTheScanNeverMakesAndIgnoresOtherDirectories)
{
    WriteFile("/etc.defaults/VERSION", kVersion);
    for (const auto &[strPath, strSaid] :
         {std::pair<std::string, std::string>("/smallUpd@te/smallupdate_4.1-2668-s5_powerpc.deb", ""),
          {"smallupdate_4.1-2668-s5_powerpc.deb", "invalid debian url [smallupdate_4.1-2668-s5_powerpc.deb]\n"},
          {"/smallupd@te/", "invalid debian name []\n"}}) {
        const auto res = sandbox::Call([&strPath = strPath] { return CheckDebian(strPath) ? 0 : 1; });
        EXPECT_EQ(res.Code(), strSaid.empty() ? 0 : 1) << strPath;
        EXPECT_EQ(res.err, strSaid);
        EXPECT_EQ(Journal(res.log), strSaid.empty() ? Lines{} : Lines{"small_update.cpp: " + strSaid});
    }
}

}  // namespace
