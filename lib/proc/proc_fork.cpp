/*
 * The child is prepared in a fixed order, whatever order the flag bits come
 * in, as each step relies on what the one before it left:
 *   PATH only      first: nothing else of the caller's environment is left
 *                  for the later steps, or for the program, to read
 *   lock streams   closed as streams, with VLIBCFileCloseLock, before any
 *                  descriptor could be closed under a stream
 *   /dev/null      on 0-2 before 3 and up are closed, so that the three
 *                  survive the closing
 *   3 and up       closed up to the open-file limit, lock files or not
 *   detach         the second fork before the new session: the grandchild,
 *                  which goes on, leads the session, while the intermediate
 *                  child, which ends at once, leads none
 *   new session    after the detach, for that reason
 *   "/"            last, once nothing else needs the caller's directory
 *
 * A detaching caller waits for the intermediate child only, and judges it by
 * its exit-code byte alone: a child ended by a signal has a byte of 0 and so
 * counts as ended well, as the appliance's programs have always seen it. A
 * wait that finds no child means that someone else reaped it, after it ended;
 * that counts as ended well too.
 *
 * The function returns in the child as well as in the caller, like fork
 * itself, so that the caller's code decides what the child then runs:
 * VLIBCExecl runs a program, and the appliance's daemons run on as the
 * detached grandchild. Apart from the detach's second fork, which ends the
 * intermediate child with 255 and a line in the system log, no step of the
 * preparation reports a failure: a step that fails leaves the child as it
 * was, and it goes on, as a program started with a little more of its
 * caller's surroundings is better than one that does not start at all.
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
