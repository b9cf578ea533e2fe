// The core library and the package library call by call, where a row states
// what one call left behind (its result, what it wrote, the error record), and
// small_update run whole on a machine of build 2668 (sandbox::Machine).
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

TEST(ErrLogSet, AppendsOneRecordOrRecordsWhyItFailedLeavingNothingOpen)
{
    EXPECT_EQ(Recorded(), "0 -:0") << "nothing is recorded before the first failure";
    const std::string strLong(1 << 20, 'x');  // more than a stream buffer
    // The log, what it held, the line; the result, what it holds, the record.
    const std::tuple<const char *, const char *, const char *, std::string> cases[] = {
        {"/tmp/log", "", "first", "0 first\n" + kEarlier},
        {"/tmp/log", "one\ntwo", "three", "0 one\ntwothree\n" + kEarlier},
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
}

TEST(FileGetKeyValue, ReadsValuesAsTheApplianceWritesThemAndRefusesBadArguments)
{
    const std::string kQuoted = "buildnumber=\"7321\"\n", kTwo = "buildnumber=1\nbuildnumber=22\n";
    const std::string kTooLong = " 0x100 file_get_key_value.cpp:88", kNone = "0 before 0x2000 file_get_key_value.cpp:108";
    constexpr int kMeasure = -1000;  // no buffer, size 0
    // The file ("-": none), the key, the size, the flag; the result, the
    // buffer, and the record ("earlier" if unchanged).
    const auto read = [](const std::string &strFile, const char *szKey, int sizeMax, int flag) {
        fs::remove("/tmp/VERSION");
        if (strFile != "-")
            WriteFile("/tmp/VERSION", strFile);
        char szBuffer[64] = "before";
        VLIBCErrSetEx(ERR_OP_FAILURE, szEarlier, 5);
        const int ret = VLIBCFileGetKeyValue("/tmp/VERSION", szKey, sizeMax == kMeasure ? nullptr : szBuffer,
                                             sizeMax == kMeasure ? 0 : sizeMax, flag);
        return std::to_string(ret) + " " + szBuffer + " " + (Recorded() == kEarlier ? "earlier" : Recorded());
    };
    const std::tuple<std::string, const char *, int, int, std::string> cases[] = {
        {kQuoted, "buildnumber", kMeasure, 0, "5 before earlier"},
        {kQuoted, "buildnumber", 4, 0, "-1 before" + kTooLong},
        {"buildnumber=" + std::string(32, '7'), "buildnumber", 32, 0, "-1 before" + kTooLong},
        {kTwo, "buildnumber", 32, 1, "3 22 earlier"},
        {kTwo, "buildnumber", 32, 2, "2 1 earlier"},
        {"buildnumber=1\nbuildnumber=123456\n", "buildnumber", 4, 1, "-1 1" + kTooLong},
        {"buildnumber\nbuildnumber=123456\n", "buildnumber", 4, 1, "7 before earlier"},
        {"#buildnumber=1\n;x=2\n", "#buildnumber", 32, 0, kNone},
        {" #buildnumber=1\n", "#buildnumber", 32, 0, "2 1 earlier"},
        {"=abc=1\n", "abc", 32, 0, "2 1 earlier"},
    };
    for (const auto &[strFile, szKey, sizeMax, flag, strExpected] : cases)
        EXPECT_EQ(read(strFile, szKey, sizeMax, flag), strExpected) << strFile;
    // Reads of "buildnumber" into 32 bytes, where the first line that has it wins.
    for (const auto &[strFile, strExpected] : std::initializer_list<std::pair<std::string, std::string>>{
             {kQuoted, "5 7321 earlier"}, {kTwo, "2 1 earlier"}, {"#buildnumber=1\n;buildnumber=2\n", kNone},
             {"BuildNumber=1\n", kNone}, {"buildnumber=\n", kNone}, {"buildnumber\n", kNone},
             {"buildnumber = 7321  \r\n", "5 7321 earlier"}, {"\t\"buildnumber\" =\" a \"", "4  a  earlier"},
             {"buildnumber=   \n", "1  earlier"}, {"buildnumber=\"\"\n", "1  earlier"}, {"buildnumber=\"\"\"\n", "2 \" earlier"},
             {"buildnumber=\"\n", "2 \" earlier"}, {"buildnumber='x'\n", "4 'x' earlier"},
             {"buildnumber=\v x \f\x89\n", "7 \v x \f\x89 earlier"}, {"buildnumber=a=b\n", "4 a=b earlier"},
             {"a=1\n\nx=" + std::string(100000, 'x') + "\nbuildnumber=9\n", "2 9 earlier"},
             {"-", "-1 before 0x900 file_get_key_value.cpp:56"}, {"", kNone}, {"buildnumber", kNone}})
        EXPECT_EQ(read(strFile, "buildnumber", 32, 0), strExpected) << strFile;
    char sz[8], szLine[] = "k=v", *pchNone = nullptr;
    EXPECT_EQ(VLIBCFileGetKeyValue(nullptr, "k", sz, 8, 0) + VLIBCFileGetKeyValue("/dev/null", nullptr, sz, 8, 0) +
                  VLIBCFileGetKeyValue("/dev/null", "k", sz, 8, -1) + VLIBCFileGetKeyValue("/dev/null", "k", nullptr, 8, 0),
              -4);
    EXPECT_EQ(Recorded(), "0xd00 file_get_key_value.cpp:52");
    VLIBCErrSet(ERR_SUCCESS);
    EXPECT_EQ(VLIBCILineKeyMatch(szLine, nullptr) + VLIBCILineKeyMatch(nullptr, "k"), 0);
    EXPECT_EQ(Recorded(), "0xd00 file_line_key_match.cpp:36");
    EXPECT_TRUE(VLIBCStrTokIndex(nullptr, "=") == nullptr && VLIBCStrTokIndex(&pchNone, "=") == nullptr);
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
    char szText[] = "a", *pchCursor = szText;
    EXPECT_EQ(VLIBCStrTokIndex(&pchCursor, nullptr), nullptr);
}

TEST(FileCloseLock, FreesEveryRowUpToTheTerminatorAndReportsAFailedClose)
{
    uint32_t uBits = 0;  // each lock's identifier is a bit of its own, above the lowest four
    for (int idx = 0; idx < 28; ++idx) {
        const auto uBit = static_cast<uint32_t>(rgslckList[idx].idFile);
        EXPECT_TRUE(uBit > 0x8 && (uBit & (uBit - 1)) == 0 && (uBits & uBit) == 0) << rgslckList[idx].szFile;
        uBits |= uBit;
    }
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

// What the program saw, in words: the caller's variable, PATH, descriptor 3 and lock, /dev/null
// writable on 0-2 only or the installer log on 1-2 only ("tolog"), "/" ("root"), its own session.
std::string Seen(const sandbox::StandinCall &call)
{
    const Lines fds = Split(call.fds);
    const auto cToLog = std::count_if(fds.begin(), fds.end(), [](auto &str) { return str.find("upgrade.log") != str.npos; });
    const std::pair<bool, const char *> words[] = {
        {call.env.find("VYRA_CALLER=") != call.env.npos, " env"}, {call.env.find("PATH=") != call.env.npos, " path"},
        {call.fds.find("\n3 /etc/hostname (read-only)\n") != call.fds.npos, " fd3"},
        {call.fds.find(" /tmp/lock_pw\n") != call.fds.npos, " lock"},
        {call.fds.rfind("0 /dev/null\n1 /dev/null\n2 /dev/null\n", 0) == 0 && call.fds.find("null", 36) == call.fds.npos, " null"},
        {cToLog == 2 && call.fds.find("\n2 /var/log/dpkg_upgrade.log\n") != std::string::npos, " tolog"},
        {call.cwd == "/", " root"}, {call.sid == call.pid, " leader"}};
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
    const Lines kIgnoring = {"/bin/bash", "-c", "trap '' CHLD; exec \"$@\"", "bash"};
    const Lines kFollowing = Strace("clone:error=EAGAIN:when=1", {"-f", "--"});
    const Lines kReadOnlyLog = {"/usr/bin/unshare", "-m", "/bin/sh", "-c", "mount -o bind,ro /var/log /var/log && exec \"$@\"", "sh"};
    const Lines kNoDpkg = {"/usr/bin/unshare", "-m", "/bin/sh", "-c", "mount --bind /dev/null /usr/bin/dpkg && exec \"$@\"", "sh"};
    // What runs the probe, its call, what /how and /x/a.deb tell the stand-in;
    // what the probe printed, what the program saw and the installer log held,
    // the system log (sorted: a runner that gave up waits for nothing).
    const std::tuple<Lines, std::string, std::string, std::string, std::string, Lines> cases[] = {
        {{}, "execl 1", kExit3, "3 0 -:0", " env path fd3 lock null", {kProg}},  // FORK_NULL_STDIO
        {{}, "execl 2", kExit3, "3 0 -:0", " env path fd3 err", {kProg}},            // FORK_CLOSE_LOCKS
        {{}, "execl 4", kExit3, "3 0 -:0", " env path err", {kProg}},                // FORK_CLOSE_ALL_FDS
        {{}, "execl 8", kExit3, "3 0 -:0", " path fd3 lock err", {kProg}},           // FORK_PATH_ONLY_ENV
        {{}, "execl 16", kExit3, "3 0 -:0", " env path fd3 lock root err", {kProg}},    // FORK_CHDIR_ROOT
        {{}, "execl 32", kExit3, "3 0 -:0", " env path fd3 lock leader err", {kProg}},  // FORK_NEW_SESSION
        {{}, "execl 64", kExit3, kNone, " env path fd3 lock err", {kProg}},  // FORK_DETACH
        {{}, "exec", kExit3, "3 0 -:0", kSeen, {kProg + " b"}},
        {{}, "exec", "standin prog: kill KILL\n", kFailed, kSeen, {kProg + " b"}},
        {{}, "missing", "", "255 0 -:0", "", {}},
        {kIgnoring, "exec", kExit3, kNone, kSeen, {kProg + " b"}},
        {{}, "exec nocldwait", kExit3, "3 0 -:0 nocldwait", kSeen, {kProg + " b"}},
        {Strace("clone:error=EAGAIN:when=1"), "fork", "", "-1 0x9700 proc_fork.cpp:54", "", {}},
        {Strace("clone:error=EAGAIN:when=1"), "exec", kExit3, kFailed, "", {}},
        {Strace("wait4:error=EINTR:when=1"), "exec", kExit3, "3 0 -:0", kSeen, {kProg + " b"}},
        {kFollowing, "detach", "", kFailed, "", {"proc_fork.cpp:104 Failed to fork(). errno=[11/Resource temporarily unavailable]"}},
        {Strace("wait4:error=EINVAL:when=1"), "detach", "", kFailed, "", {}},
        {{}, "dpkg", "", "1 0 -:0", kAsCaller, {kDpkg}},
        {{}, "dpkg", "standin dpkg: kill KILL\n", "1 0 -:0", kAsCaller, {kDpkg}},
        {{}, "dpkg /dest", "standin dpkg: exit 1\n", kNone, kAsCaller + " failure/dest", {kDpkg + " /dest"}},
        {kNoDpkg, "dpkg", "", kNone, " log: banner failure", {}},
        {kReadOnlyLog, "dpkg", "standin dpkg: exit 3\n", "0 0x900 error_log_set.cpp:37", " env path fd3 lock err", {kDpkg}},
        // The banner cannot open the log, so dpkg's own open creates it.
        {Strace("openat:error=EMFILE:when=1", {"-P", "/var/log/dpkg_upgrade.log", "--"}), "dpkg", "",
         "1 0x900 error_log_set.cpp:37", " env path fd3 lock tolog log: out err", {kDpkg}},
        {Strace("clone:error=EAGAIN:when=1"), "dpkg", "", kNone, " log: banner", {"debian_lib.cpp: Fail to fork"}},
        {Strace("wait4:error=EINTR:when=1"), "dpkg", "", kNone, kAsCaller,
         {kDpkg, "debian_lib.cpp: Fail to exec [dpkg -i /x/a.deb] error=[Interrupted system call]"}},
        // Without /dev/null the child keeps its descriptors, and still runs.
        {{}, "exec", kExit3, "3 0 -:0", " path fd3 root leader err", {kProg + " b"}},
    };
    const std::map<std::string, std::string> kWords = {{" ===========[-i /x/a.deb ]===========", "banner"},
        {" ===========[-i /x/a.deb /dest]===========", "banner"}, {"Failed to install -i/x/a.deb", "failure"},
        {"Failed to install -i/x/a.deb/dest", "failure/dest"}, {"<no stamp>stand-in dpkg: to standard output", "out"},
        {"<no stamp>stand-in dpkg: to standard error", "err"}};  // the installer log's lines
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
        argv.insert(argv.end(), {VYRA_PROBE_COMMAND, strCall});
        const auto res = sandbox::Run(argv, Env(argv));
        const auto calls = sandbox::Calls();
        std::string strObserved = calls.size() > cCalls ? Seen(calls.back()) : "";
        const Lines installed = LogLines("/var/log/dpkg_upgrade.log");
        strObserved += installed.empty() ? "" : " log:";
        for (const std::string &strLine : installed)
            strObserved += " " + (kWords.count(strLine) != 0 ? kWords.at(strLine) : strLine);
        strObserved += res.err.empty() ? "" : res.err.rfind("stand-in ", 0) == 0 ? " err" : " " + res.err;
        Lines journal = Journal(res.log);
        std::sort(journal.begin(), journal.end());
        EXPECT_EQ(res.out, strPrinted + "\n") << res.err;
        EXPECT_EQ(strObserved, strSeen);
        EXPECT_EQ(journal, log);
        EXPECT_EQ(ReadFile("/tmp/once"), "once") << "nothing buffered is written twice";
        const auto perms = fs::status("/var/log/dpkg_upgrade.log").permissions();  // as any file the caller makes
        EXPECT_TRUE(perms == fs::perms::unknown || perms == fs::status("/tmp/once").permissions());
    }
}

TEST(FindSmallFixNumfromDeb, JudgesNamesAndPathsAgainstTheSystemBuildForTheInstallOrder)
{
    const std::string k31(31, '3'), kGetFail = "debian_lib.cpp: Get buildnumber Fail\n";
    const std::string kOther = "debian_lib.cpp: different buildnumber of deb [";
    // VERSION ("-": none), the name, the small-fix number, the system log.
    const std::tuple<std::string, std::string, int, Lines> cases[] = {
        {kVersion, "x_4.1-02668-s5_all.deb", -1, {kOther + "x_4.1-02668-s5_all.deb] with system buildnumber [2668]\n"}},
        {"-", "smallupdate_4.1-2668-s5.deb", -1, {}},  // refused before reading
        {"model=x\n", "smallupdate_4.1-2668-s5_powerpc.deb", -1, {kGetFail}},
        {"# buildnumber=1\r\nbuildnumber = \"2668\" \r\nbuildnumber=1\r\n", "x_4.1-2668-s5_all.deb", 5, {}},
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
    // On build 2668, names that break the grammar without a word.
    WriteFile("/etc.defaults/VERSION", kVersion);
    for (const auto &[szName, nResult] : std::initializer_list<std::pair<const char *, int>>{
             {"hotfix-2668-s_4.1-s9_all.deb", 9}, {"x_4.1-2668-s5.deb", -1}, {"x_y_4.1-2668-s5_all.deb", -1},
             {"x-2668-s_4.1_all.deb", -1}, {"x_4.1-2668-s5_all.tar", -1}, {"x_4.1-2668-s5_all.DEB", -1},
             {"x-2668-s1__all.deb", -1}, {"x_4.1-2668-s5-s8_all.deb", 8}, {"x_4.1-2668-s3a_all.deb", 3}, {".deb", -1}, {"", -1},
             {"x_4.1-2668-s99999999999_all.deb", INT_MAX}, {"x_4.1-2668-s-99999999999_all.deb", INT_MIN}}) {
        EXPECT_EQ(DebianLib::FindSmallFixNumfromDeb(szName), nResult) << "[" << szName << "]";
        EXPECT_EQ(Journal(sandbox::TakeLog()), Lines{}) << "[" << szName << "]";
    }
    EXPECT_THROW(DebianLib::FindSmallFixNumfromDeb("deb"), std::out_of_range);
    EXPECT_TRUE(DebianLib::InstallDebCompare("bad.deb", "a_1-2668-s5_all.deb")) << "refused names sort first";
    EXPECT_FALSE(DebianLib::InstallDebCompare("a_1-2668-s5_all.deb", "b_1-2668-s05_all.deb") ||
                 DebianLib::InstallDebCompare("b_1-2668-s05_all.deb", "a_1-2668-s5_all.deb"));
    // Paths that the tool's directory scan never hands over.
    for (const auto &[strPath, strSaid] :
         {std::pair<std::string, std::string>("/smallUpd@te/smallupdate_4.1-2668-s5_powerpc.deb", ""),
          {"smallupdate_4.1-2668-s5_powerpc.deb", "invalid debian url [smallupdate_4.1-2668-s5_powerpc.deb]\n"},
          {"/smallupd@te/", "invalid debian name []\n"}}) {
        const auto res = sandbox::CallLogged([&strPath = strPath] { return CheckDebian(strPath) ? 0 : 1; });
        EXPECT_EQ(res.Code(), strSaid.empty() ? 0 : 1);
        EXPECT_EQ(Journal(res.log), strSaid.empty() ? Lines() : Lines({strSaid, "small_update.cpp: " + strSaid}));
    }
}

const std::string kDir = "/smallupd@te/", kUpdateLog = "/var/log/vyraupdate.log";

// The journal of a run from what befalls each package, in order: "I" installed, "F" dpkg failed, "K" dpkg
// could not be forked, "R" refused by its path prefix, "N" a refused name, "B" made for another build.
Lines Expected(const Lines &events, bool blStandardError)
{
    Lines journal;
    const auto say = [&journal, blStandardError](const std::string &strMsg) {
        journal.insert(journal.end(), blStandardError ? 1 : 0, strMsg);
        journal.push_back("small_update.cpp: " + strMsg);
    };
    for (const std::string &strEvent : events) {
        const std::string strName = strEvent.substr(2), strPath = kDir + strName;
        const bool blFailed = strEvent[0] == 'F' || strEvent[0] == 'K';
        if (strEvent[0] == 'B')
            journal.push_back("debian_lib.cpp: different buildnumber of deb [" + strName + "] with system buildnumber [2668]\n");
        if (strEvent[0] == 'B' || strEvent[0] == 'N')
            say("invalid debian name [" + strName + "]\n");
        if (strEvent[0] == 'I' || strEvent[0] == 'F')
            journal.push_back("$ /usr/bin/dpkg -i " + strPath);
        if (strEvent[0] == 'K')
            journal.push_back("debian_lib.cpp: Fail to fork");
        if (strEvent[0] == 'I')
            continue;
        say(blFailed ? "Failed to install [" + strPath + "]\n" : "Unexpected Debian [" + strPath + "], skip install.\n");
        journal.push_back("$ /usr/vyra/bin/vyralogset1 sys err 0x11B0103" + std::string(blFailed ? "1 " : "0 ") + strPath);
        journal.push_back("$ /usr/vyra/bin/vyradeknotify @administrators update:small_update_" +
                          std::string(blFailed ? "install_failed " : "check_failed ") + strPath);
    }
    return journal;
}

TEST(SmallUpdate, ReportsEveryPackageOnEveryChannelInOrderAndEndsWithOneVerdict)
{
    const char kFail[] = "standin dpkg: exit 1\n";
    // Every kind of name, some hostile to a shell or formatter, small fixes up to 12; a notification fails.
    const std::vector<std::pair<std::string, std::string>> kMixed = {
        {"%n%s_1-2668-s2_all.deb", ""}, {"%s_1-2669-s1_all.deb", ""}, {"-x_1-2668-s4_all.deb", ""},
        {"a b'\";c_1-2668-s3_all.deb", kFail}, {"b_1-2669-s1_all.deb", ""}, {"d.deb", "standin vyradeknotify: exit 3\n"},
        {"e_1-2668-s1_all.deb", kFail}, {"f_1-2668-sx_all.deb", ""}, {"flashupdate_1-2668-s1_all.deb", ""},
        {"g_1-2668-s-3_all.deb", ""}, {"smallupdate_1-2668-s1_all.deb", ""}, {"\xc3\xa9\xff_1-2668-s12_all.deb", ""}};
    const Lines kEvents = {"B %s_1-2669-s1_all.deb", "B b_1-2669-s1_all.deb", "N d.deb", "R flashupdate_1-2668-s1_all.deb",
                           "N g_1-2668-s-3_all.deb", "R smallupdate_1-2668-s1_all.deb", "I f_1-2668-sx_all.deb",
                           "F e_1-2668-s1_all.deb", "I %n%s_1-2668-s2_all.deb", "F a b'\";c_1-2668-s3_all.deb",
                           "I -x_1-2668-s4_all.deb", "I \xc3\xa9\xff_1-2668-s12_all.deb"};
    const Lines kWithout2 = {"/bin/sh", "-c", "exec 2>&-; exec \"$@\"", "sh"};
    const Lines kNoDevNull = {"/bin/sh", "-c", "rm /dev/null; exec 2>&-; exec \"$@\"", "sh"};
    const Lines kSyncs = {"-y", "-e", "trace=write,fsync,fork,vfork,clone,clone3,execve,exit_group", "--"};
    const Lines kValgrind = {"/usr/bin/valgrind", "-q", "--error-exitcode=99", "--leak-check=full",
                             "--errors-for-leak-kinds=definite,indirect", "--child-silent-after-fork=yes"};
    // The packages, what runs the tool, the events (none: nothing was found).
    const std::tuple<std::vector<std::pair<std::string, std::string>>, Lines, Lines> cases[] = {
        // Upper case, a dot-file, and the upper-case directory, which is never scanned.
        {{{"a_1-2668-s1_all.tar", ""}, {"b_1-2668-s1_all.DEB", ""}, {".c_1-2668-s1_all.deb", ""},
          {"../smallUpd@te/d_1-2668-s1_all.deb", ""}}, {}, {}},
        {kMixed, {}, kEvents},
        {{{"d.deb", ""}, {"e_1-2668-s1_all.deb", ""}}, {}, {"N d.deb", "I e_1-2668-s1_all.deb"}},  // no failure
        {kMixed, kWithout2, kEvents},
        {kMixed, VYRA_VALGRIND ? kValgrind : Lines{}, kEvents},
        {kMixed, Strace("", kSyncs), kEvents},
        {kMixed, Strace("fsync:retval=0", kSyncs), kEvents},  // syncs that do not happen
        {{{"a_1-2668-s1_all.deb", ""}}, Strace("clone:error=EAGAIN:when=1"), {"K a_1-2668-s1_all.deb"}},
        // The last: with /dev/null gone, the installer log's descriptor becomes dpkg's standard error itself.
        {{{"a_1-2668-s1_all.deb", ""}}, kNoDevNull, {"I a_1-2668-s1_all.deb"}},
    };
    for (const auto &[packages, prefix, events] : cases) {
        SCOPED_TRACE(prefix.empty() ? "" : prefix.back());
        sandbox::Machine(packages);
        Lines argv = prefix;
        if (const char *szTool = getenv("VYRA_TOOL"))  // an installed program
            argv.push_back(szTool);
        else
            argv.insert(argv.end(), {VYRA_TOOL_COMMAND});
        argv.insert(argv.end(), {"-x", "a.deb"});  // arguments change nothing
        const auto res = sandbox::RunLogged(argv, Env(argv));
        const bool blSuccess = std::all_of(events.begin(), events.end(), [](auto &str) { return str[0] == 'I'; });
        EXPECT_EQ(res.Code(), !events.empty() && blSuccess ? 0 : 255);
        EXPECT_EQ(Journal(res.log), Expected(events, prefix != kWithout2 && prefix != kNoDevNull));
        EXPECT_EQ(LogLines(kUpdateLog), events.empty() ? Lines{}
                                        : Lines{blSuccess ? "Finished critical update!!!" : "Failed to update critical update"});
        // Under strace every log record is synced before the next fork, exec or exit, unless injected away.
        const bool blTraced = std::find(prefix.begin(), prefix.end(), "-y") != prefix.end();
        std::string strWritten, strUnsynced;
        for (const std::string &strLine : blTraced ? Split(ReadFile("/tmp/strace")) : Lines{}) {
            if (strLine.rfind("write(", 0) == 0)
                strWritten = strLine.find("</var/log/") != std::string::npos ? strLine : strWritten;
            else if (strLine.rfind("fsync(", 0) == 0 && strLine.find("INJECTED") == std::string::npos)
                strWritten.clear();
            else if (!strWritten.empty() && strUnsynced.empty())
                strUnsynced = strLine;
        }
        EXPECT_EQ(strUnsynced.empty(), !blTraced || prefix[4] == "-y") << ReadFile("/tmp/strace");
    }
    for (const sandbox::StandinCall &call : sandbox::Calls())  // 0-2 only: nothing the tool opened itself
        EXPECT_EQ(std::count(call.fds.begin(), call.fds.end(), '\n'), 3) << call.fds;
    EXPECT_EQ(LogLines("/var/log/dpkg_upgrade.log"),
              (Lines{" ===========[-i /smallupd@te/a_1-2668-s1_all.deb ]===========",
                     "<no stamp>stand-in dpkg: to standard output", "<no stamp>stand-in dpkg: to standard error"}));
}

}  // namespace
