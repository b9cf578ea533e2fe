#include <string.h>
#include <unistd.h>

#include <string>

#include "test_util.h"
#include "vyracore.h"

namespace {

using testutil::ReadFile;
using testutil::TempDir;
using testutil::WriteFile;

// Other programs of the appliance compare these numbers.
static_assert(sizeof(VYRAERR) == 4);
static_assert(ERR_NOT_ENOUGH_MEMORY == 0x0100 && ERR_OPEN_FAILED == 0x0900 &&
              ERR_WRITE_FAILED == 0x0B00 && ERR_BAD_PARAMETERS == 0x0D00 &&
              ERR_KEY_NOT_FOUND == 0x2000 && ERR_OP_FAILURE == 0x2A00 && ERR_MMAP_FAILED == 0x3D00);
static_assert(ERR_FORMAT_ERROR == 0x4000 && ERR_NO_BACKUP_SET == 0x5000 &&
              ERR_NO_VOLUME_ID == 0x6000 && ERR_DEVICE_BUSY == 0x6400 &&
              ERR_BAD_DISKSECTOR == 0x6D00 && ERR_UDPD_INVALID_HANDLE == 0x7100 &&
              ERR_MANUTIL_PERM == 0x7B00 && ERR_UNKNOWN == 0x8000 && ERR_SYS_UNKNOWN == 0x8100 &&
              ERR_VOLUME_READ_ONLY == 0x8400 && ERR_YP_BIND == 0x9000 &&
              ERR_QUOTA_NOT_FOUND == 0x9100 && ERR_FORK_FAIL == 0x9700 &&
              ERR_RAID_ENUM_FAIL == 0x9800 && ERR_ENUM_FAIL == 0x9900 &&
              ERR_INVALID_PATHNAME == 0x9A00 && ERR_NOT_DIRECTORY == 0xA000 &&
              ERR_USER_CANCEL == 0xA600 && ERR_INTERRUPTED == 0xA700 &&
              ERR_BDB_FILE_DEPRECATED == 0xB000 && ERR_NAME_EXISTS == 0xC000 &&
              ERR_NAME_TOO_LONG == 0xC300 && ERR_SERVICE_EXISTS == 0xD000 &&
              ERR_VYRAACL_NOT_VALID_TO_CHG == 0xD600 && ERR_NOT_SUPPORT == 0xD900 &&
              ERR_NOT_A_SYMLINK == 0xE200 && ERR_CLOSE_FAILED == 0xE300 &&
              ERR_FORBIDDEN_ACTION == 0xE400 && ERR_STRING_TOO_LONG == 0xE600 &&
              ERR_DIRECTORY_EXISTS == 0xE700 && ERR_GROUP_BATCH_CONFLICT == 0xEE00 &&
              ERR_VYRAACL_ENTRY_EXCEED == 0xEF00);
static_assert(RAIDERR_PARTITION_NOT_FOUND == 11 && RAIDISKERR_OPEN == 8 && VOLERR_FSSTAT == 11);

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
