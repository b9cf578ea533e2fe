// DebianLib::FindSmallFixNumfromDeb on any name, against the build number of
// /etc.defaults/VERSION: run it inside the sandbox, which provides that file.
// Names of 1 to 3 characters throw by design and are skipped. A name that
// does not end in ".deb" is never accepted, and a name never sorts before
// itself.
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <string>

#include "debian_lib.h"

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    if (access("/etc.defaults/VERSION", R_OK) != 0) {
        fprintf(stderr, "fuzz_small_fix: no /etc.defaults/VERSION; run it in the sandbox\n");
        exit(1);
    }
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size >= 1 && size <= 3)
        return 0;
    const std::string strName(reinterpret_cast<const char *>(data), size);
    const int nSmallFix = DebianLib::FindSmallFixNumfromDeb(strName);
    if (nSmallFix >= 0 && strName.compare(strName.size() - 4, 4, ".deb") != 0)
        __builtin_trap();
    if (DebianLib::InstallDebCompare(strName, strName))
        __builtin_trap();
    return 0;
}
