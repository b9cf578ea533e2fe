// The two files the service keeps. Each is a first line that names it and its
// version, lines of fields, and "end": a file cut short, or written by another
// version, reads as none, and the service then starts afresh rather than
// trusting half of it.
#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <functional>

#include "service.h"

namespace Service {
namespace {

const char SZ_RECORD_HEAD[] = "small-update last-run 2";
const char SZ_DIGESTS_HEAD[] = "small-update digests 2";
const char *const RGSZ_OUTCOMES[] = {"cut", "failed", "clean"};
const std::string_view STR_TAIL = "\nend\n";

bool BlEscaped(unsigned char ch)
{
    return ch <= ' ' || ch == 0x7f || ch == '\\';
}

// A run of bytes is copied whole up to the next "\": most fields have none.
bool UnescapeInto(std::string_view str, std::string &strOut, bool blRawToo = false)
{
    strOut.clear();
    for (size_t idx = 0; idx < str.size(); idx += 4) {
        const size_t idxEscape = std::min(str.find('\\', idx), str.size());
        if (!blRawToo && std::any_of(str.begin() + idx, str.begin() + idxEscape, [](char ch) {
                return BlEscaped(static_cast<unsigned char>(ch));
            }))
            return false;
        strOut.append(str, idx, idxEscape - idx);
        if ((idx = idxEscape) == str.size())
            break;
        unsigned nByte = 0;
        for (size_t nDigit = 1; nDigit <= 3; ++nDigit) {
            if (idx + nDigit >= str.size() || str[idx + nDigit] < '0' || str[idx + nDigit] > '7')
                return false;
            nByte = nByte * 8 + static_cast<unsigned>(str[idx + nDigit] - '0');
        }
        if (nByte > 0xff)
            return false;
        strOut += static_cast<char>(nByte);
    }
    return true;
}

std::string Line(const std::vector<std::string> &fields)
{
    std::string str;
    for (const std::string &strField : fields)
        str += (str.empty() ? "" : " ") + Escape(strField);
    return str + "\n";
}

template <typename T>
bool BlNumber(const std::string &str, T &n)
{
    const char *pchEnd = str.data() + str.size();
    return !str.empty() && std::from_chars(str.data(), pchEnd, n).ptr == pchEnd;
}

std::optional<Record> RecordFrom(StateLines &lines, const std::function<void(Candidate &&)> &add);
bool DigestFrom(const std::vector<std::string> &fields, Digest &digest);

}  // namespace

// The lines of one of the files, from memory or from the file a piece at a
// time. Checked first: the head, and the tail, "end" on a line of its own, so
// that a file cut right after "...end\n" does not pass.
class StateLines {
  public:
    StateLines(std::string_view strText, std::string_view strHead) : m_strText(strText)
    {
        m_blBad = strText.size() < STR_TAIL.size() ||
                  strText.substr(strText.size() - STR_TAIL.size()) != STR_TAIL || !Head(strHead);
    }
    StateLines(const char *szPath, std::string_view strHead)
        : m_fd(open(szPath, O_RDONLY | O_CLOEXEC))
    {
        struct stat st = {};
        char achTail[STR_TAIL.size()];
        m_blBad = m_fd < 0 || fstat(m_fd, &st) != 0 ||
                  st.st_size < static_cast<off_t>(sizeof(achTail)) ||
                  pread(m_fd, achTail, sizeof(achTail),
                        st.st_size - static_cast<off_t>(sizeof(achTail))) !=
                      static_cast<ssize_t>(sizeof(achTail)) ||
                  std::string_view(achTail, sizeof(achTail)) != STR_TAIL || !Head(strHead);
    }
    ~StateLines()
    {
        if (m_fd >= 0)
            (void)close(m_fd);
    }
    StateLines(const StateLines &) = delete;
    StateLines &operator=(const StateLines &) = delete;

    // The next line's fields, unescaped: false at "end", and from a line on
    // that is not whole.
    bool Next(std::vector<std::string> &fields)
    {
        std::string_view strLine;
        if (m_blBad || !NextLine(strLine))
            return Stop();
        if (strLine == "end") {
            m_blWhole = m_strText.empty() && !Read();
            return Stop();
        }
        size_t cFields = 0;
        for (;; ++cFields) {
            const size_t cbField = std::min(strLine.find(' '), strLine.size());
            if (fields.size() <= cFields)
                fields.emplace_back();
            if (!UnescapeInto(strLine.substr(0, cbField), fields[cFields]))
                return Stop();
            if (cbField == strLine.size())
                break;
            strLine.remove_prefix(cbField + 1);
        }
        fields.resize(cFields + 1);
        return true;
    }
    // After Next gave false: whether the text ended with "end", whole.
    bool Whole() const
    {
        return m_blWhole;
    }

  private:
    bool Stop()
    {
        m_blBad = true;
        return false;
    }
    bool Head(std::string_view strHead)
    {
        std::string_view strLine;
        return NextLine(strLine) && strLine == strHead;
    }
    bool NextLine(std::string_view &strLine)
    {
        while (m_strText.find('\n') == std::string_view::npos) {
            if (!Read())
                return false;
        }
        const size_t idxEnd = m_strText.find('\n');
        strLine = m_strText.substr(0, idxEnd);
        m_strText.remove_prefix(idxEnd + 1);
        return true;
    }
    // Another piece after what is left; false at the end of the file.
    bool Read()
    {
        char ach[65536];
        ssize_t cb = -1;
        while (m_fd >= 0 && (cb = read(m_fd, ach, sizeof(ach))) < 0 && errno == EINTR) {
        }
        if (cb <= 0)
            return false;
        std::string strPiece(m_strText);
        strPiece.append(ach, static_cast<size_t>(cb));
        m_strPiece.swap(strPiece);
        m_strText = m_strPiece;
        return true;
    }

    int m_fd = -1;
    std::string m_strPiece;
    std::string_view m_strText;  // what is left to read
    bool m_blBad = false;
    bool m_blWhole = false;
};

namespace {

std::optional<Record> RecordFrom(StateLines &lines, const std::function<void(Candidate &&)> &add)
{
    std::vector<std::string> fields;
    Record record;
    if (!lines.Next(fields) || fields.size() != 4 || fields[0] != "attempt" ||
        !BlNumber(fields[1], record.nAttempt) || record.nAttempt < 1 ||
        (fields[3] != "told" && fields[3] != "-"))
        return std::nullopt;
    const auto *pszOutcome =
        std::find(std::begin(RGSZ_OUTCOMES), std::end(RGSZ_OUTCOMES), fields[2]);
    if (pszOutcome == std::end(RGSZ_OUTCOMES))
        return std::nullopt;
    record.outcome = static_cast<Outcome>(pszOutcome - std::begin(RGSZ_OUTCOMES));
    record.blTold = fields[3] == "told";
    if (!lines.Next(fields) || fields.size() != 2 || fields[0] != "build")
        return std::nullopt;
    record.strBuild = fields[1];
    while (lines.Next(fields)) {
        if (fields.size() == 5 && fields[0] == "candidate" && record.failed.empty() &&
            (fields[1] == "f" || fields[1] == "d" || fields[1] == "o"))
            add({fields[4], fields[1][0], fields[2], fields[3]});
        else if (fields.size() == 2 && fields[0] == "failed")
            record.failed.push_back(fields[1]);
        else
            return std::nullopt;
    }
    if (!lines.Whole())
        return std::nullopt;
    return record;
}

bool DigestFrom(const std::vector<std::string> &fields, Digest &digest)
{
    Stamp &stamp = digest.stamp;
    if (fields.size() != 8 || fields[0] != "digest" || !BlNumber(fields[1], stamp.cb) ||
        !BlNumber(fields[2], stamp.nsModified) || !BlNumber(fields[3], stamp.nsChanged) ||
        !BlNumber(fields[4], stamp.nsTaken) || fields[5] == "-" || fields[6] == "-")
        return false;
    digest.candidate = {fields[7], 'f', fields[5], fields[6]};
    return true;
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

std::optional<std::string> Unescape(std::string_view str, bool blRawToo)
{
    std::string strOut;
    if (!UnescapeInto(str, strOut, blRawToo))
        return std::nullopt;
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
    StateLines lines(strText, SZ_RECORD_HEAD);
    std::vector<Candidate> candidates;
    std::optional<Record> record = RecordFrom(lines, [&candidates](Candidate &&candidate) {
        candidates.push_back(std::move(candidate));
    });
    if (record)
        record->candidates = std::move(candidates);
    return record;
}

std::optional<Record> ReadRecord(const char *szPath, const std::vector<Candidate> &now,
                                 bool &blSame)
{
    StateLines lines(szPath, SZ_RECORD_HEAD);
    size_t idx = 0;
    blSame = true;
    std::optional<Record> record = RecordFrom(lines, [&](const Candidate &candidate) {
        blSame = blSame && idx < now.size() && now[idx] == candidate;
        ++idx;
    });
    blSame = record && blSame && idx == now.size();
    return record;
}

std::string FormatDigests(const std::vector<Candidate> &candidates,
                          const std::vector<Stamp> &stamps)
{
    std::string str = std::string(SZ_DIGESTS_HEAD) + "\n";
    for (size_t idx = 0; idx < candidates.size() && idx < stamps.size(); ++idx) {
        const Candidate &candidate = candidates[idx];
        const Stamp &stamp = stamps[idx];
        if (candidate.chType == 'f' && candidate.strDigest != "-" && candidate.strPackage != "-")
            str += Line({"digest", std::to_string(stamp.cb), std::to_string(stamp.nsModified),
                         std::to_string(stamp.nsChanged), std::to_string(stamp.nsTaken),
                         candidate.strDigest, candidate.strPackage, candidate.strPath});
    }
    return str + "end\n";
}

DigestFile::DigestFile(const char *szPath)
    : m_pLines(std::make_unique<StateLines>(szPath, SZ_DIGESTS_HEAD))
{
}

DigestFile::~DigestFile() = default;

bool DigestFile::Next(Digest &digest)
{
    if (m_pLines && m_pLines->Next(m_fields) && DigestFrom(m_fields, digest))
        return true;
    m_pLines.reset();
    return false;
}

}  // namespace Service
