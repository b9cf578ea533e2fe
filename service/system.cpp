// The service's files, programs and system calls.
#include "system.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>

#include "vyracore.h"

namespace Service {

volatile sig_atomic_t gblStop = 0;

namespace {

bool SyncDirectory(const char *szPath)
{
    const int fd = open(szPath, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    const bool blSynced = fd >= 0 && fsync(fd) == 0;
    if (fd >= 0)
        (void)close(fd);
    return blSynced;
}

// Waits for a child of ours, whatever signals come meanwhile: SIGTERM too,
// as a dpkg stopped halfway would leave its package broken. szOnStop, if
// any, is said once when SIGTERM comes.
int Reap(pid_t pid, const char *szOnStop = nullptr)
{
    int status = -1;
    for (bool blSaid = false; waitpid(pid, &status, 0) < 0;) {
        if (errno != EINTR)
            return -1;
        if (gblStop && !blSaid && szOnStop != nullptr)
            (void)fprintf(stderr, "%s\n", szOnStop);
        blSaid = blSaid || gblStop;
    }
    return status;
}

}  // namespace

std::string ReadWhole(const char *szPath)
{
    std::string str;
    const int fd = open(szPath, O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return str;
    char ach[65536];
    for (ssize_t cb; (cb = read(fd, ach, sizeof(ach))) != 0;) {
        if (cb < 0 && errno != EINTR) {
            str.clear();
            break;
        }
        if (cb > 0)
            str.append(ach, static_cast<size_t>(cb));
    }
    (void)close(fd);
    return str;
}

bool WriteDurably(const char *szPath, const std::string &strText)
{
    const std::string strAside = std::string(szPath) + ".new";
    // The writer appends, takes "%%" for "%", and ends the text with its own
    // newline.
    std::string strLog;
    strLog.reserve(strText.size());
    for (size_t idx = 0; idx + 1 < strText.size(); ++idx) {
        strLog += strText[idx];
        if (strText[idx] == '%')
            strLog += '%';
    }
    if ((unlink(strAside.c_str()) != 0 && errno != ENOENT) ||
        VLIBCErrLogSet(strAside.c_str(), strLog.c_str()) != 0 ||
        rename(strAside.c_str(), szPath) != 0)
        return false;
    (void)SyncDirectory(SZ_STATE_DIR);
    return true;
}

int Capture(const std::vector<const char *> &argv, int fdIn, std::string &strOut)
{
    std::vector<const char *> args = argv;
    args.push_back(nullptr);
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0)
        return -1;
    const pid_t pid = VLIBCProcForkEx(FORK_NULL_STDIO);
    if (pid == 0) {
        if ((fdIn < 0 || dup2(fdIn, STDIN_FILENO) == STDIN_FILENO) &&
            dup2(fds[1], STDOUT_FILENO) == STDOUT_FILENO)
            execv(args[0], const_cast<char *const *>(args.data()));
        _exit(127);
    }
    (void)close(fds[1]);
    strOut.clear();
    char ach[65536];
    for (ssize_t cb; pid > 0 && (cb = read(fds[0], ach, sizeof(ach))) != 0;) {
        if (cb < 0 && errno != EINTR)
            break;
        if (cb > 0)
            strOut.append(ach, static_cast<size_t>(cb));
    }
    (void)close(fds[0]);
    return pid > 0 ? Reap(pid) : -1;
}

std::string Build()
{
    char szBuild[32];
    if (VLIBCFileGetKeyValue("/etc.defaults/VERSION", "buildnumber", szBuild, sizeof(szBuild), 0) <=
        0)
        return "";
    return szBuild;
}

std::pair<int, std::optional<std::string>> RunTool()
{
    // Never a pipe, whose reader may be gone by the time the tool reports.
    const int fdErr = open(SZ_STDERR, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    const pid_t pid = VLIBCProcForkEx(0);
    if (pid == 0) {
        if (fdErr < 0 || dup2(fdErr, STDERR_FILENO) == STDERR_FILENO)
            execl("/usr/sbin/small_update", "/usr/sbin/small_update", nullptr);
        _exit(127);
    }
    if (fdErr >= 0)
        (void)close(fdErr);
    const int status = pid > 0 ? Reap(pid, "<5>asked to stop: the run in progress ends first") : -1;
    if (fdErr < 0)
        return {status, std::nullopt};
    std::string strStderr = ReadWhole(SZ_STDERR);
    (void)fwrite(strStderr.data(), 1, strStderr.size(), stderr);
    return {status, std::move(strStderr)};
}

Audit RunAudit(const std::vector<Candidate> &candidates)
{
    std::vector<const char *> argv = {"/usr/bin/dpkg", "--audit"};
    for (const Candidate &candidate : candidates) {
        if (candidate.strPackage != "-")
            argv.push_back(candidate.strPackage.c_str());
    }
    if (argv.size() == 2)
        return {};
    std::string strOut;
    const int status = Capture(argv, -1, strOut);
    return ParseAudit(status, strOut);
}

// dpkg and apt take these with fcntl locks, which no shell tool can test.
pid_t DpkgLockHolder()
{
    for (const char *szLock : {"/var/lib/dpkg/lock-frontend", "/var/lib/dpkg/lock"}) {
        const int fd = open(szLock, O_RDONLY | O_CLOEXEC);
        if (fd < 0)
            continue;
        struct flock lock = {};
        lock.l_type = F_WRLCK;
        lock.l_whence = SEEK_SET;
        const int nGot = fcntl(fd, F_GETLK, &lock);
        (void)close(fd);
        // A holder that cannot be named (an open file description's lock, or
        // a process of another namespace) holds it all the same: -1.
        if (nGot == 0 && lock.l_type != F_UNLCK)
            return lock.l_pid > 0 ? lock.l_pid : -1;
    }
    return 0;
}

// Every local file system: a fix may write anywhere. Not a network one, whose
// server may be gone, nor one that another program serves; autofs would
// mount what it guards.
bool SyncLocalFileSystems()
{
    static const std::vector<std::string_view> kSkipped = {
        "nfs", "nfs4", "cifs", "smb3", "smbfs", "ceph", "9p", "afs", "glusterfs", "autofs", "fuse"};
    const std::string strMounts = ReadWhole("/proc/self/mounts");
    bool blSynced = !strMounts.empty();
    for (size_t idx = 0; idx < strMounts.size();) {
        const size_t idxEnd = std::min(strMounts.find('\n', idx), strMounts.size());
        const std::string_view strLine(strMounts.data() + idx, idxEnd - idx);
        idx = idxEnd + 1;
        const size_t idxPoint = strLine.find(' ') + 1, idxType = strLine.find(' ', idxPoint) + 1;
        if (idxPoint == 0 || idxType == 0)
            continue;
        const std::string_view strType =
            strLine.substr(idxType, strLine.find(' ', idxType) - idxType);
        if (std::find(kSkipped.begin(), kSkipped.end(), strType) != kSkipped.end() ||
            strType.compare(0, 5, "fuse.") == 0)
            continue;
        const std::optional<std::string> strPoint =
            Unescape(strLine.substr(idxPoint, idxType - 1 - idxPoint), true);
        const int fd = strPoint ? open(strPoint->c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC) : -1;
        // A mount point that is gone holds nothing to sync.
        if (fd < 0) {
            blSynced = blSynced && strPoint && (errno == ENOENT || errno == ENOTDIR);
            continue;
        }
        blSynced = syncfs(fd) == 0 && blSynced;
        (void)close(fd);
    }
    return blSynced;
}

void ResetFailedUnits()
{
    VLIBCExec("/bin/systemctl", "reset-failed", "small-update-boot.service",
              "small-update-check.service", "small-update.service");
}

void Tell(const std::vector<std::string> &paths)
{
    for (const std::string &strPath : paths) {
        VLIBCExec("/usr/vyra/bin/vyralogset1", "sys", "err", "0x11B01031", strPath.c_str());
        VLIBCExec("/usr/vyra/bin/vyradeknotify", "@administrators",
                  "update:small_update_install_failed", strPath.c_str(), nullptr);
    }
}

}  // namespace Service
