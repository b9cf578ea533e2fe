// Helpers of the tests. ctest starts each test in a sandbox of its own
// (sandbox/vyra-sandbox), where a test writes the tool's fixed paths freely;
// a build without root starts them outside, where what needs the sandbox skips.
#ifndef VYRA_TEST_HELPER_H
#define VYRA_TEST_HELPER_H

#include <gtest/gtest.h>
#include <stdlib.h>
#include <time.h>

#include <filesystem>
#include <map>
#include <sstream>
#include <stdexcept>

#include "sandbox.h"
#include "vyracore.h"

namespace fs = std::filesystem;
using Lines = std::vector<std::string>;
using sandbox::ReadFile;
using sandbox::WriteFile;

// Ends a test that cannot run here, saying why: a skip, or a failure where
// VYRA_SANDBOX_REQUIRED is set (CI, as root), as a skip there hides a fault.
#define RUN_ONLY_IF(blCan, strWhy)                      \
    if (!(blCan)) {                                     \
        if (getenv("VYRA_SANDBOX_REQUIRED") != nullptr) \
            FAIL() << (strWhy);                         \
        GTEST_SKIP() << (strWhy);                       \
    }
// Inside, the system log is caught from here on.
#define NEEDS_SANDBOX()                                                                            \
    RUN_ONLY_IF(sandbox::Inside(), "it writes the system's own paths, so it runs in vyra-sandbox " \
                                   "as root: scripts/test.sh, as CI runs it");                     \
    sandbox::TakeLog()

// A core-library error record, shown as "ERR_OPEN_FAILED at error_log_set.cpp:37".
struct Record {
    VYRAERR code = ERR_SUCCESS;
    std::string strFile;
    int nLine = 0;
    bool operator==(const Record &) const = default;
};
inline void PrintTo(const Record &record, std::ostream *pout)
{
    const std::map<VYRAERR, const char *> kNames = {
        {ERR_SUCCESS, "ERR_SUCCESS"},         {ERR_NOT_ENOUGH_MEMORY, "ERR_NOT_ENOUGH_MEMORY"},
        {ERR_OPEN_FAILED, "ERR_OPEN_FAILED"}, {ERR_WRITE_FAILED, "ERR_WRITE_FAILED"},
        {ERR_OP_FAILURE, "ERR_OP_FAILURE"},   {ERR_BAD_PARAMETERS, "ERR_BAD_PARAMETERS"},
        {ERR_FORK_FAIL, "ERR_FORK_FAIL"},     {ERR_KEY_NOT_FOUND, "ERR_KEY_NOT_FOUND"}};
    *pout << (kNames.count(record.code) ? kNames.at(record.code) : std::to_string(record.code))
          << " at " << record.strFile << ":" << record.nLine;
}
inline Record Recorded()
{
    const char *szFile = VLIBCErrorGetFile();
    return {vyraerrno, szFile != nullptr ? szFile : "", VLIBCErrorGetLine()};
}
// Recorded before a call, and still there after it: the call recorded nothing.
inline const Record kEarlier = {ERR_OP_FAILURE, "earlier.c", 5};
inline void RecordEarlier()
{
    VLIBCErrSetEx(kEarlier.code, "earlier.c", kEarlier.nLine);
}

// A path in a directory of the test program's own, removed when it ends.
inline std::string Scratch(const std::string &strName)
{
    static const struct Dir {
        std::string strPath = fs::temp_directory_path() / "vyra-test.XXXXXX";
        Dir()
        {
            if (mkdtemp(strPath.data()) == nullptr)
                throw std::runtime_error("no scratch directory " + strPath);
        }
        ~Dir()
        {
            fs::remove_all(strPath);
        }
    } dir;
    return dir.strPath + "/" + strName;
}

inline Lines Split(const std::string &strText)
{
    Lines lines;
    std::istringstream in(strText);
    for (std::string strLine; std::getline(in, strLine);)
        lines.push_back(strLine);
    return lines;
}

// A log's lines: the log writer's records without their stamp, which must be
// local time (five hours east of UTC, as Env sets it) since the test program
// started, and what dpkg wrote there behind "<not a record>".
inline const time_t tStart = time(nullptr);
inline Lines LogLines(const std::string &strPath)
{
    Lines lines = Split(ReadFile(strPath));
    for (std::string &strLine : lines) {
        struct tm tmStamp = {};
        const char *pchEnd = strptime(strLine.c_str(), "%Y/%m/%d %H:%M:%S", &tmStamp);
        const time_t tStamp = timegm(&tmStamp) - 5 * 3600;
        const bool blRecord = pchEnd == strLine.c_str() + 19 && strLine[19] == '\t' &&
                              tStamp >= tStart - 1 && tStamp <= time(nullptr);
        strLine = blRecord ? strLine.substr(20) : "<not a record>" + strLine;
    }
    return lines;
}

// The system log in order: "$ argv" for each start of a stand-in (user.notice),
// the tool's and the package library's messages at LOG_ERR without their line
// number, anything else as it came: a standard error, another priority.
inline Lines Journal(const std::vector<std::string> &log)
{
    Lines lines;
    for (std::string str : log) {
        str = str.rfind("<13>", 0) == 0   ? "$ " + str.substr(4)
              : str.rfind("<11>", 0) == 0 ? str.substr(4)
                                          : str;
        if (str.rfind("small_update.cpp:", 0) == 0 || str.rfind("debian_lib.cpp:", 0) == 0)
            str.erase(str.find(':') + 1, str.find(' ') - str.find(':') - 1);
        lines.push_back(str);
    }
    return lines;
}

// The environment for argv: local time five hours east of UTC, where a stamp
// in UTC shows; under strace, no LeakSanitizer, which cannot trace then.
inline Lines Env(const Lines &argv)
{
    const char *szAsan = getenv("ASAN_OPTIONS");
    Lines env = sandbox::DefaultEnv();
    env.insert(env.begin(),
               {"TZ=XYZ-5", std::string("ASAN_OPTIONS=") + (szAsan ? szAsan : "") +
                                (argv[0] == "/usr/bin/strace" ? ":detect_leaks=0" : "")});
    return env;
}

#endif
