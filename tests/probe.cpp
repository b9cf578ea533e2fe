// probe "CALL [ARG]": one library call by a caller that holds what a child must
// not keep by chance: VYRA_CALLER in its environment, /etc/passwd on 0,
// /etc/hostname on 3, lock row 1, /tmp as directory, "once" buffered for
// /tmp/once. When every program it started has ended, waited for or not, it
// prints the result, the error record's code, file and line, and 1 if
// SIGCHLD has SA_NOCLDWAIT, else 0. A detach follows a fork of its own, so
// that failing the first fork fails only the intermediate one.
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>

#include "debian_lib.h"
#include "vyracore.h"

namespace {

// What VLIBCExec and VLIBCExecl run: prog finds its orders in /how.
const char kProg[] = "/usr/bin/prog";

int Call(const std::string &strCall, const std::string &strArg)
{
    if (strCall == "execl")
        return VLIBCExecl(kProg, atoi(strArg.c_str()), "/how", "b",
                          static_cast<const char *>(nullptr));
    if (strCall == "exec")
        return VLIBCExec(kProg, "/how", "b", nullptr, "never passed");
    if (strCall == "missing")
        return VLIBCExec("/no/such/program", nullptr, nullptr, nullptr, nullptr);
    if (strCall == "dpkg" && strArg.empty())
        return DebianLib::ExecDpkg("-i", "/x/a.deb") ? 1 : 0;
    if (strCall == "dpkg")
        return DebianLib::ExecDpkg("-i", "/x/a.deb", strArg) ? 1 : 0;
    if (strCall == "fork") {
        const pid_t pid = VLIBCProcForkEx(0);
        if (pid == 0)
            exit(0);
        return pid > 0 ? 1 : pid;
    }
    if (fork() == 0)  // detach
        _exit(0);
    return VLIBCExecl("/bin/true", FORK_DETACH, static_cast<const char *>(nullptr));
}

}  // namespace

int main(int argc, char *argv[])
{
    const std::string strWhat = argc > 1 ? argv[1] : "";
    const std::string strCall = strWhat.substr(0, strWhat.find(' '));
    const std::string strArg = strCall == strWhat ? "" : strWhat.substr(strCall.size() + 1);
    int fds[2];
    FILE *pfOnce = nullptr;
    if (dup2(open("/etc/passwd", O_RDONLY | O_CLOEXEC), 0) != 0 ||
        dup2(open("/etc/hostname", O_RDONLY | O_CLOEXEC), 3) != 3 || chdir("/tmp") != 0 ||
        pipe2(fds, O_CLOEXEC) != 0 || (pfOnce = fopen("/tmp/once", "we")) == nullptr ||
        fputs("once", pfOnce) < 0)
        return 2;
    setenv("VYRA_CALLER", "kept", 1);
    rgslckList[1].pfFile = fopen("/tmp/lock_pw", "w");
    struct sigaction sa = {};
    sa.sa_flags = SA_NOCLDWAIT;
    if (strArg == "nocldwait")
        sigaction(SIGCHLD, &sa, nullptr);
    // The program's standard output is a pipe, whose end tells when it ends.
    const int fdOut = fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 0);
    dup2(fds[1], STDOUT_FILENO);
    close(fds[1]);

    const int ret = Call(strCall, strArg);

    dup2(fdOut, STDOUT_FILENO);
    for (char buf[64]; read(fds[0], buf, sizeof(buf)) > 0;) {
    }
    while (wait(nullptr) > 0) {
    }
    sigaction(SIGCHLD, nullptr, &sa);
    const char *szFile = VLIBCErrorGetFile();
    printf("%d %d %s %d %d\n", ret, static_cast<int>(vyraerrno), szFile ? szFile : "-",
           static_cast<int>(VLIBCErrorGetLine()), (sa.sa_flags & SA_NOCLDWAIT) != 0);
    return fclose(pfOnce);
}
