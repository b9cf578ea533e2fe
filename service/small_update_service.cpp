// small-update-service run|pending: the unattended runs of small_update.
//
// run      what small-update.service runs: small_update, counted as an
//          attempt in the record before it starts, and recorded as clean or
//          failed once all it wrote is on disk; again at once while the
//          candidates change under it. SIGTERM ends the loop, not the run in
//          progress, whose outcome is still recorded. It ends failed only
//          after an attempt that was not clean.
// pending  the judgement of small-update-check.service and
//          small-update-boot.service: exits 0 when a run is owed, 1 when none
//          is, and 255, which fails its unit, when it gave up on candidates
//          after three attempts that were not clean. SIGTERM ends it
//          unjudged, the digests it took kept for the next.
// Each says what it decided in one line to the journal, its priority in front.
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include "system.h"

namespace {

using namespace Service;

// The answer never depends on whether the journal took the line.
void Say(const std::string &strLine)
{
    (void)fprintf(stderr, "%s\n", strLine.c_str());
}

// Whether it was written; where not, the journal says so.
bool Put(const char *szPath, const std::string &strText)
{
    if (WriteDurably(szPath, strText))
        return true;
    Say(std::string("<3>cannot write ") + szPath);
    return false;
}

// Judgements and runs take turns, held on a lock file, so that two never
// count or tell at once. One that finds the turn taken leaves "again" for the
// holder, which looks for it once it has let go; whichever sees the other
// first judges, so no change waits for the hourly check.
class Turn {
  public:
    Turn() : m_fd(open(SZ_TURN, O_RDWR | O_CREAT | O_CLOEXEC, 0600))
    {
    }
    ~Turn()
    {
        if (m_fd >= 0)
            (void)close(m_fd);
    }
    Turn(const Turn &) = delete;
    Turn &operator=(const Turn &) = delete;

    // Where not, the journal says so.
    bool Usable() const
    {
        if (m_fd < 0)
            Say(std::string("<3>cannot write ") + SZ_TURN);
        return m_fd >= 0;
    }
    bool Take(bool blWait)
    {
        while (m_fd < 0 || flock(m_fd, LOCK_EX | (blWait ? 0 : LOCK_NB)) != 0) {
            if (m_fd < 0 || errno != EINTR || gblStop)
                return false;
        }
        return true;
    }
    bool TakeOrAsk()
    {
        if (Take(false))
            return true;
        const int fd = open(SZ_AGAIN, O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
        if (fd >= 0)
            (void)close(fd);
        return Take(false);
    }
    // Whatever was asked before now, the reading that follows answers.
    static void Begin()
    {
        (void)unlink(SZ_AGAIN);
    }
    // Lets go; true with the turn taken again when somebody asked meanwhile.
    bool GiveAndTakeIfAsked()
    {
        (void)flock(m_fd, LOCK_UN);
        return access(SZ_AGAIN, F_OK) == 0 && Take(false);
    }

  private:
    int m_fd;
};

// Everything a judgement goes by, read now, which answers whatever was asked
// of the turn's holder before; none when the update directory cannot be read,
// which says nothing of its candidates.
std::optional<Seen> Look(UpdateDirectory &directory, bool blAsked)
{
    Turn::Begin();
    UpdateDirectory::Scan scan = directory.Read();
    if (!scan.blRead) {
        Say(std::string("<3>cannot read ") + SZ_UPDATE_DIR);
        return std::nullopt;
    }
    Seen seen;
    seen.candidates = std::move(scan.candidates);
    seen.writing = std::move(scan.writing);
    seen.record = ReadRecord(SZ_RECORD, seen.candidates, seen.blSameCandidates);
    seen.strBuild = Build();
    seen.audit = RunAudit(seen.candidates);
    seen.pidDpkgLock = DpkgLockHolder();
    seen.blAsked = blAsked;
    return seen;
}

// What the answer asks beyond its line: the administrators told, and the
// failed state of the units cleared, each at most once, as the record says.
void Act(const Answer &answer, const Seen &seen)
{
    if (!answer.tell.empty()) {
        Tell(answer.tell);
        // Given up only on the record's own candidates, which are these.
        Record record = *seen.record;
        record.candidates = seen.candidates;
        record.blTold = true;
        (void)Put(SZ_RECORD, FormatRecord(record));
    }
    if (answer.blResetFailed) {
        ResetFailedUnits();
        Record record;
        record.outcome = Outcome::Clean;
        record.strBuild = seen.strBuild;
        (void)Put(SZ_RECORD, FormatRecord(record));
    }
    Say(answer.strLine);
}

// One attempt at the candidates: 0 when it was clean or did not count, 1
// when it failed, -1 when it could not be counted and so did not start.
int Attempt(const Seen &seen)
{
    Record record;
    record.strBuild = seen.strBuild;
    record.candidates = seen.candidates;
    const bool blSame = SameAsRecord(seen);
    record.nAttempt =
        blSame && seen.record->outcome != Outcome::Clean ? seen.record->nAttempt + 1 : 1;
    record.blTold = blSame && seen.record->blTold;
    // Counted before it starts: a fix that takes the machine down is not
    // tried for ever. What it replaces is put back if it does not count.
    const std::string strBefore = seen.record ? ReadWhole(SZ_RECORD) : "";
    const auto PutBack = [&strBefore]() {
        if (!strBefore.empty())
            (void)Put(SZ_RECORD, strBefore);
        else if (unlink(SZ_RECORD) != 0 && errno != ENOENT)
            Say(std::string("<3>cannot write ") + SZ_RECORD);
    };
    if (!Put(SZ_RECORD, FormatRecord(record)))
        return -1;
    // A stop meanwhile starts no install that the shutdown would cut.
    if (gblStop) {
        PutBack();
        return 0;
    }
    const auto [status, strStderr] = RunTool();
    const bool blSynced = SyncLocalFileSystems();
    if (!blSynced)
        Say("<4>cannot sync every file system");
    // Without its reports, whether an installation failed is unknown.
    record.failed = FailedInstalls(strStderr.value_or(""), record.candidates);
    const Audit audit = RunAudit(record.candidates);
    const pid_t pidDpkgLock = DpkgLockHolder();
    const std::optional<Outcome> outcome =
        JudgeAttempt(status, blSynced, !strStderr || !record.failed.empty(),
                     AnyHalfDone(audit, record.candidates), pidDpkgLock);
    const std::string strAttempt = "<6>attempt " + std::to_string(record.nAttempt) + ": ";
    if (!outcome) {
        PutBack();
        Say(strAttempt + "not counted, process " + std::to_string(pidDpkgLock) +
            " holds dpkg's lock");
        return 0;
    }
    record.outcome = *outcome;
    record.blTold = record.blTold && *outcome != Outcome::Clean;
    (void)Put(SZ_RECORD, FormatRecord(record));
    Say(strAttempt + (*outcome == Outcome::Clean ? "clean" : "failed"));
    if (*outcome != Outcome::Clean)
        return 1;
    // Also after a judgement that failed for what no record shows: it timed
    // out, or could not read the directory.
    ResetFailedUnits();
    return 0;
}

int Run()
{
    Turn turn;
    if (!turn.Usable())
        return 1;
    if (!turn.Take(true))
        return 0;
    UpdateDirectory directory;
    int nExit = 0;
    for (bool blAttempted = false;;) {
        // Started by hand or by a judgement, the first attempt is owed; the
        // next ones only for candidates that changed while it ran.
        const std::optional<Seen> seen = Look(directory, true);
        if (!seen)
            return 1;
        if (gblStop) {
            Say("<5>asked to stop: nothing started");
            break;
        }
        if (!blAttempted || !SameAsRecord(*seen)) {
            const Answer answer = Judge(*seen);
            if (answer.verdict == Verdict::Owed) {
                nExit = Attempt(*seen);
                if (nExit < 0)
                    return 1;
                if (gblStop)
                    break;
                blAttempted = true;
                continue;
            }
            // The fixes of a failed attempt removed meanwhile: a way back, and
            // the failed state cleared now cannot be set again by this unit.
            if (answer.verdict == Verdict::Nothing)
                nExit = 0;
            Act(answer, *seen);
        }
        if (!turn.GiveAndTakeIfAsked())
            break;
    }
    return nExit;
}

int Pending()
{
    // Watched before the turn is taken: a change meanwhile is judged again.
    UpdateDirectory directory;
    Turn turn;
    if (!turn.Usable())
        return 255;
    if (!turn.TakeOrAsk()) {
        Say("<6>nothing started: a run or judgement is in progress, and judges again once done");
        return 1;
    }
    for (;;) {
        // No given-up fix is forgotten for a directory that cannot be read.
        const std::optional<Seen> seen = Look(directory, false);
        if (!seen)
            return 255;
        if (gblStop) {
            Say("<5>asked to stop: nothing judged");
            return 1;
        }
        const Answer answer = Judge(*seen);
        Act(answer, *seen);
        // The run that follows reads the candidates afresh.
        if (answer.verdict == Verdict::Owed)
            return ExitCode(answer.verdict);
        if (!directory.Changed() && !turn.GiveAndTakeIfAsked())
            return ExitCode(answer.verdict);
    }
}

// Started with a standard descriptor closed, a file it opens would take its
// place, and the tool's reports or a program's output would go there.
void OpenMissingStandardDescriptors()
{
    for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd) {
        if (fcntl(fd, F_GETFD) == -1 && errno == EBADF) {
            const int fdNull = open("/dev/null", O_RDWR);
            if (fdNull > STDERR_FILENO)
                (void)close(fdNull);
        }
    }
}

}  // namespace

int main(int argc, char *argv[])
{
    OpenMissingStandardDescriptors();
    const std::string strVerb = argc == 2 ? argv[1] : "";
    if (strVerb != "run" && strVerb != "pending") {
        (void)fprintf(stderr, "usage: %s run|pending\n",
                      argc > 0 ? argv[0] : "small-update-service");
        return 2;
    }
    // A reader of the journal that went away ends no run: a write fails
    // instead. A writer that opens a file while its read lease is held
    // (candidates.cpp) sends SIGIO, which must not end it either. Caught,
    // not ignored: the programs it starts get them as they were.
    struct sigaction sa = {};
    sa.sa_handler = [](int) {};
    (void)sigaction(SIGPIPE, &sa, nullptr);
    (void)sigaction(SIGIO, &sa, nullptr);
    // A stop ends the loop of runs, or a judgement, where nothing is lost.
    sa.sa_handler = [](int) { gblStop = 1; };
    (void)sigaction(SIGTERM, &sa, nullptr);
    if (mkdir(SZ_STATE_DIR, 0755) != 0 && errno != EEXIST) {
        Say(std::string("<3>cannot write ") + SZ_STATE_DIR);
        return strVerb == "run" ? 1 : 255;
    }
    return strVerb == "run" ? Run() : Pending();
}
