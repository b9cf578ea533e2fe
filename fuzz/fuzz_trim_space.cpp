// VLIBCStrTrimSpace on any bytes, in both modes: the modes agree, the result
// is as long as the function says, never longer than the input, and nothing
// is read or written outside the string and an output of exactly the size a
// caller must provide.
#include <stdint.h>
#include <string.h>

#include <memory>

#include "vyracore.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const size_t n = strnlen(reinterpret_cast<const char *>(data), size);
    std::unique_ptr<char[]> szInput(new char[n + 1]);
    std::unique_ptr<char[]> szInPlace(new char[n + 1]);
    std::unique_ptr<char[]> szOutput(new char[n + 1]);
    memcpy(szInput.get(), data, n);
    szInput[n] = '\0';
    memcpy(szInPlace.get(), szInput.get(), n + 1);

    const int32_t nCopied = VLIBCStrTrimSpace(szInput.get(), szOutput.get());
    const int32_t nInPlace = VLIBCStrTrimSpace(szInPlace.get(), nullptr);

    if (nCopied < 0 || nCopied != nInPlace || static_cast<size_t>(nCopied) > n ||
        strlen(szOutput.get()) != static_cast<size_t>(nCopied) ||
        strcmp(szOutput.get(), szInPlace.get()) != 0 || memcmp(szInput.get(), data, n) != 0)
        __builtin_trap();
    return 0;
}
