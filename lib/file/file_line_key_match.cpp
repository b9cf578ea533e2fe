/*
 * A building block of VLIBCFileGetKeyValue, apart from it so that the rule of
 * which line carries a key is written once for every reader of the
 * appliance's files.
 *
 * The key is cut from the line in place, with VLIBCStrTokIndex at "=", which
 * skips leading "=" as it skips every empty field: that is why the caller
 * hands over a copy. The key is then trimmed into a scratch buffer, not in
 * the line, so that the caller's copy is cut once and no more.
 *
 * Only the very first byte makes a comment: the appliance's writers put "#"
 * and ";" in the first column, and a line that starts with blanks is data,
 * however odd its key.
 *
 * The key asked for is compared as given, case and blanks included: callers
 * name their keys exactly, and trimming them would hide a caller's mistake.
 *
 * Without memory for the scratch buffer the line counts as not carrying the
 * key, and nothing is recorded: the lookup goes on to the next line either
 * way, and a record here would stand in for the lookup's own, which tells
 * its caller what was found.
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
