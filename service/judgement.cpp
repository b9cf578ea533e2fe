// Whether a run is owed, and how an attempt ended: decisions over what was
// read, which touch nothing themselves.
#include <sys/wait.h>

#include <algorithm>
#include <unordered_set>

#include "service.h"

namespace Service {
namespace {

// Three attempts that were not clean: a fix that takes the machine down is
// tried three times, not at every boot.
const int N_ATTEMPTS = 3;

std::string Names(const std::vector<std::string> &paths)
{
    std::string str;
    for (const std::string &strPath : paths)
        str += (str.empty() ? "" : " ") + Escape(strPath);
    return str;
}

// Those the tool failed to install, or whose package dpkg left half done;
// all of them where a run that was cut short leaves neither.
std::vector<std::string> GivenUp(const Seen &seen)
{
    std::vector<std::string> names, all;
    for (const Candidate &candidate : seen.candidates) {
        const auto &failed = seen.record->failed;
        if (std::find(failed.begin(), failed.end(), candidate.strPath) != failed.end() ||
            HalfDone(seen.audit, candidate))
            names.push_back(candidate.strPath);
        all.push_back(candidate.strPath);
    }
    return names.empty() ? all : names;
}

// Whether a unit of the package may have been left failed: a give-up, whose
// judging unit failed, is never recorded clean.
bool MayBeFailed(const std::optional<Record> &record)
{
    return !record || record->outcome != Outcome::Clean;
}

}  // namespace

Audit ParseAudit(int status, std::string_view strOut)
{
    Audit audit;
    audit.blAll = !WIFEXITED(status) || WEXITSTATUS(status) != 0;
    // Each package it lists is on a line of its own, indented, its name
    // first, with ":arch" where that is needed to tell it apart.
    for (size_t idx = 0; idx < strOut.size();) {
        const size_t idxEnd = std::min(strOut.find('\n', idx), strOut.size());
        const std::string_view strLine = strOut.substr(idx, idxEnd - idx);
        const size_t idxName = strLine.find_first_not_of(' ');
        if (idxName > 0 && idxName != std::string_view::npos)
            audit.packages.emplace_back(
                strLine.substr(idxName, strLine.find_first_of(" :", idxName) - idxName));
        idx = idxEnd + 1;
    }
    audit.blAll = audit.blAll || (!strOut.empty() && audit.packages.empty());
    return audit;
}

bool HalfDone(const Audit &audit, const Candidate &candidate)
{
    if (candidate.strPackage == "-")
        return false;
    const std::string strName = candidate.strPackage.substr(0, candidate.strPackage.find(':'));
    return audit.blAll ||
           std::find(audit.packages.begin(), audit.packages.end(), strName) != audit.packages.end();
}

bool AnyHalfDone(const Audit &audit, const std::vector<Candidate> &candidates)
{
    return std::any_of(candidates.begin(), candidates.end(),
                       [&audit](const Candidate &candidate) { return HalfDone(audit, candidate); });
}

std::vector<std::string> FailedInstalls(std::string_view strStderr,
                                        const std::vector<Candidate> &candidates)
{
    const std::string_view strBefore = "Failed to install [", strAfter = "]\n";
    std::unordered_set<std::string_view> paths;
    size_t cbLongest = 0;
    for (const Candidate &candidate : candidates) {
        paths.insert(candidate.strPath);
        cbLongest = std::max(cbLongest, candidate.strPath.size());
    }
    // A path may hold "]\n" itself: each end up to the longest path is tried.
    std::vector<std::string> failed;
    for (size_t idx = strStderr.find(strBefore); idx != std::string_view::npos;
         idx = strStderr.find(strBefore, idx + 1)) {
        if (idx > 0 && strStderr[idx - 1] != '\n')
            continue;
        const size_t idxPath = idx + strBefore.size();
        for (size_t idxEnd = strStderr.find(strAfter, idxPath);
             idxEnd != std::string_view::npos && idxEnd - idxPath <= cbLongest;
             idxEnd = strStderr.find(strAfter, idxEnd + 1)) {
            const std::string_view strPath = strStderr.substr(idxPath, idxEnd - idxPath);
            if (paths.count(strPath) != 0) {
                failed.emplace_back(strPath);
                break;
            }
        }
    }
    return failed;
}

Answer Judge(const Seen &seen)
{
    const std::optional<Record> &record = seen.record;
    if (!seen.writing.empty())
        return {Verdict::Waiting,
                "<6>nothing started: still being written: " + Names(seen.writing),
                {},
                false};
    // Removing the fixes it gave up on is a way back: the failed units go too.
    if (seen.candidates.empty())
        return {Verdict::Nothing, "<7>nothing to do: no candidate", {}, MayBeFailed(record)};

    const bool blSame = SameAsRecord(seen);
    std::string strWhy;
    if (seen.blAsked) {
        strWhy = "asked for";
    } else if (blSame && record->outcome == Outcome::Clean) {
        // A fault of a package that no candidate holds is no run's to mend.
        if (!AnyHalfDone(seen.audit, seen.candidates))
            return {
                Verdict::Nothing, "<7>nothing to do: a clean run of these candidates", {}, false};
        strWhy = "half done";
    } else if (blSame && record->nAttempt >= N_ATTEMPTS) {
        const std::vector<std::string> names = GivenUp(seen);
        return {Verdict::GaveUp,
                "<3>gave up on " + Names(names) + " after " + std::to_string(record->nAttempt) +
                    " attempts; once they are mended, systemctl start small-update.service, or "
                    "replace or remove them",
                record->blTold ? std::vector<std::string>() : names, false};
    } else if (!blSame) {
        strWhy = "changed";
    } else {
        strWhy = std::string(record->outcome == Outcome::Cut ? "cut short" : "failed") +
                 ", attempt " + std::to_string(record->nAttempt) + " of " +
                 std::to_string(N_ATTEMPTS);
    }
    // Another package manager at work is no fault of the fixes: nothing is
    // started, so nothing is counted, and the next check runs.
    if (seen.pidDpkgLock != 0)
        return {Verdict::Waiting,
                "<6>a run is owed: " + strWhy + "; nothing started while process " +
                    std::to_string(seen.pidDpkgLock) + " holds dpkg's lock",
                {},
                false};
    return {Verdict::Owed, "<5>a run is owed: " + strWhy, {}, false};
}

bool SameAsRecord(const Seen &seen)
{
    return seen.record && seen.record->strBuild == seen.strBuild && seen.blSameCandidates;
}

int ExitCode(Verdict verdict)
{
    // ExecCondition= skips the unit for 1 to 254 and fails it for 255.
    return verdict == Verdict::Owed ? 0 : verdict == Verdict::GaveUp ? 255 : 1;
}

std::optional<Outcome> JudgeAttempt(int status, bool blSynced, bool blFailed, bool blHalfDone,
                                    pid_t pidDpkgLock)
{
    // The tool ends with 0 or 255: anything else is a crash or a kill.
    if (!WIFEXITED(status) || (WEXITSTATUS(status) != 0 && WEXITSTATUS(status) != 255) || !blSynced)
        return Outcome::Failed;
    if (!blFailed && !blHalfDone)
        return Outcome::Clean;
    if (pidDpkgLock != 0)
        return std::nullopt;
    return Outcome::Failed;
}

}  // namespace Service
