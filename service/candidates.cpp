// The candidates of the update directory, as the tool's glob sees them.
#include <errno.h>
#include <fcntl.h>
#include <fnmatch.h>
#include <glob.h>
#include <poll.h>
#include <string.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>

#include "system.h"

namespace Service {
namespace {

const int64_t NS_SECOND = 1000000000;
// A file written within this long is still being written: a person copying
// a fix in pieces pauses between them, and the close of each starts a check.
const int64_t NS_STILL = 5 * NS_SECOND;
// How long a check or run waits for such a file, well within the units' time-outs.
const int64_t NS_WAIT = 60 * NS_SECOND;
// A file system may keep times to 2 s: a digest taken closer than that to
// the file's change cannot tell it from a rewrite in the same tick.
const int64_t NS_TRUSTED = 2 * NS_SECOND;

int64_t Ns(const struct timespec &ts)
{
    return static_cast<int64_t>(ts.tv_sec) * NS_SECOND + ts.tv_nsec;
}

// The wall clock, which file times are of; the monotonic one for how long a
// wait may last, as the wall clock may step meanwhile.
int64_t Now(clockid_t idClock = CLOCK_REALTIME)
{
    struct timespec ts = {};
    (void)clock_gettime(idClock, &ts);
    return Ns(ts);
}

// Why glob gave up on the directory.
int gnGlobErrno = 0;

int KeepGlobErrno(const char * /* szPath */, int nErrno)
{
    gnGlobErrno = nErrno;
    return 1;
}

bool BlSame(const struct stat &a, const struct stat &b)
{
    return a.st_dev == b.st_dev && a.st_ino == b.st_ino && a.st_size == b.st_size &&
           Ns(a.st_mtim) == Ns(b.st_mtim) && Ns(a.st_ctim) == Ns(b.st_ctim);
}

// What a name of the directory is now: a candidate whose digest and package
// came from the cache, were taken, or are none of the cache's (a directory,
// a file they could not be taken of); a file still being written; or gone.
enum class Found { Cached, Taken, Uncached, Writing, Gone };

// The digest and package of the regular file as stat saw it, read through
// one descriptor, so that both are of the same file.
Found Take(const std::string &strPath, const struct stat &st, Candidate &candidate)
{
    const int fd = open(strPath.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    if (fd < 0)
        return Found::Uncached;
    struct stat stNow = {};
    bool blWriting = fstat(fd, &stNow) != 0 || !BlSame(st, stNow);
    // A read lease is refused while anybody holds the file open for writing:
    // a copy that stalls is not taken for a whole one.
    if (!blWriting && fcntl(fd, F_SETLEASE, F_RDLCK) == 0)
        (void)fcntl(fd, F_SETLEASE, F_UNLCK);
    else
        blWriting = blWriting || errno == EAGAIN;
    std::string strSum, strPackage;
    if (!blWriting && Capture({"/usr/bin/sha256sum"}, fd, strSum) == 0 && strSum.size() > 64 &&
        strSum[64] == ' ')
        candidate.strDigest = strSum.substr(0, 64);
    if (!blWriting && lseek(fd, 0, SEEK_SET) == 0 &&
        Capture({"/usr/bin/dpkg-deb", "--show", "--showformat=${Package}:${Architecture}",
                 "/proc/self/fd/0"},
                fd, strPackage) == 0 &&
        !strPackage.empty())
        candidate.strPackage = strPackage;
    // Changed while it was read: still being written.
    blWriting = blWriting || fstat(fd, &stNow) != 0 || !BlSame(st, stNow);
    (void)close(fd);
    if (blWriting)
        return Found::Writing;
    return candidate.strDigest != "-" && candidate.strPackage != "-" ? Found::Taken
                                                                     : Found::Uncached;
}

// One name of the directory now. A regular file's digest and package come
// from pCached while its stamp holds, or are taken; a file still being
// written is none yet, and nsWait is cut to when it may be still.
Found Examine(const std::string &strPath, Digest *pCached, Digest &digest, int64_t &nsWait)
{
    struct stat st = {};
    digest = {{strPath}, {}};
    const bool blStat = stat(strPath.c_str(), &st) == 0;
    if (!blStat || !S_ISREG(st.st_mode)) {
        digest.candidate.chType = blStat && S_ISDIR(st.st_mode) ? 'd' : 'o';
        // Gone since the glob: no candidate; a link to nothing: one.
        return blStat || lstat(strPath.c_str(), &st) == 0 ? Found::Uncached : Found::Gone;
    }
    const int64_t nsNow = Now(), nsModified = Ns(st.st_mtim);
    digest.stamp = {st.st_size, nsModified, Ns(st.st_ctim), nsNow};
    if (nsModified > nsNow - NS_STILL && nsModified < nsNow + NS_STILL) {
        nsWait = std::min(nsWait, nsModified + NS_STILL - nsNow);
        return Found::Writing;
    }
    if (pCached != nullptr && pCached->stamp.cb == digest.stamp.cb &&
        pCached->stamp.nsModified == nsModified &&
        pCached->stamp.nsChanged == digest.stamp.nsChanged &&
        pCached->stamp.nsTaken >= pCached->stamp.nsChanged + NS_TRUSTED) {
        digest = std::move(*pCached);
        return Found::Cached;
    }
    const Found found = Take(strPath, st, digest.candidate);
    // Held open by its writer: its close wakes the wait, or the next look.
    if (found == Found::Writing)
        nsWait = std::min(nsWait, NS_SECOND);
    return found;
}

}  // namespace

UpdateDirectory::UpdateDirectory() : m_fd(inotify_init1(IN_NONBLOCK | IN_CLOEXEC))
{
    // Without a watch, a change meanwhile waits for the next check.
    if (m_fd >= 0)
        (void)inotify_add_watch(m_fd, SZ_UPDATE_DIR,
                                IN_CLOSE_WRITE | IN_CREATE | IN_DELETE | IN_MOVED_FROM |
                                    IN_MOVED_TO | IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR);
}

UpdateDirectory::~UpdateDirectory()
{
    if (m_fd >= 0)
        (void)close(m_fd);
}

UpdateDirectory::Scan UpdateDirectory::Read()
{
    const int64_t nsEnd = Now(CLOCK_MONOTONIC) + NS_WAIT;
    for (;;) {
        (void)Drain();  // what happened so far, this reading sees
        Scan scan;
        std::vector<Stamp> stamps;
        int64_t nsWait = nsEnd - Now(CLOCK_MONOTONIC);
        glob_t globbuf = {};
        // As the tool's: a directory that is not there holds no candidate.
        // Out of memory, it may have found some: that is no reading.
        gnGlobErrno = 0;
        const int nGlob = glob((std::string(SZ_UPDATE_DIR) + "/*.deb").c_str(),
                               GLOB_ERR | GLOB_NOSORT, KeepGlobErrno, &globbuf);
        scan.blRead =
            nGlob == 0 || nGlob == GLOB_NOMATCH || (nGlob == GLOB_ABORTED && gnGlobErrno == ENOENT);
        std::sort(globbuf.gl_pathv, globbuf.gl_pathv + globbuf.gl_pathc,
                  [](const char *a, const char *b) { return strcmp(a, b) < 0; });
        // The cache is in the same order: one pass over both.
        DigestFile cache(SZ_DIGESTS);
        Digest cached;
        bool blCached = cache.Next(cached), blChanged = false;
        for (size_t idx = 0; idx < globbuf.gl_pathc; ++idx) {
            const std::string strPath = globbuf.gl_pathv[idx];
            for (; blCached && cached.candidate.strPath < strPath; blCached = cache.Next(cached))
                blChanged = true;
            Digest entry, digest;
            const bool blEntry = blCached && cached.candidate.strPath == strPath;
            if (blEntry) {
                entry = std::move(cached);
                blCached = cache.Next(cached);
            }
            // Asked to stop, at a time-out or a shutdown: the digests taken
            // so far are kept, and the rest of the cache as it was, so that
            // thousands of new candidates are taken over several judgements.
            if (gblStop) {
                if (blEntry) {
                    scan.candidates.push_back(std::move(entry.candidate));
                    stamps.push_back(entry.stamp);
                }
                continue;
            }
            const Found found = Examine(strPath, blEntry ? &entry : nullptr, digest, nsWait);
            blChanged = blChanged || found == Found::Taken || (blEntry && found != Found::Cached);
            if (found == Found::Writing) {
                scan.writing.push_back(strPath);
            } else if (found != Found::Gone) {
                scan.candidates.push_back(std::move(digest.candidate));
                stamps.push_back(digest.stamp);
            }
        }
        globfree(&globbuf);
        // A cache that cannot be written only costs the digests again.
        if (blChanged || blCached)
            (void)WriteDurably(SZ_DIGESTS, FormatDigests(scan.candidates, stamps));
        if (scan.writing.empty() || Now(CLOCK_MONOTONIC) >= nsEnd || gblStop || !scan.blRead)
            return scan;
        Wait(nsWait);
    }
}

bool UpdateDirectory::Changed()
{
    return Drain();
}

bool UpdateDirectory::Drain()
{
    alignas(struct inotify_event) char ach[4096];
    bool blChanged = false;
    for (ssize_t cb; m_fd >= 0 && (cb = read(m_fd, ach, sizeof(ach))) > 0;) {
        for (ssize_t idx = 0; idx < cb;) {
            const auto *pEvent = reinterpret_cast<const struct inotify_event *>(ach + idx);
            blChanged = blChanged || (pEvent->mask & (IN_Q_OVERFLOW | IN_IGNORED)) != 0 ||
                        (pEvent->len > 0 && fnmatch("*.deb", pEvent->name, FNM_PERIOD) == 0);
            idx += static_cast<ssize_t>(sizeof(struct inotify_event) + pEvent->len);
        }
    }
    return blChanged;
}

// So long, or until an event in the directory, or SIGTERM, which is let in
// only while it waits so that it cannot slip in between the test and the wait.
void UpdateDirectory::Wait(int64_t nsWait)
{
    sigset_t term, old;
    (void)sigemptyset(&term);
    (void)sigaddset(&term, SIGTERM);
    (void)sigprocmask(SIG_BLOCK, &term, &old);
    const int64_t nsLeft = std::max<int64_t>(nsWait, 0);
    const struct timespec ts = {static_cast<time_t>(nsLeft / NS_SECOND),
                                static_cast<long>(nsLeft % NS_SECOND)};
    struct pollfd pfd = {m_fd, POLLIN, 0};
    if (!gblStop)
        (void)ppoll(&pfd, m_fd >= 0 ? 1 : 0, &ts, &old);
    (void)sigprocmask(SIG_SETMASK, &old, nullptr);
}

}  // namespace Service
