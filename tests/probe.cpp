// probe CALL [ARG]: one library call by a caller that holds what a child must
// not keep by chance (VYRA_CALLER, /etc/passwd on 0, /etc/hostname on 3, lock
// row 1, /tmp as directory, "once" buffered for /tmp/once). When every
// program it started has ended, waited for or not, it prints the result, the
// error record, " nocldwait" if SIGCHLD has SA_NOCLDWAIT, then its process id.
// CALL: execl FLAG, exec [nocldwait], missing, fork, detach (after a fork of
// its own, so that failing every first fork fails only the intermediate
// child's), dpkg [FOLDER]; see below for the calls they make.
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
    const std::string strCall = argc > 1 ? argv[1] : "", strArg = argc > 2 ? argv[2] : "";
    struct sigaction sa = {};
    int fds[2];
    if (dup2(open("/etc/passwd", O_RDONLY | O_CLOEXEC), 0) != 0 || dup2(open("/etc/hostname", O_RDONLY | O_CLOEXEC), 3) != 3 ||
        chdir("/tmp") != 0 || pipe2(fds, O_CLOEXEC) != 0)
        return 2;
    FILE *pfOnce = fopen("/tmp/once", "we");
    if (pfOnce == nullptr || fputs("once", pfOnce) < 0)
        return 2;
    setenv("VYRA_CALLER", "kept", 1);
    rgslckList[1].pfFile = fopen("/tmp/lock_pw", "w");
    if (strArg == "nocldwait") {
        sa.sa_flags = SA_NOCLDWAIT;
        sigaction(SIGCHLD, &sa, nullptr);
    }
    // The program's standard output is a pipe, whose end tells when it ends.
    const int fdOut = fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 0);
    dup2(fds[1], STDOUT_FILENO);
    close(fds[1]);

    int ret = -99;
    if (strCall == "execl")
        ret = VLIBCExecl("/usr/bin/prog", atoi(argv[2]), "/how", static_cast<const char *>(nullptr));
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
    printf("%d %#x %s:%d%s\n%d\n", strCall == "fork" && ret > 0 ? 1 : ret, static_cast<unsigned>(vyraerrno),
           VLIBCErrorGetFile() ? VLIBCErrorGetFile() : "-", static_cast<int>(VLIBCErrorGetLine()),
           sa.sa_flags & SA_NOCLDWAIT ? " nocldwait" : "", static_cast<int>(getpid()));
    return fclose(pfOnce);
}
