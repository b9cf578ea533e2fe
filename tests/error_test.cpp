#include <string.h>
#include <unistd.h>

#include <string>

#include "test_util.h"
#include "vyracore.h"

namespace {

using testutil::ReadFile;
using testutil::TempDir;
using testutil::WriteFile;

// Other programs of the appliance compare the recorded codes by number.
static_assert(ERR_NOT_ENOUGH_MEMORY == 0x0100 && ERR_OPEN_FAILED == 0x0900 &&
              ERR_WRITE_FAILED == 0x0B00 && ERR_BAD_PARAMETERS == 0x0D00 &&
              ERR_KEY_NOT_FOUND == 0x2000 && ERR_OP_FAILURE == 0x2A00 && ERR_FORK_FAIL == 0x9700 &&
              ERR_VYRAACL_ENTRY_EXCEED == 0xEF00 && sizeof(VYRAERR) == 4);

// Runs first in its own process under ctest, before anything is recorded.
TEST(ErrorState, StartsEmpty)
{
    EXPECT_EQ(vyraerrno, ERR_SUCCESS);
    EXPECT_EQ(VLIBCErrorGetFile(), nullptr);
    EXPECT_EQ(VLIBCErrorGetLine(), 0);
}

TEST(ErrorState, SetExKeepsThePointerAndSetForgetsFileAndLine)
{
    static const char szWhere[] = "somewhere.c";
    VLIBCErrSetEx(ERR_KEY_NOT_FOUND, szWhere, 77);
    EXPECT_EQ(vyraerrno, ERR_KEY_NOT_FOUND);
    EXPECT_EQ(VLIBCErrorGetFile(), szWhere);
    EXPECT_EQ(VLIBCErrorGetLine(), 77);

    VLIBCErrSet(ERR_OPEN_FAILED);
    EXPECT_EQ(vyraerrno, ERR_OPEN_FAILED);
    EXPECT_EQ(VLIBCErrorGetFile(), nullptr);
    EXPECT_EQ(VLIBCErrorGetLine(), 0);
}

struct AppendCase {
    const char *szName;
    const char *szBefore;  // nullptr: the file does not exist yet
    const char *szLine;
    const char *szAfter;
};

class ErrLogSetAppends : public testing::TestWithParam<AppendCase> {};

TEST_P(ErrLogSetAppends, WritesOneRecordAfterTheLastByte)
{
    const AppendCase &c = GetParam();
    TempDir dir;
    const std::string strFile = dir.Path("log");
    if (c.szBefore != nullptr)
        WriteFile(strFile, c.szBefore);
    // A success must leave the record of an earlier failure alone.
    static const char szEarlier[] = "earlier.c";
    VLIBCErrSetEx(ERR_KEY_NOT_FOUND, szEarlier, 5);

    EXPECT_EQ(VLIBCErrLogSet(strFile.c_str(), c.szLine), 0);
    EXPECT_EQ(ReadFile(strFile), c.szAfter);
    EXPECT_EQ(vyraerrno, ERR_KEY_NOT_FOUND);
    EXPECT_EQ(VLIBCErrorGetFile(), szEarlier);
    EXPECT_EQ(VLIBCErrorGetLine(), 5);
}

INSTANTIATE_TEST_SUITE_P(
    Cases, ErrLogSetAppends,
    testing::Values(
        AppendCase{"Creates", nullptr, "first", "first\n"},
        AppendCase{"AppendsWithoutTruncating", "one\ntwo", "three", "one\ntwothree\n"},
        AppendCase{"EmptyLine", "x\n", "", "x\n\n"},
        AppendCase{"DoublePercentIsOne", "", "100%% done", "100% done\n"},
        // Conversions are never performed: nothing is read or written
        // through arguments that were never passed.
        AppendCase{"ConversionsStayLiteral", "", "%n%s%d%x%p%%%", "%n%s%d%x%p%%\n"},
        AppendCase{"HostilePath", "", " ===========[-i /smallupd@te/a%n%n%s_1-2668-s1_all.deb ]",
                   " ===========[-i /smallupd@te/a%n%n%s_1-2668-s1_all.deb ]\n"},
        AppendCase{"TrailingLonePercent", "", "50%", "50%\n"}),
    [](const testing::TestParamInfo<AppendCase> &info) { return info.param.szName; });

struct FailureCase {
    const char *szName;
    const char *szFile;  // relative to a temporary directory unless absolute
    const char *szLine;
    VYRAERR err;
    int nLine;
};

class ErrLogSetFails : public testing::TestWithParam<FailureCase> {};

TEST_P(ErrLogSetFails, RecordsCodeFileAndLine)
{
    const FailureCase &c = GetParam();
    TempDir dir;
    std::string strFile;
    if (c.szFile != nullptr)
        strFile = c.szFile[0] == '/' ? c.szFile : dir.Path(c.szFile);
    const std::string strLong(1 << 20, 'x');
    const char *szLine = c.szLine != nullptr && strcmp(c.szLine, "<long>") == 0 ? strLong.c_str()
                                                                                : c.szLine;

    EXPECT_EQ(VLIBCErrLogSet(c.szFile != nullptr ? strFile.c_str() : nullptr, szLine), -1);
    EXPECT_EQ(vyraerrno, c.err);
    EXPECT_STREQ(VLIBCErrorGetFile(), "error_log_set.cpp");
    EXPECT_EQ(VLIBCErrorGetLine(), c.nLine);
    if (c.szFile != nullptr && c.szFile[0] != '/') {
        EXPECT_NE(access(strFile.c_str(), F_OK), 0) << "nothing may be created";
    }
}

INSTANTIATE_TEST_SUITE_P(
    Cases, ErrLogSetFails,
    testing::Values(FailureCase{"NullFile", nullptr, "x", ERR_BAD_PARAMETERS, 32},
                    FailureCase{"NullLine", "log", nullptr, ERR_BAD_PARAMETERS, 32},
                    FailureCase{"MissingDirectory", "no/such/log", "x", ERR_OPEN_FAILED, 37},
                    // More than a stream buffer, so the device's refusal is
                    // seen while writing, not only when flushing.
                    FailureCase{"DeviceFull", "/dev/full", "<long>", ERR_WRITE_FAILED, 51}),
    [](const testing::TestParamInfo<FailureCase> &info) { return info.param.szName; });

}  // namespace
