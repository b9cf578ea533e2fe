// The service's readers of its two files on any text, from memory and from a
// file. What reads as a record or as digests is written again, and that
// reads back the same; any bytes escaped read back as themselves.
#include <stdint.h>
#include <sys/mman.h>
#include <unistd.h>

#include <string>

#include "service.h"

namespace {

const int FD_FILE = memfd_create("fuzz_state", 0);
const std::string STR_FILE = "/proc/self/fd/" + std::to_string(FD_FILE);

void Put(std::string_view strText)
{
    if (ftruncate(FD_FILE, 0) != 0 || pwrite(FD_FILE, strText.data(), strText.size(), 0) < 0)
        __builtin_trap();
}

// The entries the file holds, written again.
std::string Digests()
{
    std::vector<Service::Candidate> candidates;
    std::vector<Service::Stamp> stamps;
    Service::DigestFile digests(STR_FILE.c_str());
    for (Service::Digest digest; digests.Next(digest);) {
        candidates.push_back(digest.candidate);
        stamps.push_back(digest.stamp);
    }
    return Service::FormatDigests(candidates, stamps);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const std::string_view strText(reinterpret_cast<const char *>(data), size);
    if (Service::Unescape(Service::Escape(strText)) != strText)
        __builtin_trap();
    if (const std::optional<Service::Record> record = Service::ParseRecord(strText)) {
        const std::string strWritten = Service::FormatRecord(*record);
        const std::optional<Service::Record> again = Service::ParseRecord(strWritten);
        if (!again || Service::FormatRecord(*again) != strWritten)
            __builtin_trap();
        Put(strWritten);
        bool blSame = false;
        if (!Service::ReadRecord(STR_FILE.c_str(), record->candidates, blSame) || !blSame)
            __builtin_trap();
    }
    Put(strText);
    const std::string strWritten = Digests();
    Put(strWritten);
    if (Digests() != strWritten)
        __builtin_trap();
    return 0;
}
