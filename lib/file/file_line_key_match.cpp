/*
 * VLIBCILineKeyMatch(szLine, szKey): whether one line of a key-value file
 * carries the key szKey. A building block of VLIBCFileGetKeyValue.
 *
 * The line's key is the text before its first "=", or the whole line when
 * it has none, cleaned with VLIBCStrTrimSpace (white space at both ends,
 * then one pair of double quotes); leading "=" bytes are skipped. It is
 * compared byte for byte, case-sensitively, with szKey, which is used as
 * given. A line whose very first byte is "#" or ";" is a comment and never
 * matches; a line that starts with white space and then "#" is not a
 * comment, and its key is "#...".
 *
 * szLine is cut at its first "=" (a NUL is written there): pass a copy.
 *
 * Results and records:
 *   1                       the line carries the key
 *   0                       it does not, or it is a comment or empty
 *   0, ERR_BAD_PARAMETERS   szLine or szKey is NULL
 *   0                       the scratch buffer cannot be allocated; nothing
 *                           is recorded, as the lookup goes on to the next
 *                           line either way
 */
#include <stdlib.h>
#include <string.h>

#include "vlibc_err.h"

int32_t VLIBCILineKeyMatch(char *szLine, const char *szKey)
{
    char *szScratch = nullptr;
    char *pchCursor = szLine;
    char *szToken = nullptr;
    int32_t ret = 0;

    if (szLine == nullptr || szKey == nullptr) {
        VLIBC_ERR_RECORD(ERR_BAD_PARAMETERS, 36);
        return 0;
    }

    /* Large enough for any key of the line: the key is a part of it. */
    szScratch = static_cast<char *>(malloc(strlen(szLine) + 1));
    if (szScratch == nullptr)
        return 0;

    if (szLine[0] != '#' && szLine[0] != ';') {
        szToken = VLIBCStrTokIndex(&pchCursor, "=");
        if (szToken != nullptr) {
            VLIBCStrTrimSpace(szToken, szScratch);
            ret = strcmp(szScratch, szKey) == 0 ? 1 : 0;
        }
    }

    free(szScratch);
    return ret;
}
