/*
 * Each record is opened, written, synced and closed on its own. Nothing is
 * held between records, so a log that is rotated between two calls needs no
 * signal, and every record is on the disk before the caller goes on to what
 * follows it: the fork of dpkg, the next package, the exit. The cost, an
 * open and a sync for every line, is the price of losing nothing that was
 * logged when the power fails.
 */
#include <fcntl.h>
#include <libgen.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "vlibc_err.h"

static int WriteUnformatted(FILE *pfLog, const char *szText);
static void SyncDirectoryOf(const char *szFile);

int32_t VLIBCErrLogSet(const char *szFile, const char *szLog)
{
    FILE *pfLog = nullptr;
    struct stat stFile;
    char achStream[4096];

    /*
     * Arguments are checked before anything is opened, so a bad call leaves
     * no trace in the file system.
     */
    if (szFile == nullptr || szLog == nullptr) {
        VLIBC_ERR_RECORD(ERR_BAD_PARAMETERS, 32);
        return -1;
    }

    if ((pfLog = fopen(szFile, "a+")) == nullptr) {
        VLIBC_ERR_RECORD(ERR_OPEN_FAILED, 37);
        return -1;
    }

    /*
     * A new log (just created, or emptied by rotation) needs its directory
     * synced too. The stream gets a buffer of its own, so the fstat that
     * glibc would make to size one is the one that tells: a record appended
     * to a log that has lines costs the very system calls it cost before the
     * directory was ever synced.
     */
    const BOOL fNewFile = fstat(fileno(pfLog), &stFile) != 0 || stFile.st_size == 0 ? TRUE : FALSE;
    (void)setvbuf(pfLog, achStream, _IOFBF, sizeof(achStream));
    if (WriteUnformatted(pfLog, szLog) < 0 || WriteUnformatted(pfLog, "\n") < 0) {
        VLIBC_ERR_RECORD(ERR_WRITE_FAILED, 51);
        (void)fclose(pfLog);
        return -1;
    }

    (void)fflush(pfLog);
    (void)fsync(fileno(pfLog));
    (void)fclose(pfLog);
    if (fNewFile == TRUE)
        SyncDirectoryOf(szFile);
    return 0;
}

/*
 * The text is passed through a formatter exactly once, as callers expect
 * ("%%" for a percent sign), but through one that takes no arguments. Handing
 * the text to printf as its format would make any conversion in it read
 * arguments that were never passed; package paths from the update directory
 * reach this function, so a file named with "%n" would write into the memory
 * of a process running as root. Every "%" other than "%%" is therefore written
 * as it stands. -1 when the stream reports a write error, as printf would.
 */
static int WriteUnformatted(FILE *pfLog, const char *szText)
{
    const char *pch = szText;

    while (*pch != '\0') {
        const char *pchPercent = strchr(pch, '%');
        size_t cb = pchPercent != nullptr ? (size_t)(pchPercent - pch) + 1 : strlen(pch);

        if (fwrite(pch, 1, cb, pfLog) != cb)
            return -1;
        if (pchPercent == nullptr)
            break;
        pch = pchPercent + 1;
        if (*pch == '%')
            ++pch;
    }
    return 0;
}

/*
 * fsync promises the file's data and inode, not the directory entry that
 * names it: ext4, XFS and btrfs happen to commit the entry with the file, but
 * on other file systems a power cut right after the first record of a new or
 * rotated log could lose the whole log. The promise that every record is on
 * the disk when the call returns needs the directory's own sync there. Like
 * the file's, a failure is ignored.
 */
static void SyncDirectoryOf(const char *szFile)
{
    char *szCopy = strdup(szFile); /* dirname may write into its argument */
    if (szCopy == nullptr)
        return;
    const int fdDir = open(dirname(szCopy), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    free(szCopy);
    if (fdDir < 0)
        return;
    (void)fsync(fdDir);
    (void)close(fdDir);
}
