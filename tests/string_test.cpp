#include <string>
#include <vector>

#include "test_util.h"
#include "vyracore.h"

namespace {

struct TrimCase {
    std::string strIn;
    std::string strOut;
};

// Both modes must agree, and the copying mode must leave its input alone.
TEST(StrTrimSpace, TrimsWhiteSpaceThenOnePairOfQuotes)
{
    const std::vector<TrimCase> cases = {
        {"  \"7321\" \r\n", "7321"},
        {"\" a \"", " a "},
        {"\"", "\""},
        {"\"\"", ""},
        {"\"\"\"", "\""},
        {"'x'", "'x'"},
        {"\"a\" b", "\"a\" b"},
        {"\v x \f", "\v x \f"},
        {"   ", ""},
        {"", ""},
        {"\t\n\r x\t\n\r ", "x"},
        {"\x89\x8a\xa0", "\x89\x8a\xa0"},  // high bytes are never white space
        {"a b", "a b"},
    };
    for (const TrimCase &c : cases) {
        std::string strInPlace = c.strIn;
        EXPECT_EQ(VLIBCStrTrimSpace(&strInPlace[0], nullptr), static_cast<int>(c.strOut.size()));
        EXPECT_EQ(strInPlace.c_str(), c.strOut) << "in place: [" << c.strIn << "]";

        std::string strSame = c.strIn;
        EXPECT_EQ(VLIBCStrTrimSpace(&strSame[0], &strSame[0]), static_cast<int>(c.strOut.size()));
        EXPECT_EQ(strSame.c_str(), c.strOut) << "output = input: [" << c.strIn << "]";

        std::string strInput = c.strIn;
        std::vector<char> out(c.strIn.size() + 1, '#');
        EXPECT_EQ(VLIBCStrTrimSpace(&strInput[0], out.data()), static_cast<int>(c.strOut.size()));
        EXPECT_EQ(std::string(out.data()), c.strOut) << "copied: [" << c.strIn << "]";
        EXPECT_EQ(strInput, c.strIn);
    }
}

TEST(StrTrimSpace, RefusesAnOutputInsideItsInput)
{
    // The input " ab " has its terminator at offset 4; an output may start
    // before it, on it, or after the terminator, but nowhere in between.
    const struct {
        int nOffset;  // of the output from the input
        int nResult;
    } cases[] = {{-1, 2}, {0, 2}, {1, -1}, {4, -1}, {5, 2}};
    for (const auto &c : cases) {
        char buf[16] = "# ab ";
        char *szInput = buf + 1;
        VLIBCErrSet(ERR_SUCCESS);
        EXPECT_EQ(VLIBCStrTrimSpace(szInput, szInput + c.nOffset), c.nResult) << c.nOffset;
        if (c.nResult < 0) {
            EXPECT_STREQ(szInput, " ab ") << "nothing written";
            EXPECT_EQ(vyraerrno, ERR_BAD_PARAMETERS);
            EXPECT_EQ(VLIBCErrorGetLine(), 112);
            EXPECT_STREQ(VLIBCErrorGetFile(), "string_trim_space.cpp");
        } else {
            EXPECT_STREQ(szInput + c.nOffset, "ab") << c.nOffset;
        }
    }
    EXPECT_EQ(VLIBCStrTrimSpace(nullptr, nullptr), -1);
    EXPECT_EQ(vyraerrno, ERR_BAD_PARAMETERS);
    EXPECT_EQ(VLIBCErrorGetLine(), 104);
}

TEST(StrTokIndex, HandsOutNonEmptyTokensAndAdvances)
{
    const struct {
        const char *szText;
        const char *szSep;
        std::vector<std::string> tokens;
    } cases[] = {
        {"a==b", "=", {"a", "b"}},
        {"=value", "=", {"value"}},
        {"\n", "\n", {}},
        {"", "=", {}},
        {"abc", "=", {"abc"}},
        {"a=b\nc\n", "=\n", {"a", "b", "c"}},
    };
    for (const auto &c : cases) {
        std::string strText = c.szText;
        char *pchCursor = &strText[0];
        std::vector<std::string> tokens;
        while (const char *szToken = VLIBCStrTokIndex(&pchCursor, c.szSep))
            tokens.push_back(szToken);
        EXPECT_EQ(tokens, c.tokens) << c.szText;
    }

    char szText[] = "a==b";
    char *pchCursor = szText;
    EXPECT_STREQ(VLIBCStrTokIndex(&pchCursor, "="), "a");
    EXPECT_STREQ(pchCursor, "=b") << "only the ending separator is cut";
    EXPECT_STREQ(VLIBCStrTokIndex(&pchCursor, "="), "b");
    EXPECT_EQ(pchCursor, nullptr);
    EXPECT_EQ(VLIBCStrTokIndex(&pchCursor, "="), nullptr);
    EXPECT_EQ(VLIBCStrTokIndex(nullptr, "="), nullptr);
    pchCursor = szText;
    EXPECT_EQ(VLIBCStrTokIndex(&pchCursor, nullptr), nullptr);
}

}  // namespace
