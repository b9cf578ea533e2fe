// The package library. Diagnostics go to the system log at LOG_ERR with the
// source file's base name and line in front; nothing here prints or exits.
#include "debian_lib.h"

#include <fcntl.h>
#include <limits.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <syslog.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>

#include "vyracore.h"

namespace {

const char SZ_DPKG_PATH[] = "/usr/bin/dpkg";
const char SZ_INSTALLER_LOG[] = "/var/log/dpkg_upgrade.log";
const char SZ_VERSION_FILE[] = "/etc.defaults/VERSION";

}  // namespace

// Every log line carries the time: a 32-bit time_t would stamp wrong dates
// from 2038 on, while the appliance is still in service.
static_assert(sizeof(time_t) >= 8, "time_t must be 64 bits: build with _TIME_BITS=64");

namespace DebianLib {

int FindSmallFixNumfromDeb(const std::string &strDebName)
{
    char szTemp[32];

    if (strDebName.empty())
        return -1;
    // Throws for 1 to 3 characters; glob only hands over "*.deb" matches.
    if (strDebName.compare(strDebName.length() - 4, 4, ".deb") != 0)
        return -1;

    const auto idxFirstUnderLine = strDebName.find('_');
    if (idxFirstUnderLine == std::string::npos)
        return -1;
    const auto idxLastUnderLine = strDebName.rfind('_');
    if (idxLastUnderLine == std::string::npos || idxLastUnderLine == idxFirstUnderLine)
        return -1;

    // Read on every call: the system may be updated while packages wait.
    if (VLIBCFileGetKeyValue(SZ_VERSION_FILE, "buildnumber", szTemp, sizeof(szTemp), 0) <= 0) {
        syslog(LOG_ERR, "%s:%d Get buildnumber Fail\n", __FILE_NAME__, __LINE__);
        return -1;
    }
    // Matched as text, anchored by the dashes: build 266 is not -1266-s.
    const std::string strBuildNumberPattern = std::string("-") + szTemp + "-s";
    const auto idxTemp = strDebName.find(strBuildNumberPattern);
    if (idxTemp == std::string::npos) {
        syslog(LOG_ERR, "%s:%d different buildnumber of deb [%s] with system buildnumber [%s]\n",
               __FILE_NAME__, __LINE__, strDebName.c_str(), szTemp);
        return -1;
    }

    const std::string strDebVer =
        strDebName.substr(idxFirstUnderLine + 1, idxLastUnderLine - idxFirstUnderLine - 1);
    if (strDebVer.find('_') != std::string::npos)
        return -1;
    const auto idxSmallNumber = strDebVer.rfind("-s");
    if (idxSmallNumber == std::string::npos)
        return -1;
    const std::string strSmallFixVer = strDebVer.substr(idxSmallNumber + 2);

    // long is 32 bits on the appliance, where strtol itself clamps to the int
    // range; clamping here gives the same number where long is wider.
    const long nConverted = strtol(strSmallFixVer.c_str(), nullptr, 10);
    const int smallFixNum = static_cast<int>(std::clamp<long>(nConverted, INT_MIN, INT_MAX));
    return smallFixNum;
}

bool InstallDebCompare(const std::string &strDebFirst, const std::string &strDebSecond)
{
    const int nFirst = FindSmallFixNumfromDeb(strDebFirst);
    const int nSecond = FindSmallFixNumfromDeb(strDebSecond);
    return nFirst < nSecond;
}

void WriteUpdateLog(const std::string &strMsg, const std::string &strFileName)
{
    char szTime[64];
    time_t tCurrent = 0;
    struct tm *tmNow = nullptr;

    memset(szTime, 0, sizeof(szTime));
    tCurrent = time(nullptr);
    tmNow = localtime(&tCurrent);
    memset(szTime, 0, sizeof(szTime));
    // Without a local time the line still goes out, only without its stamp.
    if (tmNow != nullptr)
        (void)strftime(szTime, sizeof(szTime), "%Y/%m/%d %H:%M:%S\t", tmNow);

    const std::string strUpdateMsg = szTime + strMsg;
    VLIBCErrLogSet(strFileName.c_str(), strUpdateMsg.c_str());
}

bool ExecDpkg(const std::string &strParam, const std::string &strDebianName,
              const std::string &strDestFolder)
{
    int status = 0;
    // Always three fields: an empty folder still leaves its blank before "]",
    // so every banner in the log has the same shape.
    std::string strMsg =
        " ===========[" + strParam + " " + strDebianName + " " + strDestFolder + "]===========";

    // Written before the fork, so the banner precedes dpkg's own output.
    WriteUpdateLog(strMsg, SZ_INSTALLER_LOG);

    const pid_t pid = fork();
    if (pid < 0) {
        syslog(LOG_ERR, "%s:%d Fail to fork", __FILE_NAME__, __LINE__);
        return false;
    }
    if (pid == 0) {
        const int fd = open(SZ_INSTALLER_LOG, O_RDWR | O_CREAT | O_APPEND, 0666);
        if (fd != -1) {
            dup2(fd, STDOUT_FILENO);
            dup2(fd, STDERR_FILENO);
            // Started without a standard output or error, the open may have
            // returned 1 or 2 itself: closing it then would take away the very
            // output just redirected.
            if (fd > STDERR_FILENO)
                close(fd);
        }
        if (!strDestFolder.empty())
            execl(SZ_DPKG_PATH, SZ_DPKG_PATH, strParam.c_str(), strDebianName.c_str(),
                  strDestFolder.c_str(), static_cast<char *>(nullptr));
        else
            execl(SZ_DPKG_PATH, SZ_DPKG_PATH, strParam.c_str(), strDebianName.c_str(),
                  static_cast<char *>(nullptr));
        // No exit handlers and no stdio flush: they belong to the parent.
        _exit(1);
    }

    if (waitpid(pid, &status, 0) < 0) {
        syslog(LOG_ERR, "%s:%d Fail to exec [dpkg %s %s] error=[%m]", __FILE_NAME__, __LINE__,
               strParam.c_str(), strDebianName.c_str());
        return false;
    }
    // A dpkg ended by a signal counts as installed: only an exit code that
    // dpkg chose itself says the package was refused.
    if (!WIFEXITED(status) || WEXITSTATUS(status) == 0)
        return true;

    strMsg = "Failed to install " + strParam + strDebianName + strDestFolder;
    WriteUpdateLog(strMsg, SZ_INSTALLER_LOG);
    return false;
}

bool ExecDpkg(const std::string &strParam, const std::string &strDebianName)
{
    return ExecDpkg(strParam, strDebianName, std::string());
}

}  // namespace DebianLib
