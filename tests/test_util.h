// Helpers shared by the tests: whole-file I/O, log lines, and the sandbox
// prepared the way the tool expects its machine.
#ifndef VYRA_TEST_UTIL_H
#define VYRA_TEST_UTIL_H

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "sandbox.h"

namespace testutil {

using sandbox::TempDir;

std::string ReadFile(const std::string &strPath);
void WriteFile(const std::string &strPath, const std::string &strContent);
std::vector<std::string> SplitLines(const std::string &strText);

// The lines of a log the sandbox wrote, each without the time stamp of the
// log writer; "<no stamp>" in front of a line that has none.
std::vector<std::string> LogLines(const sandbox::Sandbox &sb, const std::string &strPath);
// The system-log texts of a run, each as "<source file>: <text>" with the
// line number dropped; "<priority N> " in front of one that was not sent at
// LOG_ERR with the default facility.
std::vector<std::string> LogTexts(const sandbox::Result &res);

// A sandbox with an empty /var/log, the build tree visible at its own path.
std::unique_ptr<sandbox::Sandbox> MakeSandbox();
// The command that runs the built small_update, followed by args.
std::vector<std::string> ToolCommand(const std::vector<std::string> &args = {});

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
