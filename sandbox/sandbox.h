// What a program running inside vyra-sandbox needs to try the update tool
// against the fixed system paths: runs with their outputs and system-log
// messages caught, files, recording stand-ins for other programs, and small
// Debian packages. Every function works on the paths as they are inside; use
// them nowhere else (Inside() tells).
#ifndef VYRA_SANDBOX_H
#define VYRA_SANDBOX_H

#include <functional>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace sandbox {

// Whether this process runs inside vyra-sandbox.
bool Inside();

struct Result {
    int status = -1;               // wait status
    std::string out;               // standard output
    std::string err;               // standard error
    std::vector<std::string> log;  // system-log datagrams sent meanwhile, as sent

    // The exit code, or 1000 + the signal that ended it.
    int Code() const;
};

// A standard PATH, and the sanitizers' settings of this process.
std::vector<std::string> DefaultEnv();

// Runs fn in a forked child with standard input on /dev/null, standard output
// and error caught, and every descriptor above 2 closed on exec; its result is
// the exit status, once every process it started has ended. The first call
// binds a socket on /dev/log.
Result Call(const std::function<int()> &fn);
// Runs argv[0] (no PATH search) in the same way, with the environment env.
Result Run(const std::vector<std::string> &argv,
           const std::vector<std::string> &env = DefaultEnv());
// Replaces the process with argv[0] (no PATH search); if that fails, says why
// on standard error and ends with 127.
[[noreturn]] void Exec(const std::vector<std::string> &argv, const std::vector<std::string> &env);
// Call and Run, but with standard error sent to /dev/log, where it shows in
// order with the system-log messages and the stand-ins' starts.
Result CallLogged(const std::function<int()> &fn);
Result RunLogged(const std::vector<std::string> &argv,
                 const std::vector<std::string> &env = DefaultEnv());
// The system-log datagrams that arrived since the last call: "<PRI>TEXT" for
// what came in the system log's format, anything else as it came.
std::vector<std::string> TakeLog();

// Whole files; parent directories are made. ReadFile gives "" for no file.
void WriteFile(const std::string &strPath, const std::string &strContent, int mode = 0644);
std::string ReadFile(const std::string &strPath);

// Places at strPath a program that records how it was started (see Calls),
// writes "stand-in <name>: to standard output" and "... error" on them and
// exits 0, or as a line "standin <name>: exit N", "... kill SIGNAL" or "...
// run COMMAND" (then exits 0) in any file among its arguments asks.
void InstallStandin(const std::string &strPath);

// How one start of a stand-in found its process.
struct StandinCall {
    std::vector<std::string> argv;  // argv[0] as it was started
    std::string env;                // "NAME=value\n" for each variable
    std::string cwd;
    std::map<int, std::string> fds;  // each inherited descriptor: its target, " (read-only)" after
    long pid = 0, sid = 0;
};
// Every start of a stand-in so far, in order.
std::vector<StandinCall> Calls();

// A package for BuildDeb: architecture all, installing /usr/share/<strName>/hello
// that holds "<strName>\n".
struct Package {
    std::string strName{};
    std::string strVersion = "1.0";
    std::string strDepends{};   // its Depends field; none when empty
    std::string strConffile{};  // /etc/<strName>.conf, a configuration file; none when empty
    std::string strPostinst{};  // the body of a postinst run by /bin/sh; none when empty
};
// Builds the package with dpkg-deb as strDebPath. False on failure.
bool BuildDeb(const Package &package, const std::string &strDebPath);

// A file for the update directory: the package built with dpkg-deb where
// the package has a name, else strContent as it is.
struct UpdateFile {
    std::string strName;
    std::string strContent{};
    Package package{};
};

// A machine of build 2668 that the tool has not run on: the appliance's
// event-log and notification tools are stand-ins, and so is dpkg unless
// blRealDpkg; the update directory holds the files; neither log exists, and
// dpkg has the packages that the sandbox started with, and no others.
// VERSION opens with a comment, as the appliance's does.
void Machine(const std::vector<UpdateFile> &files = {}, bool blRealDpkg = false);
// dpkg's state of the packages matching strPattern that it has or had, each as
// "<name> <state abbreviation>": "vyra-a ii" for one that is installed.
std::vector<std::string> PackageStates(const std::string &strPattern);

// The shell command that cuts the power under /var/log: everything written
// there and not synced is lost, and every later write there fails until
// PowerOn. Usable in a maintainer script, or in a stand-in as "standin <name>:
// run <command>".
extern const char kCutPower[];
// "" where the power can be cut here; otherwise why not.
std::string PowerCutUnavailable();
// Mounts /var/log again, as the machine does when the power comes back; throws
// where the power was never cut.
void PowerOn();

}  // namespace sandbox

#endif
