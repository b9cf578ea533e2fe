// small_update: installs the critical-fix packages found in "/smallupd@te/".
//
// One run takes no arguments and reads no configuration: it judges every
// "*.deb" there, installs the accepted packages in ascending small-fix order,
// reports every rejected or failed package on standard error, in the system
// log, in the event log and to the administrators, and appends one verdict
// line to the update log. Exit status 0 when everything went through, 255
// when nothing was found or anything was rejected or failed.
#include <errno.h>
#include <fcntl.h>
#include <glob.h>
#include <stdio.h>
#include <string.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <vector>

#include "debian_lib.h"
#include "smallupdate.h"
#include "vyracore.h"

namespace {

const char SZ_UPDATE_LOG[] = "/var/log/vyraupdate.log";

// How one kind of trouble with a package is reported on the four channels.
struct PACKAGE_REPORT {
    const char *szBefore;  // the message is szBefore + path + szAfter
    const char *szAfter;
    const char *szEventCode;
    const char *szMessageKey;
};

const PACKAGE_REPORT REPORT_REJECTED = {"Unexpected Debian [", "], skip install.\n", "0x11B01030",
                                        "update:small_update_check_failed"};
const PACKAGE_REPORT REPORT_INSTALL_FAILED = {"Failed to install [", "]\n", "0x11B01031",
                                              "update:small_update_install_failed"};

// Standard error, system log, event log, administrators: always all four, in
// this order. The message is assembled here and handed on as an argument,
// never as a format, whatever bytes the path holds. The tools' results are
// of no consequence to the run.
void ReportPackage(const PACKAGE_REPORT &sReport, const std::string &strDebPath)
{
    const std::string strMsg = sReport.szBefore + strDebPath + sReport.szAfter;
    (void)fprintf(stderr, "%s", strMsg.c_str());
    syslog(LOG_ERR, "%s:%d %s", __FILE_NAME__, __LINE__, strMsg.c_str());
    VLIBCExec("/usr/vyra/bin/vyralogset1", "sys", "err", sReport.szEventCode, strDebPath.c_str());
    VLIBCExec("/usr/vyra/bin/vyradeknotify", "@administrators", sReport.szMessageKey,
              strDebPath.c_str(), nullptr);
}

// Started by an init script, a daemon or cron with a standard descriptor
// closed, the first file the run opens would take that number: dpkg's output
// would leave its log, or the system log's socket would receive what is meant
// for standard error. Each missing one is held by /dev/null instead; without
// /dev/null the run goes on as it was started.
void OpenMissingStandardDescriptors()
{
    // Only a closed descriptor costs an open: a run started with 0-2 open
    // opens nothing here, so its system calls are those of its work alone.
    for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd) {
        if (fcntl(fd, F_GETFD) != -1 || errno != EBADF)
            continue;
        // An open takes the lowest free number; should fcntl have been wrong,
        // the /dev/null it brings lands above 2 and must not reach dpkg.
        const int fdNull = open("/dev/null", O_RDWR);
        if (fdNull > STDERR_FILENO)
            close(fdNull);
    }
}

}  // namespace

void Usage()
{
}

bool CheckDebian(const std::string &strDebPath)
{
    static std::string strSmallDebPrefix;
    static std::string strFlashDebPrefix;
    static bool blInit = false;
    bool ret = false;

    if (!blInit) {
        strSmallDebPrefix = "/smallupd@te/";
        strSmallDebPrefix += "smallupdate_";
        strFlashDebPrefix = "/smallupd@te/";
        strFlashDebPrefix += "flashupdate_";
        blInit = true;
    }

    const auto idxDebName = strDebPath.rfind('/');
    if (idxDebName == std::string::npos) {
        (void)fprintf(stderr, "invalid debian url [%s]\n", strDebPath.c_str());
        syslog(LOG_ERR, "%s:%d invalid debian url [%s]\n", __FILE_NAME__, __LINE__,
               strDebPath.c_str());
        return false;
    }
    const std::string strDebName = strDebPath.substr(idxDebName + 1);
    if (DebianLib::FindSmallFixNumfromDeb(strDebName) < 0) {
        (void)fprintf(stderr, "invalid debian name [%s]\n", strDebName.c_str());
        syslog(LOG_ERR, "%s:%d invalid debian name [%s]\n", __FILE_NAME__, __LINE__,
               strDebName.c_str());
        return false;
    }

    // The prefixes refuse, they do not require: every path handed over lies
    // in the scanned directory, so packages named smallupdate_ or
    // flashupdate_ there are never installed from here.
    ret = strDebPath.compare(0, strSmallDebPrefix.length(), strSmallDebPrefix) != 0 &&
          strDebPath.compare(0, strFlashDebPrefix.length(), strFlashDebPrefix) != 0;
    return ret;
}

int main(int /* argc */, char * /* argv */[])
{
    int ret = -1;
    glob_t globbuf;
    std::string strServices;

    OpenMissingStandardDescriptors();
    strServices = "/smallupd@te/";
    strServices += "*.deb";
    memset(&globbuf, 0, sizeof(globbuf));
    // A missing or unreadable directory is the same as an empty one, so the
    // result is not looked at; only the matches count.
    glob(strServices.c_str(), GLOB_ERR, nullptr, &globbuf);

    if (globbuf.gl_pathc > 0) {
        bool blHaveErr = false;
        std::vector<std::string> installDebList;

        // Every candidate is judged before anything is installed, so all
        // rejections are reported first and the list can be put in order.
        for (size_t idx = 0; idx < globbuf.gl_pathc; ++idx) {
            const std::string strDebPath = globbuf.gl_pathv[idx];
            if (CheckDebian(strDebPath)) {
                installDebList.push_back(strDebPath);
            } else {
                ReportPackage(REPORT_REJECTED, strDebPath);
                blHaveErr = true;
            }
        }

        std::sort(installDebList.begin(), installDebList.end(), DebianLib::InstallDebCompare);

        // A failure stops nothing: each package stands on its own, and what
        // was installed before stays installed.
        for (const std::string &strDebPath : installDebList) {
            if (!DebianLib::ExecDpkg("-i", strDebPath)) {
                ReportPackage(REPORT_INSTALL_FAILED, strDebPath);
                blHaveErr = true;
            }
        }

        if (!blHaveErr) {
            DebianLib::WriteUpdateLog("Finished critical update!!!", SZ_UPDATE_LOG);
            ret = 0;
        } else {
            DebianLib::WriteUpdateLog("Failed to update critical update", SZ_UPDATE_LOG);
        }
    }

    globfree(&globbuf);
    return ret;
}
