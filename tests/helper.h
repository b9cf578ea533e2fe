// Helpers of the tests. ctest starts each test in a sandbox of its own
// (sandbox/vyra-sandbox), where it writes the tool's fixed paths freely;
// started anywhere else, a test binary refuses to run.
#ifndef VYRA_TEST_HELPER_H
#define VYRA_TEST_HELPER_H

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "sandbox.h"

using Lines = std::vector<std::string>;
using sandbox::ReadFile;
using sandbox::WriteFile;

Lines Split(const std::string &strText);
// The core library's error record: "<code> <file>:<line>".
std::string Recorded();
// A log's lines, each without its checked time stamp ("<no stamp>" if none).
Lines LogLines(const std::string &strPath);
// The system log in order: "$ argv" for each start of a stand-in, messages of
// the tool and the package library without their line, others as sent ("<N>"
// before one not at LOG_ERR), and raw texts such as RunTool's standard error.
Lines Journal(const std::vector<std::string> &log);
// strace writing /tmp/strace, and failing the calls strInject names, if any.
Lines Strace(const std::string &strInject, const Lines &options = {"--"});
// The environment for argv: under strace, LeakSanitizer cannot trace.
Lines EnvFor(const Lines &argv);
// A machine of build 2668: stand-ins for the appliance's tools and, unless
// blRealDpkg, for dpkg; the update directory holding the packages; no logs.
void Machine(const std::vector<std::pair<std::string, std::string>> &packages, bool blRealDpkg = false);
// Runs command (by default small_update, with arguments) behind prefix, with
// its standard error on /dev/log so that the journal holds every channel in order.
sandbox::Result RunTool(const Lines &prefix = {}, const Lines &command = {VYRA_TOOL_COMMAND, "-x", "a.deb"});

#endif
