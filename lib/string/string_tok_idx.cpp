/*
 * VLIBCStrTokIndex(szInput, szSep): hands out the next non-empty token of the
 * string that *szInput points into and advances *szInput past it.
 *
 * Each separator that ends a returned or skipped field is overwritten with
 * NUL in the caller's string; runs of separators count as one, leading ones
 * are skipped, and once no token is left the result is NULL (the cursor is
 * NULL after the last token that reached the end). The state lives in the
 * caller's cursor only, so several strings can be cut at once and every call
 * may use other separators.
 *
 * A NULL szInput, *szInput or szSep gives NULL and records nothing.
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
