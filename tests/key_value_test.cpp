#include <optional>
#include <string>
#include <vector>

#include "test_util.h"
#include "vyracore.h"

namespace {

const int kMeasure = -1000;  // no buffer, size 0
const char kBefore[] = "before";

struct KvCase {
    const char *szName;
    std::optional<std::string> file;  // no file at all when empty
    const char *szKey;
    int sizeMax;
    int flag;
    int nResult;
    const char *szBuffer;  // what the buffer holds after the call
    VYRAERR err;           // ERR_SUCCESS: the earlier record stays
    int nLine;
};

const std::string kQuoted = "buildnumber=\"7321\"\n";
const std::string kTwo = "buildnumber=1\nbuildnumber=22\n";

TEST(FileGetKeyValue, ReadsValuesAsTheApplianceWritesThem)
{
    const std::vector<KvCase> cases = {
        {"quoted", kQuoted, "buildnumber", 32, 0, 5, "7321", ERR_SUCCESS, 0},
        {"measure", kQuoted, "buildnumber", kMeasure, 0, 5, "", ERR_SUCCESS, 0},
        {"too small", kQuoted, "buildnumber", 4, 0, -1, kBefore, ERR_NOT_ENOUGH_MEMORY, 88},
        {"negative size", kQuoted, "buildnumber", -5, 0, -1, kBefore, ERR_NOT_ENOUGH_MEMORY, 88},
        {"32 bytes", "buildnumber=" + std::string(32, '7'), "buildnumber", 32, 0, -1, kBefore,
         ERR_NOT_ENOUGH_MEMORY, 88},
        {"first wins", kTwo, "buildnumber", 32, 0, 2, "1", ERR_SUCCESS, 0},
        {"last wins", kTwo, "buildnumber", 32, 1, 3, "22", ERR_SUCCESS, 0},
        {"other bits", kTwo, "buildnumber", 32, 2, 2, "1", ERR_SUCCESS, 0},
        {"later too long", "buildnumber=1\nbuildnumber=123456\n", "buildnumber", 4, 1, -1, "1",
         ERR_NOT_ENOUGH_MEMORY, 88},
        {"buffer forgotten", "buildnumber\nbuildnumber=123456\n", "buildnumber", 4, 1, 7, kBefore,
         ERR_SUCCESS, 0},
        {"comment", "#buildnumber=1\n;buildnumber=2\n", "buildnumber", 32, 0, 0, kBefore,
         ERR_KEY_NOT_FOUND, 108},
        {"blank before #", " #buildnumber=1\n", "buildnumber", 32, 0, 0, kBefore,
         ERR_KEY_NOT_FOUND, 108},
        {"key with #", " #buildnumber=1\n", "#buildnumber", 32, 0, 2, "1", ERR_SUCCESS, 0},
        {"case", "BuildNumber=1\n", "buildnumber", 32, 0, 0, kBefore, ERR_KEY_NOT_FOUND, 108},
        {"empty value", "buildnumber=\n", "buildnumber", 32, 0, 0, kBefore, ERR_KEY_NOT_FOUND, 108},
        {"no =", "buildnumber\n", "buildnumber", 32, 0, 0, kBefore, ERR_KEY_NOT_FOUND, 108},
        {"blanks and CR-LF", "buildnumber = 7321  \r\n", "buildnumber", 32, 0, 5, "7321",
         ERR_SUCCESS, 0},
        {"blanks only", "buildnumber=   \n", "buildnumber", 32, 0, 1, "", ERR_SUCCESS, 0},
        {"= in value", "buildnumber=a=b\n", "buildnumber", 32, 0, 4, "a=b", ERR_SUCCESS, 0},
        {"leading =", "=abc=1\n", "abc", 32, 0, 2, "1", ERR_SUCCESS, 0},
        {"quoted key, no LF", "\"buildnumber\" = \"7321\"", "buildnumber", 32, 0, 5, "7321",
         ERR_SUCCESS, 0},
        {"among others", "a=1\n\nbuildnumber=9\nc=3\n", "buildnumber", 32, 0, 2, "9", ERR_SUCCESS,
         0},
        {"after a long line", "x=" + std::string(100000, 'x') + "\nbuildnumber=9\n", "buildnumber",
         32, 0, 2, "9", ERR_SUCCESS, 0},
        {"no file", std::nullopt, "buildnumber", 32, 0, -1, kBefore, ERR_OPEN_FAILED, 56},
        {"empty file", "", "buildnumber", 32, 0, 0, kBefore, ERR_KEY_NOT_FOUND, 108},
    };
    for (const KvCase &c : cases) {
        testutil::TempDir dir;
        const std::string strFile = dir.Path("VERSION");
        if (c.file)
            testutil::WriteFile(strFile, *c.file);
        char szBuffer[64] = "before";
        static const char szEarlier[] = "earlier.c";
        VLIBCErrSetEx(ERR_USAGE, szEarlier, 1);

        EXPECT_EQ(VLIBCFileGetKeyValue(strFile.c_str(), c.szKey,
                                       c.sizeMax == kMeasure ? nullptr : szBuffer,
                                       c.sizeMax == kMeasure ? 0 : c.sizeMax, c.flag),
                  c.nResult)
            << c.szName;
        if (c.sizeMax != kMeasure) {
            EXPECT_STREQ(szBuffer, c.szBuffer) << c.szName;
        }
        EXPECT_EQ(vyraerrno, c.err == ERR_SUCCESS ? ERR_USAGE : c.err) << c.szName;
        EXPECT_EQ(VLIBCErrorGetLine(), c.err == ERR_SUCCESS ? 1 : c.nLine) << c.szName;
        EXPECT_STREQ(VLIBCErrorGetFile(),
                     c.err == ERR_SUCCESS ? szEarlier : "file_get_key_value.cpp")
            << c.szName;
    }
}

TEST(FileGetKeyValue, RefusesBadArguments)
{
    char szBuffer[8];
    const struct {
        const char *szFile;
        const char *szKey;
        char *szValue;
        int sizeMax;
        int flag;
    } cases[] = {{nullptr, "k", szBuffer, 8, 0},
                 {"/dev/null", nullptr, szBuffer, 8, 0},
                 {"/dev/null", "k", szBuffer, 8, -1},
                 {"/dev/null", "k", nullptr, 8, 0}};
    for (const auto &c : cases) {
        VLIBCErrSet(ERR_SUCCESS);
        EXPECT_EQ(VLIBCFileGetKeyValue(c.szFile, c.szKey, c.szValue, c.sizeMax, c.flag), -1);
        EXPECT_EQ(vyraerrno, ERR_BAD_PARAMETERS);
        EXPECT_EQ(VLIBCErrorGetLine(), 52);
    }
    char szLine[] = "k=v";
    for (const auto &args : {std::make_pair<char *, const char *>(nullptr, "k"),
                             std::make_pair<char *, const char *>(szLine, nullptr)}) {
        VLIBCErrSet(ERR_SUCCESS);
        EXPECT_EQ(VLIBCILineKeyMatch(args.first, args.second), 0);
        EXPECT_EQ(vyraerrno, ERR_BAD_PARAMETERS);
        EXPECT_EQ(VLIBCErrorGetLine(), 36);
        EXPECT_STREQ(VLIBCErrorGetFile(), "file_line_key_match.cpp");
    }
}

}  // namespace
