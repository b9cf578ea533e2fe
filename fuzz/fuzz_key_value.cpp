// VLIBCFileGetKeyValue on any file content, key, buffer size and flag. The
// input is: one byte of flag (signed), one byte of size (signed; 0 measures),
// the key up to the first LF, then the file's content. A found value must
// measure the same, and the buffer is either untouched or holds a terminated
// string that fits; after a matching line without a value it may keep an
// earlier value while the result tells of a later one, as the lookup forgets
// its buffer there.
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <memory>
#include <string>

#include "vyracore.h"

namespace {

std::string g_strFile;

void RemoveFile()
{
    unlink(g_strFile.c_str());
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    // The file is rewritten for every input: in memory that costs little,
    // on a disk it would be most of the run.
    const char *szTmp = getenv("TMPDIR");
    const std::string strDir = szTmp != nullptr && *szTmp      ? szTmp
                               : access("/dev/shm", W_OK) == 0 ? "/dev/shm"
                                                               : "/tmp";
    std::string strTemplate = strDir + "/fuzz-key-value.XXXXXX";
    const int fd = mkstemp(&strTemplate[0]);
    if (fd < 0)
        abort();
    close(fd);
    g_strFile = strTemplate;
    atexit(RemoveFile);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 2)
        return 0;
    const int32_t flag = static_cast<int8_t>(data[0]);
    const int32_t sizeMax = static_cast<int8_t>(data[1]);
    const std::string strRest(reinterpret_cast<const char *>(data) + 2, size - 2);
    const size_t posKeyEnd = strRest.find('\n');
    const std::string strKey = strRest.substr(0, posKeyEnd);
    const std::string strContent =
        posKeyEnd == std::string::npos ? "" : strRest.substr(posKeyEnd + 1);

    FILE *pf = fopen(g_strFile.c_str(), "w");
    if (pf == nullptr)
        abort();
    fwrite(strContent.data(), 1, strContent.size(), pf);
    fclose(pf);

    const size_t cbBuffer = sizeMax > 0 ? static_cast<size_t>(sizeMax) : 1;
    std::unique_ptr<char[]> szValue(new char[cbBuffer]);
    memset(szValue.get(), 0x7f, cbBuffer);
    const int32_t nResult = VLIBCFileGetKeyValue(
        g_strFile.c_str(), strKey.c_str(), sizeMax != 0 ? szValue.get() : nullptr, sizeMax, flag);
    const int32_t nMeasured =
        VLIBCFileGetKeyValue(g_strFile.c_str(), strKey.c_str(), nullptr, 0, flag);

    if (flag < 0 && nResult != -1)
        __builtin_trap();
    if (nResult > 0 && nMeasured != nResult)
        __builtin_trap();
    const bool blTouched = szValue[0] != 0x7f || memchr(szValue.get(), '\0', cbBuffer) != nullptr;
    if (blTouched && (sizeMax <= 0 || strnlen(szValue.get(), cbBuffer) >= cbBuffer))
        __builtin_trap();
    return 0;
}
