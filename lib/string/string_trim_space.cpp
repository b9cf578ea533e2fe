/*
 * The key-value lookup cleans every key and value with this function, so
 * that the appliance's lines buildnumber="7321", buildnumber = 7321 and
 * "buildnumber" = "7321" all read alike, and a file with CR-LF line ends
 * reads like one without.
 *
 * White space is exactly the four bytes that the appliance's writers put
 * around keys and values: TAB, LF, CR and SPACE. Vertical tab and form feed
 * never stand there and stay, and a byte from 0x80 up is part of a name in
 * UTF-8, never a blank, whether char is signed or not.
 *
 * Values are written with one pair of double quotes around them, so one pair
 * is removed: a quote inside a value, or a lone one, is data. The quotes must
 * be two different bytes, else a value of one quote would lose it twice.
 * Single quotes are data too.
 *
 * It works in place for the key-value lookup, which has no buffer to spare,
 * and into a separate output for the key test, which must not cut the line
 * twice. An output that is the input itself counts as in place, as a caller
 * that passes one buffer for both means. An output that starts inside the
 * input after its first byte would be overwritten before it is read, as the
 * copy runs forward: it is refused, never silently garbled. The terminator
 * belongs to the input, so an output that starts on it is refused as well.
 * The addresses are compared as integers, as comparing pointers into
 * different objects is not defined in C++.
 *
 * Nothing is allocated, and the result is copied at most once: this runs for
 * every line of every key-value file the lookup reads, thousands of times in
 * a run of the update tool.
 *
 * A failed call writes nothing: the caller's buffers stay as they were.
 *
 * White space is a bit test of its own, not isspace: isspace follows the
 * locale and takes VT and FF, and the library serves programs that set a
 * locale as well as this one, which never does.
 *
 * The result is always a string: a text of blanks only, or an empty one,
 * leaves a single NUL, and the length returned is what the lookup counts its
 * value's size from (length + 1).
 *
 * Where the quotes are removed, the span is simply narrowed by one byte at
 * each end before the one copy, rather than copied a second time without
 * them.
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
