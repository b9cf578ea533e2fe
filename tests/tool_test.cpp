// small_update, run whole on a machine of build 2668 (sandbox::Machine).
#include <algorithm>

#include "helper.h"

namespace {

const std::string kDir = "/smallupd@te/", kUpdateLog = "/var/log/vyraupdate.log";

// The journal of a run from what befalls each package, in order: "I"
// installed, "F" dpkg failed, "K" dpkg could not be forked, "R" refused by its
// path prefix, "N" a refused name, "B" made for another build.
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
    // Every kind of name, some hostile to a formatter or a shell; one notification fails.
    const std::vector<std::pair<std::string, std::string>> kMixed = {
        {"%n%s_1-2668-s2_all.deb", ""}, {"%s_1-2669-s1_all.deb", ""}, {"-x_1-2668-s4_all.deb", ""},
        {"a b'\";c_1-2668-s3_all.deb", kFail}, {"b_1-2669-s1_all.deb", ""}, {"d.deb", "standin vyradeknotify: exit 3\n"},
        {"e_1-2668-s1_all.deb", kFail}, {"f_1-2668-sx_all.deb", ""}, {"flashupdate_1-2668-s1_all.deb", ""},
        {"g_1-2668-s-3_all.deb", ""}, {"smallupdate_1-2668-s1_all.deb", ""}, {"\xc3\xa9\xff_1-2668-s5_all.deb", ""}};
    const Lines kEvents = {"B %s_1-2669-s1_all.deb", "B b_1-2669-s1_all.deb", "N d.deb", "R flashupdate_1-2668-s1_all.deb",
                           "N g_1-2668-s-3_all.deb", "R smallupdate_1-2668-s1_all.deb", "I f_1-2668-sx_all.deb",
                           "F e_1-2668-s1_all.deb", "I %n%s_1-2668-s2_all.deb", "F a b'\";c_1-2668-s3_all.deb",
                           "I -x_1-2668-s4_all.deb", "I \xc3\xa9\xff_1-2668-s5_all.deb"};
    const Lines kWithout1 = {"/bin/sh", "-c", "exec >&-; exec \"$@\"", "sh"}, kWithout2 = {"/bin/sh", "-c", "exec 2>&-; exec \"$@\"", "sh"};
    const Lines kSyncs = {"-y", "-e", "trace=write,fsync,fork,vfork,clone,clone3,execve,exit_group", "--"};
    const Lines kValgrind = {"/usr/bin/valgrind", "-q", "--error-exitcode=99", "--leak-check=full",
                             "--errors-for-leak-kinds=definite,indirect", "--child-silent-after-fork=yes", "--log-file=/tmp/valgrind"};
    // The packages, what runs the tool, the events (none: nothing was found).
    const std::tuple<std::vector<std::pair<std::string, std::string>>, Lines, Lines> cases[] = {
        // Upper case, a dot-file, and the upper-case directory, which is never scanned.
        {{{"a_1-2668-s1_all.tar", ""}, {"b_1-2668-s1_all.DEB", ""}, {".c_1-2668-s1_all.deb", ""},
          {"../smallUpd@te/d_1-2668-s1_all.deb", ""}}, {}, {}},
        {{{"a_1-2668-s12_all.deb", ""}, {"b_1-2668-s5_all.deb", ""}, {"c_1-2668-s7_all.deb", ""}}, {},
         {"I b_1-2668-s5_all.deb", "I c_1-2668-s7_all.deb", "I a_1-2668-s12_all.deb"}},
        {kMixed, {}, kEvents},
        {kMixed, kWithout2, kEvents},
        {kMixed, VYRA_VALGRIND ? kValgrind : Lines{}, kEvents},
        {kMixed, Strace("", kSyncs), kEvents},
        {kMixed, Strace("fsync:retval=0", kSyncs), kEvents},  // syncs that do not happen
        {{{"a_1-2668-s1_all.deb", ""}}, Strace("clone:error=EAGAIN:when=1"), {"K a_1-2668-s1_all.deb"}},
        // The last, as it removes /dev/null: then nothing holds the closed
        // descriptor, and the installer log's descriptor is dpkg's standard output.
        {{{"a_1-2668-s1_all.deb", ""}}, kWithout1, {"I a_1-2668-s1_all.deb"}},
    };
    for (const auto &[packages, prefix, events] : cases) {
        SCOPED_TRACE(prefix.empty() ? "" : prefix.back());
        sandbox::Machine(packages);
        if (prefix == kWithout1)
            std::filesystem::remove("/dev/null");
        Lines argv = prefix;
        if (const char *szTool = getenv("VYRA_TOOL"))  // an installed program
            argv.push_back(szTool);
        else
            argv.insert(argv.end(), {VYRA_TOOL_COMMAND});
        argv.insert(argv.end(), {"-x", "a.deb"});  // arguments change nothing
        const auto res = sandbox::RunLogged(argv, Env(argv));
        const bool blSuccess = std::all_of(events.begin(), events.end(), [](auto &str) { return str[0] == 'I'; });
        EXPECT_EQ(res.Code(), !events.empty() && blSuccess ? 0 : 255) << ReadFile("/tmp/valgrind");
        EXPECT_EQ(Journal(res.log), Expected(events, prefix != kWithout2));
        EXPECT_EQ(res.out, "");
        EXPECT_EQ(LogLines(kUpdateLog), events.empty() ? Lines{}
                                        : Lines{blSuccess ? "Finished critical update!!!" : "Failed to update critical update"});
        EXPECT_EQ(std::filesystem::exists(kUpdateLog), !events.empty());
        // Under strace: every record reaches the disk before the next fork,
        // exec or exit, unless the syncs are injected away.
        const bool blTraced = std::find(prefix.begin(), prefix.end(), "-y") != prefix.end();
        std::string strUnsynced;
        bool blPending = false;
        for (const std::string &strLine : blTraced ? Split(ReadFile("/tmp/strace")) : Lines{}) {
            const bool blLog = strLine.find("</var/log/") != std::string::npos;
            if (strLine.rfind("write(", 0) == 0)
                blPending = blPending || blLog;
            else if (strLine.rfind("fsync(", 0) == 0)
                blPending = blPending && !(blLog && strLine.find("INJECTED") == std::string::npos);
            else if (blPending && strUnsynced.empty())
                strUnsynced = strLine;
        }
        EXPECT_EQ(strUnsynced.empty(), !blTraced || prefix[4] == "-y") << ReadFile("/tmp/strace");
    }
    EXPECT_EQ(LogLines("/var/log/dpkg_upgrade.log"),
              (Lines{" ===========[-i /smallupd@te/a_1-2668-s1_all.deb ]===========",
                     "<no stamp>stand-in dpkg: to standard output", "<no stamp>stand-in dpkg: to standard error"}));
}

}  // namespace
