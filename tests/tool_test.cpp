// The built small_update, run whole on a machine of build 2668.
#include <algorithm>
#include <filesystem>
#include <set>

#include "helper.h"

namespace {

using Packages = std::vector<std::pair<std::string, std::string>>;

const std::string kDir = "/smallupd@te/";
const char kUpdateLog[] = "/var/log/vyraupdate.log", kFail[] = "standin dpkg: exit 1\n";
const Lines kWithout1 = {"/bin/sh", "-c", "exec >&-; exec \"$@\"", "sh"};
const Lines kWithout2 = {"/bin/sh", "-c", "exec 2>&-; exec \"$@\"", "sh"};

// Every kind of name, some hostile to a formatter or a shell; one
// notification fails.
const Packages kMixed = {
    {"%n%s_1-2668-s2_all.deb", ""}, {"%s_1-2669-s1_all.deb", ""}, {"-x_1-2668-s4_all.deb", ""},
    {"a b'\";c_1-2668-s3_all.deb", kFail}, {"b_1-2669-s1_all.deb", ""}, {"d.deb", "standin vyradeknotify: exit 3\n"},
    {"e_1-2668-s1_all.deb", kFail}, {"flashupdate_1-2668-s1_all.deb", ""}, {"smallupdate_1-2668-s1_all.deb", ""},
    {"\xc3\xa9\xff_1-2668-s5_all.deb", ""}};
// What befalls each, in order: "I" installed, "F" dpkg failed, "K" dpkg could
// not be forked, "R" refused by its path prefix, "N" a refused name, "B" made
// for another build.
const Lines kMixedEvents = {"B %s_1-2669-s1_all.deb", "B b_1-2669-s1_all.deb", "N d.deb",
                            "R flashupdate_1-2668-s1_all.deb", "R smallupdate_1-2668-s1_all.deb",
                            "F e_1-2668-s1_all.deb", "I %n%s_1-2668-s2_all.deb", "F a b'\";c_1-2668-s3_all.deb",
                            "I -x_1-2668-s4_all.deb", "I \xc3\xa9\xff_1-2668-s5_all.deb"};

// The journal of a run from its events, with or without standard error.
Lines Expected(const Lines &events, bool blStandardError = true)
{
    Lines journal;
    const auto say = [&journal, blStandardError](const std::string &strMsg) {
        journal.insert(journal.end(), blStandardError ? 1 : 0, strMsg);
        journal.push_back("small_update.cpp: " + strMsg);
    };
    for (const std::string &strEvent : events) {
        const char ch = strEvent[0];
        const std::string strName = strEvent.substr(2), strPath = kDir + strName;
        const bool blFailed = ch == 'F' || ch == 'K';
        if (ch == 'B')
            journal.push_back("debian_lib.cpp: different buildnumber of deb [" + strName + "] with system buildnumber [2668]\n");
        if (ch == 'B' || ch == 'N')
            say("invalid debian name [" + strName + "]\n");
        if (ch == 'I' || ch == 'F')
            journal.push_back("$ /usr/bin/dpkg -i " + strPath);
        if (ch == 'K')
            journal.push_back("debian_lib.cpp: Fail to fork");
        if (ch == 'I')
            continue;
        say(blFailed ? "Failed to install [" + strPath + "]\n" : "Unexpected Debian [" + strPath + "], skip install.\n");
        journal.push_back("$ /usr/vyra/bin/vyralogset1 sys err 0x11B0103" + std::string(blFailed ? "1 " : "0 ") + strPath);
        journal.push_back("$ /usr/vyra/bin/vyradeknotify @administrators update:small_update_" +
                          std::string(blFailed ? "install_failed " : "check_failed ") + strPath);
    }
    return journal;
}

// The first fork, exec or exit of a run while a record that it appended to a
// log is not yet synced, as strace shows it; "" if there is none.
std::string FirstUnsyncedStep(const std::string &strTrace)
{
    std::set<std::string> unsynced;
    for (const std::string &strLine : Split(strTrace)) {
        const size_t posLog = strLine.find("</var/log/");
        const std::string strLog = posLog == std::string::npos ? "" : strLine.substr(posLog, strLine.find('>', posLog) - posLog);
        if (strLine.rfind("write(", 0) == 0 && !strLog.empty())
            unsynced.insert(strLog);
        else if (strLine.rfind("fsync(", 0) == 0 && strLine.find("INJECTED") == std::string::npos)
            unsynced.erase(strLog);
        else if (strLine.rfind("write(", 0) != 0 && !unsynced.empty())
            return strLine;
    }
    return "";
}

TEST(SmallUpdate, ReportsEveryPackageOnEveryChannelInOrderAndEndsWithOneVerdict)
{
    const Lines kSyncs = {"-y", "-e", "trace=write,fsync,fork,vfork,clone,clone3,execve,exit_group", "--"};
    const Lines kValgrind = {"/usr/bin/valgrind", "-q", "--error-exitcode=99", "--leak-check=full",
                             "--errors-for-leak-kinds=definite,indirect", "--child-silent-after-fork=yes",
                             "--log-file=/tmp/valgrind"};
    // The packages, what runs the tool, the events (none: nothing was found).
    const std::tuple<Packages, Lines, Lines> cases[] = {
        // Upper case, a dot-file, and the upper-case directory, which is never scanned.
        {{{"a_1-2668-s1_all.tar", ""}, {"b_1-2668-s1_all.DEB", ""}, {".c_1-2668-s1_all.deb", ""},
          {"../smallUpd@te/d_1-2668-s1_all.deb", ""}}, {}, {}},
        {{{"a_1-2668-s12_all.deb", ""}, {"b_1-2668-s5_all.deb", ""}, {"c_1-2668-s7_all.deb", ""}}, {},
         {"I b_1-2668-s5_all.deb", "I c_1-2668-s7_all.deb", "I a_1-2668-s12_all.deb"}},
        {kMixed, {}, kMixedEvents},
        {kMixed, kWithout2, kMixedEvents},
        {kMixed, VYRA_VALGRIND ? kValgrind : Lines{}, kMixedEvents},
        {kMixed, Strace("", kSyncs), kMixedEvents},
        {kMixed, Strace("fsync:retval=0", kSyncs), kMixedEvents},  // syncs that do not happen
        {{{"a_1-2668-s1_all.deb", ""}}, Strace("clone:error=EAGAIN:when=1"), {"K a_1-2668-s1_all.deb"}},
        // The last, as it removes /dev/null: then nothing holds the closed
        // descriptor, and the installer log's descriptor is dpkg's standard output.
        {{{"a_1-2668-s1_all.deb", ""}}, kWithout1, {"I a_1-2668-s1_all.deb"}},
    };
    for (const auto &[packages, prefix, events] : cases) {
        SCOPED_TRACE(prefix.empty() ? "" : prefix.back());
        Machine(packages);
        if (prefix == kWithout1)
            std::filesystem::remove("/dev/null");
        const auto res = RunTool(prefix);
        const bool blSuccess = std::all_of(events.begin(), events.end(), [](auto &str) { return str[0] == 'I'; });
        EXPECT_EQ(res.Code(), !events.empty() && blSuccess ? 0 : 255) << ReadFile("/tmp/valgrind");
        EXPECT_EQ(Journal(res.log), Expected(events, prefix != kWithout2));
        EXPECT_EQ(res.out, "");
        EXPECT_EQ(std::filesystem::exists(kUpdateLog), !events.empty());
        EXPECT_EQ(LogLines(kUpdateLog), events.empty() ? Lines{}
                                        : Lines{blSuccess ? "Finished critical update!!!" : "Failed to update critical update"});
        if (std::find(prefix.begin(), prefix.end(), "-y") != prefix.end()) {  // synced unless syncs are injected
            EXPECT_EQ(FirstUnsyncedStep(ReadFile("/tmp/strace")).empty(), prefix[4] == "-y") << ReadFile("/tmp/strace");
        }
    }
    EXPECT_EQ(LogLines("/var/log/dpkg_upgrade.log"),
              (Lines{" ===========[-i /smallupd@te/a_1-2668-s1_all.deb ]===========",
                     "<no stamp>stand-in dpkg: to standard output", "<no stamp>stand-in dpkg: to standard error"}));
}

TEST(SmallUpdate, InstallsRealPackagesKeepingDpkgsOutputWithStandardOutputClosed)
{
    Machine({{"vyra-d_1.0-2668-s4_all.deb", "!<arch>\nnot a package\n"}}, true);
    for (const char *szName : {"vyra-a_1.0-2668-s3_all.deb", "vyra-b_1.0-2668-s2_all.deb", "vyra-c_1.0-2668-s1_all.deb"})
        ASSERT_TRUE(sandbox::BuildDeb(std::string(szName, 6), kDir + szName));

    const auto res = RunTool(kWithout1);

    Lines expected = Expected({"F vyra-d_1.0-2668-s4_all.deb"});
    expected.erase(expected.begin());  // dpkg is no stand-in: its start is not logged
    EXPECT_EQ(res.Code(), 255);
    EXPECT_EQ(Journal(res.log), expected);
    const std::string strStatus = ReadFile("/var/lib/dpkg/status");
    for (const std::string strPackage : {"vyra-a", "vyra-b", "vyra-c"}) {
        EXPECT_NE(strStatus.find("Package: " + strPackage + "\nStatus: install ok installed\n"), std::string::npos);
        EXPECT_EQ(ReadFile("/usr/share/" + strPackage + "/hello"), strPackage + "\n");
    }
    EXPECT_EQ(strStatus.find("Package: vyra-d\n"), std::string::npos);
    std::string strOrder;
    const Lines log = LogLines("/var/log/dpkg_upgrade.log");
    for (const std::string &strLine : log)
        strOrder += strLine.rfind(" ===========[-i /smallupd@te/vyra-", 0) == 0 ? strLine.substr(34, 1) : "";
    EXPECT_EQ(strOrder, "cbad");
    EXPECT_NE(std::find(log.begin(), log.end(), "<no stamp>Setting up vyra-c (1.0) ..."), log.end());
    EXPECT_EQ(log.back(), "Failed to install -i/smallupd@te/vyra-d_1.0-2668-s4_all.deb");
}

}  // namespace
