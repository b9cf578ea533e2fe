#include "sandbox.h"

#include <errno.h>
#include <fcntl.h>
#include <ftw.h>
#include <poll.h>
#include <sched.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <sstream>
#include <stdexcept>

#include <dirent.h>

namespace sandbox {

extern const char kStandinScript[];

namespace {

// Where the stand-ins record, inside.
const char kRecords[] = "/.standin-records";

[[noreturn]] void Throw(const std::string &strWhat)
{
    throw std::runtime_error("sandbox: " + strWhat);
}

std::string WithErrno(const std::string &strWhat)
{
    return strWhat + ": " + strerror(errno);
}

void WriteAll(int fd, const std::string &strData)
{
    size_t cbDone = 0;
    while (cbDone < strData.size()) {
        const ssize_t cb = write(fd, strData.data() + cbDone, strData.size() - cbDone);
        if (cb < 0 && errno == EINTR)
            continue;
        if (cb <= 0)
            return;
        cbDone += static_cast<size_t>(cb);
    }
}

// Reads what is there without blocking; false once the writer side is closed.
bool ReadAvailable(int fd, std::string *pstr)
{
    char buf[65536];
    for (;;) {
        const ssize_t cb = read(fd, buf, sizeof(buf));
        if (cb > 0) {
            pstr->append(buf, static_cast<size_t>(cb));
            continue;
        }
        if (cb < 0 && errno == EINTR)
            continue;
        return cb < 0 && errno == EAGAIN;
    }
}

void MakeDirs(const std::string &strPath, mode_t mode)
{
    for (size_t pos = 1; pos <= strPath.size(); ++pos) {
        if (pos != strPath.size() && strPath[pos] != '/')
            continue;
        const std::string strPart = strPath.substr(0, pos);
        if (mkdir(strPart.c_str(), mode) != 0 && errno != EEXIST)
            Throw(WithErrno("mkdir " + strPart));
    }
}

std::vector<std::string> SplitNul(const std::string &strText)
{
    std::vector<std::string> parts;
    size_t pos = 0;
    for (size_t posNul; (posNul = strText.find('\0', pos)) != std::string::npos; pos = posNul + 1)
        parts.push_back(strText.substr(pos, posNul - pos));
    if (pos < strText.size())
        parts.push_back(strText.substr(pos));
    return parts;
}

std::string Parent(const std::string &strPath)
{
    const size_t pos = strPath.find_last_of('/');
    return pos == 0 || pos == std::string::npos ? "/" : strPath.substr(0, pos);
}

bool IsWhiteout(const struct stat &st)
{
    return S_ISCHR(st.st_mode) && st.st_rdev == makedev(0, 0);
}

// Copies regular files, directories and symbolic links; anything else (the
// tests leave nothing else in a tmpfs) is skipped.
void CopyTree(const std::string &strFrom, const std::string &strTo)
{
    struct stat st;
    if (lstat(strFrom.c_str(), &st) != 0)
        return;
    if (S_ISDIR(st.st_mode)) {
        mkdir(strTo.c_str(), st.st_mode & 07777);
        DIR *pDir = opendir(strFrom.c_str());
        if (pDir == nullptr)
            return;
        while (const struct dirent *pEntry = readdir(pDir)) {
            const std::string strName = pEntry->d_name;
            if (strName != "." && strName != "..")
                CopyTree(strFrom + "/" + strName, strTo + "/" + strName);
        }
        closedir(pDir);
    } else if (S_ISREG(st.st_mode)) {
        const int fdFrom = open(strFrom.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
        const int fdTo = open(strTo.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, st.st_mode & 07777);
        std::string strContent;
        if (fdFrom >= 0 && fdTo >= 0 && (ReadAvailable(fdFrom, &strContent), true))
            WriteAll(fdTo, strContent);
        if (fdFrom >= 0)
            close(fdFrom);
        if (fdTo >= 0)
            close(fdTo);
    } else if (S_ISLNK(st.st_mode)) {
        char szTarget[4096];
        const ssize_t cb = readlink(strFrom.c_str(), szTarget, sizeof(szTarget) - 1);
        if (cb >= 0) {
            szTarget[cb] = '\0';
            symlink(szTarget, strTo.c_str());
        }
    }
}

// So that a program gets descriptors 0-2 and nothing the caller happened to
// have open.
void CloseOnExecFrom3()
{
    DIR *pDir = opendir("/proc/self/fd");
    if (pDir == nullptr)
        return;
    while (const struct dirent *pEntry = readdir(pDir)) {
        const int fd = atoi(pEntry->d_name);
        if (fd > STDERR_FILENO && fd != dirfd(pDir))
            fcntl(fd, F_SETFD, FD_CLOEXEC);
    }
    closedir(pDir);
}

int RemoveEntry(const char *szPath, const struct stat *, int, struct FTW *)
{
    remove(szPath);
    return 0;
}

// glibc sends "<PRI>Mmm dd hh:mm:ss TAG: TEXT" with a 15-byte time stamp.
LogMessage ParseLog(const std::string &strRaw)
{
    LogMessage msg;
    msg.raw = strRaw;
    const size_t posClose = strRaw.find('>');
    if (strRaw.empty() || strRaw[0] != '<' || posClose == std::string::npos)
        return msg;
    msg.priority = atoi(strRaw.c_str() + 1);
    const size_t posTag = posClose + 1 + 16;
    const size_t posColon = strRaw.find(": ", posTag);
    if (posTag > strRaw.size() || posColon == std::string::npos)
        return msg;
    msg.tag = strRaw.substr(posTag, posColon - posTag);
    msg.text = strRaw.substr(posColon + 2);
    return msg;
}

struct Pipe {
    int fdRead = -1;
    int fdWrite = -1;

    Pipe()
    {
        int fds[2];
        if (pipe2(fds, O_CLOEXEC) != 0)
            Throw(WithErrno("pipe"));
        fdRead = fds[0];
        fdWrite = fds[1];
    }
    ~Pipe()
    {
        CloseRead();
        CloseWrite();
    }
    void CloseRead()
    {
        if (fdRead >= 0)
            close(fdRead);
        fdRead = -1;
    }
    void CloseWrite()
    {
        if (fdWrite >= 0)
            close(fdWrite);
        fdWrite = -1;
    }
};

}  // namespace

bool Result::Exited() const
{
    return status >= 0 && WIFEXITED(status);
}

int Result::ExitCode() const
{
    return Exited() ? WEXITSTATUS(status) : -1;
}

bool Result::Signaled() const
{
    return status >= 0 && WIFSIGNALED(status);
}

int Result::Signal() const
{
    return Signaled() ? WTERMSIG(status) : 0;
}

bool Sandbox::Available(std::string *pstrWhy)
{
    static int nAvailable = -1;
    static std::string strWhy;

    if (nAvailable < 0) {
        nAvailable = 0;
        if (geteuid() != 0) {
            strWhy = "needs root for a mount namespace and an overlay mount";
        } else {
            try {
                Sandbox sb;
                const Result res = sb.Call([] { return access("/dev/log", F_OK) == 0 ? 0 : 1; });
                nAvailable = res.ExitCode() == 0 ? 1 : 0;
                if (nAvailable == 0)
                    strWhy = "a probe run inside the sandbox failed";
            } catch (const std::exception &e) {
                strWhy = e.what();
            }
        }
    }
    if (pstrWhy != nullptr)
        *pstrWhy = strWhy;
    return nAvailable == 1;
}

TempDir::TempDir(const std::string &strPrefix)
{
    const char *szTmp = getenv("TMPDIR");
    std::string strTemplate =
        std::string(szTmp != nullptr && *szTmp ? szTmp : "/tmp") + "/" + strPrefix + ".XXXXXX";
    if (mkdtemp(&strTemplate[0]) == nullptr)
        Throw(WithErrno("mkdtemp " + strTemplate));
    m_strPath = strTemplate;
}

TempDir::~TempDir()
{
    nftw(m_strPath.c_str(), RemoveEntry, 16, FTW_DEPTH | FTW_PHYS | FTW_MOUNT);
}

Sandbox::Sandbox()
{
    if (m_top.Path().find_first_of(",:") != std::string::npos)
        Throw("the temporary directory's path holds ',' or ':', which an overlay mount refuses");
    for (const char *szDir : {"/upper", "/work", "/root"})
        MakeDirs(m_top.Path() + szDir, 0755);
}

std::string Sandbox::HostPath(const std::string &strPath) const
{
    if (strPath.empty() || strPath[0] != '/')
        Throw("not an absolute path: " + strPath);
    for (auto it = m_mounts.rbegin(); it != m_mounts.rend(); ++it) {
        if (it->kind == Mount::Kind::Tmpfs &&
            (strPath == it->strPath || strPath.rfind(it->strPath + "/", 0) == 0))
            return m_top.Path() + "/mounts" + strPath;
    }
    return m_top.Path() + "/upper" + strPath;
}

void Sandbox::SetWorkingDirectory(const std::string &strPath)
{
    m_strWorkingDirectory = strPath;
}

void Sandbox::PassOutputThrough()
{
    m_blPassThrough = true;
}

void Sandbox::DropLog()
{
    m_blDropLog = true;
}

void Sandbox::WriteFile(const std::string &strPath, const std::string &strContent, mode_t mode)
{
    const std::string strHost = HostPath(strPath);
    MakeDirs(Parent(strHost), 0755);
    unlink(strHost.c_str());
    const int fd = open(strHost.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, mode);
    if (fd < 0)
        Throw(WithErrno("creating " + strHost));
    WriteAll(fd, strContent);
    fchmod(fd, mode);
    close(fd);
}

void Sandbox::CopyIn(const std::string &strHostPath, const std::string &strPath, mode_t mode)
{
    const int fd = open(strHostPath.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        Throw(WithErrno("opening " + strHostPath));
    std::string strContent;
    fcntl(fd, F_SETFL, O_NONBLOCK);
    ReadAvailable(fd, &strContent);
    close(fd);
    WriteFile(strPath, strContent, mode);
}

void Sandbox::MakeDir(const std::string &strPath, mode_t mode)
{
    MakeDirs(HostPath(strPath), mode);
    chmod(HostPath(strPath).c_str(), mode);
}

void Sandbox::Symlink(const std::string &strTarget, const std::string &strPath)
{
    const std::string strHost = HostPath(strPath);
    MakeDirs(Parent(strHost), 0755);
    unlink(strHost.c_str());
    if (symlink(strTarget.c_str(), strHost.c_str()) != 0)
        Throw(WithErrno("symlink " + strHost));
}

void Sandbox::EmptyDir(const std::string &strPath, mode_t mode)
{
    MakeDir(strPath, mode);
    // An opaque directory in the upper layer hides whatever the lower has.
    if (setxattr(HostPath(strPath).c_str(), "trusted.overlay.opaque", "y", 1, 0) != 0)
        Throw(WithErrno("marking " + strPath + " opaque"));
}

void Sandbox::Remove(const std::string &strPath)
{
    const std::string strHost = HostPath(strPath);
    MakeDirs(Parent(strHost), 0755);
    nftw(strHost.c_str(), RemoveEntry, 16, FTW_DEPTH | FTW_PHYS | FTW_MOUNT);
    // A 0/0 character device in the upper layer is the overlay's whiteout.
    if (mknod(strHost.c_str(), S_IFCHR, makedev(0, 0)) != 0)
        Throw(WithErrno("whiteout " + strHost));
}

void Sandbox::MountReadOnly(const std::string &strPath)
{
    m_mounts.push_back({Mount::Kind::ReadOnly, strPath, ""});
}

void Sandbox::MountTmpfs(const std::string &strPath, const std::string &strOptions)
{
    m_mounts.push_back({Mount::Kind::Tmpfs, strPath, strOptions});
}

void Sandbox::BindHostDir(const std::string &strHostPath, const std::string &strPath)
{
    m_mounts.push_back({Mount::Kind::Bind, strPath.empty() ? strHostPath : strPath, strHostPath});
}

void Sandbox::InstallStandin(const std::string &strPath)
{
    if (!Exists(kRecords))
        EmptyDir(kRecords);
    std::string strScript = kStandinScript;
    const std::string strMark = "@RECORDS@";
    for (size_t pos; (pos = strScript.find(strMark)) != std::string::npos;)
        strScript.replace(pos, strMark.size(), kRecords);
    WriteFile(strPath, strScript, 0755);
}

bool Sandbox::BuildDeb(const std::string &strPackage, const std::string &strDebPath)
{
    const std::string strRoot = "/tmp/build-" + strPackage;
    WriteFile(strRoot + "/DEBIAN/control",
              "Package: " + strPackage +
                  "\nVersion: 1.0\nArchitecture: all\n"
                  "Maintainer: Nobody <nobody@example.invalid>\nDescription: sample package\n");
    WriteFile(strRoot + "/usr/share/" + strPackage + "/hello", strPackage + "\n");
    MakeDir(Parent(strDebPath));
    return Run({"/usr/bin/dpkg-deb", "--root-owner-group", "--build", strRoot, strDebPath})
               .ExitCode() == 0;
}

std::vector<StandinCall> Sandbox::StandinCalls() const
{
    std::vector<StandinCall> calls;
    for (int n = 1;; ++n) {
        const std::string strDir = std::string(kRecords) + "/" + std::to_string(n) + "/";
        const auto ids = ReadFile(strDir + "ids");
        if (!ids)
            break;
        StandinCall call;
        call.argv = SplitNul(ReadFile(strDir + "cmdline").value_or(""));
        if (!call.argv.empty())
            call.argv.erase(call.argv.begin());  // the interpreter
        call.env = SplitNul(ReadFile(strDir + "environ").value_or(""));
        call.cwd = ReadFile(strDir + "cwd").value_or("");
        if (!call.cwd.empty() && call.cwd.back() == '\n')
            call.cwd.pop_back();
        std::istringstream fds(ReadFile(strDir + "fds").value_or(""));
        int fd;
        std::string strTarget;
        while (fds >> fd >> strTarget)
            call.fds[fd] = strTarget;
        std::istringstream(*ids) >> call.pid >> call.ppid >> call.sid;
        std::istringstream pending(ReadFile(strDir + "pending").value_or(""));
        for (int nCall; pending >> nCall;)
            call.pending.push_back(nCall);
        calls.push_back(call);
    }
    return calls;
}

std::optional<std::string> Sandbox::ReadFile(const std::string &strPath) const
{
    const int fd = open(HostPath(strPath).c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (fd < 0)
        return std::nullopt;
    struct stat st;
    std::optional<std::string> content;
    if (fstat(fd, &st) == 0 && S_ISREG(st.st_mode)) {
        content.emplace();
        ReadAvailable(fd, &*content);
    }
    close(fd);
    return content;
}

bool Sandbox::Exists(const std::string &strPath) const
{
    struct stat st;
    return lstat(HostPath(strPath).c_str(), &st) == 0 && !IsWhiteout(st);
}

std::vector<std::string> Sandbox::DefaultEnv()
{
    std::vector<std::string> env = {"PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin"};
    for (const char *szName : {"ASAN_OPTIONS", "UBSAN_OPTIONS", "LSAN_OPTIONS"}) {
        if (const char *szValue = getenv(szName))
            env.push_back(std::string(szName) + "=" + szValue);
    }
    return env;
}

Result Sandbox::Run(const std::vector<std::string> &argv, const std::vector<std::string> &env)
{
    if (argv.empty())
        Throw("nothing to run");
    return Launch([&argv, &env] {
        std::vector<char *> vArgs;
        std::vector<char *> vEnv;
        for (const std::string &str : argv)
            vArgs.push_back(const_cast<char *>(str.c_str()));
        for (const std::string &str : env)
            vEnv.push_back(const_cast<char *>(str.c_str()));
        vArgs.push_back(nullptr);
        vEnv.push_back(nullptr);
        execve(vArgs[0], vArgs.data(), vEnv.data());
        fprintf(stderr, "sandbox: cannot run %s: %s\n", vArgs[0], strerror(errno));
        _exit(127);
    });
}

Result Sandbox::Call(const std::function<int()> &fn)
{
    const std::vector<std::string> env = DefaultEnv();
    return Launch([&fn, &env] {
        clearenv();
        for (const std::string &str : env)
            putenv(const_cast<char *>(str.c_str()));
        const int nResult = fn();
        fflush(nullptr);
        _exit(nResult & 0xff);
    });
}

// Runs in the sandbox's first process, which stays outside the chroot and
// waits for the worker. Any failure is reported on fdCtl and ends it.
void Sandbox::SetUpInside(int fdCtl, int fdOut, int fdErr) const
{
    const auto fail = [fdCtl](const std::string &strWhat) {
        WriteAll(fdCtl, "setup " + WithErrno(strWhat));
        _exit(127);
    };
    const std::string strRoot = m_top.Path() + "/root";
    const std::string strDev = strRoot + "/dev";

    if (unshare(CLONE_NEWNS) != 0)
        fail("unshare(CLONE_NEWNS)");
    if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
        fail("making the mounts private");
    const std::string strLayers = "lowerdir=/,upperdir=" + m_top.Path() + "/upper,workdir=" + m_top.Path() +
                                  "/work";
    if (mount("overlay", strRoot.c_str(), "overlay", 0, strLayers.c_str()) != 0)
        fail("overlay mount over /");
    mkdir((strRoot + "/proc").c_str(), 0555);
    if (mount("proc", (strRoot + "/proc").c_str(), "proc", MS_NOSUID | MS_NODEV | MS_NOEXEC,
              nullptr) != 0)
        fail("mounting /proc");
    mkdir(strDev.c_str(), 0755);
    if (mount("tmpfs", strDev.c_str(), "tmpfs", MS_NOSUID, "mode=0755,size=64k") != 0)
        fail("mounting /dev");
    const struct {
        const char *szName;
        unsigned nMinor;
    } nodes[] = {{"null", 3}, {"zero", 5}, {"full", 7}, {"random", 8}, {"urandom", 9}};
    for (const auto &node : nodes) {
        if (mknod((strDev + "/" + node.szName).c_str(), S_IFCHR | 0666, makedev(1, node.nMinor)) != 0)
            fail(std::string("mknod /dev/") + node.szName);
    }
    chmod((strDev + "/null").c_str(), 0666);
    symlink("/proc/self/fd", (strDev + "/fd").c_str());
    symlink("/proc/self/fd/0", (strDev + "/stdin").c_str());
    symlink("/proc/self/fd/1", (strDev + "/stdout").c_str());
    symlink("/proc/self/fd/2", (strDev + "/stderr").c_str());
    mkdir((strDev + "/shm").c_str(), 01777);
    const int fdLog = open((strDev + "/log").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0666);
    if (fdLog < 0)
        fail("creating /dev/log");
    close(fdLog);
    if (mount((m_top.Path() + "/log.sock").c_str(), (strDev + "/log").c_str(), nullptr, MS_BIND,
              nullptr) != 0)
        fail("binding the log socket over /dev/log");

    for (const Mount &mnt : m_mounts) {
        const std::string strTarget = strRoot + mnt.strPath;
        int nRet = 0;
        switch (mnt.kind) {
        case Mount::Kind::Bind:
            try {
                MakeDirs(strTarget, 0755);
            } catch (const std::exception &) {
                fail("making " + strTarget);
            }
            nRet = mount(mnt.strOptions.c_str(), strTarget.c_str(), nullptr, MS_BIND | MS_REC, nullptr);
            break;
        case Mount::Kind::ReadOnly:
            mkdir(strTarget.c_str(), 0755);
            nRet = mount(strTarget.c_str(), strTarget.c_str(), nullptr, MS_BIND | MS_REC, nullptr);
            if (nRet == 0)
                nRet = mount(nullptr, strTarget.c_str(), nullptr, MS_BIND | MS_REMOUNT | MS_RDONLY,
                             nullptr);
            break;
        case Mount::Kind::Tmpfs:
            mkdir(strTarget.c_str(), 0755);
            nRet = mount("tmpfs", strTarget.c_str(), "tmpfs", 0, mnt.strOptions.c_str());
            break;
        }
        if (nRet != 0)
            fail("mounting " + mnt.strPath);
    }

    const pid_t pidWorker = fork();
    if (pidWorker < 0)
        fail("fork");
    if (pidWorker == 0)
        return;
    close(fdOut);
    close(fdErr);
    int status = 0;
    while (waitpid(pidWorker, &status, 0) < 0) {
        if (errno != EINTR)
            fail("waiting for the worker");
    }
    CopyOutTmpfs();
    WriteAll(fdCtl, "status " + std::to_string(status));
    _exit(0);
}

void Sandbox::CopyOutTmpfs() const
{
    for (const Mount &mnt : m_mounts) {
        if (mnt.kind != Mount::Kind::Tmpfs)
            continue;
        const std::string strTo = m_top.Path() + "/mounts" + mnt.strPath;
        try {
            MakeDirs(Parent(strTo), 0755);
        } catch (const std::exception &) {
            continue;
        }
        CopyTree(m_top.Path() + "/root" + mnt.strPath, strTo);
    }
}

Result Sandbox::Launch(const std::function<void()> &body)
{
    Result res;
    Pipe out;
    Pipe err;
    Pipe ctl;
    const std::string strSocket = m_top.Path() + "/log.sock";

    unlink(strSocket.c_str());
    const int fdLog = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fdLog < 0)
        Throw(WithErrno("socket"));
    struct sockaddr_un addr;
    memset(&addr, 0, sizeof(addr));
    addr.sun_family = AF_UNIX;
    if (strSocket.size() >= sizeof(addr.sun_path)) {
        close(fdLog);
        Throw("socket path too long: " + strSocket);
    }
    memcpy(addr.sun_path, strSocket.c_str(), strSocket.size());
    if (bind(fdLog, reinterpret_cast<struct sockaddr *>(&addr), sizeof(addr)) != 0) {
        close(fdLog);
        Throw(WithErrno("bind " + strSocket));
    }
    const int nBuffer = 4 << 20;
    setsockopt(fdLog, SOL_SOCKET, SO_RCVBUF, &nBuffer, sizeof(nBuffer));

    fflush(nullptr);
    const pid_t pidInit = fork();
    if (pidInit < 0) {
        close(fdLog);
        Throw(WithErrno("fork"));
    }
    if (pidInit == 0) {
        close(fdLog);
        out.CloseRead();
        err.CloseRead();
        ctl.CloseRead();
        SetUpInside(ctl.fdWrite, out.fdWrite, err.fdWrite);
        // The worker: enter the root and hand over to the body.
        if (chroot((m_top.Path() + "/root").c_str()) != 0 ||
            chdir(m_strWorkingDirectory.c_str()) != 0) {
            WriteAll(ctl.fdWrite, WithErrno("setup entering " + m_strWorkingDirectory));
            _exit(127);
        }
        const int fdNull = open("/dev/null", O_RDONLY);
        if (fdNull < 0 || dup2(fdNull, STDIN_FILENO) < 0 ||
            (!m_blPassThrough && (dup2(out.fdWrite, STDOUT_FILENO) < 0 ||
                                  dup2(err.fdWrite, STDERR_FILENO) < 0))) {
            WriteAll(ctl.fdWrite, WithErrno("setup standard descriptors"));
            _exit(127);
        }
        if (fdNull > STDERR_FILENO)
            close(fdNull);
        out.CloseWrite();
        err.CloseWrite();
        ctl.CloseWrite();
        CloseOnExecFrom3();
        body();
        _exit(127);
    }

    out.CloseWrite();
    err.CloseWrite();
    ctl.CloseWrite();
    fcntl(out.fdRead, F_SETFL, O_NONBLOCK);
    fcntl(err.fdRead, F_SETFL, O_NONBLOCK);
    fcntl(ctl.fdRead, F_SETFL, O_NONBLOCK);

    // The control pipe closes when the first process has reported the
    // worker's status and ended; output and log are drained meanwhile, so
    // that a chatty program never blocks on a full pipe or socket.
    std::string strCtl;
    std::string strDatagram(65536, '\0');
    const auto drainLog = [&] {
        for (;;) {
            const ssize_t cb = recv(fdLog, &strDatagram[0], strDatagram.size(), 0);
            if (cb < 0 && errno == EINTR)
                continue;
            if (cb < 0)
                break;
            if (!m_blDropLog)
                res.log.push_back(ParseLog(strDatagram.substr(0, static_cast<size_t>(cb))));
        }
    };
    struct pollfd fds[4] = {{ctl.fdRead, POLLIN, 0},
                            {out.fdRead, POLLIN, 0},
                            {err.fdRead, POLLIN, 0},
                            {fdLog, POLLIN, 0}};
    std::string *targets[3] = {&strCtl, &res.out, &res.err};
    while (fds[0].fd >= 0) {
        if (poll(fds, 4, -1) < 0 && errno != EINTR)
            break;
        for (int i = 0; i < 3; ++i) {
            if (fds[i].fd >= 0 && fds[i].revents != 0 && !ReadAvailable(fds[i].fd, targets[i]))
                fds[i].fd = -1;
        }
        drainLog();
    }
    // Whatever is left, without waiting for stray descendants still holding
    // the pipes open.
    ReadAvailable(out.fdRead, &res.out);
    ReadAvailable(err.fdRead, &res.err);
    drainLog();
    close(fdLog);
    unlink(strSocket.c_str());

    int statusInit = 0;
    while (waitpid(pidInit, &statusInit, 0) < 0 && errno == EINTR) {
    }
    if (strCtl.compare(0, 7, "status ") != 0)
        Throw(strCtl.empty() ? "the sandbox ended without a word" : strCtl);
    res.status = atoi(strCtl.c_str() + 7);
    return res;
}

}  // namespace sandbox
