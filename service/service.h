// The unattended service of small_update: what it keeps, and its judgement,
// apart from the system calls around them, so that both are plain values.
#ifndef SMALL_UPDATE_SERVICE_H
#define SMALL_UPDATE_SERVICE_H

#include <stdint.h>
#include <sys/types.h>

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace Service {

// A "*.deb" of the update directory as dpkg would be given it: its type ('f'
// a regular file, 'd' a directory, 'o' anything else) and, for a file, the
// SHA-256 of its content and its "Package:Architecture". Not its times, mode
// or links, which a maintainer script may touch. "-" where none was taken.
struct Candidate {
    std::string strPath;
    char chType = 'f';
    std::string strDigest = "-";
    std::string strPackage = "-";
};
bool operator==(const Candidate &a, const Candidate &b);

enum class Outcome { Cut, Failed, Clean };

// What the last attempt left, in /var/lib/small-update/last-run. It says Cut
// from before the tool starts until the outcome is known.
struct Record {
    int nAttempt = 1;  // its number, counted while candidates and build stay
    Outcome outcome = Outcome::Cut;
    bool blTold = false;  // the administrators were told that it gave up
    std::string strBuild;
    std::vector<Candidate> candidates;
    std::vector<std::string> failed;  // the paths the tool failed to install
};

// What tells whether a file's digest and package, taken at nsTaken, still
// hold: its size and times then (ns).
struct Stamp {
    int64_t cb = 0, nsModified = 0, nsChanged = 0, nsTaken = 0;
};
// A file candidate whose digest and package were taken, in
// /var/lib/small-update/digests.
struct Digest {
    Candidate candidate;
    Stamp stamp;
};

// Both files are lines of fields, framed by a first line that names the file
// and its version and a last line "end"; a field holds any bytes, those up to
// the space, DEL and "\" written as "\ooo", so that a name with a newline
// stays one field. A file that is not whole (torn, garbage, another version)
// reads as none.
std::string Escape(std::string_view str);
// blRawToo: a byte that is escaped may also stand as it is, as in the kernel's
// list of mounts, which escapes only the space, tab, newline and "\".
std::optional<std::string> Unescape(std::string_view str, bool blRawToo = false);
std::string FormatRecord(const Record &record);
std::optional<Record> ParseRecord(std::string_view strText);
// The record in szPath, read a piece at a time: its candidates are compared
// with now rather than kept, and blSame says whether they are the same.
std::optional<Record> ReadRecord(const char *szPath, const std::vector<Candidate> &now,
                                 bool &blSame);
// The file candidates with a digest and a package, each with its stamp.
std::string FormatDigests(const std::vector<Candidate> &candidates,
                          const std::vector<Stamp> &stamps);

class StateLines;
// The digests in szPath an entry at a time, as they were written, so that
// thousands cost the memory of one: Next is false at the end, and from a line
// on that is not whole. A file that is not framed as it must be gives none.
class DigestFile {
  public:
    explicit DigestFile(const char *szPath);
    ~DigestFile();
    DigestFile(const DigestFile &) = delete;
    DigestFile &operator=(const DigestFile &) = delete;
    bool Next(Digest &digest);

  private:
    std::unique_ptr<StateLines> m_pLines;
    std::vector<std::string> m_fields;
};

// What "dpkg --audit" of the candidates' packages found half done.
struct Audit {
    bool blAll = false;  // it failed, or printed what names no package: all count
    std::vector<std::string> packages;
};
Audit ParseAudit(int status, std::string_view strOut);  // status as waitpid gives it
bool HalfDone(const Audit &audit, const Candidate &candidate);
bool AnyHalfDone(const Audit &audit, const std::vector<Candidate> &candidates);

// The candidates whose "Failed to install [PATH]" line the tool printed.
std::vector<std::string> FailedInstalls(std::string_view strStderr,
                                        const std::vector<Candidate> &candidates);

// Everything a judgement goes by, as it was read.
struct Seen {
    std::optional<Record> record;
    std::string strBuild;
    std::vector<Candidate> candidates;
    bool blSameCandidates = false;     // they are the record's
    std::vector<std::string> writing;  // "*.deb" files still being written
    Audit audit;
    pid_t pidDpkgLock = 0;  // who holds dpkg's lock; 0 nobody
    bool blAsked = false;   // a run was asked for: by hand, or by a judgement
};

enum class Verdict { Nothing, Owed, Waiting, GaveUp };

struct Answer {
    Verdict verdict = Verdict::Nothing;
    std::string strLine;            // the journal's line, its priority in front
    std::vector<std::string> tell;  // the administrators are told of these
    bool blResetFailed = false;     // a unit of the package may be failed
};
Answer Judge(const Seen &seen);
// Whether the candidates and the build are those of the record.
bool SameAsRecord(const Seen &seen);
int ExitCode(Verdict verdict);  // of the judgement, for ExecCondition=

// How an attempt ended, from the tool's wait status on: nullopt when it does
// not count, its installations having failed while dpkg's lock was taken.
std::optional<Outcome> JudgeAttempt(int status, bool blSynced, bool blFailed, bool blHalfDone,
                                    pid_t pidDpkgLock);

}  // namespace Service

#endif
