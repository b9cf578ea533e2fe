// Helpers of the tests, which ctest starts each in a sandbox of its own
// (sandbox/vyra-sandbox): there a test writes the tool's fixed paths freely.
#ifndef VYRA_TEST_HELPER_H
#define VYRA_TEST_HELPER_H

#include <gtest/gtest.h>
#include <time.h>

#include <filesystem>
#include <sstream>

#include "sandbox.h"
#include "vyracore.h"

using Lines = std::vector<std::string>;
using sandbox::ReadFile;
using sandbox::WriteFile;

// When the test began; also: refuse the machine's own paths, catch the system log.
inline const time_t tStart = sandbox::Inside() ? (sandbox::TakeLog(), time(nullptr))
                                               : (fputs("run the tests through sandbox/vyra-sandbox\n", stderr), exit(2), 0);

inline Lines Split(const std::string &strText)
{
    Lines lines;
    std::istringstream in(strText);
    for (std::string strLine; std::getline(in, strLine);)
        lines.push_back(strLine);
    return lines;
}

// The core library's error record: "<code> <file>:<line>".
inline std::string Recorded()
{
    char sz[64];
    snprintf(sz, sizeof(sz), "%#x %s:%d", static_cast<unsigned>(vyraerrno),
             VLIBCErrorGetFile() != nullptr ? VLIBCErrorGetFile() : "-", static_cast<int>(VLIBCErrorGetLine()));
    return sz;
}

// A log's lines without the stamp of local time since the test began, five
// hours east of UTC as Env sets it; "<no stamp>" before a line without one.
inline Lines LogLines(const std::string &strPath)
{
    Lines lines = Split(ReadFile(strPath));
    for (std::string &strLine : lines) {
        struct tm tmStamp = {};
        const bool blShaped = strptime(strLine.c_str(), "%Y/%m/%d %H:%M:%S", &tmStamp) == strLine.c_str() + 19;
        const time_t tStamp = timegm(&tmStamp) - 5 * 3600;
        strLine = blShaped && strLine[19] == '\t' && tStamp >= tStart && tStamp <= time(nullptr) ? strLine.substr(20)
                                                                                                  : "<no stamp>" + strLine;
    }
    return lines;
}

// The system log in order: "$ argv" for each start of a stand-in, the tool's
// and the package library's messages without their line, others as sent
// ("<N>" before one not at LOG_ERR), and raw texts such as a standard error.
inline Lines Journal(const std::vector<std::string> &log)
{
    Lines lines;
    for (std::string str : log) {
        str = str.rfind("<13>", 0) == 0 ? "$ " + str.substr(4) : str.rfind("<11>", 0) == 0 ? str.substr(4) : str;
        if (str.rfind("small_update.cpp:", 0) == 0 || str.rfind("debian_lib.cpp:", 0) == 0)
            str.erase(str.find(':') + 1, str.find(' ') - str.find(':') - 1);
        lines.push_back(str);
    }
    return lines;
}

// strace writing /tmp/strace, failing the calls strInject names (if any).
inline Lines Strace(const std::string &strInject, const Lines &options = {"--"})
{
    Lines argv = {"/usr/bin/strace", "-qq", "-o", "/tmp/strace", "-e", "inject=" + strInject};
    argv.resize(strInject.empty() ? 4 : 6);
    argv.insert(argv.end(), options.begin(), options.end());
    return argv;
}

// The environment for argv: local time five hours east of UTC, where a stamp
// in UTC shows; under strace, no LeakSanitizer, which cannot trace then. The
// first variable of a name is the one that counts.
inline Lines Env(const Lines &argv)
{
    Lines env = sandbox::DefaultEnv();
    const std::string strAsan = getenv("ASAN_OPTIONS") != nullptr ? getenv("ASAN_OPTIONS") : "";
    env.insert(env.begin(), {"TZ=XYZ-5", "ASAN_OPTIONS=" + strAsan + (argv[0] == "/usr/bin/strace" ? ":detect_leaks=0" : "")});
    return env;
}

#endif
