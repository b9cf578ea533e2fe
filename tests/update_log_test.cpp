#include <stdlib.h>
#include <time.h>

#include <set>
#include <string>

#include "debian_lib.h"
#include "test_util.h"
#include "vyracore.h"

namespace {

using testutil::ReadFile;
using testutil::SplitLines;
using testutil::TempDir;

TEST(WriteUpdateLog, StampsEachLineWithLocalTimeAndATab)
{
    // Five hours east of UTC, without summer time: a stamp in UTC would show.
    setenv("TZ", "XYZ-5", 1);
    tzset();
    TempDir dir;
    const std::string strLog = dir.Path("update.log");

    const time_t tBefore = time(nullptr);
    DebianLib::WriteUpdateLog("Finished critical update!!!", strLog);
    DebianLib::WriteUpdateLog("", strLog);
    const time_t tAfter = time(nullptr);

    std::set<std::string> stamps;
    for (time_t t = tBefore; t <= tAfter; ++t) {
        const time_t tEast = t + 5 * 3600;
        char sz[64];
        strftime(sz, sizeof(sz), "%Y/%m/%d %H:%M:%S\t", gmtime(&tEast));
        stamps.insert(sz);
    }
    const std::string strText = ReadFile(strLog);
    const auto lines = SplitLines(strText);
    ASSERT_EQ(lines.size(), 2u) << strText;
    EXPECT_EQ(strText.back(), '\n');
    EXPECT_EQ(stamps.count(lines[0].substr(0, 20)), 1u) << lines[0];
    EXPECT_EQ(lines[0].substr(20), "Finished critical update!!!");
    EXPECT_EQ(lines[1].size(), 20u) << "an empty message leaves the stamp and its tab";
    EXPECT_EQ(stamps.count(lines[1]), 1u) << lines[1];
}

TEST(WriteUpdateLog, UnwritableLogOnlyLeavesTheErrorBehind)
{
    TempDir dir;
    VLIBCErrSet(ERR_SUCCESS);
    DebianLib::WriteUpdateLog("lost", dir.Path("no/such/dir/update.log"));
    EXPECT_EQ(vyraerrno, ERR_OPEN_FAILED);
}

}  // namespace
