// fq-av-quarantine: the quarantine store behind fq-av-quarantine.<key>, and the operator's tool
// for what it keeps. Serving, each object a worker hands over is kept as it arrived (sealed
// objects stay sealed) with its metadata beside it; the commands list, show, restore and purge
// work on the same directory without a broker. Nothing a request says ever becomes a path.
#include <errno.h>
#include <sodium.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include <string>
#include <vector>

#include "fq_nats_names.h"
#include "fq_request_reply_types.h"
#include "fq_secretbox_encryption.h"
#include "fqhlp_replies.h"
#include "log.h"
#include "peer_common.h"
#include "quarantine_admin.h"
#include "quarantine_store.h"

namespace {

struct s_settings {
    std::string key;
    std::string directory;
    std::vector<std::string> passphrase_files;
};
s_settings s_cfg;

// Read-only once serving starts, so the threads share them without a lock.
QuarantineStore s_store;
std::vector<unsigned char*> s_keys;

// A key is one subject token: no wildcard, no blank, no colon (the worker cuts its
// CLEANQUARANTINE text at the first one), no empty token.
bool s_valid_key(const std::string& key)
{
    if (key.empty() || key.front() == '.' || key.back() == '.' || key.find("..") != std::string::npos)
        return false;
    for (char c : key)
        if (c == ':' || c == '*' || c == '>' || (unsigned char)c <= ' ' || c == 0x7f)
            return false;
    return true;
}

// Request texts in log lines and errors: a client's names may hold anything.
std::string s_shown(const char* text)
{
    return fq_nats_printable(text, 200);
}

bool s_parse_nonce(const char* hex, unsigned char nonce[FQ_SECRETBOX_NONCE_BYTES])
{
    size_t n = 0;
    const char* end = nullptr;
    return hex && strlen(hex) == 2 * FQ_SECRETBOX_NONCE_BYTES &&
           sodium_hex2bin(nonce, FQ_SECRETBOX_NONCE_BYTES, hex, strlen(hex), nullptr, &n, &end) == 0 &&
           n == FQ_SECRETBOX_NONCE_BYTES && *end == '\0';
}

// The digest of the plain bytes of a sealed object, if a configured key opens it: "" when no
// key is configured; false when keys are configured and none opens it.
bool s_open_sealed(const unsigned char* data, size_t len, const unsigned char* nonce, std::string* sha256)
{
    sha256->clear();
    if (s_keys.empty())
        return true;
    std::vector<unsigned char> plain(len - FQ_SECRETBOX_MAC_BYTES);
    for (const unsigned char* key : s_keys) {
        if (crypto_secretbox_open_easy(plain.data(), data, len, nonce, key) == 0) {
            *sha256 = qstore_sha256_hex(plain.data(), plain.size());
            sodium_memzero(plain.data(), plain.size());
            return true;
        }
    }
    return false;
}

int s_quarantine_handler(void* context, fq_const_request_reply_t* rr)
{
    (void)context;
    if (!rr || !rr->reply)
        return -1;
    fq_json_ptr request(rr->request ? peer_parse_object(rr->request->json_txt) : nullptr);
    if (!request) {
        peer_set_error(rr, SERVICE_ERROR, "Invalid request: not a JSON object");
        return -1;
    }
    const int command = peer_read_command(request.get());
    // The worker asks whether the store is there before it hands an object over.
    if (command == PING_SERVICE)
        return fq_reply_set_OK(&rr->reply->json_txt);
    if (command != QUARANTINE_STORE_FILE) {
        peer_set_error(rr, SERVICE_ERROR, "Unsupported command %d", command);
        return -1;
    }

    json_object* v = nullptr;
    if (!json_object_object_get_ex(request.get(), "ObjectName", &v)) {
        peer_set_error(rr, SERVICE_ERROR, "Failed to read %s from JSON", "ObjectName");
        return -1;
    }
    const std::string name = s_shown(json_object_get_string(v));
    if (!json_object_get_string(v) || !*json_object_get_string(v)) {
        peer_set_error(rr, SERVICE_ERROR, "Key %s found, but value is empty", "ObjectName");
        return -1;
    }
    if (!json_object_object_get_ex(request.get(), "ObjectLen", &v) || !json_object_is_type(v, json_type_int)) {
        peer_set_error(rr, SERVICE_ERROR, "Failed to read %s from JSON", "ObjectLen");
        return -1;
    }
    const int64_t object_len = json_object_get_int64(v);
    const unsigned char* data = rr->request->data;
    const size_t len = data ? rr->request->data_len : 0;
    const bool encrypted = json_object_object_get_ex(request.get(), "Nonce", &v);
    // Nothing is staged for an empty object; for any other the bytes must be here.
    if (len == 0 && (encrypted || object_len != 0)) {
        peer_set_error(rr, SERVICE_ERROR, "No object data in the request for %s", name.c_str());
        return -1;
    }

    std::string sha256;
    if (encrypted) {
        unsigned char nonce[FQ_SECRETBOX_NONCE_BYTES];
        if (!s_parse_nonce(json_object_get_string(v), nonce)) {
            peer_set_error(rr, SERVICE_ERROR, "Invalid Nonce for %s: 48 hexadecimal digits expected", name.c_str());
            return -1;
        }
        if (len < FQ_SECRETBOX_MAC_BYTES || object_len < 0 ||
            (uint64_t)object_len != (uint64_t)(len - FQ_SECRETBOX_MAC_BYTES)) {
            peer_set_error(rr, SERVICE_ERROR, "Encrypted payload of %zu bytes does not match ObjectLen %lld of %s",
                           len, (long long)object_len, name.c_str());
            return -1;
        }
        if (!s_open_sealed(data, len, nonce, &sha256)) {
            peer_set_error(rr, SERVICE_ERROR, "Cannot decrypt %s: wrong pass phrase or damaged object", name.c_str());
            return -1;
        }
    } else if (object_len < 0 || (uint64_t)object_len != len) {
        peer_set_error(rr, SERVICE_ERROR, "ObjectLen %lld does not match the %zu bytes received for %s",
                       (long long)object_len, len, name.c_str());
        return -1;
    } else {
        sha256 = qstore_sha256_hex(data, len);
    }

    // The job's members as the worker sent them, and what the store knows about the object.
    fq_json_ptr meta(json_object_new_object());
    if (!meta) {
        peer_set_error(rr, SERVICE_ERROR, "Failed to allocate %s", "metadata");
        return -1;
    }
    json_object_object_foreach(request.get(), k, member)
    {
        if (strcmp(k, "Command") != 0 && strcmp(k, "_kv_key") != 0)
            json_object_object_add(meta.get(), k, json_object_get(member));
    }
    char stamp[32] = "";
    const time_t now = time(nullptr);
    struct tm tm;
    if (gmtime_r(&now, &tm))
        strftime(stamp, sizeof(stamp), "%Y-%m-%dT%H:%M:%SZ", &tm);
    json_object_object_add(meta.get(), "QuarantineKey", json_object_new_string(s_cfg.key.c_str()));
    json_object_object_add(meta.get(), "StoredAt", json_object_new_string(stamp));
    json_object_object_add(meta.get(), "StoredSize", json_object_new_int64((int64_t)len));
    json_object_object_add(meta.get(), "Encrypted", json_object_new_boolean(encrypted));
    if (!sha256.empty())
        json_object_object_add(meta.get(), "SHA256", json_object_new_string(sha256.c_str()));

    std::string stored, error;
    if (!s_store.put(meta.get(), data, len, &stored, &error)) {
        peer_set_error(rr, SERVICE_ERROR, "Cannot store %s: %s", name.c_str(), error.c_str());
        return -1;
    }
    log_info("Quarantined %s (%zu bytes%s) as %s", name.c_str(), len, encrypted ? ", sealed" : "", stored.c_str());

    fq_json_ptr reply(json_object_new_object());
    if (!reply) {
        peer_set_error(rr, SERVICE_ERROR, "Failed to allocate %s", "reply");
        return -1;
    }
    json_object_object_add(reply.get(), "ReturnCode", json_object_new_int(0));
    json_object_object_add(reply.get(), "QuarantineFilename", json_object_new_string(stored.c_str()));
    if (!peer_set_reply(rr, reply.get())) {
        peer_set_error(rr, SERVICE_ERROR, "Failed to allocate %s", "reply");
        return -1;
    }
    return 0;
}

int s_serve(int argc, char** argv)
{
    peer_program_t program{
        "fq-av-quarantine",
        "--key KEY --directory DIR [options]\n"
        "       fq-av-quarantine list|show|restore|purge ... (see fq-av-quarantine COMMAND --help)",
        "Serves fq-av-quarantine.<KEY> in its queue group. A request {\"Command\": 600, ...} with the\n"
        "object staged beside it is stored in DIR as <id>.bin (mode 0600), exactly as it arrived, with\n"
        "its metadata in <id>.json, and answered {\"ReturnCode\": 0, \"QuarantineFilename\": \"<id>.bin\"}.\n"
        "An object that comes with a \"Nonce\" stays sealed on disk; with --passphrase-file it must open\n"
        "with one of the pass phrases (else it is refused with {\"ReturnCode\": -1000, \"Error\": ...}\n"
        "and nothing is stored), and the SHA-256 of its plain bytes is recorded. A ping\n"
        "{\"Command\": 3} is answered {\"ReturnCode\": 0}.",
        {
            {"key", "KEY", "quarantine service key: the subject is fq-av-quarantine.KEY (required)",
             [](const char* v) {
                 s_cfg.key = v;
                 return s_valid_key(s_cfg.key);
             }},
            {"directory", "DIR", "where objects and metadata are stored; created if missing (required)",
             [](const char* v) {
                 s_cfg.directory = v;
                 return !s_cfg.directory.empty();
             }},
            {"passphrase-file", "FILE",
             "file holding a pass phrase that sealed objects must open with; may be repeated",
             [](const char* v) {
                 s_cfg.passphrase_files.push_back(v);
                 return true;
             }},
        },
    };
    peer_options_t opts;
    const int rc = peer_parse_command_line(argc, argv, program, &opts);
    if (rc >= 0)
        return rc;
    if (s_cfg.key.empty() || s_cfg.directory.empty()) {
        fprintf(stderr, "%s: --key and --directory are required (see --help)\n", program.name);
        return PEER_EXIT_USAGE;
    }
    std::string error;
    if (!s_store.open(s_cfg.directory, true, &error)) {
        fprintf(stderr, "%s: %s\n", program.name, error.c_str());
        return PEER_EXIT_USAGE;
    }
    if (sodium_init() < 0) {
        fprintf(stderr, "%s: libsodium cannot be initialised\n", program.name);
        return PEER_EXIT_USAGE;
    }
    // Deriving a key costs 64 MiB and a moment: once per pass phrase, at start.
    log_set_level(opts.log_level);
    for (const std::string& path : s_cfg.passphrase_files) {
        std::string passphrase;
        if (!qstore_read_passphrase_file(path.c_str(), &passphrase, &error)) {
            fprintf(stderr, "%s: %s: %s\n", program.name, path.c_str(), error.c_str());
            return PEER_EXIT_USAGE;
        }
        unsigned char* key = fq_secretbox_derive_key(passphrase.c_str());
        sodium_memzero(passphrase.data(), passphrase.size());
        if (!key) {
            fprintf(stderr, "%s: cannot derive a key from the pass phrase in %s\n", program.name, path.c_str());
            return PEER_EXIT_USAGE;
        }
        s_keys.push_back(key);
    }

    // The keys and the directory stay to the end of the process: a thread still busy when the
    // stop gives up waiting may be using them.
    return peer_serve(program, opts, {"fq-av-quarantine." + s_cfg.key, s_quarantine_handler, nullptr, true});
}

}  // namespace

int main(int argc, char** argv)
{
    if (argc > 1 && quarantine_admin_is_command(argv[1]))
        return quarantine_admin_main(argc - 1, argv + 1);
    return s_serve(argc, argv);
}
