// The machine of the tests, the demo and the benchmark, inside vyra-sandbox:
// runs with their outputs and system-log messages caught, files, stand-ins
// for other programs, and small Debian packages. Everything works on the
// fixed system paths as they are inside; use it nowhere else (Inside()).
#ifndef VYRA_SANDBOX_H
#define VYRA_SANDBOX_H

#include <functional>
#include <string>
#include <utility>
#include <vector>

namespace sandbox {

using Lines = std::vector<std::string>;

bool Inside();

struct Result {
    int status = -1;  // wait status
    std::string out;  // standard output
    Lines log;        // system-log datagrams meanwhile: "<PRI>TEXT", standard error as it came

    int Code() const;  // the exit code, or 1000 + the signal that ended it
};

// fn in a forked child in /tmp, with standard input on /dev/null, standard
// output caught, standard error a socket to /dev/log, where it shows in order
// with the system log, and every other descriptor closed on exec. The result
// is there once every process it started has ended.
Result Call(const std::function<int()> &fn);
// Runs argv[0], no PATH search, in the same way.
Result Run(const Lines &argv, const Lines &env = {"PATH=/usr/sbin:/usr/bin:/sbin:/bin"});
// The system-log datagrams that came since the last call. The first binds /dev/log.
Lines TakeLog();

// Whole files; parent directories are made. ReadFile gives "" for no file.
void WriteFile(const std::string &strPath, const std::string &strContent, int mode = 0644);
std::string ReadFile(const std::string &strPath);

// Places a stand-in program at strPath (see standin.sh).
void InstallStandin(const std::string &strPath);
// A machine of build 2668 that the tool has not run on: neither log, an empty
// update directory, stand-ins for the appliance's event-log and notification
// tools, and for dpkg unless blRealDpkg. VERSION opens with a comment, as the
// appliance's does.
void Machine(bool blRealDpkg = false);

// Builds with dpkg-deb a package of architecture all that installs
// /usr/share/<strName>/hello. False on failure.
struct Package {
    std::string strName;
    std::string strDepends{};   // none when empty
    std::string strPostinst{};  // its body, run by /bin/sh; none when empty
};
bool BuildDeb(const Package &package, const std::string &strDebPath);

// The command that cuts the power under /var/log: what was not synced is lost,
// and every later access fails until PowerOn mounts it again, as the machine
// does when the power comes back. PowerOn throws where the power was not cut.
extern const char kCutPower[];
std::string PowerCutUnavailable();  // "" where it can be cut here; else why not
void PowerOn();

}  // namespace sandbox

#endif
