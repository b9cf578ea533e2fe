/*
 * VLIBCStrTrimSpace(szInput, szOutput): removes white space at both ends of
 * szInput and then one pair of enclosing double quotes, and returns the
 * length of what is left.
 *
 * White space is exactly TAB, LF, CR and SPACE. Vertical tab and form feed
 * are not white space, and bytes from 0x80 up never are, whether char is
 * signed or not. The only quote is the double quote (0x22): a span that
 * starts and ends with one, on two different bytes, loses both; white space
 * inside the quotes stays, and only one pair is removed.
 *
 * Modes:
 *   szOutput NULL or equal to szInput   the result replaces szInput
 *   any other szOutput                  the result is copied there; the
 *                                       caller provides strlen(szInput) + 1
 *                                       bytes, and szInput is not changed
 *
 * An output that starts inside szInput after its first byte (up to and
 * including its terminator) is refused, since the copy would run over bytes
 * still to be read. One that starts before szInput may overlap it: the copy
 * moves forward and is overlap-safe.
 *
 * Examples (result, return):
 *   two spaces, "7321", space, CR, LF    7321, 4
 *   " a " in double quotes               space a space, 3
 *   one double quote                     unchanged, 1
 *   two double quotes                    empty, 0
 *   'x' in single quotes                 unchanged, 3
 *   VT, space, x, space, FF              unchanged, 5
 *   three spaces                         empty, 0
 *
 * Results and records:
 *   -1, ERR_BAD_PARAMETERS  szInput is NULL
 *   -1, ERR_BAD_PARAMETERS  szOutput lies inside szInput (see above)
 *   the result's length     otherwise
 * Nothing is written on a failure.
 *
 * The key-value lookup cleans keys and values with this function, so the
 * lines buildnumber="7321", buildnumber = 7321 and "buildnumber" = "7321"
 * all read alike, and CR-LF line ends are accepted.
 *
 * Allocates nothing; reads the string once from each end and copies the
 * result at most once.
 */
#include <stdint.h>
#include <string.h>

#include "vlibc_err.h"

/*
 * TAB (9), LF (10), CR (13) and SPACE (32) as bits 0, 1, 4 and 23 of a mask
 * indexed by the byte minus 9. The byte is taken as unsigned first, so that a
 * byte of 0x80 or more is outside the mask on every platform instead of
 * becoming a negative shift count where char is signed.
 */
static BOOL BlWhiteSpace(char chTest)
{
    const unsigned int uOffset = static_cast<unsigned char>(chTest) - 9u;

    return uOffset < 24u && ((0x00800013u >> uOffset) & 1u) != 0 ? TRUE : FALSE;
}

/*
 * The span is found in one pass from each end: the head walk stops on the
 * first byte that is not white space, and the tail walk, starting on the
 * terminator, stops on the last one. The tail walk needs no bound: when the
 * head found a byte that is not white space, the tail walk stops on it at
 * the latest.
 */
static char *SkipHead(char *pch)
{
    while (*pch != '\0' && BlWhiteSpace(*pch))
        ++pch;
    return pch;
}

static char *SkipTail(char *pchEnd)
{
    while (*pchEnd == '\0' || BlWhiteSpace(*pchEnd))
        --pchEnd;
    return pchEnd;
}

/*
 * The span is moved with memmove in both modes: in place it overlaps by
 * nature, and an output that starts before szInput may overlap it too.
 */
static int32_t Store(char *szTarget, const char *pchFrom, size_t cb)
{
    memmove(szTarget, pchFrom, cb);
    szTarget[cb] = '\0';
    return static_cast<int32_t>(cb);
}

int32_t VLIBCStrTrimSpace(char *szInput, char *szOutput)
{
    size_t n = 0;
    char *pchHead = nullptr;
    char *pchTail = nullptr;
    size_t cbSpan = 0;

    /* The argument checks come before anything is read or written. */
    if (szInput == nullptr) {
        VLIBC_ERR_RECORD(ERR_BAD_PARAMETERS, 104);
        return -1;
    }

    n = strlen(szInput);
    const uintptr_t uInput = reinterpret_cast<uintptr_t>(szInput);
    const uintptr_t uOutput = reinterpret_cast<uintptr_t>(szOutput);
    if (uOutput > uInput && uOutput < uInput + n + 1) {
        VLIBC_ERR_RECORD(ERR_BAD_PARAMETERS, 112);
        return -1;
    }
    if (szOutput == szInput)
        szOutput = nullptr;
    char *const szTarget = szOutput != nullptr ? szOutput : szInput;

    pchHead = SkipHead(szInput);
    if (*pchHead == '\0')
        return Store(szTarget, pchHead, 0);
    pchTail = SkipTail(szInput + n);
    cbSpan = static_cast<size_t>(pchTail - pchHead) + 1;

    if (cbSpan >= 2 && *pchHead == '"' && *pchTail == '"') {
        ++pchHead;
        cbSpan -= 2;
    }
    return Store(szTarget, pchHead, cbSpan);
}
