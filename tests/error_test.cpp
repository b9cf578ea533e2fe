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

TEST(ErrLogSet, AppendsOneRecordAfterTheLastByte)
{
    const struct {
        const char *szBefore;  // nullptr: the file does not exist yet
        const char *szLine;
        const char *szAfter;
    } cases[] = {
        {nullptr, "first", "first\n"},
        {"one\ntwo", "three", "one\ntwothree\n"},
        {"x\n", "", "x\n\n"},
        {"", "100%% done", "100% done\n"},
        {"", "50%", "50%\n"},
        // Conversions are never performed: nothing is read or written
        // through arguments that were never passed.
        {"", "%n%s%d%x%p%%%", "%n%s%d%x%p%%\n"},
        {"", " ===========[-i /smallupd@te/a%n%n%s_1-2668-s1_all.deb ]",
         " ===========[-i /smallupd@te/a%n%n%s_1-2668-s1_all.deb ]\n"},
    };
    for (const auto &c : cases) {
        TempDir dir;
        const std::string strFile = dir.Path("log");
        if (c.szBefore != nullptr)
            WriteFile(strFile, c.szBefore);
        // A success must leave the record of an earlier failure alone.
        static const char szEarlier[] = "earlier.c";
        VLIBCErrSetEx(ERR_KEY_NOT_FOUND, szEarlier, 5);

        EXPECT_EQ(VLIBCErrLogSet(strFile.c_str(), c.szLine), 0) << c.szLine;
        EXPECT_EQ(ReadFile(strFile), c.szAfter);
        EXPECT_EQ(vyraerrno, ERR_KEY_NOT_FOUND);
        EXPECT_EQ(VLIBCErrorGetFile(), szEarlier);
        EXPECT_EQ(VLIBCErrorGetLine(), 5);
    }
}

TEST(ErrLogSet, RecordsCodeFileAndLineOfAFailure)
{
    TempDir dir;
    const std::string strMissing = dir.Path("no/such/log");
    const std::string strNew = dir.Path("log");
    // More than a stream buffer, so the device's refusal is seen while
    // writing, not only when flushing.
    const std::string strLong(1 << 20, 'x');
    const struct {
        const char *szFile;
        const char *szLine;
        VYRAERR err;
        int nLine;
    } cases[] = {{nullptr, "x", ERR_BAD_PARAMETERS, 32},
                 {strNew.c_str(), nullptr, ERR_BAD_PARAMETERS, 32},
                 {strMissing.c_str(), "x", ERR_OPEN_FAILED, 37},
                 {"/dev/full", strLong.c_str(), ERR_WRITE_FAILED, 51}};
    for (const auto &c : cases) {
        EXPECT_EQ(VLIBCErrLogSet(c.szFile, c.szLine), -1) << c.nLine;
        EXPECT_EQ(vyraerrno, c.err);
        EXPECT_STREQ(VLIBCErrorGetFile(), "error_log_set.cpp");
        EXPECT_EQ(VLIBCErrorGetLine(), c.nLine);
    }
    EXPECT_NE(access(strNew.c_str(), F_OK), 0) << "nothing is created for a bad call";
}

}  // namespace
