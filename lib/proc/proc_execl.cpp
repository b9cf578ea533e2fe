/*
 * SIGCHLD's SA_NOCLDWAIT makes the kernel reap children itself, and the wait
 * for the program would then fail: it is cleared for the call, and set again
 * after it only if it was set at entry, on the action as it then is, so that
 * nothing else of the caller's action is undone. A caller that ignores
 * SIGCHLD altogether has its children reaped all the same; the wait finds no
 * child, and the result is 0 as the appliance's programs have always seen it.
 *
 * The arguments are walked twice, once to count them and once to fill an
 * argument vector of exactly that size: a variable argument list cannot be
 * measured otherwise, and the child allocates nothing it does not use.
 *
 * A program that cannot be started, and an argument vector that cannot be
 * allocated, end the child with exit(-1), status 255: the caller reads "could
 * not start" rather than a crash. It is exit, not _exit, so that the exit
 * handlers of the library's users run; the streams were flushed before the
 * fork and are not written twice.
 *
 * The wait is repeated when a signal interrupts it, without a time-out: dpkg
 * ends when it ends, and a wait cut short would report a running program.
 *
 * Every failure leaves one record, made at the end: it replaces a failed
 * fork's own ERR_FORK_FAIL, so a caller of this function always finds
 * ERR_OP_FAILURE.
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
            for (const char *szNext = szArg; szNext != nullptr;
                 szNext = va_arg(apArgs, const char *))
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

/* In the child, which it ends when the program cannot be started. */
static void ExecChild(const char *szPath, char **argv)
{
    if (argv != nullptr)
        execv(szPath, argv);
    free(argv);
    exit(-1);
}
