// What a program running inside vyra-sandbox needs to try the update tool
// against the fixed system paths: runs with their outputs and system-log
// messages caught, files, recording stand-ins for other programs, and small
// Debian packages. Every function works on the paths as they are inside; use
// them nowhere else (Inside() tells).
#ifndef VYRA_SANDBOX_H
#define VYRA_SANDBOX_H

#include <functional>
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
// the exit status. The first call binds a socket on /dev/log.
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
Result RunLogged(const std::vector<std::string> &argv, const std::vector<std::string> &env = DefaultEnv());
// The system-log datagrams that arrived since the last call: "<PRI>TEXT" for
// what came in the system log's format, anything else as it came.
std::vector<std::string> TakeLog();

// Whole files; parent directories are made. ReadFile gives "" for no file.
void WriteFile(const std::string &strPath, const std::string &strContent, int mode = 0644);
std::string ReadFile(const std::string &strPath);

// Places at strPath a program that records how it was started (see Calls),
// writes "stand-in <name>: to standard output" and "... error" on them and
// exits 0, or as a line "standin <name>: exit N", "... kill SIGNAL" or
// "... sleep N" in any file among its arguments asks.
void InstallStandin(const std::string &strPath);

// How one start of a stand-in found its process.
struct StandinCall {
    std::vector<std::string> argv;  // argv[0] as it was started
    std::string env;                // "NAME=value\n" for each variable
    std::string cwd;
    std::string fds;  // "<fd> <target>\n" for each inherited descriptor, " (read-only)" before \n if so
    long pid = 0, ppid = 0, sid = 0;
};
// Every start of a stand-in so far, in order.
std::vector<StandinCall> Calls();

// A machine of build 2668 that the tool has not run on: the appliance's
// event-log and notification tools are stand-ins, and so is dpkg unless
// blRealDpkg; the update directory holds the packages (name, content); neither
// log exists. VERSION opens with a comment, as the appliance's does.
void Machine(const std::vector<std::pair<std::string, std::string>> &packages = {}, bool blRealDpkg = false);

// A package strPackage, version 1.0, that installs /usr/share/<strPackage>/hello
// holding "<strPackage>\n", built with dpkg-deb as strDebPath. False on failure.
bool BuildDeb(const std::string &strPackage, const std::string &strDebPath);

}  // namespace sandbox

#endif
