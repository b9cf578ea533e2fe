/*
 * VLIBCErrLogSet(szFile, szLog): appends szLog and one newline to szFile,
 * creating the file if it does not exist and never truncating it, then
 * flushes the stream and syncs the file to disk before closing it, so every
 * record is on the disk when the call returns. The caller formats the text;
 * how a "%" in it is written is explained below.
 *
 * Results and records:
 *   -1, ERR_BAD_PARAMETERS  szFile or szLog is NULL; nothing is opened
 *   -1, ERR_OPEN_FAILED     the file cannot be opened for appending
 *   -1, ERR_WRITE_FAILED    the text or the newline cannot be written; the
 *                           stream is closed, a partial line may remain
 *    0                      otherwise; a failing flush, sync or close is
 *                           ignored, as the record has been handed over
 */
#include <string.h>
#include <unistd.h>

#include "vlibc_err.h"

static int WriteUnformatted(FILE *pfLog, const char *szText);

int32_t VLIBCErrLogSet(const char *szFile, const char *szLog)
{
    FILE *pfLog = nullptr;

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
     * The text is passed through a formatter exactly once, as callers expect
     * ("%%" for a percent sign), but through one that takes no arguments.
     * Handing the text to printf as its format would make any conversion in
     * it read arguments that were never passed; package paths from the update
     * directory reach this function, so a file named with "%n" would write
     * into the memory of a process running as root. Every "%" other than "%%"
     * is therefore written as it stands.
     */
    if (WriteUnformatted(pfLog, szLog) < 0 || WriteUnformatted(pfLog, "\n") < 0) {
        VLIBC_ERR_RECORD(ERR_WRITE_FAILED, 51);
        (void)fclose(pfLog);
        return -1;
    }

    (void)fflush(pfLog);
    (void)fsync(fileno(pfLog));
    (void)fclose(pfLog);
    return 0;
}

/* -1 when the stream reports a write error, as formatted output would. */
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
