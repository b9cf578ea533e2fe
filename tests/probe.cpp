// probe CALL [FLAG]: one call into the libraries, made by a caller that holds
// what a child must not keep by chance (VYRA_CALLER in its environment,
// /etc/passwd as standard input, /etc/hostname on descriptor 3, lock row 1,
// /tmp as its directory, "once" in a stream buffer). It prints the result and
// the error record once every program it started has ended, waited for or not,
// and " nocldwait" if SIGCHLD then has SA_NOCLDWAIT, then its process id.
// CALL is one of:
//   execl FLAG  VLIBCExecl("/usr/bin/prog", FLAG, "/how", NULL)
//   exec        VLIBCExec("/usr/bin/prog", "/how", "b", NULL, "never passed")
//   nocldwait   exec, with SA_NOCLDWAIT set before
//   ignoring    exec, with SIGCHLD ignored
//   missing     VLIBCExec("/no/such/program", NULL, NULL, NULL, NULL)
//   fork        VLIBCProcForkEx(0); the child leaves through exit()
//   detach      VLIBCExecl("/bin/true", FORK_DETACH, NULL) after a fork of its
//               own, so that failing every process's first fork fails only
//               the intermediate child's
//   dpkg        DebianLib::ExecDpkg("-i", "/x/a.deb")
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
    const std::string strCall = argc > 1 ? argv[1] : "";
    const char *szProg = "/usr/bin/prog";
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
    sa.sa_handler = strCall == "ignoring" ? SIG_IGN : SIG_DFL;
    sa.sa_flags = strCall == "nocldwait" ? SA_NOCLDWAIT : 0;
    sigaction(SIGCHLD, &sa, nullptr);
    // The program's standard output is a pipe, whose end tells when it ends.
    const int fdOut = fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 0);
    dup2(fds[1], STDOUT_FILENO);
    close(fds[1]);

    int ret = -99;
    if (strCall == "execl")
        ret = VLIBCExecl(szProg, atoi(argv[2]), "/how", static_cast<const char *>(nullptr));
    else if (strCall == "exec" || strCall == "nocldwait" || strCall == "ignoring")
        ret = VLIBCExec(szProg, "/how", "b", nullptr, "never passed");
    else if (strCall == "missing")
        ret = VLIBCExec("/no/such/program", nullptr, nullptr, nullptr, nullptr);
    else if (strCall == "dpkg")
        ret = DebianLib::ExecDpkg("-i", "/x/a.deb") ? 1 : 0;
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
    printf("%d %#x %s:%d%s\n%d\n", strCall == "fork" && ret > 0 ? 1 : ret, static_cast<unsigned>(vyraerrno), VLIBCErrorGetFile() ? VLIBCErrorGetFile() : "-",
           static_cast<int>(VLIBCErrorGetLine()), sa.sa_flags & SA_NOCLDWAIT ? " nocldwait" : "",
           static_cast<int>(getpid()));
    return fclose(pfOnce);
}
