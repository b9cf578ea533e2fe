// The service's readers of its two files on any text. What reads as a record
// or as digests is written again, and that reads back as the same; any bytes
// escaped read back as themselves.
#include <stdint.h>

#include <string>

#include "service.h"

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
    }
    if (const auto digests = Service::ParseDigests(strText)) {
        std::vector<Service::Candidate> candidates;
        std::vector<Service::Stamp> stamps;
        for (const Service::Digest &digest : *digests) {
            candidates.push_back(digest.candidate);
            stamps.push_back(digest.stamp);
        }
        const std::string strWritten = Service::FormatDigests(candidates, stamps);
        const auto again = Service::ParseDigests(strWritten);
        if (!again || Service::FormatDigests(candidates, stamps) != strWritten ||
            again->size() != digests->size())
            __builtin_trap();
    }
    return 0;
}
