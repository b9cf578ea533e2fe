// probe "CALL [ARG]": one library call by a caller that holds what a child must
// not keep by chance (VYRA_CALLER, /etc/passwd on 0, /etc/hostname on 3, lock
// row 1, /tmp as directory, "once" buffered for /tmp/once). When every program
// it started has ended, waited for or not, it prints the result, the error
// record, and " nocldwait" if SIGCHLD has SA_NOCLDWAIT. A detach follows a fork
// of its own, so that failing every first fork fails only the intermediate one.
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>

#include "debian_lib.h"
#include "vyracore.h"

int main(int argc, char *argv[])
{
    const std::string strWhat = argc > 1 ? argv[1] : "", strCall = strWhat.substr(0, strWhat.find(' '));
    const std::string strArg = strCall == strWhat ? "" : strWhat.substr(strCall.size() + 1);
    struct sigaction sa = {};
    int fds[2];
    FILE *pfOnce = nullptr;
    if (dup2(open("/etc/passwd", O_RDONLY | O_CLOEXEC), 0) != 0 || dup2(open("/etc/hostname", O_RDONLY | O_CLOEXEC), 3) != 3 ||
        chdir("/tmp") != 0 || pipe2(fds, O_CLOEXEC) != 0 || (pfOnce = fopen("/tmp/once", "we")) == nullptr ||
        fputs("once", pfOnce) < 0 || setenv("VYRA_CALLER", "kept", 1) != 0)
        return 2;
    rgslckList[1].pfFile = fopen("/tmp/lock_pw", "w");
    sa.sa_flags = strArg == "nocldwait" ? SA_NOCLDWAIT : 0;
    if (sa.sa_flags != 0)  // otherwise SIGCHLD stays as the probe found it
        sigaction(SIGCHLD, &sa, nullptr);
    // The program's standard output is a pipe, whose end tells when it ends.
    const int fdOut = fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 0);
    dup2(fds[1], STDOUT_FILENO);
    close(fds[1]);

    int ret = -99;
    if (strCall == "execl")
        ret = VLIBCExecl("/usr/bin/prog", atoi(strArg.c_str()), "/how", static_cast<const char *>(nullptr));
    else if (strCall == "exec")
        ret = VLIBCExec("/usr/bin/prog", "/how", "b", nullptr, "never passed");
    else if (strCall == "missing")
        ret = VLIBCExec("/no/such/program", nullptr, nullptr, nullptr, nullptr);
    else if (strCall == "dpkg")
        ret = (strArg.empty() ? DebianLib::ExecDpkg("-i", "/x/a.deb") : DebianLib::ExecDpkg("-i", "/x/a.deb", strArg)) ? 1 : 0;
    if (strCall == "fork" && (ret = VLIBCProcForkEx(0)) == 0)
        exit(0);
    if (strCall == "detach") {
        if (fork() == 0)
            _exit(0);
        ret = VLIBCExecl("/bin/true", FORK_DETACH, static_cast<const char *>(nullptr));
    }

    dup2(fdOut, STDOUT_FILENO);
    for (char buf[64]; read(fds[0], buf, sizeof(buf)) > 0;) {
    }
    while (wait(nullptr) > 0) {
    }
    sigaction(SIGCHLD, nullptr, &sa);
    printf("%d %#x %s:%d%s\n", strCall == "fork" && ret > 0 ? 1 : ret, static_cast<unsigned>(vyraerrno),
           VLIBCErrorGetFile() ? VLIBCErrorGetFile() : "-", static_cast<int>(VLIBCErrorGetLine()),
           sa.sa_flags & SA_NOCLDWAIT ? " nocldwait" : "");
    return fclose(pfOnce);
}
