// A throw-away root for running the update tool and its parts against the
// fixed absolute paths they use, without touching the machine's own files.
//
// A run happens in a private mount namespace, chrooted into a copy-on-write
// overlay of the machine's root ("/" as the lower layer, a temporary directory
// as the upper one). A fresh /dev and /proc are mounted inside, and /dev/log is
// a datagram socket that the caller reads, so system-log messages are caught.
// Whatever the run writes lands in the upper layer and can be read back after
// it; everything is removed with the object.
//
// Needs root (mount namespaces and overlay mounts); Available() tells.
#ifndef VYRA_SANDBOX_H
#define VYRA_SANDBOX_H

#include <sys/types.h>

#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace sandbox {

// A new directory under $TMPDIR (or /tmp), removed with everything in it
// when the object goes, never crossing into a mount. Throws
// std::runtime_error when it cannot be made.
class TempDir {
public:
    explicit TempDir(const std::string &strPrefix = "vyra");
    ~TempDir();
    TempDir(const TempDir &) = delete;
    TempDir &operator=(const TempDir &) = delete;
    const std::string &Path() const { return m_strPath; }
    std::string Path(const std::string &strName) const { return m_strPath + "/" + strName; }

private:
    std::string m_strPath;
};

// One datagram that arrived on the sandbox's /dev/log.
struct LogMessage {
    int priority = -1;  // the number between "<" and ">": facility | severity
    std::string tag;    // the sender's name, before ": "
    std::string text;   // the message as sent, a trailing newline included
    std::string raw;    // the whole datagram
};

// What one stand-in program saw when it was started.
struct StandinCall {
    std::vector<std::string> argv;  // argv[0] is the path it was started by
    std::vector<std::string> env;
    std::string cwd;
    std::map<int, std::string> fds;  // inherited descriptor -> what it points to
    long pid = 0;
    long ppid = 0;
    long sid = 0;
    std::vector<int> pending;  // earlier calls (1-based) not yet ended when it started
};

struct Result {
    int status = -1;  // wait status of the program (Run) or function (Call)
    std::string out;  // its standard output
    std::string err;  // its standard error
    std::vector<LogMessage> log;

    bool Exited() const;
    int ExitCode() const;  // -1 unless Exited()
    bool Signaled() const;
    int Signal() const;  // 0 unless Signaled()
};

class Sandbox {
public:
    // True when a sandbox can be made on this machine; otherwise false with
    // the reason in *pstrWhy. Probed once per process.
    static bool Available(std::string *pstrWhy = nullptr);

    // Makes the temporary layers; throws std::runtime_error when it cannot.
    // They are removed with the object.
    Sandbox();
    Sandbox(const Sandbox &) = delete;
    Sandbox &operator=(const Sandbox &) = delete;

    // Preparation. Paths are absolute paths as seen inside the sandbox;
    // missing parent directories are made. All of these throw on failure.
    void WriteFile(const std::string &strPath, const std::string &strContent,
                   mode_t mode = 0644);
    void CopyIn(const std::string &strHostPath, const std::string &strPath, mode_t mode);
    void MakeDir(const std::string &strPath, mode_t mode = 0755);
    void Symlink(const std::string &strTarget, const std::string &strPath);
    // strPath is an empty directory inside, whatever the machine has there.
    void EmptyDir(const std::string &strPath, mode_t mode = 0755);
    // strPath does not exist inside.
    void Remove(const std::string &strPath);
    // Mounts applied at the start of every run, in the order given. What a
    // run leaves in a tmpfs is copied out when it ends, so it can be read
    // back like everything else.
    void MountReadOnly(const std::string &strPath);
    void MountTmpfs(const std::string &strPath, const std::string &strOptions);
    // A host directory, seen at strPath inside, or at the same path (for
    // example a build tree that is not on the root file system).
    void BindHostDir(const std::string &strHostPath, const std::string &strPath = "");
    // Places at strPath a stand-in program that records how it was started
    // (see StandinCalls), writes one line on each of its outputs and exits 0,
    // or as any file among its arguments asks with a line
    // "standin <its base name>: exit N", "... kill SIGNAL" or "... sleep N"
    // (then exits 0).
    void InstallStandin(const std::string &strPath);

    // How runs start: in strPath (default "/"), and with the program's own
    // standard output and error passed through to the caller's instead of
    // being collected.
    void SetWorkingDirectory(const std::string &strPath);
    void PassOutputThrough();
    // System-log messages are read and dropped, for runs that send many.
    void DropLog();

    // Runs a program inside with standard input on /dev/null, descriptors 0-2
    // only and the given environment (a standard PATH when none is given);
    // returns when it ends.
    Result Run(const std::vector<std::string> &argv,
               const std::vector<std::string> &env = DefaultEnv());
    // Runs fn in a forked child inside, in the standard environment; its
    // result becomes the exit status.
    Result Call(const std::function<int()> &fn);

    // A file as the sandbox left it, if it wrote or was given one there.
    std::optional<std::string> ReadFile(const std::string &strPath) const;
    bool Exists(const std::string &strPath) const;
    // Builds with dpkg-deb, inside, a package strPackage of version 1.0 that
    // installs /usr/share/<strPackage>/hello holding "<strPackage>\n", as the
    // file strDebPath. False when dpkg-deb fails.
    bool BuildDeb(const std::string &strPackage, const std::string &strDebPath);

    // Every start of a stand-in, in order, over all runs so far.
    std::vector<StandinCall> StandinCalls() const;
    static std::vector<std::string> DefaultEnv();

private:
    struct Mount {
        enum class Kind { ReadOnly, Tmpfs, Bind } kind;
        std::string strPath;
        std::string strOptions;
    };

    // Where a path inside lives on the host: the upper layer, or the copy
    // of a tmpfs.
    std::string HostPath(const std::string &strPath) const;
    Result Launch(const std::function<void()> &body);
    void SetUpInside(int fdCtl, int fdOut, int fdErr) const;
    void CopyOutTmpfs() const;

    TempDir m_top{"vyra-sandbox"};
    std::vector<Mount> m_mounts;
    std::string m_strWorkingDirectory = "/";
    bool m_blPassThrough = false;
    bool m_blDropLog = false;
};

}  // namespace sandbox

#endif
