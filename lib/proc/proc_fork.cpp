/*
 * VLIBCProcForkEx(flag): forks, with every output stream flushed first so
 * that nothing buffered is written twice, and prepares the child as the
 * flag bits ask, in this order (other bits are ignored):
 *
 *   FORK_PATH_ONLY_ENV  the environment is emptied except for PATH (a child
 *                       without PATH ends with an empty environment)
 *   FORK_CLOSE_LOCKS    the lock streams of rgslckList are closed
 *   FORK_NULL_STDIO     descriptors 0, 1 and 2 become /dev/null (skipped if
 *                       /dev/null cannot be opened)
 *   FORK_CLOSE_ALL_FDS  the lock streams are closed as for FORK_CLOSE_LOCKS,
 *                       and descriptors from 3 up to the open-file limit
 *                       minus one; 0-2 survive, as they were redirected first
 *   FORK_DETACH         the child forks again and ends at once; the
 *                       grandchild goes on as the child
 *   FORK_NEW_SESSION    the child starts a session of its own; after the
 *                       detach, so that the grandchild leads it
 *   FORK_CHDIR_ROOT     the working directory becomes "/"
 *
 * Results and records:
 *   0                   in the child
 *   the child's id      in the caller, without FORK_DETACH
 *   1                   in the caller with FORK_DETACH, once the intermediate
 *                       child has ended with exit code 0 (or by a signal,
 *                       whose exit-code byte is 0) or was reaped elsewhere
 *   -1, ERR_FORK_FAIL   the fork failed
 *   -1                  with FORK_DETACH, the intermediate child ended with a
 *                       non-zero exit code or could not be waited for
 * A failing second fork under FORK_DETACH is reported in the system log
 * only, and the intermediate child ends with 255.
 */
#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include "vlibc_err.h"

static void KeepOnlyPath(void);

pid_t VLIBCProcForkEx(int32_t flag)
{
    pid_t pid = 0;
    int status = 0;
    pid_t waitRet = 0;

    /* Nothing buffered may be written twice, by the child as well. */
    (void)fflush(nullptr);
    pid = fork();
    if (pid < 0) {
        VLIBC_ERR_RECORD(ERR_FORK_FAIL, 54);
        return -1;
    }

    if (pid > 0) {
        if ((flag & FORK_DETACH) == 0)
            return pid;
        while ((waitRet = waitpid(pid, &status, 0)) < 0 && errno == EINTR) {
        }
        if (waitRet < 0)
            return errno == ECHILD ? 1 : -1;
        return ((status >> 8) & 0xff) != 0 ? -1 : 1;
    }

    /* PATH stays so that the program can still find its own helpers. */
    if (flag & FORK_PATH_ONLY_ENV)
        KeepOnlyPath();

    if (flag & (FORK_CLOSE_LOCKS | FORK_CLOSE_ALL_FDS))
        VLIBCFileCloseLock();

    /* Without /dev/null the child keeps its descriptors rather than failing. */
    if (flag & FORK_NULL_STDIO) {
        const int fd = open("/dev/null", O_RDWR, 0);
        if (fd >= 0) {
            dup2(fd, STDIN_FILENO);
            dup2(fd, STDOUT_FILENO);
            dup2(fd, STDERR_FILENO);
            if (fd > STDERR_FILENO)
                close(fd);
        }
    }

    /* Errors are ignored: most descriptors in the range are not open. */
    if (flag & FORK_CLOSE_ALL_FDS) {
        const long maxfd = sysconf(_SC_OPEN_MAX);
        for (long fd = 3; fd < maxfd; ++fd)
            close(static_cast<int>(fd));
    }

    /*
     * The intermediate child ends at once, so the caller's wait returns at
     * once too, and the program goes on as an orphan that init adopts and
     * nobody here waits for. The short sleep lets the intermediate child
     * exit first. A failed fork can only be told to the system log; the
     * caller sees the intermediate child's exit code 255.
     */
    if (flag & FORK_DETACH) {
        pid = fork();
        if (pid < 0) {
            VLIBC_SYSLOG_AT(104, "%s:%d Failed to fork(). errno=[%d/%m]", errno);
            _exit(255);
        }
        if (pid > 0)
            _exit(0);
        usleep(1);
    }

    if (flag & FORK_NEW_SESSION)
        setsid();

    if (flag & FORK_CHDIR_ROOT) {
        const int nIgnored = chdir("/");
        (void)nIgnored;
    }
    return 0;
}

/*
 * PATH is copied before the environment is cleared: the value getenv hands
 * out may live in storage that clearing gives up.
 */
static void KeepOnlyPath(void)
{
    const char *szPath = getenv("PATH");
    char *pEnvPath = szPath != nullptr ? strdup(szPath) : nullptr;

    clearenv();
    if (pEnvPath != nullptr) {
        setenv("PATH", pEnvPath, 1);
        free(pEnvPath);
    }
}
