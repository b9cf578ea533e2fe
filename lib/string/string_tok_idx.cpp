/*
 * strsep does the cutting; what is added is the skipping of empty fields, so
 * that runs of separators count as one and a leading separator is skipped,
 * as the key-value lookup needs for lines such as "=key=value". Unlike
 * strtok, it keeps no state of its own: the caller's cursor is all, so the
 * lookup can cut a line at "=" and then at LF, and cut two strings at once.
 *
 * Bad arguments give NULL without a record: NULL is also the normal end of
 * the tokens, and a caller that loops until NULL must not find a stale
 * record of its own loop's last call.
 */
#include <string.h>

#include "vyracore.h"

char *VLIBCStrTokIndex(char **szInput, const char *szSep)
{
    char *szField = nullptr;

    if (szInput == nullptr || *szInput == nullptr || szSep == nullptr)
        return nullptr;
    do {
        szField = strsep(szInput, szSep);
    } while (szField != nullptr && *szField == '\0');
    return szField;
}
