// The core library and the package library, call by call. Most rows state
// what one call left behind as one text: its result, then what it wrote,
// then the error record.
#include <limits.h>
#include <signal.h>
#include <stdlib.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <set>
#include <stdexcept>

#include "debian_lib.h"
#include "helper.h"
#include "smallupdate.h"
#include "vyracore.h"

namespace {

namespace fs = std::filesystem;

const char szEarlier[] = "earlier.c";
const std::string kVersion = "buildnumber=\"2668\"\n", kGetFail = "debian_lib.cpp: Get buildnumber Fail\n";

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
        {"/tmp/log", "", "first", "0 first\n0x2a00 earlier.c:5"},
        {"/tmp/log", "one\ntwo", "three", "0 one\ntwothree\n0x2a00 earlier.c:5"},
        {"/tmp/log", "x\n", "", "0 x\n\n0x2a00 earlier.c:5"},
        // No conversion reads an argument that was never passed.
        {"/tmp/log", "x", "100%% %n%s%d%x%p%", "0 x100% %n%s%d%x%p%\n0x2a00 earlier.c:5"},
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
        const std::string strRecorded = Recorded() == "0x2a00 earlier.c:5" ? "earlier" : Recorded();
        EXPECT_EQ(std::to_string(ret) + " " + szBuffer + " " + strRecorded, strExpected) << strFile;
    }
    char sz[8], szLine[] = "k=v", *pchNone = nullptr;
    EXPECT_EQ(VLIBCFileGetKeyValue(nullptr, "k", sz, 8, 0) + VLIBCFileGetKeyValue("/dev/null", nullptr, sz, 8, 0) +
                  VLIBCFileGetKeyValue("/dev/null", "k", sz, 8, -1) + VLIBCFileGetKeyValue("/dev/null", "k", nullptr, 8, 0),
              -4);
    EXPECT_EQ(Recorded(), "0xd00 file_get_key_value.cpp:52");
    VLIBCErrSet(ERR_SUCCESS);
    EXPECT_EQ(VLIBCILineKeyMatch(szLine, nullptr) + VLIBCILineKeyMatch(nullptr, "k"), 0);
    EXPECT_EQ(Recorded(), "0xd00 file_line_key_match.cpp:36");
    EXPECT_EQ(VLIBCStrTokIndex(nullptr, "=") == nullptr && VLIBCStrTokIndex(&pchNone, "=") == nullptr, true);
}

TEST(StrTrimSpace, RefusesAnOutputInsideItsInputAndTokensCutOnlyTheirEnds)
{
    // The output may start before " ab ", on it, or past its terminator.
    for (const auto &[nOffset, strExpected] : {std::pair(-1, std::string("2 ab 0 -:0")), {0, "2 ab 0 -:0"},
                                               {1, "-1  ab  0xd00 string_trim_space.cpp:112"},
                                               {4, "-1  ab  0xd00 string_trim_space.cpp:112"}, {5, "2 ab 0 -:0"}}) {
        char buf[16] = "# ab ";
        VLIBCErrSet(ERR_SUCCESS);
        const int ret = VLIBCStrTrimSpace(buf + 1, buf + 1 + nOffset);
        EXPECT_EQ(std::to_string(ret) + " " + (ret < 0 ? buf + 1 : buf + 1 + nOffset) + " " + Recorded(), strExpected);
    }
    EXPECT_EQ(VLIBCStrTrimSpace(nullptr, nullptr), -1);
    EXPECT_EQ(Recorded(), "0xd00 string_trim_space.cpp:104");
    char szText[] = "a==b";
    char *pchCursor = szText;
    EXPECT_STREQ(VLIBCStrTokIndex(&pchCursor, "="), "a");
    EXPECT_STREQ(pchCursor, "=b");
    EXPECT_STREQ(VLIBCStrTokIndex(&pchCursor, nullptr), nullptr);
}

TEST(FileCloseLock, FreesEveryRowUpToTheTerminatorAndReportsAFailedClose)
{
    std::set<int32_t> bits;
    for (int idx = 0; idx < 28; ++idx) {
        const auto uBit = static_cast<uint32_t>(rgslckList[idx].idFile);
        EXPECT_TRUE(uBit > 0x8 && (uBit & (uBit - 1)) == 0 && bits.insert(rgslckList[idx].idFile).second) << idx;
        EXPECT_EQ(std::string(rgslckList[idx].szFile).rfind("/tmp/lock/lock_", 0), 0u);
    }
    EXPECT_EQ(rgslckList[28].idFile, 0);
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
// /dev/null on 0-2 ("null"), "/" ("root"), a session of its own ("leader"),
// another parent than the caller ("grandchild"); then the installer log.
std::string Seen(const sandbox::StandinCall &call, const std::string &strCaller)
{
    const std::pair<bool, const char *> words[] = {
        {call.env.find("VYRA_CALLER=") != std::string::npos, " env"}, {call.env.find("PATH=") != std::string::npos, " path"},
        {call.fds.find("3 /etc/hostname\n") != std::string::npos, " fd3"},
        {call.fds.find(" /tmp/lock_pw\n") != std::string::npos, " lock"},
        {call.fds.rfind("0 /dev/null\n1 /dev/null\n2 /dev/null\n", 0) == 0, " null"}, {call.cwd == "/", " root"},
        {call.sid == call.pid, " leader"}, {std::to_string(call.ppid) != strCaller, " grandchild"}};
    std::string str;
    for (const auto &[blSeen, szWord] : words)
        str += blSeen ? szWord : "";
    return str;
}

TEST(ProcessExecution, PreparesTheChildAsAskedAndTellsHowItEnded)
{
    const std::string kProg = "$ /usr/bin/prog /how", kExit3 = "standin prog: exit 3\n", kFailed = "-1 0x2a00 proc_execl.cpp:90";
    const std::string kAgain = "debian_lib.cpp: Fail to exec [dpkg -i /x/a.deb] error=[Interrupted system call]";
    // The probe's call, what /how tells the program, strace's injection;
    // what the probe printed, what the program saw, the system log (sorted:
    // a runner that gave up waits for nothing).
    const std::tuple<std::string, std::string, std::string, std::string, std::string, Lines> cases[] = {
        {"execl 0", kExit3, "", "3 0 -:0", " env path fd3 lock", {kProg}},
        {"execl 1", kExit3, "", "3 0 -:0", " env path fd3 lock null", {kProg}},  // FORK_NULL_STDIO
        {"execl 2", kExit3, "", "3 0 -:0", " env path fd3", {kProg}},            // FORK_CLOSE_LOCKS
        {"execl 4", kExit3, "", "3 0 -:0", " env path", {kProg}},                // FORK_CLOSE_ALL_FDS
        {"execl 8", kExit3, "", "3 0 -:0", " path fd3 lock", {kProg}},           // FORK_PATH_ONLY_ENV
        {"execl 16", kExit3, "", "3 0 -:0", " env path fd3 lock root", {kProg}},    // FORK_CHDIR_ROOT
        {"execl 32", kExit3, "", "3 0 -:0", " env path fd3 lock leader", {kProg}},  // FORK_NEW_SESSION
        {"execl 64", kExit3, "", "0 0 -:0", " env path fd3 lock grandchild", {kProg}},  // FORK_DETACH
        {"execl 96", kExit3, "", "0 0 -:0", " env path fd3 lock leader grandchild", {kProg}},
        {"exec", kExit3, "", "3 0 -:0", " path fd3 null root leader", {kProg + " b"}},
        {"exec", "standin prog: kill KILL\n", "", kFailed, " path fd3 null root leader", {kProg + " b"}},
        {"exec", "", "", "0 0 -:0", " path fd3 null root leader", {kProg + " b"}},
        {"missing", "", "", "255 0 -:0", "", {}},
        {"ignoring", kExit3, "", "0 0 -:0", " path fd3 null root leader", {kProg + " b"}},
        {"nocldwait", kExit3, "", "3 0 -:0 nocldwait", " path fd3 null root leader", {kProg + " b"}},
        {"fork", "", "", "1 0 -:0", "", {}},
        {"fork", "", "clone:error=EAGAIN:when=1", "-1 0x9700 proc_fork.cpp:54", "", {}},
        {"exec", kExit3, "clone:error=EAGAIN:when=1", kFailed, "", {}},
        {"exec", kExit3, "wait4:error=EINTR:when=1", "3 0 -:0", " path fd3 null root leader", {kProg + " b"}},
        {"detach", "", "-f clone:error=EAGAIN:when=1", kFailed, "",
         {"proc_fork.cpp:104 Failed to fork(). errno=[11/Resource temporarily unavailable]"}},
        {"detach", "", "wait4:error=EINVAL:when=1", kFailed, "", {}},
        {"dpkg", "", "clone:error=EAGAIN:when=1", "0 0 -:0", " log: banner", {"debian_lib.cpp: Fail to fork"}},
        {"dpkg", "", "wait4:error=EINTR:when=1", "0 0 -:0", " env path fd3 lock log: banner out err",
         {"$ /usr/bin/dpkg -i /x/a.deb", kAgain}},
        // Without /dev/null the child keeps its descriptors, and still runs.
        {"exec", kExit3, "", "3 0 -:0", " path fd3 root leader", {kProg + " b"}},
    };
    for (const char *szPath : {"/usr/bin/prog", "/usr/bin/dpkg"})
        sandbox::InstallStandin(szPath);
    for (size_t idx = 0; idx < std::size(cases); ++idx) {
        const auto &[strCall, strHow, strInject, strPrinted, strSeen, log] = cases[idx];
        SCOPED_TRACE(strCall + " " + strInject);
        if (idx + 1 == std::size(cases))
            fs::remove("/dev/null");
        WriteFile("/how", strHow);
        WriteFile("/x/a.deb", "");
        fs::remove("/var/log/dpkg_upgrade.log");
        const size_t cCalls = sandbox::Calls().size();
        Lines argv = strInject.empty() ? Lines{}
                                       : Strace(strInject.substr(strInject.find(' ') + 1),
                                                strInject[0] == '-' ? Lines{"-f", "--"} : Lines{"--"});
        for (const char *sz : {VYRA_PROBE_COMMAND})
            argv.push_back(sz);
        argv.insert(argv.end(), {strCall.substr(0, strCall.find(' ')), strCall.substr(strCall.find(' ') + 1)});
        const auto res = sandbox::Run(argv, EnvFor(argv));
        const auto calls = sandbox::Calls();
        const Lines printed = Split(res.out);  // the result, then the probe's process id
        ASSERT_EQ(printed.size(), 2u) << res.out << res.err;
        std::string strObserved = calls.size() > cCalls ? Seen(calls.back(), printed.back()) : "";
        for (const std::string &strLine : LogLines("/var/log/dpkg_upgrade.log"))
            strObserved += strLine[0] == ' ' ? " log: banner" : strLine.find("output") != std::string::npos ? " out" : " err";
        Lines journal = Journal(res.log);
        std::sort(journal.begin(), journal.end());
        EXPECT_EQ(printed.front(), strPrinted) << res.err;
        EXPECT_EQ(strObserved, strSeen);
        EXPECT_EQ(journal, log);
        EXPECT_EQ(ReadFile("/tmp/once"), "once") << "nothing buffered is written twice";
    }
}

TEST(FindSmallFixNumfromDeb, JudgesNamesAgainstTheSystemBuild)
{
    const std::string k31(31, '3');
    // VERSION ("-": none), the name, the small-fix number, the system log.
    const std::tuple<std::string, std::string, int, Lines> cases[] = {
        {kVersion, "smallupdate_4.1-2668-s5_powerpc.deb", 5, {}},
        {kVersion, "smallupdate_4.1-2668-sx_all.deb", 0, {}},
        {kVersion, "hotfix-2668-s_4.1-s9_all.deb", 9, {}},
        {kVersion, "smallupdate_4.1-2669-s5_powerpc.deb", -1, {Other("smallupdate_4.1-2669-s5_powerpc.deb")}},
        {kVersion, "smallupdate_4.1-2668-s5.deb", -1, {}},
        {kVersion, "small_update_4.1-2668-s5_all.deb", -1, {}},
        {kVersion, "smallupdate-2668-s_4.1_all.deb", -1, {}},
        {kVersion, "smallupdate_4.1-2668-s5_all.tar", -1, {}},
        {kVersion, "smallupdate_4.1-2668-s5_all.DEB", -1, {}},
        {kVersion, "smallupdate-2668-s1__all.deb", -1, {}},
        {kVersion, "x_4.1-02668-s5_all.deb", -1, {Other("x_4.1-02668-s5_all.deb")}},
        {kVersion, "x_4.1-2668-s-3_all.deb", -3, {}},
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
    Lines names = {"/u/a_1-2668-s12_all.deb", "/u/b_1-2668-s5_all.deb", "/u/bad.deb", "/u/c_1-2668-s7_all.deb"};
    std::sort(names.begin(), names.end(), DebianLib::InstallDebCompare);
    EXPECT_EQ(names, (Lines{"/u/bad.deb", "/u/b_1-2668-s5_all.deb", "/u/c_1-2668-s7_all.deb", "/u/a_1-2668-s12_all.deb"}));
    EXPECT_FALSE(DebianLib::InstallDebCompare("a_1-2668-s5_all.deb", "b_1-2668-s05_all.deb") ||
                 DebianLib::InstallDebCompare("b_1-2668-s05_all.deb", "a_1-2668-s5_all.deb"));
}

TEST(CheckDebian, AcceptsRefusesAndSaysWhy)
{
    // The path; whether it is accepted, its standard error and system log.
    const std::pair<std::string, Lines> cases[] = {
        {"/smallupd@te/foo_4.1-2668-sx_powerpc.deb", {"accepted"}},  // small fix 0
        {"/smallupd@te/smallupdate_4.1-2668-s5_powerpc.deb", {"refused"}},
        {"/smallupd@te/flashupdate_4.1-2668-s5_powerpc.deb", {"refused"}},
        {"/smallUpd@te/smallupdate_4.1-2668-s5_powerpc.deb", {"accepted"}},
        {"smallupdate_4.1-2668-s5_powerpc.deb",
         {"refused", "invalid debian url [smallupdate_4.1-2668-s5_powerpc.deb]\n",
          "small_update.cpp: invalid debian url [smallupdate_4.1-2668-s5_powerpc.deb]\n"}},
        {"/smallupd@te/", {"refused", "invalid debian name []\n", "small_update.cpp: invalid debian name []\n"}},
        {"/smallupd@te/x_4.1-2668-s-3_all.deb",
         {"refused", "invalid debian name [x_4.1-2668-s-3_all.deb]\n", "small_update.cpp: invalid debian name [x_4.1-2668-s-3_all.deb]\n"}},
    };
    WriteFile("/etc.defaults/VERSION", kVersion);
    for (const auto &[strPath, expected] : cases) {
        const auto res = sandbox::Call([&strPath = strPath] { return CheckDebian(strPath) ? 0 : 1; });
        Lines seen = Journal(res.log);
        seen.insert(seen.begin(), res.err.empty() ? 0 : 1, res.err);
        seen.insert(seen.begin(), res.Code() == 0 ? "accepted" : "refused");
        EXPECT_EQ(seen, expected) << strPath;
    }
}

TEST(WriteUpdateLog, StampsEachLineWithLocalTimeAndATab)
{
    setenv("TZ", "XYZ-5", 1);  // five hours east of UTC: a stamp in UTC would show
    tzset();
    const time_t tBefore = time(nullptr);
    DebianLib::WriteUpdateLog("Finished critical update!!!", "/tmp/update.log");
    DebianLib::WriteUpdateLog("", "/tmp/update.log");
    const time_t tAfter = time(nullptr);
    EXPECT_EQ(LogLines("/tmp/update.log"), (Lines{"Finished critical update!!!", ""}));
    for (const std::string &strLine : Split(ReadFile("/tmp/update.log"))) {
        bool blStamp = false;
        for (time_t tEast = tBefore + 5 * 3600; tEast <= tAfter + 5 * 3600; ++tEast) {
            char sz[64];
            strftime(sz, sizeof(sz), "%Y/%m/%d %H:%M:%S\t", gmtime(&tEast));
            blStamp = blStamp || strLine.substr(0, 20) == sz;
        }
        EXPECT_TRUE(blStamp) << strLine;
    }
}

TEST(ExecDpkg, RunsDpkgAsTheCallerWithItsOutputInTheInstallerLog)
{
    const std::string kBanner = " ===========[-i /x/a.deb ]===========", kFailure = "Failed to install -i/x/a.deb";
    const std::string kOut = "<no stamp>stand-in dpkg: to standard output", kErr = "<no stamp>stand-in dpkg: to standard error";
    const std::string kRun = "$ /usr/bin/dpkg -i /x/a.deb", kToLog = "0 /dev/null\n1 /var/log/dpkg_upgrade.log\n2 /var/log/dpkg_upgrade.log\n";
    const std::string kToCaller = "stand-in dpkg: to standard output\nstand-in dpkg: to standard error\n";
    enum { kPlain, kNoDpkg, kReadOnlyLog, kIgnoreSigchld };
    // The setup, how the stand-in ends, the folder ("": the two-argument
    // form); whether it was installed, the installer log, what the caller's
    // outputs got, the system log.
    const std::tuple<int, const char *, const char *, bool, Lines, std::string, Lines> cases[] = {
        {kPlain, "exit 0", "", true, {kBanner, kOut, kErr}, "", {kRun}},
        {kPlain, "exit 2", "", false, {kBanner, kOut, kErr, kFailure}, "", {kRun}},
        {kPlain, "kill KILL", "", true, {kBanner, kOut, kErr}, "", {kRun}},
        {kNoDpkg, "", "", false, {kBanner, kFailure}, "", {}},
        {kReadOnlyLog, "exit 3", "", false, {}, kToCaller, {kRun}},
        {kPlain, "exit 1", "/dest", false,
         {" ===========[-i /x/a.deb /dest]===========", kOut, kErr, "Failed to install -i/x/a.deb/dest"}, "", {kRun + " /dest"}},
        {kIgnoreSigchld, "exit 0", "", false, {kBanner, kOut, kErr}, "",
         {kRun, "debian_lib.cpp: Fail to exec [dpkg -i /x/a.deb] error=[No child processes]"}},
    };
    for (const auto &[nSetup, szHow, szFolder, blInstalled, log, strCallerSees, journal] : cases) {
        SCOPED_TRACE(std::string(szHow) + " " + szFolder);
        fs::remove("/var/log/dpkg_upgrade.log");
        fs::remove("/usr/bin/dpkg");
        if (nSetup != kNoDpkg)
            sandbox::InstallStandin("/usr/bin/dpkg");
        WriteFile("/x/a.deb", std::string("standin dpkg: ") + szHow + "\n");
        const size_t cCalls = sandbox::Calls().size();
        const auto res = sandbox::Call([nSetup = nSetup, szFolder = szFolder] {
            if (nSetup == kReadOnlyLog && (unshare(CLONE_NEWNS) != 0 || system("mount -o bind,ro /var/log /var/log") != 0))
                return 2;
            if (nSetup == kIgnoreSigchld)
                signal(SIGCHLD, SIG_IGN);  // the kernel reaps dpkg, so the wait fails
            setenv("VYRA_CALLER", "kept", 1);
            return chdir("/x") == 0 && DebianLib::ExecDpkg("-i", "/x/a.deb", szFolder) ? 0 : 1;
        });
        EXPECT_EQ(res.Code() == 0, blInstalled);
        EXPECT_EQ(LogLines("/var/log/dpkg_upgrade.log"), log);
        EXPECT_EQ(res.out + res.err, strCallerSees);
        EXPECT_EQ(Journal(res.log), journal);
        const auto calls = sandbox::Calls();
        for (size_t idx = cCalls; idx < calls.size(); ++idx) {
            EXPECT_EQ(calls[idx].cwd, "/x");
            EXPECT_NE(calls[idx].env.find("VYRA_CALLER=kept\n"), std::string::npos);
            EXPECT_TRUE(!strCallerSees.empty() || calls[idx].fds == kToLog) << calls[idx].fds;
        }
    }
}

}  // namespace
