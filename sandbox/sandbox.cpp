#include "sandbox.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace fs = std::filesystem;

namespace sandbox {
namespace {

const struct sockaddr_un kDevLog = {AF_UNIX, "/dev/log"};
const auto *const kpDevLog = reinterpret_cast<const struct sockaddr *>(&kDevLog);

int LogSocket()
{
    static const int fdLog = [] {
        const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
        if (!Inside() || (unlink(kDevLog.sun_path), bind(fd, kpDevLog, sizeof(kDevLog))) != 0)
            throw std::runtime_error("sandbox: no /dev/log of its own: " + std::to_string(errno));
        return fd;
    }();
    return fdLog;
}

}  // namespace

bool Inside()
{
    return access("/.vyra-sandbox", F_OK) == 0;
}

int Result::Code() const
{
    return WIFEXITED(status) ? WEXITSTATUS(status) : 1000 + WTERMSIG(status);
}

Result Call(const std::function<int()> &fn)
{
    LogSocket();
    FILE *pfOut = tmpfile();
    fflush(nullptr);
    (void)prctl(PR_SET_CHILD_SUBREAPER, 1);  // the orphans of a killed run come here
    const pid_t pid = pfOut != nullptr ? fork() : -1;
    if (pid == 0) {
        const int fdErr = socket(AF_UNIX, SOCK_DGRAM, 0);
        if (connect(fdErr, kpDevLog, sizeof(kDevLog)) != 0 || dup2(fdErr, 2) != 2 ||
            dup2(open("/dev/null", O_RDONLY), 0) != 0 || dup2(fileno(pfOut), 1) != 1 ||
            chdir("/tmp") != 0)
            _exit(126);
        for (const auto &entry : fs::directory_iterator("/proc/self/fd")) {
            if (const int fd = std::stoi(entry.path().filename().string()); fd > 2)
                fcntl(fd, F_SETFD, FD_CLOEXEC);
        }
        const int nResult = fn();
        fflush(nullptr);
        _exit(nResult & 0xff);
    }
    if (pid < 0)
        throw std::runtime_error("sandbox: cannot start a child");
    Result res;
    while (waitpid(pid, &res.status, 0) < 0 && errno == EINTR) {
    }
    while (waitpid(-1, nullptr, 0) > 0 || errno == EINTR) {
    }
    res.out = ReadFile("/proc/self/fd/" + std::to_string(fileno(pfOut)));
    fclose(pfOut);
    res.log = TakeLog();
    return res;
}

Result Run(const Lines &argv, const Lines &env)
{
    return Call([&argv, &env]() -> int {
        std::vector<char *> args, vars;
        for (const std::string &str : argv)
            args.push_back(const_cast<char *>(str.c_str()));
        for (const std::string &str : env)
            vars.push_back(const_cast<char *>(str.c_str()));
        args.push_back(nullptr);
        vars.push_back(nullptr);
        execve(args[0], args.data(), vars.data());
        fprintf(stderr, "sandbox: cannot run %s: %s\n", args[0], strerror(errno));
        return 127;
    });
}

// Of glibc's "<PRI>Mmm dd hh:mm:ss TAG: TEXT", "<PRI>TEXT"; an empty datagram
// (a write of nothing to standard error, as valgrind's at exit) says nothing.
Lines TakeLog()
{
    Lines log;
    char buf[65536];
    for (ssize_t cb; (cb = recv(LogSocket(), buf, sizeof(buf), 0)) >= 0;) {
        std::string str(buf, static_cast<size_t>(cb));
        const size_t posPri = str.rfind('<', 0) == 0 ? str.find('>') + 1 : 0;
        const size_t posText = posPri > 0 ? str.find(": ", posPri + 16) : std::string::npos;
        if (cb > 0)
            log.push_back(posText == std::string::npos ? str
                                                       : str.erase(posPri, posText + 2 - posPri));
    }
    return log;
}

void WriteFile(const std::string &strPath, const std::string &strContent, int mode)
{
    fs::create_directories(fs::path(strPath).parent_path());
    fs::remove(strPath);
    std::ofstream(strPath, std::ios::binary) << strContent;
    fs::permissions(strPath, static_cast<fs::perms>(mode));
}

std::string ReadFile(const std::string &strPath)
{
    std::ostringstream ss;
    ss << std::ifstream(strPath, std::ios::binary).rdbuf();
    return ss.str();
}

void InstallStandin(const std::string &strPath)
{
    const std::string strScript = ReadFile(VYRA_STANDIN);
    if (strScript.empty())
        throw std::runtime_error("sandbox: cannot read " VYRA_STANDIN);
    WriteFile(strPath, strScript, 0755);
}

void Machine(bool blRealDpkg)
{
    WriteFile("/etc.defaults/VERSION", "# the build of the system\nbuildnumber=\"2668\"\n");
    for (const char *szPath : {"/usr/vyra/bin/vyralogset1", "/usr/vyra/bin/vyradeknotify"})
        InstallStandin(szPath);
    if (!blRealDpkg)
        InstallStandin("/usr/bin/dpkg");
    for (const char *szPath :
         {"/smallupd@te", "/var/log/vyraupdate.log", "/var/log/dpkg_upgrade.log"})
        fs::remove_all(szPath);
    fs::create_directory("/smallupd@te");
}

bool BuildDeb(const Package &package, const std::string &strDebPath)
{
    const std::string strRoot = "/tmp/build-" + package.strName;
    fs::remove_all(strRoot);
    WriteFile(strRoot + "/DEBIAN/control",
              "Package: " + package.strName +
                  "\nVersion: 1.0\nArchitecture: all\nMaintainer: N <n@example.invalid>\n" +
                  (package.strDepends.empty() ? "" : "Depends: " + package.strDepends + "\n") +
                  "Description: sample package\n");
    WriteFile(strRoot + "/usr/share/" + package.strName + "/hello", package.strName + "\n");
    if (!package.strPostinst.empty())
        WriteFile(strRoot + "/DEBIAN/postinst", "#!/bin/sh\nset -e\n" + package.strPostinst, 0755);
    fs::create_directories(fs::path(strDebPath).parent_path());
    return Run({"/usr/bin/dpkg-deb", "--root-owner-group", "--build", strRoot, strDebPath})
               .Code() == 0;
}

}  // namespace sandbox
