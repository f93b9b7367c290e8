#include <gtest/gtest.h>

#include <string.h>

#include <set>
#include <string>

#include "fqhlp-string.h"

namespace {

TEST(RandStr, LengthCharactersOfTheWholeAlphabetThatDifferEachTime)
{
    const std::string alphabet = "0123456789abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ";
    char a[40], b[33];
    memset(a, 'X' + 100, sizeof(a));
    fqhlp_rand_str(a, 32);
    ASSERT_EQ(strlen(a), 32u);
    EXPECT_EQ(a[33], static_cast<char>('X' + 100)) << "wrote past the terminator";
    EXPECT_EQ(std::string(a).find_first_not_of(alphabet), std::string::npos) << a;
    fqhlp_rand_str(b, 32);
    EXPECT_STRNE(a, b);

    // 12400 draws miss one of 62 characters with a chance of about e^-200.
    std::string many(62 * 200, '\0');
    fqhlp_rand_str(many.data(), many.size() - 1);
    EXPECT_EQ(std::set<char>(many.begin(), many.end() - 1).size(), alphabet.size());
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
