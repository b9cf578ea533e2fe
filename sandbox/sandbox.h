// The machine of the tests, the demo and the benchmark, inside vyra-sandbox,
// on the fixed system paths: runs with their outputs and system-log messages
// caught, files, stand-ins for other programs, and small Debian packages.
#ifndef VYRA_SANDBOX_H
#define VYRA_SANDBOX_H

#include <functional>
#include <string>
#include <vector>

namespace sandbox {

using Lines = std::vector<std::string>;

bool Inside();  // whether this process runs in vyra-sandbox: nothing here works outside

struct Result {
    int status = -1;   // wait status
    std::string out;   // standard output
    Lines log;         // system-log datagrams meanwhile: "<PRI>TEXT", standard error as it came
    int Code() const;  // the exit code, or 1000 + the signal that ended it
};
// fn in a child in /tmp: standard input /dev/null, standard output caught,
// standard error to /dev/log in order with the system log, other descriptors
// closed on exec; done once its child, and each orphan it left, ended (under
// qemu-user, which cannot take orphans, once its child ended).
Result Call(const std::function<int()> &fn);
// Runs argv[0], no PATH search, in the same way.
Result Run(const Lines &argv, const Lines &env = {"PATH=/usr/sbin:/usr/bin:/sbin:/bin"});
Lines TakeLog();  // the datagrams since the last call; the first binds /dev/log

// Whole files; parent directories are made. ReadFile gives "" for no file.
void WriteFile(const std::string &strPath, const std::string &strContent, int mode = 0644);
std::string ReadFile(const std::string &strPath);

void InstallStandin(const std::string &strPath);  // see standin.sh
// A machine of build 2668 that the tool has not run on: neither log, an empty
// update directory, stand-ins for the appliance's tools and, unless
// blRealDpkg, for dpkg (once per sandbox: the real dpkg does not come back).
void Machine(bool blRealDpkg = false);

struct Package {  // of architecture all, installing /usr/share/<strName>/hello
    std::string strName;
    std::string strDepends{};   // none when empty
    std::string strPostinst{};  // its body, run by /bin/sh; none when empty
};
bool BuildDeb(const Package &package, const std::string &strDebPath);  // with dpkg-deb

}  // namespace sandbox

#endif
