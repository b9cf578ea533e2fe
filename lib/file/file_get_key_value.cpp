/*
 * The appliance's key-value files, VERSION among them, are written by several
 * programs and edited by hand, so the reader takes lines as they come: of any
 * length, with blanks and double quotes around keys and values, CR-LF ends,
 * comments, and a last line without its LF.
 *
 * Lines are read with getline, not into a buffer of fixed size: a fixed buffer
 * would split a long line (a comment, a pasted value), and the tail of the
 * line could then pass for a line of its own, with a key of its own.
 *
 * The key test cuts what it is given at its first "=", so it is handed a copy
 * of each line and the value is taken from the line as read. The value runs
 * to the LF that getline keeps; a CR before it is white space, which the trim
 * removes with the blanks.
 *
 * With bit 0 of flag clear the reading stops at the first line that carries
 * the key: the update tool reads the build number afresh for every package
 * name it judges, thousands of times in a run, and the key is near the top.
 *
 * A value that does not fit is refused, never cut short: a build number of
 * 26681 cut to 2668 would accept the packages made for another build. The
 * code recorded for it, ERR_NOT_ENOUGH_MEMORY, is the library's own choice and
 * stays, as the appliance's programs know it.
 *
 * A line that carries the key without a value makes the rest of the call
 * leave the buffer alone, the size check at the end included: that is how the
 * library has always behaved, and it stays so.
 *
 * A read error in the middle of the file ends the reading as its end does,
 * and what was found up to there counts: the tool reads VERSION again for
 * the next name it judges. The copy of a line is not checked either: a copy
 * that fails hands NULL to the key test, which matches nothing, and the line
 * is skipped as one without the key.
 */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "vlibc_err.h"

int32_t VLIBCFileGetKeyValue(const char *szFile, const char *szKey, char *szValue, int32_t sizeMax,
                             int32_t flag)
{
    FILE *pfKey = nullptr;
    char *szLine = nullptr;
    size_t cbLine = 0;
    char *szCopy = nullptr;
    int32_t retlen = 0;
    BOOL fFailed = FALSE;

    if (szFile == nullptr || szKey == nullptr || flag < 0 || (szValue == nullptr && sizeMax != 0)) {
        VLIBC_ERR_RECORD(ERR_BAD_PARAMETERS, 52);
        return -1;
    }
    if ((pfKey = fopen(szFile, "r")) == nullptr) {
        VLIBC_ERR_RECORD(ERR_OPEN_FAILED, 56);
        return -1;
    }
    char achStream[4096]; /* read for every name judged: no fstat, no allocation */
    (void)setvbuf(pfKey, achStream, _IOFBF, sizeof(achStream));

    while (!feof(pfKey)) {
        if (getline(&szLine, &cbLine, pfKey) == -1)
            break;
        free(szCopy);
        szCopy = strdup(szLine);
        if (VLIBCILineKeyMatch(szCopy, szKey) != 1) /* it cuts the copy */
            continue;

        /* The key is the first token at "=", the raw value the next to the LF. */
        char *pchCursor = szLine;
        VLIBCStrTokIndex(&pchCursor, "=");
        char *szRaw = VLIBCStrTokIndex(&pchCursor, "\n");
        if (szRaw == nullptr) {
            szValue = nullptr;
        } else {
            retlen = VLIBCStrTrimSpace(szRaw, nullptr) + 1;
            if (szValue != nullptr && retlen <= sizeMax) {
                memcpy(szValue, szRaw, static_cast<size_t>(retlen));
                szValue[retlen - 1] = '\0';
            }
        }
        if ((flag & 1) == 0)
            break;
    }

    if (szValue != nullptr && retlen > sizeMax) {
        VLIBC_ERR_RECORD(ERR_NOT_ENOUGH_MEMORY, 88);
        fFailed = TRUE;
    }

    /*
     * Every path after the open ends here: the copy and the line buffer are
     * freed and the file is closed before the result is decided.
     */
    free(szCopy);
    free(szLine);
    (void)fclose(pfKey);

    if (fFailed == TRUE)
        return -1;
    /*
     * A value of blanks only was found and is empty, with the result 1; 0
     * always means that no line carried the key with a value, a matching
     * line with nothing after its "=" included.
     */
    if (retlen == 0) {
        VLIBC_ERR_RECORD(ERR_KEY_NOT_FOUND, 108);
        return 0;
    }
    return retlen;
}
