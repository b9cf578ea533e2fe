// VLIBCStrTokIndex on any text and separator set (the first byte says how
// many of the next bytes are separators): every token is non-empty, holds no
// separator, lies inside the text after the previous one, and the walk ends.
#include <stdint.h>
#include <string.h>

#include <memory>
#include <string>

#include "vyracore.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size == 0)
        return 0;
    const size_t cbSep = data[0] % 5 < size - 1 ? data[0] % 5 : size - 1;
    const std::string strSep(reinterpret_cast<const char *>(data) + 1, cbSep);
    const char *pchText = reinterpret_cast<const char *>(data) + 1 + cbSep;
    const size_t n = strnlen(pchText, size - 1 - cbSep);
    std::unique_ptr<char[]> szText(new char[n + 1]);
    memcpy(szText.get(), pchText, n);
    szText[n] = '\0';

    char *pchCursor = szText.get();
    const char *pchPrevious = szText.get() - 1;
    size_t cTokens = 0;
    while (const char *szToken = VLIBCStrTokIndex(&pchCursor, strSep.c_str())) {
        if (szToken <= pchPrevious || szToken >= szText.get() + n || *szToken == '\0' ||
            strpbrk(szToken, strSep.c_str()) != nullptr || ++cTokens > n)
            __builtin_trap();
        pchPrevious = szToken;
    }
    return 0;
}
