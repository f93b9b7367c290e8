// The quarantine key cache: one derivation per pass phrase, and nonces that never repeat
// however many threads encrypt under one key at once.
#include <gtest/gtest.h>
#include <sodium.h>

#include <algorithm>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "fq_quarantine_get_key.h"
#include "fq_worker.h"

namespace {

struct KeyCache : ::testing::Test {
    fq_worker_config_t config{};
    void SetUp() override
    {
        ASSERT_GE(sodium_init(), 0);
        config.quarantine_encryption_keys = zlist_new();
    }
    // The list owns its entries: destroying it releases them.
    void TearDown() override { zlist_destroy(&config.quarantine_encryption_keys); }
};

// The nonce is a little-endian number; its hex text with the bytes reversed sorts like the number.
std::string s_big_endian(const std::string& hex)
{
    std::string out;
    for (size_t i = hex.size(); i >= 2; i -= 2)
        out += hex.substr(i - 2, 2);
    return out;
}

std::string s_plus_one(const std::string& big_endian_hex)
{
    unsigned char le[FQ_SECRETBOX_NONCE_BYTES];
    const std::string hex = s_big_endian(big_endian_hex);
    sodium_hex2bin(le, sizeof(le), hex.c_str(), hex.size(), nullptr, nullptr, nullptr);
    sodium_increment(le, sizeof(le));
    char out[FQ_SECRETBOX_NONCE_HEX_BYTES];
    sodium_bin2hex(out, sizeof(out), le, sizeof(le));
    return s_big_endian(out);
}

TEST_F(KeyCache, SixteenThreadsUnderOnePassPhraseGetConsecutiveNoncesThatSealTheirOwnObject)
{
    constexpr int kThreads = 16;
    struct Out {
        int rc = 99;
        std::string plain, nonce;
        std::vector<unsigned char> sealed;
    };
    std::vector<Out> out(kThreads);
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i) {
        threads.emplace_back([&, i] {
            out[i].plain = "object of thread " + std::to_string(i);
            unsigned char* sealed = nullptr;
            size_t len = 0;
            char nonce[FQ_SECRETBOX_NONCE_HEX_BYTES] = "";
            out[i].rc = fq_quarantine_encrypt(&config, "one: shared phrase",
                                              reinterpret_cast<const unsigned char*>(out[i].plain.data()),
                                              out[i].plain.size(), &sealed, &len, nonce);
            out[i].nonce = nonce;
            if (sealed)
                out[i].sealed.assign(sealed, sealed + len);
            free(sealed);
        });
    }
    for (auto& t : threads)
        t.join();

    // The first thread derived the key, all others found it.
    EXPECT_EQ(zlist_size(config.quarantine_encryption_keys), 1u);
    quarantine_key_t* entry = fq_quarantine_GetKey(&config, "one: shared phrase");
    ASSERT_NE(entry, nullptr);
    std::vector<std::string> numbers;
    for (const Out& o : out) {
        ASSERT_EQ(o.rc, FQ_QUARANTINE_ENCRYPTED);
        ASSERT_EQ(o.sealed.size(), o.plain.size() + FQ_SECRETBOX_MAC_BYTES);
        // The nonce reported is the one that sealed this thread's object.
        unsigned char nonce[FQ_SECRETBOX_NONCE_BYTES];
        ASSERT_EQ(sodium_hex2bin(nonce, sizeof(nonce), o.nonce.c_str(), o.nonce.size(), nullptr, nullptr, nullptr), 0);
        std::string opened(o.plain.size(), '\0');
        EXPECT_EQ(crypto_secretbox_open_easy(reinterpret_cast<unsigned char*>(opened.data()), o.sealed.data(),
                                             o.sealed.size(), nonce, entry->quarantine_secretbox_key->encryption_key),
                  0);
        EXPECT_EQ(opened, o.plain);
        numbers.push_back(s_big_endian(o.nonce));
    }
    std::sort(numbers.begin(), numbers.end());
    for (size_t i = 1; i < numbers.size(); ++i)
        EXPECT_EQ(numbers[i], s_plus_one(numbers[i - 1])) << "nonce " << i;
    // The key's running nonce is the last one used.
    EXPECT_EQ(s_big_endian(entry->quarantine_secretbox_key->nonce_hex), numbers.back());
}

TEST_F(KeyCache, OneEntryPerExactPassPhraseAndARefusalUsesUpNoNonce)
{
    quarantine_key_t* a = fq_quarantine_GetKey(&config, "Phrase");
    quarantine_key_t* b = fq_quarantine_GetKey(&config, "phrase");
    quarantine_key_t* empty = fq_quarantine_GetKey(&config, "");
    ASSERT_TRUE(a && b && empty);
    EXPECT_EQ(fq_quarantine_GetKey(&config, "Phrase"), a);
    EXPECT_NE(a, b);
    EXPECT_NE(sodium_memcmp(a->quarantine_secretbox_key->encryption_key, b->quarantine_secretbox_key->encryption_key,
                            FQ_SECRETBOX_KEY_BYTES),
              0);
    EXPECT_EQ(zlist_size(config.quarantine_encryption_keys), 3u);

    const std::string before = a->quarantine_secretbox_key->nonce_hex;
    unsigned char* sealed = nullptr;
    size_t len = 0;
    char nonce[FQ_SECRETBOX_NONCE_HEX_BYTES] = "";
    EXPECT_EQ(fq_quarantine_encrypt(&config, "Phrase", nullptr, 0, &sealed, &len, nonce), FQ_QUARANTINE_ENCRYPT_FAILED);
    EXPECT_EQ(sealed, nullptr);
    EXPECT_EQ(before, a->quarantine_secretbox_key->nonce_hex);

    // Without a cache there is no key, and so no encryption: never a plain fallback.
    fq_worker_config_t bare{};
    const unsigned char byte = 'x';
    EXPECT_EQ(fq_quarantine_encrypt(&bare, "Phrase", &byte, 1, &sealed, &len, nonce), FQ_QUARANTINE_NO_KEY);
    EXPECT_EQ(fq_quarantine_GetKey(&bare, "Phrase"), nullptr);
}

}  // namespace
