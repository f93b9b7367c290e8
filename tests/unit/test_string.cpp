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

}  // namespace
