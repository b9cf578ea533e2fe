/*
 * The floor: the least that the job can cost. It scans the update directory,
 * reads the build number once, orders the packages by small-fix number
 * (parsed once each), and per package does only what the job cannot do
 * without: one time-stamped banner line appended and synced, fork,
 * redirect, exec dpkg, wait. One synced verdict line ends the run. Names are
 * trusted; nothing is reported.
 */
#include <fcntl.h>
#include <glob.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

struct Package {
    long nSmallFix;
    const char *szPath;
};

static int Compare(const void *pvA, const void *pvB)
{
    const struct Package *pA = pvA;
    const struct Package *pB = pvB;
    return (pA->nSmallFix > pB->nSmallFix) - (pA->nSmallFix < pB->nSmallFix);
}

static void AppendSynced(const char *szFile, const char *szText)
{
    char szLine[4096];
    const time_t t = time(NULL);
    const size_t cb = strftime(szLine, sizeof(szLine), "%Y/%m/%d %H:%M:%S\t", localtime(&t));
    const int cbLine = snprintf(szLine + cb, sizeof(szLine) - cb, "%s\n", szText);
    const int fd = open(szFile, O_WRONLY | O_CREAT | O_APPEND, 0666);
    if (fd < 0)
        return;
    if (write(fd, szLine, cb + (size_t)cbLine) < 0)
        perror(szFile);
    fsync(fd);
    close(fd);
}

int main(void)
{
    glob_t globbuf;
    char szBuild[64] = "";
    char szBanner[4200];
    int blFailed = 0;

    FILE *pf = fopen("/etc.defaults/VERSION", "r");
    if (pf != NULL) {
        if (fscanf(pf, "buildnumber=\"%63[^\"]", szBuild) != 1)
            szBuild[0] = '\0';
        fclose(pf);
    }
    if (glob("/smallupd@te/*.deb", GLOB_ERR, NULL, &globbuf) != 0)
        return 255;
    struct Package *packages = calloc(globbuf.gl_pathc, sizeof(*packages));
    for (size_t i = 0; i < globbuf.gl_pathc; ++i) {
        const char *pchS = strstr(globbuf.gl_pathv[i], "-s");
        packages[i].nSmallFix = pchS != NULL ? strtol(pchS + 2, NULL, 10) : 0;
        packages[i].szPath = globbuf.gl_pathv[i];
    }
    qsort(packages, globbuf.gl_pathc, sizeof(*packages), Compare);

    for (size_t i = 0; i < globbuf.gl_pathc; ++i) {
        snprintf(szBanner, sizeof(szBanner), " ===========[-i %s ]===========", packages[i].szPath);
        AppendSynced("/var/log/dpkg_upgrade.log", szBanner);
        const pid_t pid = fork();
        if (pid == 0) {
            const int fd = open("/var/log/dpkg_upgrade.log", O_RDWR | O_CREAT | O_APPEND, 0666);
            dup2(fd, STDOUT_FILENO);
            dup2(fd, STDERR_FILENO);
            close(fd);
            execl("/usr/bin/dpkg", "/usr/bin/dpkg", "-i", packages[i].szPath, (char *)NULL);
            _exit(1);
        }
        int status = 0;
        if (waitpid(pid, &status, 0) != pid || (WIFEXITED(status) && WEXITSTATUS(status) != 0))
            blFailed = 1;
    }
    AppendSynced("/var/log/vyraupdate.log",
                 blFailed ? "Failed to update critical update" : "Finished critical update!!!");
    free(packages);
    globfree(&globbuf);
    return blFailed ? 255 : 0;
}
