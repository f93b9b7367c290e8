// The secret-box unit both sides of an encrypted quarantine hand-off rely on, and
// tools/fq-av-quarantine as a real process: storing plain and sealed objects, and the operator's
// list, show, restore and purge on what it stored.
#include <gtest/gtest.h>
#include <json-c/json.h>
#include <sodium.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <set>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "fq_connection_client.h"
#include "fq_secretbox_encryption.h"
#include "fq_worker_ping.h"
#include "nats_server.h"
#include "process_util.h"

namespace {

using namespace std::chrono_literals;

const std::string kQuarantine = std::string(FQ_BUILD_DIR) + "/fq-av-quarantine";
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

struct KeyGuard {
    fq_secretbox_key_t* k;
    ~KeyGuard() { fq_secretbox_free_key(k); }
};

TEST(PeerSecretbox, KeyIsArgon2idOfThePassPhraseWithTheDocumentedSaltAndWorkFactors)
{
    ASSERT_GE(sodium_init(), 0);
    const std::vector<unsigned char> salt = from_hex(kSaltHex);
    ASSERT_EQ(salt.size(), 32u);
    for (const char* pass : {"correct horse battery staple", ""}) {
        unsigned char expected[32];
        ASSERT_EQ(crypto_pwhash(expected, sizeof(expected), pass, strlen(pass), salt.data(), 2, 67108864,
                                crypto_pwhash_ALG_ARGON2ID13),
                  0);
        unsigned char* key = fq_secretbox_derive_key(pass);
        ASSERT_NE(key, nullptr) << pass;
        EXPECT_EQ(sodium_memcmp(key, expected, sizeof(expected)), 0) << "pass phrase '" << pass << "'";
        free(key);
    }
}

TEST(PeerSecretbox, EachEncryptionStepsTheNonceByOneAndOpensWithIt)
{
    KeyGuard g{fq_secretbox_generate_key("pass")};
    ASSERT_NE(g.k, nullptr);
    std::vector<unsigned char> start(g.k->nonce, g.k->nonce + 24);
    EXPECT_EQ(std::string(g.k->nonce_hex).size(), 48u);

    std::string plain = "an infected object";
    std::set<std::string> nonces;
    for (int i = 1; i <= 3; ++i) {
        unsigned char* out = nullptr;
        size_t out_len = 0;
        ASSERT_EQ(fq_secretbox_encrypt_buffer(reinterpret_cast<unsigned char*>(plain.data()), plain.size(), g.k, &out,
                                              &out_len),
                  0);
        ASSERT_EQ(out_len, plain.size() + 16);
        // The running nonce is the random start plus i, little-endian.
        std::vector<unsigned char> want = start;
        for (int n = 0; n < i; ++n)
            sodium_increment(want.data(), want.size());
        const std::vector<unsigned char> used = from_hex(g.k->nonce_hex);
        EXPECT_EQ(used, want);
        nonces.insert(g.k->nonce_hex);

        std::string opened(plain.size(), '\0');
        EXPECT_EQ(crypto_secretbox_open_easy(reinterpret_cast<unsigned char*>(opened.data()), out, out_len,
                                             used.data(), g.k->encryption_key),
                  0);
        EXPECT_EQ(opened, plain);
        free(out);
    }
    EXPECT_EQ(nonces.size(), 3u);

    // Empty input, no input, no key: refused, and no nonce is used up.
    unsigned char* out = nullptr;
    size_t out_len = 0;
    unsigned char* in = reinterpret_cast<unsigned char*>(plain.data());
    const std::string before = g.k->nonce_hex;
    const std::tuple<unsigned char*, size_t, fq_secretbox_key_t*> refused[] = {
        {in, 0, g.k}, {nullptr, 5, g.k}, {in, plain.size(), nullptr}};
    for (const auto& [buf, len, key] : refused)
        EXPECT_EQ(fq_secretbox_encrypt_buffer(buf, len, key, &out, &out_len), -1) << len;
    EXPECT_EQ(before, g.k->nonce_hex);
    fq_secretbox_free_key(nullptr);
}

class PeerQuarantine : public ::testing::Test {
protected:
    static inline fqtest::NatsServer* server = nullptr;
    static inline fq_connection_config* cfg = nullptr;
    static inline fqtest::TempDir* dir = nullptr;
    static inline fqtest::Child child;
    static inline const char* kPass = "open: sesame";

    static std::string store() { return dir->path() + "/store"; }

    static void SetUpTestSuite()
    {
        server = new fqtest::NatsServer();
        std::string err;
        ASSERT_TRUE(server->start(&err)) << err;
        ASSERT_TRUE(server->provision(nullptr, nullptr, &err)) << err;
        cfg = server->make_config();
        ASSERT_EQ(fq_connection_init(cfg), 0);
        dir = new fqtest::TempDir();
        // Pass phrases from files, as an operator keeps them out of the process list.
        fqtest::write_file(dir->path() + "/pass", std::string(kPass) + "\n");
        fqtest::write_file(dir->path() + "/older", "an older phrase");
        child = fqtest::spawn({kQuarantine, "--broker", server->url(), "--key", "vault1", "--directory", store(),
                               "--passphrase-file", dir->path() + "/older", "--passphrase-file", dir->path() + "/pass"},
                              dir->path());
        ASSERT_TRUE(fqtest::wait_until(
            [&] {
                return fq_connection_simple_request(cfg, "fq-av-quarantine.vault1", "{\"Command\": 3}", 200, 0,
                                                    nullptr) == 0;
            },
            15s))
            << fqtest::read_file(child.stderr_path);
    }
    static void TearDownTestSuite()
    {
        if (child.pid > 0)
            fqtest::stop_process(child.pid);
        fq_connection_deinit(cfg);
        fqtest::free_config(&cfg);
        delete dir;
        delete server;
    }

    // name is put into the JSON text as it is, so it may carry JSON escapes.
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
    static json_object* hand_over(const std::string& text, const std::string& payload)
    {
        fq_const_request_reply_t* rr = fq_const_request_reply_new();
        rr->request->json_txt = text.c_str();
        rr->request->data = reinterpret_cast<const unsigned char*>(payload.data());
        rr->request->data_len = payload.size();
        json_object* reply =
            fq_connection_send_recv_json_data(cfg, "fq-av-quarantine.vault1", rr, 10000, 0, 0, nullptr);
        fq_const_request_reply_free_structs(&rr);
        return reply;
    }
    // A hand-off that must be stored: the stored file's name.
    static std::string store_one(const std::string& text, const std::string& payload)
    {
        json_object* reply = hand_over(text, payload);
        EXPECT_EQ(rc_of(reply), 0) << text_of(reply, "Error");
        const std::string stored = text_of(reply, "QuarantineFilename");
        json_object_put(reply);
        return stored;
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

    static int rc_of(json_object* reply)
    {
        json_object* v = nullptr;
        return reply && json_object_object_get_ex(reply, "ReturnCode", &v) ? json_object_get_int(v) : 12345;
    }
    static std::string text_of(json_object* reply, const char* key)
    {
        json_object* v = nullptr;
        return reply && json_object_object_get_ex(reply, key, &v) ? json_object_get_string(v) : "";
    }
    static json_object* metadata(const std::string& stored)
    {
        return json_tokener_parse(fqtest::read_file(store() + "/" + stored.substr(0, stored.size() - 4) + ".json").c_str());
    }
    static std::set<std::string> files(const std::string& path = store())
    {
        std::set<std::string> names;
        for (const auto& e : std::filesystem::directory_iterator(path))
            names.insert(e.path().filename().string());
        return names;
    }
    // The operator's command on the store; its exit status, output in *out.
    static int admin(std::vector<std::string> args, std::string* out)
    {
        args.insert(args.begin(), kQuarantine);
        args.insert(args.end(), {"--directory", store()});
        return fqtest::run_program(args, out);
    }
    static std::string sha256(const std::string& bytes)
    {
        unsigned char digest[crypto_hash_sha256_BYTES];
        crypto_hash_sha256(digest, reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size());
        char hex[2 * crypto_hash_sha256_BYTES + 1];
        sodium_bin2hex(hex, sizeof(hex), digest, sizeof(digest));
        return hex;
    }
};

TEST_F(PeerQuarantine, PlainObjectIsStoredWithItsMetadata)
{
    const std::string object = std::string("X5O!P%@AP[4\\PZX54(P^)7CC)7}$EICAR") + std::string(3, '\0') + "tail";
    const std::string stored = store_one(request_text("in/box/eicar.com", object.size()), object);
    ASSERT_FALSE(stored.empty());
    ASSERT_EQ(stored.find('/'), std::string::npos) << "a name inside the store, never the client's path";

    EXPECT_EQ(fqtest::read_file(store() + "/" + stored), object);
    struct stat st;
    ASSERT_EQ(stat((store() + "/" + stored).c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0600u);

    json_object* meta = metadata(stored);
    ASSERT_NE(meta, nullptr);
    const std::pair<const char*, std::string> want[] = {
        {"ObjectName", "in/box/eicar.com"}, {"ObjectLen", std::to_string(object.size())},
        {"realmID", "realm-7"}, {"EventID", "ev-99"}, {"ResultDescription", "Eicar-Test-Signature"},
        {"PID", "4242"}, {"QuarantineFilename", stored}, {"Encrypted", "false"},
        {"StoredSize", std::to_string(object.size())}, {"SHA256", sha256(object)}};
    for (const auto& [key, value] : want)
        EXPECT_EQ(text_of(meta, key), value) << key;
    EXPECT_FALSE(json_object_object_get_ex(meta, "Command", nullptr));
    json_object_put(meta);

    // An empty object has nothing staged and is stored all the same.
    const std::string empty = store_one(request_text("empty.txt", 0), "");
    ASSERT_FALSE(empty.empty());
    ASSERT_EQ(stat((store() + "/" + empty).c_str(), &st), 0);
    EXPECT_EQ(st.st_size, 0);
}

TEST_F(PeerQuarantine, SealedObjectsStaySealedAndRestoreWithTheRightPassPhraseOnly)
{
    KeyGuard g{fq_secretbox_generate_key(kPass)};
    KeyGuard older{fq_secretbox_generate_key("an older phrase")};
    ASSERT_TRUE(g.k && older.k);
    // Two objects under one key, as the worker's key cache sends them, so the nonce runs on;
    // then one under the other configured pass phrase, which opens objects as well.
    const std::pair<fq_secretbox_key_t*, std::string> cases[] = {
        {g.k, std::string("MZ\x90\x00 first payload", 18)},
        {g.k, std::string(300000, '\xA5')},
        {older.k, "sealed under the old phrase"}};
    std::vector<std::string> stored;
    for (const auto& [key, object] : cases) {
        const Sealed sealed = seal(key, object);
        ASSERT_EQ(sealed.cipher.size(), object.size() + 16);
        stored.push_back(store_one(request_text("sample.exe", object.size(), sealed.nonce), sealed.cipher));
        ASSERT_FALSE(stored.back().empty());
        EXPECT_TRUE(fqtest::read_file(store() + "/" + stored.back()) == sealed.cipher) << "kept as it arrived";
        json_object* meta = metadata(stored.back());
        EXPECT_EQ(text_of(meta, "Encrypted"), "true");
        EXPECT_EQ(text_of(meta, "Nonce"), sealed.nonce);
        // The server could open it, so the digest of the plain bytes is known.
        EXPECT_EQ(text_of(meta, "SHA256"), sha256(object));
        json_object_put(meta);
    }

    std::string out;
    const std::string target = dir->path() + "/restored.exe";
    EXPECT_EQ(admin({"restore", stored[0], "--to", target, "--passphrase-file", dir->path() + "/older"}, &out), 1)
        << out;
    EXPECT_NE(out.find("wrong pass phrase"), std::string::npos) << out;
    EXPECT_FALSE(std::filesystem::exists(target));
    ASSERT_EQ(admin({"restore", stored[0], "--to", target, "--passphrase-file", dir->path() + "/pass"}, &out), 0)
        << out;
    EXPECT_TRUE(fqtest::read_file(target) == cases[0].second);
    EXPECT_NE(out.find("SHA-256 " + sha256(cases[0].second) + ", as recorded"), std::string::npos) << out;
    // An existing file is never overwritten.
    EXPECT_EQ(admin({"restore", stored[1], "--to", target, "--passphrase-file", dir->path() + "/pass"}, &out), 1);
    EXPECT_TRUE(fqtest::read_file(target) == cases[0].second);
}

TEST_F(PeerQuarantine, WhatCannotBeDecryptedOrDoesNotAddUpIsRefusedAndNothingIsStored)
{
    KeyGuard wrong{fq_secretbox_generate_key("not the phrase")};
    KeyGuard right{fq_secretbox_generate_key(kPass)};
    ASSERT_TRUE(wrong.k && right.k);
    const std::string object = "payload that must not land as garbage";
    const std::set<std::string> before = files();

    auto refused = [&](const std::string& text, const std::string& payload, const char* error_part) {
        json_object* reply = hand_over(text, payload);
        EXPECT_EQ(rc_of(reply), -1000) << text;
        const std::string error = text_of(reply, "Error");
        EXPECT_NE(error.find(error_part), std::string::npos) << error;
        EXPECT_TRUE(text_of(reply, "QuarantineFilename").empty());
        json_object_put(reply);
    };
    const Sealed foreign = seal(wrong.k, object);
    refused(request_text("a.bin", object.size(), foreign.nonce), foreign.cipher, "wrong pass phrase");

    Sealed tampered = seal(right.k, object);
    tampered.cipher[20] ^= 0x01;
    refused(request_text("b.bin", object.size(), tampered.nonce), tampered.cipher, "wrong pass phrase or damaged");

    const Sealed good = seal(right.k, object);
    std::string other_nonce = good.nonce;
    other_nonce[47] = other_nonce[47] == '0' ? '1' : '0';
    refused(request_text("c.bin", object.size(), other_nonce), good.cipher, "damaged");
    refused(request_text("d.bin", object.size(), "abc"), good.cipher, "Nonce");
    refused(request_text("e.bin", object.size() + 1, good.nonce), good.cipher, "ObjectLen");
    refused(request_text("f.bin", object.size() + 1), object, "ObjectLen");
    refused("{\"Command\": 600, \"ObjectLen\": 3}", "abc", "ObjectName");
    refused("{\"Command\": 600, \"ObjectName\": \"n\", \"ObjectLen\": \"3\"}", "abc", "ObjectLen");
    refused("{\"Command\": 600, \"ObjectName\": \"nothing-staged\", \"ObjectLen\": 3}", "", "No object data");
    refused("{\"Command\": 101, \"ObjectName\": \"n\", \"ObjectLen\": 3}", "abc", "Unsupported command");

    EXPECT_EQ(files(), before) << "no file may appear for a refused object, not even a temporary one";
}

TEST_F(PeerQuarantine, AnswersTheWorkersPingOnItsKeysSubjectOnly)
{
    // The worker's check before a hand-off: two tries of 100 ms.
    EXPECT_EQ(fq_worker_ping(cfg, const_cast<char*>("fq-av-quarantine.vault1"), false, 2, 100, 100), 0);
    EXPECT_EQ(fq_worker_ping(cfg, const_cast<char*>("fq-av-quarantine.vault2"), false, 2, 100, 100), -1);
}

TEST_F(PeerQuarantine, NamesInTheRequestNeverBecomePathsAndAreListedEscaped)
{
    const std::set<std::string> outside = files(dir->path());
    // As JSON escapes: a NUL, a path out of the store, an absolute path, a line break, 4 KiB.
    const std::string names[] = {"a\\u0000b/../../escape", "../../../../tmp/fq-escape", "/etc/passwd-fq",
                                 "two\\nlines\\tand tab", std::string(4096, 'N') + "/..", "..", "/"};
    std::vector<std::string> stored;
    for (const std::string& name : names) {
        std::string text = request_text(name, 3);
        text.replace(text.find("ev-99"), 5, name);
        stored.push_back(store_one(text, "bad"));
        ASSERT_FALSE(stored.back().empty()) << name;
    }
    EXPECT_EQ(files(dir->path()), outside) << "something was written beside the store";
    EXPECT_FALSE(std::filesystem::exists("/tmp/fq-escape"));
    for (const std::string& name : files())
        EXPECT_TRUE(name.ends_with(".bin") || name.ends_with(".json")) << name;

    // The metadata keeps the name exactly, NUL included.
    json_object* meta = metadata(stored[0]);
    json_object* v = nullptr;
    ASSERT_TRUE(json_object_object_get_ex(meta, "ObjectName", &v));
    EXPECT_EQ(std::string(json_object_get_string(v), json_object_get_string_len(v)),
              std::string("a\0b/../../escape", 16));
    json_object_put(meta);

    std::string out;
    ASSERT_EQ(admin({"list"}, &out), 0) << out;
    for (size_t i = 0; i < stored.size(); ++i) {
        const std::string id = stored[i].substr(0, stored[i].size() - 4);
        const size_t at = out.find(id + "\t");
        ASSERT_NE(at, std::string::npos) << id;
        const std::string line = out.substr(at, out.find('\n', at) - at);
        // id, time, size, plain or sealed, name, verdict: the name can add neither a line nor a field.
        EXPECT_EQ(std::count(line.begin(), line.end(), '\t'), 5) << line;
        EXPECT_NE(line.find("\t3\tplain\t"), std::string::npos) << line;
    }
    EXPECT_NE(out.find("a\\x00b/../../escape"), std::string::npos) << out;
    EXPECT_NE(out.find("two\\x0alines\\x09and tab"), std::string::npos) << out;
}

TEST_F(PeerQuarantine, ShowAndPurgeTouchOnlyWhatTheStoreMade)
{
    const std::string keep = store_one(request_text("keep.doc", 4), "keep");
    const std::string old = store_one(request_text("old.doc", 3), "old");
    const std::string keep_id = keep.substr(0, keep.size() - 4), old_id = old.substr(0, old.size() - 4);

    std::string out;
    ASSERT_EQ(admin({"show", keep}, &out), 0) << out;
    json_object* shown = json_tokener_parse(out.c_str());
    EXPECT_EQ(text_of(shown, "ObjectName"), "keep.doc") << out;
    json_object_put(shown);
    const std::string bad_ids[] = {"../" + keep, "../../etc/passwd", "20000101T000000Z-x",
                                   "20000101T000000Z-00000000-0000-0000-0000-000000000000"};
    for (const std::string& bad : bad_ids)
        EXPECT_EQ(admin({"show", bad}, &out), 1) << bad << ": " << out;

    // One object stored long ago, the remains of an interrupted store and a file of someone else's.
    const std::string meta_path = store() + "/" + old_id + ".json";
    std::string meta = fqtest::read_file(meta_path);
    const size_t at = meta.find("\"StoredAt\"");
    ASSERT_NE(at, std::string::npos);
    meta.replace(meta.find('"', at + 11) + 1, 20, "2000-01-01T00:00:00Z");
    fqtest::write_file(meta_path, meta);
    const std::string orphan = "20000101T000000Z-0f0e0d0c-0b0a-0908-0706-050403020100.bin";
    fqtest::write_file(store() + "/" + orphan, "half");
    fqtest::write_file(store() + "/notes.txt", "mine");
    const struct timespec long_ago[2] = {{946684800, 0}, {946684800, 0}};
    for (const char* name : {orphan.c_str(), "notes.txt"})
        ASSERT_EQ(utimensat(AT_FDCWD, (store() + "/" + name).c_str(), long_ago, 0), 0);

    const std::set<std::string> before = files();
    ASSERT_EQ(admin({"purge", "--older-than", "30d", "--dry-run"}, &out), 0) << out;
    EXPECT_NE(out.find("would purge " + old_id), std::string::npos) << out;
    EXPECT_EQ(files(), before);
    ASSERT_EQ(admin({"purge", "--older-than", "30d"}, &out), 0) << out;
    EXPECT_NE(out.find("purged 1 object(s), 3 file(s)"), std::string::npos) << out;
    std::set<std::string> expected = before;
    for (const std::string& gone : {old, old_id + ".json", orphan})
        expected.erase(gone);
    EXPECT_EQ(files(), expected);
    EXPECT_TRUE(expected.count(keep) && expected.count("notes.txt"));
}

}  // namespace
