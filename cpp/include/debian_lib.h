// The package library: the package file name rules, the installation order,
// the time-stamped log writer and the dpkg runner.
#ifndef DEBIAN_LIB_H
#define DEBIAN_LIB_H

#include <string>

namespace DebianLib {

// The small-fix number of a package file name "<package>_<version>_<arch>.deb"
// made for this system's build: the decimal number after the last "-s" of the
// version field, read as strtol does (0 without digits, clamped to int). -1
// for a name that is refused: not ending in ".deb", not exactly two "_", no
// "-s" in the version field, or not holding "-<build>-s" where <build> is the
// "buildnumber" of /etc.defaults/VERSION, read afresh on every call (the last
// two are logged). A name of 1 to 3 characters throws std::out_of_range.
int FindSmallFixNumfromDeb(const std::string &strDebName);

// The installation order: whether the first package's small-fix number is
// smaller than the second's. Usable as the less-than of std::sort.
bool InstallDebCompare(const std::string &strDebFirst, const std::string &strDebSecond);

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
