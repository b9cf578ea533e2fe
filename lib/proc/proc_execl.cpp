/*
 * VLIBCExecl(szPath, flag, szArg, ...): runs the program szPath with the
 * arguments up to the first NULL in a child prepared by VLIBCProcForkEx(flag),
 * and waits for it.
 *
 * The program gets argv = {szPath, szArg, ..., NULL}: szPath is used as
 * given, with no PATH search, and is also its argument 0. Arguments after
 * the first NULL are never looked at.
 *
 * The caller's SIGCHLD action is changed for the call: SA_NOCLDWAIT is
 * cleared, so that the child can be waited for, and set again afterwards on
 * the action as it then is, but only if it was set at entry. A caller that
 * ignores SIGCHLD altogether gets 0: the kernel reaps the child, and the
 * wait finds no child. Interrupted waits are repeated; there is no time-out.
 *
 * Results and records:
 *   n (0-255)            the program exited with code n
 *   255                  the program could not be started (the child's
 *                        exit(-1)); indistinguishable from an exit with 255
 *   0                    the child could not be waited for because it is no
 *                        child of ours (ECHILD); with FORK_DETACH, as soon
 *                        as the intermediate child has ended well
 *   -1, ERR_OP_FAILURE   the program was killed by a signal, the fork or
 *                        the wait failed, or a detach failed
 */
#include <errno.h>
#include <signal.h>
#include <stdarg.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include "vlibc_err.h"

static void RestoreNoChildWait(int nFlagsAtEntry);
[[noreturn]] static void ExecChild(const char *szPath, char **argv);

int32_t VLIBCExecl(const char *szPath, int32_t flag, const char *szArg, ...)
{
    struct sigaction saOrg;
    int status = 0;
    int32_t ret = 0;
    pid_t pid = 0;
    pid_t waitRet = 0;

    sigaction(SIGCHLD, nullptr, &saOrg);
    const int nFlagsAtEntry = saOrg.sa_flags;
    saOrg.sa_flags &= ~SA_NOCLDWAIT;
    sigaction(SIGCHLD, &saOrg, nullptr);

    pid = VLIBCProcForkEx(flag);
    if (pid == 0) {
        va_list apArgs;
        size_t argc = 2; /* szPath and the terminating NULL */
        va_start(apArgs, szArg);
        for (const char *szNext = szArg; szNext != nullptr; szNext = va_arg(apArgs, const char *))
            ++argc;
        va_end(apArgs);
        char **argv = static_cast<char **>(calloc(argc, sizeof(char *)));
        if (argv != nullptr) {
            size_t idx = 0;
            argv[idx++] = const_cast<char *>(szPath);
            va_start(apArgs, szArg);
            for (const char *szNext = szArg; szNext != nullptr; szNext = va_arg(apArgs, const char *))
                argv[idx++] = const_cast<char *>(szNext);
            va_end(apArgs);
        }
        ExecChild(szPath, argv);
    }

    if (pid == -1) {
        ret = -1;
    } else {
        /* With FORK_DETACH, pid is VLIBCProcForkEx's 1: the wait finds no
         * such child, and the result is 0 without waiting for the program. */
        while ((waitRet = waitpid(pid, &status, 0)) < 0 && errno == EINTR) {
        }
        if (waitRet < 0)
            ret = errno == ECHILD ? 0 : -1;
        else if ((status & 0x7f) != 0)
            ret = -1;
        else
            ret = (status >> 8) & 0xff;
    }

    RestoreNoChildWait(nFlagsAtEntry);

    /* One record for every failure; it replaces a failed fork's own. */
    if (ret == -1)
        VLIBC_ERR_RECORD(ERR_OP_FAILURE, 90);
    return ret;
}

static void RestoreNoChildWait(int nFlagsAtEntry)
{
    struct sigaction saNow;

    if ((nFlagsAtEntry & SA_NOCLDWAIT) == 0)
        return;
    sigaction(SIGCHLD, nullptr, &saNow);
    saNow.sa_flags |= SA_NOCLDWAIT;
    sigaction(SIGCHLD, &saNow, nullptr);
}

/*
 * In the child. Ends through exit(-1), status 255, when the program cannot
 * be started, and also when the argument vector could not be allocated, so
 * that both read as "could not start" rather than as a crash. Exit handlers
 * run; the streams were flushed before the fork and are not written twice.
 */
static void ExecChild(const char *szPath, char **argv)
{
    if (argv != nullptr)
        execv(szPath, argv);
    free(argv);
    exit(-1);
}
