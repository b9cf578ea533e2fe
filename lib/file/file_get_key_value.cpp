/*
 * VLIBCFileGetKeyValue(szFile, szKey, szValue, sizeMax, flag): reads the value
 * of the key szKey from the key-value file szFile into szValue.
 *
 * The file is a text of lines of the form key=value, read one line at a time
 * with no length limit; the last line may lack its LF. Which lines carry the
 * key is VLIBCILineKeyMatch's rule. The value is the text after the first
 * "=" up to the LF (further "=" belong to it), cleaned like the key: white
 * space at both ends, then one pair of double quotes.
 *
 * flag: bit 0 clear, the first line that carries the key decides and the
 * reading stops there; bit 0 set, the whole file is read and the last such
 * line wins. Other bits are ignored; a negative flag is refused.
 *
 * sizeMax is the size of szValue, terminator included. szValue NULL with
 * sizeMax 0 only measures. A value that does not fit is not copied, and
 * szValue keeps what it held. After a matching line with no value at all
 * (no "=", or nothing after it) the output buffer is left alone for the rest
 * of the call, and the size check at the end is skipped with it.
 *
 * Results and records:
 *   value length + 1        a value was found (and copied, if it fit)
 *    0, ERR_KEY_NOT_FOUND   no line carries the key with a value
 *   -1, ERR_BAD_PARAMETERS  NULL szFile or szKey, negative flag, or NULL
 *                           szValue with a non-zero sizeMax
 *   -1, ERR_OPEN_FAILED     the file cannot be opened for reading
 *   -1, ERR_NOT_ENOUGH_MEMORY  the (last) value found is longer than
 *                           sizeMax - 1 bytes
 * A read error in the middle of the file ends the reading like the end of
 * the file does; what was found up to there is reported. The file is opened
 * for reading only and closed before the call returns, and both line buffers
 * are freed on every path.
 */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "vlibc_err.h"

int32_t VLIBCFileGetKeyValue(const char *szFile, const char *szKey, char *szValue,
                             int32_t sizeMax, int32_t flag)
{
    FILE *pfKey = nullptr;
    char *szLine = nullptr;
    size_t cbLine = 0;
    char *szCopy = nullptr;
    int32_t retlen = 0;
    BOOL fFailed = FALSE;

    if (szFile == nullptr || szKey == nullptr || flag < 0 ||
        (szValue == nullptr && sizeMax != 0)) {
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
