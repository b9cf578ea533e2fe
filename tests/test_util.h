// Helpers shared by the tests: temporary directories, whole-file I/O, the
// sandbox prepared the way the tool expects its machine, and the records of
// the stand-in programs.
#ifndef VYRA_TEST_UTIL_H
#define VYRA_TEST_UTIL_H

#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "sandbox.h"

namespace testutil {

// A directory removed with everything in it when the object goes.
class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir &) = delete;
    TempDir &operator=(const TempDir &) = delete;
    const std::string &Path() const { return m_strPath; }
    std::string Path(const std::string &strName) const { return m_strPath + "/" + strName; }

private:
    std::string m_strPath;
};

std::string ReadFile(const std::string &strPath);
void WriteFile(const std::string &strPath, const std::string &strContent);
std::vector<std::string> SplitLines(const std::string &strText);
std::vector<std::string> SplitNul(const std::string &strText);

// A line written through the time-stamped log writer, without its stamp;
// "<no stamp>" followed by the line when it does not start with one.
std::string Unstamped(const std::string &strLine);
// A system-log text without its "<strFile>:<line> " prefix; "<no source>"
// followed by the text when it does not start so.
std::string Unsourced(const std::string &strText, const std::string &strFile);

// What one stand-in program saw when it was started.
struct StandinCall {
    std::vector<std::string> argv;  // argv[0] is the path it was started by
    std::vector<std::string> env;
    std::string cwd;
    std::map<int, std::string> fds;  // inherited descriptor -> what it points to
    long pid = 0;
    long ppid = 0;
    long sid = 0;
};

// Where the stand-ins record inside the sandbox.
extern const char kRecords[];

// A sandbox with an empty /var/log and an empty record directory for the
// stand-ins; the build tree is visible at its own path.
std::unique_ptr<sandbox::Sandbox> MakeSandbox();
// Places the recording stand-in at strPath inside the sandbox.
void InstallStandin(sandbox::Sandbox &sb, const std::string &strPath);
// The stand-ins' calls, in the order they were started.
std::vector<StandinCall> StandinCalls(const sandbox::Sandbox &sb);

}  // namespace testutil

// Skips a test that needs the sandbox where it cannot be made, saying why; a
// run that sets VYRA_SANDBOX_REQUIRED fails instead, so it cannot pass by
// skipping.
#define REQUIRE_SANDBOX()                                                  \
    do {                                                                   \
        std::string strWhy_;                                               \
        if (!sandbox::Sandbox::Available(&strWhy_)) {                      \
            if (getenv("VYRA_SANDBOX_REQUIRED") != nullptr)                \
                FAIL() << "sandbox required but unavailable: " << strWhy_; \
            GTEST_SKIP() << "no sandbox here: " << strWhy_;                \
        }                                                                  \
    } while (0)

#endif
