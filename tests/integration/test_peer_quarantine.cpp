// The secret-box unit both sides of an encrypted quarantine hand-off rely on, and
// tools/fq-av-quarantine as a real process storing plain and encrypted objects.
#include <sodium.h>
#include <signal.h>
#include <sys/stat.h>

#include <filesystem>
#include <set>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "broker_test.h"
#include "fq_raii.h"
#include "fq_secretbox_encryption.h"
#include "fq_worker_ping.h"
#include "samples.h"

namespace {

using namespace std::chrono_literals;

// The salt every quarantine service must use; crypto_pwhash reads its first 16 bytes.
const char kSaltHex[] = "2fd63d8b986bca084f144775ce3f68719b053297967beb6b02d6159e0d85d200";

std::vector<unsigned char> from_hex(const std::string& hex)
{
    std::vector<unsigned char> out(hex.size() / 2);
    size_t len = 0;
    sodium_hex2bin(out.data(), out.size(), hex.c_str(), hex.size(), nullptr, &len, nullptr);
    out.resize(len);
    return out;
}

TEST(PeerSecretbox, KeyIsArgon2idOfThePassPhraseAndEachEncryptionStepsTheNonceByOne)
{
    ASSERT_GE(sodium_init(), 0);
    const std::vector<unsigned char> salt = from_hex(kSaltHex);
    ASSERT_EQ(salt.size(), 32u);
    for (const char* pass : {"correct horse battery staple", ""}) {
        unsigned char expected[32];
        ASSERT_EQ(crypto_pwhash(expected, sizeof(expected), pass, strlen(pass), salt.data(), 2, 67108864,
                                crypto_pwhash_ALG_ARGON2ID13),
                  0);
        fq_buf_ptr key(fq_secretbox_derive_key(pass));
        ASSERT_NE(key, nullptr) << pass;
        EXPECT_EQ(sodium_memcmp(key.get(), expected, sizeof(expected)), 0) << "pass phrase '" << pass << "'";
    }

    fq_secretbox_key_ptr g(fq_secretbox_generate_key("pass"));
    ASSERT_NE(g, nullptr);
    std::vector<unsigned char> want(g->nonce, g->nonce + 24);
    std::string plain = "an infected object";
    for (int i = 1; i <= 3; ++i) {
        unsigned char* out = nullptr;
        size_t out_len = 0;
        ASSERT_EQ(fq_secretbox_encrypt_buffer(reinterpret_cast<unsigned char*>(plain.data()), plain.size(), g.get(),
                                              &out, &out_len),
                  0);
        fq_buf_ptr sealed(out);
        ASSERT_EQ(out_len, plain.size() + 16);
        // The running nonce is the random start plus i, little-endian, and opens the box.
        sodium_increment(want.data(), want.size());
        EXPECT_EQ(from_hex(g->nonce_hex), want);
        std::string opened(plain.size(), '\0');
        EXPECT_EQ(crypto_secretbox_open_easy(reinterpret_cast<unsigned char*>(opened.data()), out, out_len,
                                             want.data(), g->encryption_key),
                  0);
        EXPECT_EQ(opened, plain);
    }

    // Empty input, no input, no key: refused, and no nonce is used up.
    unsigned char* out = nullptr;
    size_t out_len = 0;
    unsigned char* in = reinterpret_cast<unsigned char*>(plain.data());
    const std::string before = g->nonce_hex;
    const std::tuple<unsigned char*, size_t, fq_secretbox_key_t*> refused[] = {
        {in, 0, g.get()}, {nullptr, 5, g.get()}, {in, plain.size(), nullptr}};
    for (const auto& [buf, len, key] : refused)
        EXPECT_EQ(fq_secretbox_encrypt_buffer(buf, len, key, &out, &out_len), -1) << len;
    EXPECT_EQ(before, g->nonce_hex);
}

class PeerQuarantine : public fqtest::BrokerTest {
protected:
    static inline const char* kPass = "open: sesame";

    static std::string store() { return suite.dir->path() + "/store"; }

    static void SetUpTestSuite()
    {
        BrokerTest::SetUpTestSuite();
        // The pass phrase from a file, as an operator would keep it out of the process list.
        fqtest::write_file(suite.dir->path() + "/pass", std::string(kPass) + "\n");
        suite.start_program("fq-av-quarantine",
                            {"--key", "vault1", "--directory", store(), "--passphrase", "an older phrase",
                             "--passphrase-file", suite.dir->path() + "/pass"},
                            "fq-av-quarantine.vault1");
    }

    static std::string request_text(const std::string& name, size_t object_len, const std::string& nonce = "")
    {
        std::string r = "{\"Command\": 600, \"ObjectName\": \"" + name + "\", \"ObjectLen\": " +
                        std::to_string(object_len) +
                        ", \"realmID\": \"realm-7\", \"SID\": \"PRD\", \"Hostname\": \"client.example\", "
                        "\"PID\": 4242, \"TID\": 17, \"EventID\": \"ev-99\", "
                        "\"ResultDescription\": \"Eicar-Test-Signature\"";
        if (!nonce.empty())
            r += ", \"Nonce\": \"" + nonce + "\"";
        return r + "}";
    }

    // The hand-off as the worker makes it: the payload staged, the request on the key's subject.
    static fqtest::Json hand_over(const std::string& subject, const std::string& text, const std::string& payload)
    {
        return fqtest::Json(suite.send(subject, text, payload, 10000));
    }

    // What the worker sends for an encrypted object: the sealed bytes and the nonce they used.
    struct Sealed {
        std::string cipher;
        std::string nonce;
    };
    static Sealed seal(fq_secretbox_key_t* key, const std::string& plain)
    {
        unsigned char* out = nullptr;
        size_t out_len = 0;
        std::string copy = plain;
        if (fq_secretbox_encrypt_buffer(reinterpret_cast<unsigned char*>(copy.data()), copy.size(), key, &out,
                                        &out_len) != 0)
            return {};
        Sealed sealed{std::string(reinterpret_cast<char*>(out), out_len), key->nonce_hex};
        free(out);
        return sealed;
    }

    // The metadata stored beside an object.
    static fqtest::Json meta_of(const std::string& stored)
    {
        return fqtest::Json(fqtest::read_file(store() + "/" + stored.substr(0, stored.size() - 4) + ".json"));
    }
    static std::set<std::string> files()
    {
        std::set<std::string> names;
        for (const auto& e : std::filesystem::directory_iterator(store()))
            names.insert(e.path().filename().string());
        return names;
    }
};

TEST_F(PeerQuarantine, PlainObjectIsStoredWithItsMetadata)
{
    const std::string object = fqtest::kEicar.substr(0, 33) + std::string(3, '\0') + "tail";
    fqtest::Json reply = hand_over("fq-av-quarantine.vault1", request_text("in/box/eicar.com", object.size()), object);
    EXPECT_EQ(reply.rc(), 0) << reply.text();
    const std::string stored = reply.str("QuarantineFilename");
    ASSERT_FALSE(stored.empty());
    ASSERT_EQ(stored.find('/'), std::string::npos) << "a name inside the store, never the client's path";

    EXPECT_EQ(fqtest::read_file(store() + "/" + stored), object);
    struct stat st;
    ASSERT_EQ(stat((store() + "/" + stored).c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0600u);

    unsigned char digest[crypto_hash_sha256_BYTES];
    crypto_hash_sha256(digest, reinterpret_cast<const unsigned char*>(object.data()), object.size());
    char hex[2 * crypto_hash_sha256_BYTES + 1];
    sodium_bin2hex(hex, sizeof(hex), digest, sizeof(digest));
    const fqtest::Json meta = meta_of(stored);
    const std::pair<const char*, std::string> want[] = {
        {"ObjectName", "in/box/eicar.com"}, {"ObjectLen", std::to_string(object.size())},
        {"realmID", "realm-7"}, {"EventID", "ev-99"}, {"ResultDescription", "Eicar-Test-Signature"},
        {"PID", "4242"}, {"QuarantineFilename", stored}, {"Encrypted", "false"},
        {"StoredSize", std::to_string(object.size())}, {"SHA256", hex}};
    for (const auto& [key, value] : want)
        EXPECT_EQ(meta.str(key), value) << key;
    EXPECT_FALSE(meta.has("Command"));

    // An empty object has nothing staged and is stored all the same.
    reply = hand_over("fq-av-quarantine.vault1", request_text("empty.txt", 0), "");
    EXPECT_EQ(reply.rc(), 0) << reply.text();
    ASSERT_FALSE(reply.str("QuarantineFilename").empty());
    ASSERT_EQ(stat((store() + "/" + reply.str("QuarantineFilename")).c_str(), &st), 0);
    EXPECT_EQ(st.st_size, 0);
}

TEST_F(PeerQuarantine, EncryptedObjectsAreDecryptedBackToTheOriginalBytes)
{
    fq_secretbox_key_ptr g(fq_secretbox_generate_key(kPass));
    fq_secretbox_key_ptr older(fq_secretbox_generate_key("an older phrase"));
    ASSERT_TRUE(g && older);
    // Two objects under one key, as the worker's key cache sends them, so the nonce runs on;
    // then one under the other configured pass phrase, which opens objects as well.
    const std::pair<fq_secretbox_key_t*, std::string> cases[] = {
        {g.get(), std::string("MZ\x90\x00 first payload", 18)},
        {g.get(), std::string(300000, '\xA5')},
        {older.get(), "sealed under the old phrase"}};
    for (const auto& [key, object] : cases) {
        const Sealed sealed = seal(key, object);
        ASSERT_EQ(sealed.cipher.size(), object.size() + 16);
        const fqtest::Json reply = hand_over("fq-av-quarantine.vault1",
                                             request_text("sample.exe", object.size(), sealed.nonce), sealed.cipher);
        EXPECT_EQ(reply.rc(), 0) << reply.text();
        const std::string stored = reply.str("QuarantineFilename");
        ASSERT_FALSE(stored.empty());
        EXPECT_TRUE(fqtest::read_file(store() + "/" + stored) == object) << object.size() << " bytes";
        EXPECT_EQ(meta_of(stored).str("Encrypted"), "true");
        EXPECT_EQ(meta_of(stored).str("Nonce"), sealed.nonce);
    }
}

TEST_F(PeerQuarantine, WhatCannotBeDecryptedOrDoesNotAddUpIsRefusedAndNothingIsStored)
{
    fq_secretbox_key_ptr wrong(fq_secretbox_generate_key("not the phrase"));
    fq_secretbox_key_ptr right(fq_secretbox_generate_key(kPass));
    ASSERT_TRUE(wrong && right);
    const std::string object = "payload that must not land as garbage";
    const std::set<std::string> before = files();

    auto refused = [&](const std::string& text, const std::string& payload, const char* error_part) {
        const fqtest::Json reply = hand_over("fq-av-quarantine.vault1", text, payload);
        EXPECT_EQ(reply.rc(), -1000) << text;
        EXPECT_NE(reply.str("Error").find(error_part), std::string::npos) << reply.text();
        EXPECT_FALSE(reply.has("QuarantineFilename"));
    };
    const Sealed foreign = seal(wrong.get(), object);
    refused(request_text("a.bin", object.size(), foreign.nonce), foreign.cipher, "wrong pass phrase");

    Sealed tampered = seal(right.get(), object);
    tampered.cipher[20] ^= 0x01;
    refused(request_text("b.bin", object.size(), tampered.nonce), tampered.cipher, "wrong pass phrase or damaged");

    const Sealed good = seal(right.get(), object);
    std::string other_nonce = good.nonce;
    other_nonce[47] = other_nonce[47] == '0' ? '1' : '0';
    refused(request_text("c.bin", object.size(), other_nonce), good.cipher, "damaged");
    refused(request_text("d.bin", object.size(), "abc"), good.cipher, "Nonce");
    refused(request_text("e.bin", object.size() + 1, good.nonce), good.cipher, "ObjectLen");
    refused(request_text("f.bin", object.size() + 1), object, "ObjectLen");
    refused("{\"Command\": 600, \"ObjectLen\": 3}", "abc", "ObjectName");
    refused("{\"Command\": 600, \"ObjectName\": \"nothing-staged\", \"ObjectLen\": 3}", "", "No object data");
    refused("{\"Command\": 101, \"ObjectName\": \"n\", \"ObjectLen\": 3}", "abc", "Unsupported command");

    EXPECT_EQ(files(), before) << "no file may appear for a refused object, not even a temporary one";
}

TEST_F(PeerQuarantine, AnswersTheWorkersPingOnItsKeysSubjectOnly)
{
    // The worker's check before a hand-off: two tries of 100 ms.
    EXPECT_EQ(fq_worker_ping(suite.cfg, "fq-av-quarantine.vault1", false, 2, 100, 100), 0);
    EXPECT_EQ(fq_worker_ping(suite.cfg, "fq-av-quarantine.vault2", false, 2, 100, 100), -1);
}

TEST_F(PeerQuarantine, WithoutAPassPhraseOnlyPlainObjectsAreTaken)
{
    fqtest::TempDir other;
    fqtest::Child plain_only =
        fqtest::spawn({fqtest::build_program("fq-av-quarantine"), "--broker", suite.server->url(), "--key",
                       "plain.only", "--directory", other.path(), "-t", "1"},
                      other.path());
    ASSERT_TRUE(fqtest::answers_ping(suite.peer, "fq-av-quarantine.plain.only"))
        << fqtest::read_file(plain_only.stderr_path);

    fq_secretbox_key_ptr g(fq_secretbox_generate_key(kPass));
    ASSERT_NE(g, nullptr);
    const std::string object = "secret stuff";
    const Sealed sealed = seal(g.get(), object);
    fqtest::Json reply =
        hand_over("fq-av-quarantine.plain.only", request_text("s.bin", object.size(), sealed.nonce), sealed.cipher);
    EXPECT_EQ(reply.rc(), -1000);
    EXPECT_NE(reply.str("Error").find("no pass phrase"), std::string::npos) << reply.text();

    reply = hand_over("fq-av-quarantine.plain.only", request_text("p.bin", object.size()), object);
    EXPECT_EQ(reply.rc(), 0) << reply.text();
    EXPECT_EQ(fqtest::read_file(other.path() + "/" + reply.str("QuarantineFilename")), object);
    fqtest::stop_process(plain_only.pid);
}

}  // namespace
