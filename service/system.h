// The service's reading and writing: files, programs and the system, on the
// fixed paths of the appliance.
#ifndef SMALL_UPDATE_SERVICE_SYSTEM_H
#define SMALL_UPDATE_SERVICE_SYSTEM_H

#include <signal.h>

#include "service.h"

namespace Service {

// What the service works on and keeps.
inline constexpr char SZ_UPDATE_DIR[] = "/smallupd@te";
inline constexpr char SZ_STATE_DIR[] = "/var/lib/small-update";
inline constexpr char SZ_RECORD[] = "/var/lib/small-update/last-run";
inline constexpr char SZ_DIGESTS[] = "/var/lib/small-update/digests";
inline constexpr char SZ_STDERR[] = "/var/lib/small-update/stderr";
inline constexpr char SZ_TURN[] = "/var/lib/small-update/lock";
inline constexpr char SZ_AGAIN[] = "/var/lib/small-update/again";

extern volatile sig_atomic_t gblStop;  // SIGTERM came: no further run or digest is started

// A whole file; "" when it cannot be read.
std::string ReadWhole(const char *szPath);
// strText, which ends in a newline, as szPath: written aside with the core
// library's writer (appended and synced, its directory synced), renamed into
// place and the directory synced, so that a power cut leaves the old file or
// the new one. false, and the old file in place, when it could not be
// written or renamed. A failing sync is ignored, as the writer ignores its
// own: a file that then comes back torn after a power cut reads as none,
// which owes a run.
bool WriteDurably(const char *szPath, const std::string &strText);

// Runs argv (a full path first) with standard input on fdIn, or /dev/null
// for -1, and standard error on /dev/null; its output is caught whole. The
// wait status (exit code 127: it could not be started), -1 when no process
// could be made.
int Capture(const std::vector<const char *> &argv, int fdIn, std::string &strOut);

std::string Build();  // as the tool reads it; "" when there is none
// small_update, its standard error caught in /var/lib/small-update/stderr and
// then passed on; its wait status as Capture's, and the text, none when it
// could not be caught.
std::pair<int, std::optional<std::string>> RunTool();
Audit RunAudit(const std::vector<Candidate> &candidates);
pid_t DpkgLockHolder();
bool SyncLocalFileSystems();
void ResetFailedUnits();
void Tell(const std::vector<std::string> &paths);  // as the tool tells of a failed installation

// The update directory, watched from its creation: what changes while it is
// read or judged is seen, though systemd, while the unit it started is
// active, starts nothing for it.
class UpdateDirectory {
  public:
    UpdateDirectory();
    ~UpdateDirectory();
    UpdateDirectory(const UpdateDirectory &) = delete;
    UpdateDirectory &operator=(const UpdateDirectory &) = delete;

    struct Scan {
        bool blRead = true;  // false: the directory is there but cannot be read
        std::vector<Candidate> candidates;
        std::vector<std::string> writing;  // files still being written
    };
    // The candidates. A file's digest and package come from the cache while
    // its size and times hold, or are taken again, and the cache then keeps
    // the candidates' alone. A file still being written is waited for, for a
    // while, and then left out of the candidates.
    Scan Read();
    // Whether a "*.deb" was written, renamed, made or removed since the last
    // look at the directory that Read took.
    bool Changed();

  private:
    bool Drain();  // whether any event concerned a "*.deb"
    void Wait(int64_t nsWait);
    int m_fd;
};

}  // namespace Service

#endif
