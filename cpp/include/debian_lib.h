// The package library: the package file name rules, the installation order,
// the time-stamped log writer and the dpkg runner.
#ifndef DEBIAN_LIB_H
#define DEBIAN_LIB_H

#include <string>

namespace DebianLib {

// Appends "<local time as %Y/%m/%d %H:%M:%S\t><strMsg>\n" to strFileName and
// syncs it. Silent: a failure only leaves its code in the core error state.
void WriteUpdateLog(const std::string &strMsg, const std::string &strFileName);

// Runs "/usr/bin/dpkg strParam strDebianName [strDestFolder]" with its output
// appended to the installer log, after a banner line there. True when dpkg
// exited 0 or was ended by a signal; false after a non-zero exit (logged as
// "Failed to install ..."), a failed fork or a failed wait (system log).
bool ExecDpkg(const std::string &strParam, const std::string &strDebianName,
              const std::string &strDestFolder);
bool ExecDpkg(const std::string &strParam, const std::string &strDebianName);

}  // namespace DebianLib

#endif
