#include "sandbox.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace fs = std::filesystem;

namespace sandbox {

extern const char kStandinScript[];

namespace {

const std::string kRecords = "/.standin-records";

const struct sockaddr_un kDevLog = {AF_UNIX, "/dev/log"};
const auto *const kpDevLog = reinterpret_cast<const struct sockaddr *>(&kDevLog);

int LogSocket()
{
    static int fdLog = -1;
    if (fdLog >= 0)
        return fdLog;
    // Never outside: there /dev/log is the machine's own.
    if (!Inside())
        throw std::runtime_error("sandbox: no /dev/log: not inside vyra-sandbox");
    unlink(kDevLog.sun_path);
    fdLog = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fdLog < 0 || bind(fdLog, kpDevLog, sizeof(kDevLog)) != 0)
        throw std::runtime_error(std::string("sandbox: no /dev/log: ") + strerror(errno));
    return fdLog;
}

std::string ReadAll(FILE *pf)
{
    struct stat st = {};
    std::string str(fstat(fileno(pf), &st) == 0 ? static_cast<size_t>(st.st_size) : 0, '\0');
    rewind(pf);
    str.resize(fread(str.data(), 1, str.size(), pf));
    fclose(pf);
    return str;
}

std::vector<std::string> SplitNul(const std::string &strText)
{
    std::vector<std::string> parts;
    std::istringstream in(strText);
    for (std::string str; std::getline(in, str, '\0');)
        parts.push_back(str);
    return parts;
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

std::vector<std::string> DefaultEnv()
{
    std::vector<std::string> env = {
        "PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin"};
    for (const char *szName : {"ASAN_OPTIONS", "UBSAN_OPTIONS", "LSAN_OPTIONS"}) {
        if (const char *szValue = getenv(szName))
            env.push_back(std::string(szName) + "=" + szValue);
    }
    return env;
}

Result Call(const std::function<int()> &fn)
{
    LogSocket();
    FILE *pfOut = tmpfile();
    FILE *pfErr = tmpfile();
    if (pfOut == nullptr || pfErr == nullptr)
        throw std::runtime_error("sandbox: no temporary file");
    fflush(nullptr);
    (void)prctl(PR_SET_CHILD_SUBREAPER, 1);
    const pid_t pid = fork();
    if (pid < 0)
        throw std::runtime_error("sandbox: cannot fork");
    if (pid == 0) {
        const int fdIn = open("/dev/null", O_RDONLY);
        dup2(fdIn, STDIN_FILENO);
        dup2(fileno(pfOut), STDOUT_FILENO);
        dup2(fileno(pfErr), STDERR_FILENO);
        // What runs here gets 0-2 and whatever fn opens itself, nothing of ours.
        for (const auto &entry : fs::directory_iterator("/proc/self/fd")) {
            const int fd = atoi(entry.path().filename().c_str());
            if (fd > STDERR_FILENO)
                fcntl(fd, F_SETFD, FD_CLOEXEC);
        }
        const int nResult = fn();
        fflush(nullptr);
        _exit(nResult & 0xff);
    }
    Result res;
    while (waitpid(pid, &res.status, 0) < 0 && errno == EINTR) {
    }
    // What it left running (the dpkg of a killed run, say) was handed to us as
    // subreaper: the next step must not meet it still holding dpkg's lock.
    while (waitpid(-1, nullptr, 0) > 0 || errno == EINTR) {
    }
    res.out = ReadAll(pfOut);
    res.err = ReadAll(pfErr);
    res.log = TakeLog();
    return res;
}

void Exec(const std::vector<std::string> &argv, const std::vector<std::string> &env)
{
    const auto pointers = [](const std::vector<std::string> &strs) {
        std::vector<char *> pointers;
        for (const std::string &str : strs)
            pointers.push_back(const_cast<char *>(str.c_str()));
        pointers.push_back(nullptr);
        return pointers;
    };
    std::vector<char *> args = pointers(argv), vars = pointers(env);
    execve(args[0], args.data(), vars.data());
    fprintf(stderr, "sandbox: cannot run %s: %s\n", args[0], strerror(errno));
    fflush(stderr);
    _exit(127);
}

Result Run(const std::vector<std::string> &argv, const std::vector<std::string> &env)
{
    return Call([&argv, &env]() -> int { Exec(argv, env); });
}

Result CallLogged(const std::function<int()> &fn)
{
    return Call([&fn] {
        const int fd = socket(AF_UNIX, SOCK_DGRAM, 0);
        if (connect(fd, kpDevLog, sizeof(kDevLog)) != 0 || dup2(fd, 2) != 2)
            return 126;
        close(fd);
        return fn();
    });
}

Result RunLogged(const std::vector<std::string> &argv, const std::vector<std::string> &env)
{
    return CallLogged([&argv, &env]() -> int { Exec(argv, env); });
}

// glibc sends "<PRI>Mmm dd hh:mm:ss TAG: TEXT"; what is kept is "<PRI>TEXT".
// An empty datagram, a write of nothing to a standard error sent here (as
// valgrind makes at exit), carries no message.
std::vector<std::string> TakeLog()
{
    std::vector<std::string> log;
    char buf[65536];
    for (ssize_t cb; (cb = recv(LogSocket(), buf, sizeof(buf), 0)) >= 0;) {
        if (cb == 0)
            continue;
        const std::string str(buf, static_cast<size_t>(cb));
        const size_t posPri = str.rfind('<', 0) == 0 ? str.find('>') + 1 : 0;
        const size_t posText = posPri > 0 ? str.find(": ", posPri + 16) : std::string::npos;
        log.push_back(
            posText == std::string::npos ? str : str.substr(0, posPri) + str.substr(posText + 2));
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
    // The program replaced is kept beside it, so that a later machine can have it back.
    if (fs::exists(strPath) && !fs::exists(strPath + ".replaced") &&
        ReadFile(strPath).rfind(std::string(kStandinScript, 30), 0) != 0)
        fs::copy_file(strPath, strPath + ".replaced");
    std::string strScript = kStandinScript;
    for (size_t pos; (pos = strScript.find("@RECORDS@")) != std::string::npos;)
        strScript.replace(pos, 9, kRecords);
    fs::create_directories(kRecords);
    WriteFile(strPath, strScript, 0755);
}

std::vector<StandinCall> Calls()
{
    std::vector<StandinCall> calls;
    for (int n = 1; fs::exists(kRecords + "/" + std::to_string(n) + "/ids"); ++n) {
        const std::string strDir = kRecords + "/" + std::to_string(n) + "/";
        StandinCall call;
        call.argv = SplitNul(ReadFile(strDir + "cmdline"));
        call.argv.erase(call.argv.begin());  // the interpreter
        for (const std::string &strVar : SplitNul(ReadFile(strDir + "environ")))
            call.env += strVar + "\n";
        call.cwd = ReadFile(strDir + "cwd");
        call.cwd.pop_back();
        std::istringstream fds(ReadFile(strDir + "fds"));
        for (int fd; fds >> fd >> std::ws && std::getline(fds, call.fds[fd]);) {
        }
        std::istringstream(ReadFile(strDir + "ids")) >> call.pid >> call.sid;
        calls.push_back(call);
    }
    return calls;
}

void Machine(const std::vector<UpdateFile> &files, bool blRealDpkg)
{
    // The real dpkg back wherever a stand-in took its place: it purges what
    // the last machine installed (packages are told apart by name).
    if (fs::exists("/usr/bin/dpkg.replaced"))
        fs::copy_file("/usr/bin/dpkg.replaced", "/usr/bin/dpkg",
                      fs::copy_options::overwrite_existing);
    const auto names = [] {
        std::vector<std::string> names = PackageStates("*");
        for (std::string &str : names)
            str.erase(str.find(' '));
        return names;
    };
    static const std::vector<std::string> kFirst = names();
    std::vector<std::string> purge = {"/usr/bin/dpkg", "--purge"};
    for (const std::string &strName : names()) {
        if (std::count(kFirst.begin(), kFirst.end(), strName) == 0)
            purge.push_back(strName);
    }
    if (purge.size() > 2 && Run(purge).Code() != 0)
        throw std::runtime_error("sandbox: dpkg cannot purge what the last machine installed");
    WriteFile("/etc.defaults/VERSION", "# the build of the system\nbuildnumber=\"2668\"\n");
    for (const char *szPath : {"/usr/vyra/bin/vyralogset1", "/usr/vyra/bin/vyradeknotify"})
        InstallStandin(szPath);
    if (!blRealDpkg)
        InstallStandin("/usr/bin/dpkg");
    for (const char *szPath :
         {"/smallupd@te", "/var/log/vyraupdate.log", "/var/log/dpkg_upgrade.log"})
        fs::remove_all(szPath);
    fs::create_directory("/smallupd@te");
    for (const UpdateFile &file : files) {
        const std::string strPath = "/smallupd@te/" + file.strName;
        if (file.package.strName.empty())
            WriteFile(strPath, file.strContent);
        else if (!BuildDeb(file.package, strPath))
            throw std::runtime_error("sandbox: dpkg-deb cannot build " + file.strName);
    }
}

std::vector<std::string> PackageStates(const std::string &strPattern)
{
    const Result res =
        Run({"/usr/bin/dpkg-query", "-W", "-f=${Package} ${db:Status-Abbrev}\n", strPattern});
    std::vector<std::string> states;
    std::istringstream in(res.out);
    for (std::string strLine; std::getline(in, strLine);) {
        if (strLine.find(" un") == std::string::npos)  // known to dpkg, never installed
            states.push_back(strLine.substr(0, strLine.find_last_not_of(' ') + 1));
    }
    return states;
}

bool BuildDeb(const Package &package, const std::string &strDebPath)
{
    const std::string strRoot = "/tmp/build-" + package.strName;
    fs::remove_all(strRoot);
    std::string strControl = "Package: " + package.strName + "\nVersion: " + package.strVersion +
                             "\nArchitecture: all\nMaintainer: Nobody <nobody@example.invalid>\n"
                             "Description: sample package\n";
    if (!package.strDepends.empty())
        strControl += "Depends: " + package.strDepends + "\n";
    WriteFile(strRoot + "/DEBIAN/control", strControl);
    WriteFile(strRoot + "/usr/share/" + package.strName + "/hello", package.strName + "\n");
    if (!package.strConffile.empty()) {
        const std::string strConf = "/etc/" + package.strName + ".conf";
        WriteFile(strRoot + strConf, package.strConffile);
        WriteFile(strRoot + "/DEBIAN/conffiles", strConf + "\n");
    }
    if (!package.strPostinst.empty())
        WriteFile(strRoot + "/DEBIAN/postinst", "#!/bin/sh\nset -e\n" + package.strPostinst, 0755);
    fs::create_directories(fs::path(strDebPath).parent_path());
    return Run({"/usr/bin/dpkg-deb", "--root-owner-group", "--build", strRoot, strDebPath})
               .Code() == 0;
}

const char kCutPower[] = "/usr/sbin/xfs_io -x -c shutdown /var/log";

std::string PowerCutUnavailable()
{
    const std::string strSaid = ReadFile("/.vyra-sandbox");
    const std::string strNone = "log-fs: none: ";
    return strSaid.rfind(strNone, 0) == 0 ? strSaid.substr(strNone.size()) : "";
}

void PowerOn()
{
    // A cut that did not happen would let a row pass that proves nothing.
    if (std::ofstream("/var/log/.power").is_open())
        throw std::runtime_error("sandbox: the power was on: nothing cut it");
    for (const char *szVerb : {"/usr/bin/umount", "/usr/bin/mount"}) {
        if (Run({szVerb, "/var/log"}).Code() != 0)
            throw std::runtime_error(std::string("sandbox: ") + szVerb + " /var/log failed");
    }
}

}  // namespace sandbox
