/*
 * Runs a command with its output discarded and prints
 * "<wall seconds> <peak resident KiB> <exit status>": the time from fork to
 * the end of the wait, and the largest resident set of the command or any
 * of the children it waited for.
 */
#include <fcntl.h>
#include <stdio.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

static double Now(void)
{
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return (double)ts.tv_sec + (double)ts.tv_nsec / 1e9;
}

int main(int argc, char *argv[])
{
    struct rusage ru;
    int status = 0;

    if (argc < 2) {
        fprintf(stderr, "usage: %s command [argument]...\n", argv[0]);
        return 2;
    }
    const double tStart = Now();
    const pid_t pid = fork();
    if (pid == 0) {
        const int fd = open("/dev/null", O_WRONLY);
        dup2(fd, STDOUT_FILENO);
        dup2(fd, STDERR_FILENO);
        execv(argv[1], argv + 1);
        _exit(127);
    }
    if (pid < 0 || wait4(pid, &status, 0, &ru) != pid)
        return 1;
    printf("%.6f %ld %d\n", Now() - tStart, ru.ru_maxrss,
           WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status));
    return 0;
}
