// Shows one whole run of small_update on sample packages: what was there, what
// the tool printed and logged, what it asked the appliance's tools to do, what
// it wrote, and what got installed. It runs inside vyra-sandbox, so it places
// everything on the tool's fixed paths without touching the machine's own.
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

int Demo()
{
    sandbox::Machine(true);

    printf("The machine's /etc.defaults/VERSION says buildnumber=\"2668\".\n"
           "The update directory %s holds:\n",
           kDir.c_str());
    for (const Sample &sample : kSamples) {
        const std::string strPath = kDir + sample.szFile;
        if (sample.szPackage == nullptr)
            sandbox::WriteFile(strPath, "!<arch>\nthis is not a Debian archive\n");
        else if (!sandbox::BuildDeb({sample.szPackage}, strPath))
            return fprintf(stderr, "demo: dpkg-deb could not build %s\n", sample.szFile), 1;
        printf("  %-36s %s\n", sample.szFile, sample.szWhy);
    }
    printf("\ndpkg is the machine's real /usr/bin/dpkg, working on the sandbox's copy of\n"
           "its database. The event-log tool %s and the notification\n"
           "tool %s are stand-ins that record what they are asked.\n",
           kLogSet, kNotify);

    printf("\n$ small_update\n");
    const sandbox::Result res = sandbox::Run({VYRA_TOOL});
    Section("exit status", std::to_string(res.Code()) +
                               "  (0: everything installed; 255: nothing found, or "
                               "something was refused or failed)\n");
    std::string strJournal;
    for (const std::string &strMessage : res.log) {
        if (strMessage.rfind("<13>", 0) == 0)
            strJournal += "   ran: " + strMessage.substr(4) + "\n";
        else if (strMessage.rfind("<11>", 0) == 0)
            strJournal += "   log: " + strMessage.substr(4);
        else
            strJournal += "stderr: " + strMessage;
    }
    Section("what it said, in order: standard error, the system log (LOG_ERR, user facility)\n"
            "and each start of an appliance tool",
            strJournal);
    Section("/var/log/vyraupdate.log (one verdict line per run)",
            sandbox::ReadFile("/var/log/vyraupdate.log"));
    Section("/var/log/dpkg_upgrade.log (banner, dpkg's own output, failures)",
            sandbox::ReadFile("/var/log/dpkg_upgrade.log"));
    const sandbox::Result installed =
        sandbox::Run({"/usr/bin/dpkg-query", "-W", "-f=${Package} ${db:Status-Abbrev}\n", "vyra-*",
                      "smallupdate"});
    Section("what dpkg now has installed (ii = installed)", installed.out);
    printf("\nThe sandbox is gone when this ends; nothing on this machine changed.\n");
    return 0;
}

}  // namespace

int main()
{
    if (!sandbox::Inside()) {
        fprintf(
            stderr,
            "demo: it places files on the system's own paths: run it through scripts/demo.sh\n");
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
