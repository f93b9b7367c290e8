#include <gtest/gtest.h>

#include <string.h>

#include <set>
#include <string>

#include "fqhlp-string.h"

namespace {

std::string trimmed(const char* in)
{
    char buf[64];
    snprintf(buf, sizeof(buf), "%s", in);
    return fqhlp_TrimWhitespace(buf);
}

TEST(TrimWhitespace, TrimsBothEndsInPlace)
{
    char buf[] = "  abc  ";
    EXPECT_EQ(fqhlp_TrimWhitespace(buf), buf);
    EXPECT_STREQ(buf, "abc");

    EXPECT_EQ(trimmed("\t\n x y \r\n"), "x y");
    EXPECT_EQ(trimmed("abc"), "abc");
    EXPECT_EQ(trimmed("a "), "a");
    EXPECT_EQ(trimmed(" a"), "a");
}

TEST(TrimWhitespace, BlanksKeepOneCharacterAndEmptyStaysEmpty)
{
    EXPECT_EQ(trimmed("   "), " ");
    EXPECT_EQ(trimmed("\t"), "\t");
    EXPECT_EQ(trimmed(""), "");
    EXPECT_EQ(fqhlp_TrimWhitespace(nullptr), nullptr);
}

const std::string kAlphabet = "0123456789abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ";

TEST(RandStr, WritesLengthCharactersFromTheAlphabet)
{
    char buf[40];
    memset(buf, 'X' + 100, sizeof(buf));
    fqhlp_rand_str(buf, 32);
    EXPECT_EQ(buf[32], '\0');
    ASSERT_EQ(strlen(buf), 32u);
    for (size_t i = 0; i < 32; i++)
        EXPECT_NE(kAlphabet.find(buf[i]), std::string::npos) << "at " << i;
    EXPECT_EQ(buf[33], static_cast<char>('X' + 100)) << "wrote past the terminator";

    char one[1] = {'Z'};
    fqhlp_rand_str(one, 0);
    EXPECT_EQ(one[0], '\0');
}

TEST(RandStr, CallsDifferAndUseTheWholeAlphabet)
{
    char a[33], b[33];
    fqhlp_rand_str(a, 32);
    fqhlp_rand_str(b, 32);
    EXPECT_STRNE(a, b);

    // 12400 draws miss one of 62 characters with a chance of about e^-200.
    std::string many(62 * 200, '\0');
    fqhlp_rand_str(many.data(), many.size() - 1);
    std::set<char> seen(many.begin(), many.end() - 1);
    EXPECT_EQ(seen.size(), kAlphabet.size());
}

TEST(ParseSize, SuffixesAreKibibytesAndTheLimitHolds)
{
    const struct {
        const char* text;
        int64_t max;
        int64_t want;  // -1: refused
    } cases[] = {
        {"0", 10, 0},           {"12K", 1 << 20, 12288}, {"2m", 1LL << 32, 2097152}, {"1G", 1LL << 30, 1073741824},
        {"1G", (1LL << 30) - 1, -1}, {"11", 10, -1},     {"-1", 10, -1},             {"1KB", 1 << 20, -1},
        {"K", 1 << 20, -1},     {"", 10, -1},            {"99999999999999999999", INT64_MAX, -1},
    };
    for (const auto& c : cases) {
        int64_t out = -1;
        EXPECT_EQ(c.want >= 0, fqhlp_parse_size(c.text, c.max, &out)) << c.text;
        EXPECT_EQ(c.want, out) << c.text;
    }
}

}  // namespace
