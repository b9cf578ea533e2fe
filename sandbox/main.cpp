// vyra-sandbox: runs one command in a throw-away sandbox (see sandbox.h),
// for scripts that need the tool's fixed paths prepared without touching the
// machine's own.
#include <limits.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "sandbox.h"

namespace {

const char kUsage[] =
    "usage: vyra-sandbox [option]... -- command [argument]...\n"
    "Runs command in a private, copy-on-write view of this machine's root, in\n"
    "the current directory (which is shared with the machine), and exits with\n"
    "its status. Options, applied in order:\n"
    "  --text PATH=TEXT     a file PATH holding TEXT\n"
    "  --copy PATH=FILE     a copy of this machine's FILE at PATH, mode kept\n"
    "  --empty PATH         an empty directory at PATH\n"
    "  --remove PATH        no PATH\n"
    "  --standin PATH       the recording stand-in program at PATH\n"
    "  --tmpfs PATH=OPTS    a tmpfs mounted at PATH with OPTS\n"
    "  --bind DIR           this machine's DIR, shared, at the same path\n"
    "  --log                print the system-log messages on standard error\n"
    "Needs root.\n";

bool Split(const std::string &strArg, std::string *pstrPath, std::string *pstrValue)
{
    const size_t pos = strArg.find('=');
    if (pos == std::string::npos)
        return false;
    *pstrPath = strArg.substr(0, pos);
    *pstrValue = strArg.substr(pos + 1);
    return true;
}

int Main(int argc, char *argv[])
{
    sandbox::Sandbox sb;
    bool blLog = false;
    int idx = 1;
    for (; idx < argc && strcmp(argv[idx], "--") != 0; ++idx) {
        const std::string strOption = argv[idx];
        if (strOption == "--log") {
            blLog = true;
            continue;
        }
        if (idx + 1 >= argc)
            break;
        const std::string strArg = argv[++idx];
        std::string strPath;
        std::string strValue;
        if (strOption == "--text" && Split(strArg, &strPath, &strValue)) {
            sb.WriteFile(strPath, strValue);
        } else if (strOption == "--copy" && Split(strArg, &strPath, &strValue)) {
            struct stat st;
            sb.CopyIn(strValue, strPath, stat(strValue.c_str(), &st) == 0 ? st.st_mode & 07777 : 0644);
        } else if (strOption == "--empty") {
            sb.EmptyDir(strArg);
        } else if (strOption == "--remove") {
            sb.Remove(strArg);
        } else if (strOption == "--standin") {
            sb.InstallStandin(strArg);
        } else if (strOption == "--tmpfs" && Split(strArg, &strPath, &strValue)) {
            sb.MountTmpfs(strPath, strValue);
        } else if (strOption == "--bind") {
            sb.BindHostDir(strArg);
        } else {
            fprintf(stderr, "vyra-sandbox: bad option %s %s\n%s", strOption.c_str(), strArg.c_str(),
                    kUsage);
            return 2;
        }
    }
    if (idx + 1 >= argc) {
        fputs(kUsage, stderr);
        return 2;
    }

    char szCwd[PATH_MAX];
    if (getcwd(szCwd, sizeof(szCwd)) != nullptr && strcmp(szCwd, "/") != 0) {
        sb.BindHostDir(szCwd);
        sb.SetWorkingDirectory(szCwd);
    }
    sb.PassOutputThrough();
    if (!blLog)
        sb.DropLog();
    const sandbox::Result res = sb.Run(std::vector<std::string>(argv + idx + 1, argv + argc));
    if (blLog) {
        for (const sandbox::LogMessage &msg : res.log)
            fprintf(stderr, "syslog: %s", msg.raw.c_str());
    }
    return res.Exited() ? res.ExitCode() : 128 + res.Signal();
}

}  // namespace

int main(int argc, char *argv[])
{
    std::string strWhy;
    if (!sandbox::Sandbox::Available(&strWhy)) {
        fprintf(stderr, "vyra-sandbox: %s\n", strWhy.c_str());
        return 125;
    }
    try {
        return Main(argc, argv);
    } catch (const std::exception &e) {
        fprintf(stderr, "vyra-sandbox: %s\n", e.what());
        return 125;
    }
}
