// The two files the service keeps. Each is a first line that names it and its
// version, lines of fields, and "end": a file cut short, or written by another
// version, reads as none, and the service then starts afresh rather than
// trusting half of it.
#include <algorithm>
#include <charconv>

#include "service.h"

namespace Service {
namespace {

const char SZ_RECORD_HEAD[] = "small-update last-run 2";
const char SZ_DIGESTS_HEAD[] = "small-update digests 2";
const char *const RGSZ_OUTCOMES[] = {"cut", "failed", "clean"};

bool BlEscaped(unsigned char ch)
{
    return ch <= ' ' || ch == 0x7f || ch == '\\';
}

std::string Line(const std::vector<std::string> &fields)
{
    std::string str;
    for (const std::string &strField : fields)
        str += (str.empty() ? "" : " ") + Escape(strField);
    return str + "\n";
}

// Splits a whole file into lines of unescaped fields, checking its first and
// last lines; nullopt for anything else.
std::optional<std::vector<std::vector<std::string>>> Lines(std::string_view strText,
                                                           std::string_view strHead)
{
    const std::string strFirst = std::string(strHead) + "\n";
    const size_t cbText = strText.size();
    // "end" on a line of its own: a file cut right after "...end\n" does not pass.
    if (cbText < strFirst.size() + 4 || strText.compare(0, strFirst.size(), strFirst) != 0 ||
        strText.compare(cbText - 4, 4, "end\n") != 0 || strText[cbText - 5] != '\n')
        return std::nullopt;
    strText = strText.substr(strFirst.size(), cbText - strFirst.size() - 4);
    std::vector<std::vector<std::string>> lines;
    while (!strText.empty()) {
        const size_t cbLine = std::min(strText.find('\n'), strText.size());
        std::vector<std::string> fields;
        for (std::string_view strLine = strText.substr(0, cbLine);;) {
            const size_t cbField = std::min(strLine.find(' '), strLine.size());
            std::optional<std::string> strField = Unescape(strLine.substr(0, cbField));
            if (!strField)
                return std::nullopt;
            fields.push_back(std::move(*strField));
            if (cbField == strLine.size())
                break;
            strLine.remove_prefix(cbField + 1);
        }
        lines.push_back(std::move(fields));
        strText.remove_prefix(std::min(cbLine + 1, strText.size()));
    }
    return lines;
}

template <typename T>
bool BlNumber(const std::string &str, T &n)
{
    const char *pchEnd = str.data() + str.size();
    return !str.empty() && std::from_chars(str.data(), pchEnd, n).ptr == pchEnd;
}

}  // namespace

bool operator==(const Candidate &a, const Candidate &b)
{
    return a.strPath == b.strPath && a.chType == b.chType && a.strDigest == b.strDigest &&
           a.strPackage == b.strPackage;
}

std::string Escape(std::string_view str)
{
    static const char kDigits[] = "01234567";
    std::string strOut;
    for (const char ch : str) {
        const auto uch = static_cast<unsigned char>(ch);
        if (BlEscaped(uch))
            strOut += {'\\', kDigits[uch >> 6], kDigits[(uch >> 3) & 7], kDigits[uch & 7]};
        else
            strOut += ch;
    }
    return strOut;
}

std::optional<std::string> Unescape(std::string_view str)
{
    std::string strOut;
    for (size_t idx = 0; idx < str.size(); ++idx) {
        const auto uch = static_cast<unsigned char>(str[idx]);
        if (uch != '\\') {
            if (BlEscaped(uch))
                return std::nullopt;
            strOut += str[idx];
            continue;
        }
        unsigned nByte = 0;
        for (int nDigit = 1; nDigit <= 3; ++nDigit) {
            if (idx + nDigit >= str.size() || str[idx + nDigit] < '0' || str[idx + nDigit] > '7')
                return std::nullopt;
            nByte = nByte * 8 + static_cast<unsigned>(str[idx + nDigit] - '0');
        }
        if (nByte > 0xff)
            return std::nullopt;
        strOut += static_cast<char>(nByte);
        idx += 3;
    }
    return strOut;
}

std::string FormatRecord(const Record &record)
{
    std::string str = std::string(SZ_RECORD_HEAD) + "\n";
    str += Line({"attempt", std::to_string(record.nAttempt),
                 RGSZ_OUTCOMES[static_cast<int>(record.outcome)], record.blTold ? "told" : "-"});
    str += Line({"build", record.strBuild});
    for (const Candidate &candidate : record.candidates)
        str += Line({"candidate", std::string(1, candidate.chType), candidate.strDigest,
                     candidate.strPackage, candidate.strPath});
    for (const std::string &strPath : record.failed)
        str += Line({"failed", strPath});
    return str + "end\n";
}

std::optional<Record> ParseRecord(std::string_view strText)
{
    const auto lines = Lines(strText, SZ_RECORD_HEAD);
    if (!lines || lines->size() < 2)
        return std::nullopt;
    Record record;
    const std::vector<std::string> &attempt = (*lines)[0], &build = (*lines)[1];
    if (attempt.size() != 4 || attempt[0] != "attempt" || !BlNumber(attempt[1], record.nAttempt) ||
        record.nAttempt < 1 || (attempt[3] != "told" && attempt[3] != "-") || build.size() != 2 ||
        build[0] != "build")
        return std::nullopt;
    const auto *pszOutcome =
        std::find(std::begin(RGSZ_OUTCOMES), std::end(RGSZ_OUTCOMES), attempt[2]);
    if (pszOutcome == std::end(RGSZ_OUTCOMES))
        return std::nullopt;
    record.outcome = static_cast<Outcome>(pszOutcome - std::begin(RGSZ_OUTCOMES));
    record.blTold = attempt[3] == "told";
    record.strBuild = build[1];
    for (auto it = lines->begin() + 2; it != lines->end(); ++it) {
        const std::vector<std::string> &fields = *it;
        if (fields.size() == 5 && fields[0] == "candidate" && record.failed.empty() &&
            fields[1].size() == 1 &&
            std::string_view("fdo").find(fields[1][0]) != std::string_view::npos)
            record.candidates.push_back({fields[4], fields[1][0], fields[2], fields[3]});
        else if (fields.size() == 2 && fields[0] == "failed")
            record.failed.push_back(fields[1]);
        else
            return std::nullopt;
    }
    return record;
}

std::string FormatDigests(const std::vector<Digest> &digests)
{
    std::string str = std::string(SZ_DIGESTS_HEAD) + "\n";
    for (const Digest &digest : digests)
        str += Line({"digest", std::to_string(digest.cb), std::to_string(digest.nsModified),
                     std::to_string(digest.nsChanged), std::to_string(digest.nsTaken),
                     digest.strDigest, digest.strPackage, digest.strPath});
    return str + "end\n";
}

std::optional<std::vector<Digest>> ParseDigests(std::string_view strText)
{
    const auto lines = Lines(strText, SZ_DIGESTS_HEAD);
    if (!lines)
        return std::nullopt;
    std::vector<Digest> digests;
    for (const std::vector<std::string> &fields : *lines) {
        Digest digest;
        if (fields.size() != 8 || fields[0] != "digest" || !BlNumber(fields[1], digest.cb) ||
            !BlNumber(fields[2], digest.nsModified) || !BlNumber(fields[3], digest.nsChanged) ||
            !BlNumber(fields[4], digest.nsTaken))
            return std::nullopt;
        digest.strDigest = fields[5];
        digest.strPackage = fields[6];
        digest.strPath = fields[7];
        digests.push_back(std::move(digest));
    }
    return digests;
}

}  // namespace Service
