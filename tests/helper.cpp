#include "helper.h"

#include <stdio.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <filesystem>
#include <sstream>

#include "vyracore.h"

namespace {

// Before any test: refuse the machine's own paths, and catch the system log.
const bool blInside = [] {
    if (!sandbox::Inside()) {
        fputs("these tests change the system paths: run them through sandbox/vyra-sandbox\n", stderr);
        exit(2);
    }
    sandbox::TakeLog();
    return true;
}();

}  // namespace

Lines Split(const std::string &strText)
{
    Lines lines;
    std::istringstream in(strText);
    for (std::string strLine; std::getline(in, strLine);)
        lines.push_back(strLine);
    return lines;
}

std::string Recorded()
{
    const char *szFile = VLIBCErrorGetFile();
    char sz[64];
    snprintf(sz, sizeof(sz), "%#x %s:%d", static_cast<unsigned>(vyraerrno), szFile != nullptr ? szFile : "-",
             static_cast<int>(VLIBCErrorGetLine()));
    return sz;
}

Lines LogLines(const std::string &strPath)
{
    Lines lines = Split(ReadFile(strPath));
    for (std::string &strLine : lines) {
        std::string strShape = strLine.substr(0, 20);
        for (char &ch : strShape)
            ch = isdigit(static_cast<unsigned char>(ch)) ? '0' : ch;
        strLine = strShape == "0000/00/00 00:00:00\t" ? strLine.substr(20) : "<no stamp>" + strLine;
    }
    return lines;
}

Lines Journal(const std::vector<std::string> &log)
{
    Lines lines;
    for (std::string str : log) {
        if (str.rfind("<13>", 0) == 0)
            str.replace(0, 4, "$ ");
        else if (str.rfind("<11>", 0) == 0)
            str.erase(0, 4);
        if (str.rfind("small_update.cpp:", 0) == 0 || str.rfind("debian_lib.cpp:", 0) == 0)
            str.erase(str.find(':') + 1, str.find(' ') - str.find(':') - 1);
        lines.push_back(str);
    }
    return lines;
}

Lines Strace(const std::string &strInject, const Lines &options)
{
    Lines argv = {"/usr/bin/strace", "-qq", "-o", "/tmp/strace"};
    if (!strInject.empty())
        argv.insert(argv.end(), {"-e", "inject=" + strInject});
    argv.insert(argv.end(), options.begin(), options.end());
    return argv;
}

void Machine(const std::vector<std::pair<std::string, std::string>> &packages, bool blRealDpkg)
{
    // A comment first, so that every read of the build number goes past a line.
    WriteFile("/etc.defaults/VERSION", "# the sandbox\nbuildnumber=\"2668\"\n");
    for (const char *szPath : {"/usr/vyra/bin/vyralogset1", "/usr/vyra/bin/vyradeknotify"})
        sandbox::InstallStandin(szPath);
    if (!blRealDpkg)
        sandbox::InstallStandin("/usr/bin/dpkg");
    for (const char *szPath : {"/smallupd@te", "/var/log/vyraupdate.log", "/var/log/dpkg_upgrade.log"})
        std::filesystem::remove_all(szPath);
    std::filesystem::create_directory("/smallupd@te");
    for (const auto &[strName, strContent] : packages)
        WriteFile("/smallupd@te/" + strName, strContent);
}

Lines EnvFor(const Lines &argv)
{
    Lines env = sandbox::DefaultEnv();
    const char *szAsan = getenv("ASAN_OPTIONS");
    if (argv[0] == "/usr/bin/strace")  // the first of a name wins
        env.insert(env.begin(), std::string("ASAN_OPTIONS=") + (szAsan != nullptr ? szAsan : "") + ":detect_leaks=0");
    return env;
}

sandbox::Result RunTool(const Lines &prefix, const Lines &command)
{
    Lines argv = prefix;
    argv.insert(argv.end(), command.begin(), command.end());
    return sandbox::Call([&argv] {
        const int fd = socket(AF_UNIX, SOCK_DGRAM, 0);
        struct sockaddr_un addr = {AF_UNIX, "/dev/log"};
        if (connect(fd, reinterpret_cast<struct sockaddr *>(&addr), sizeof(addr)) != 0 || dup2(fd, 2) != 2)
            return 126;
        close(fd);
        sandbox::Exec(argv, EnvFor(argv));
    });
}
