// Shows one whole run of small_update on sample packages, inside a sandbox:
// what was there, what the tool printed and logged, what it asked the
// appliance's tools to do, what it wrote, and what got installed.
#include <stdio.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "sandbox.h"

namespace {

const std::string kDir = "/smallupd@te/";
const char kLogSet[] = "/usr/vyra/bin/vyralogset1";
const char kNotify[] = "/usr/vyra/bin/vyradeknotify";

struct Sample {
    const char *szFile;
    const char *szPackage;  // nullptr: not a package at all
    const char *szWhy;
};

const Sample kSamples[] = {
    {"vyra-alpha_1.0-2668-s10_all.deb", "vyra-alpha", "small fix 10: installed last"},
    {"vyra-beta_1.0-2668-s2_all.deb", "vyra-beta", "small fix 2"},
    {"vyra-delta_1.0-2668-s3_all.deb", nullptr, "small fix 3, but a broken archive: dpkg fails"},
    {"vyra-gamma_1.0-2668-s1_all.deb", "vyra-gamma", "small fix 1: installed first"},
    {"vyra-old_1.0-2600-s4_all.deb", "vyra-old", "made for build 2600: refused"},
    {"smallupdate_1.0-2668-s5_all.deb", "smallupdate", "named smallupdate_: never installed here"},
};

void Section(const std::string &strTitle, const std::string &strBody)
{
    printf("\n--- %s ---\n%s", strTitle.c_str(), strBody.empty() ? "(nothing)\n" : strBody.c_str());
}

std::string Joined(const std::vector<std::string> &words)
{
    std::string str;
    for (const std::string &strWord : words)
        str += (str.empty() ? "" : " ") + strWord;
    return str;
}

int Demo()
{
    sandbox::Sandbox sb;
    sb.BindHostDir(VYRA_BUILD_DIR);
    sb.EmptyDir("/var/log");
    sb.EmptyDir("/smallupd@te");
    sb.WriteFile("/etc.defaults/VERSION", "buildnumber=\"2668\"\n");
    sb.InstallStandin(kLogSet);
    sb.InstallStandin(kNotify);

    printf("The machine's /etc.defaults/VERSION says buildnumber=\"2668\".\n"
           "The update directory %s holds:\n",
           kDir.c_str());
    for (const Sample &sample : kSamples) {
        const std::string strPath = kDir + sample.szFile;
        if (sample.szPackage != nullptr) {
            if (!sb.BuildDeb(sample.szPackage, strPath)) {
                fprintf(stderr, "demo: dpkg-deb could not build %s\n", sample.szFile);
                return 1;
            }
        } else {
            sb.WriteFile(strPath, "!<arch>\nthis is not a Debian archive\n");
        }
        printf("  %-36s %s\n", sample.szFile, sample.szWhy);
    }
    printf("\ndpkg is the machine's real /usr/bin/dpkg, working on the sandbox's copy of\n"
           "its database. The event-log tool %s and the notification\n"
           "tool %s are stand-ins that record what they are asked.\n",
           kLogSet, kNotify);

    printf("\n$ small_update\n");
    const sandbox::Result res = sb.Run({VYRA_TOOL});
    Section("exit status", std::to_string(res.ExitCode()) +
                               "  (0: everything installed; 255: nothing found, or something "
                               "was refused or failed)\n");
    Section("standard error", res.err);
    std::string strLog;
    for (const sandbox::LogMessage &msg : res.log)
        strLog += "<" + std::to_string(msg.priority) + "> " + msg.tag + ": " + msg.text;
    Section("system log (<priority> = user facility, error level)", strLog);
    std::string strCalls;
    for (const sandbox::StandinCall &call : sb.StandinCalls())
        strCalls += Joined(call.argv) + "\n";
    Section("the event-log and notification tools were asked", strCalls);
    Section("/var/log/vyraupdate.log (one verdict line per run)",
            sb.ReadFile("/var/log/vyraupdate.log").value_or(""));
    Section("/var/log/dpkg_upgrade.log (banner, dpkg's own output, failures)",
            sb.ReadFile("/var/log/dpkg_upgrade.log").value_or(""));
    const sandbox::Result installed =
        sb.Run({"/usr/bin/dpkg-query", "-W", "-f=${Package} ${db:Status-Abbrev}\n", "vyra-*",
                "smallupdate"});
    Section("what dpkg now has installed (ii = installed)", installed.out + installed.err);
    printf("\nThe sandbox is gone now; nothing on this machine changed.\n");
    return 0;
}

}  // namespace

int main()
{
    std::string strWhy;
    if (!sandbox::Sandbox::Available(&strWhy)) {
        fprintf(stderr,
                "demo: the sandbox cannot be made here (%s).\n"
                "The demo runs the tool against a private copy of this machine's root, which\n"
                "needs root: try it again as root.\n",
                strWhy.c_str());
        return 1;
    }
    printf("small_update, once, on sample packages. Everything happens in a throw-away\n"
           "sandbox: a private, copy-on-write view of this machine's own root.\n\n");
    try {
        return Demo();
    } catch (const std::exception &e) {
        fprintf(stderr, "demo: %s\n", e.what());
        return 1;
    }
}
