// fq-av-quarantine: the quarantine store behind fq-av-quarantine.<key>, which a worker hands an object
// to when its scan found something and its job asks for quarantine. Each object is kept in a directory
// as <id>.bin with its metadata in <id>.json beside it; encrypted objects are decrypted first with the
// keys derived from the configured pass phrases. It never writes outside its directory, never keeps
// an object it could not decrypt, and a file appears only once it is complete.
#include <errno.h>
#include <fcntl.h>
#include <sodium.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>
#include <uuid/uuid.h>

#include <string>
#include <vector>

#include "fq_request_reply_types.h"
#include "fq_secretbox_encryption.h"
#include "fqhlp_replies.h"
#include "log.h"
#include "peer_common.h"

namespace {

struct s_settings {
    std::string key;
    std::string directory;
    std::vector<std::string> passphrases;
};
s_settings s_cfg;

// Read-only once serving starts, so the threads share them without a lock.
int s_dir_fd = -1;
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

bool s_read_passphrase_file(const char* path)
{
    FILE* f = fopen(path, "rb");
    if (!f) {
        fprintf(stderr, "fq-av-quarantine: cannot read %s: %s\n", path, strerror(errno));
        return false;
    }
    std::string text;
    char buf[4096];
    size_t n;
    while ((n = fread(buf, 1, sizeof(buf), f)) > 0)
        text.append(buf, n);
    fclose(f);
    // The file's one line; an editor's line end is not part of the pass phrase.
    if (!text.empty() && text.back() == '\n')
        text.pop_back();
    if (!text.empty() && text.back() == '\r')
        text.pop_back();
    s_cfg.passphrases.push_back(text);
    sodium_memzero(text.data(), text.size());
    return true;
}

// mkdir -p with mode 0700 for what it creates.
bool s_make_directory(const std::string& path, std::string* error)
{
    for (size_t pos = 1; pos <= path.size(); ++pos) {
        if (pos != path.size() && path[pos] != '/')
            continue;
        const std::string part = path.substr(0, pos);
        if (mkdir(part.c_str(), 0700) != 0 && errno != EEXIST) {
            *error = "cannot create " + part + ": " + strerror(errno);
            return false;
        }
    }
    return true;
}

std::string s_utc_stamp(const char* format)
{
    const time_t now = time(nullptr);
    struct tm tm;
    gmtime_r(&now, &tm);
    char buf[64];
    strftime(buf, sizeof(buf), format, &tm);
    return buf;
}

std::string s_new_id()
{
    uuid_t u;
    uuid_generate(u);
    char text[37];
    uuid_unparse_lower(u, text);
    return s_utc_stamp("%Y%m%dT%H%M%SZ") + "-" + text;
}

// Writes a file of its own: a hidden temporary name first, renamed once it is complete and
// on disk, so a reader never sees half an object.
bool s_write_file(const std::string& name, const unsigned char* data, size_t len, std::string* error)
{
    const std::string tmp = "." + name + ".tmp";
    const int fd = openat(s_dir_fd, tmp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (fd < 0) {
        *error = "cannot create " + tmp + ": " + strerror(errno);
        return false;
    }
    size_t done = 0;
    while (done < len) {
        const ssize_t w = write(fd, data + done, len - done);
        if (w < 0 && errno == EINTR)
            continue;
        if (w <= 0) {
            *error = "cannot write " + tmp + ": " + strerror(w < 0 ? errno : EIO);
            close(fd);
            unlinkat(s_dir_fd, tmp.c_str(), 0);
            return false;
        }
        done += (size_t)w;
    }
    if (fsync(fd) != 0 || close(fd) != 0) {
        *error = "cannot write " + tmp + ": " + strerror(errno);
        unlinkat(s_dir_fd, tmp.c_str(), 0);
        return false;
    }
    if (renameat(s_dir_fd, tmp.c_str(), s_dir_fd, name.c_str()) != 0) {
        *error = "cannot rename " + tmp + ": " + strerror(errno);
        unlinkat(s_dir_fd, tmp.c_str(), 0);
        return false;
    }
    return true;
}

std::string s_sha256_hex(const unsigned char* data, size_t len)
{
    unsigned char digest[crypto_hash_sha256_BYTES];
    crypto_hash_sha256(digest, data, len);
    char hex[2 * crypto_hash_sha256_BYTES + 1];
    sodium_bin2hex(hex, sizeof(hex), digest, sizeof(digest));
    return hex;
}

// The object and then its metadata; the metadata appearing means the object is complete.
bool s_store(json_object* request, const unsigned char* data, size_t len, bool encrypted, std::string* stored_name,
             std::string* error)
{
    const std::string id = s_new_id();
    const std::string object_name = id + ".bin";
    const std::string meta_name = id + ".json";

    fq_json_ptr meta(json_object_new_object());
    if (!meta) {
        *error = "out of memory";
        return false;
    }
    json_object_object_foreach(request, k, v)
    {
        if (strcmp(k, "Command") != 0)
            json_object_object_add(meta.get(), k, json_object_get(v));
    }
    json_object_object_add(meta.get(), "QuarantineFilename", json_object_new_string(object_name.c_str()));
    json_object_object_add(meta.get(), "QuarantineKey", json_object_new_string(s_cfg.key.c_str()));
    json_object_object_add(meta.get(), "StoredAt", json_object_new_string(s_utc_stamp("%Y-%m-%dT%H:%M:%SZ").c_str()));
    json_object_object_add(meta.get(), "StoredSize", json_object_new_int64((int64_t)len));
    json_object_object_add(meta.get(), "Encrypted", json_object_new_boolean(encrypted));
    json_object_object_add(meta.get(), "SHA256", json_object_new_string(s_sha256_hex(data, len).c_str()));
    std::string meta_text =
        json_object_to_json_string_ext(meta.get(), JSON_C_TO_STRING_PRETTY | JSON_C_TO_STRING_NOSLASHESCAPE);
    meta_text += "\n";

    if (!s_write_file(object_name, data, len, error))
        return false;
    if (!s_write_file(meta_name, reinterpret_cast<const unsigned char*>(meta_text.data()), meta_text.size(), error)) {
        unlinkat(s_dir_fd, object_name.c_str(), 0);
        return false;
    }
    fsync(s_dir_fd);
    *stored_name = object_name;
    return true;
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
    const std::string name = json_object_get_string(v) ? json_object_get_string(v) : "";
    if (name.empty()) {
        peer_set_error(rr, SERVICE_ERROR, "Key %s found, but value is empty", "ObjectName");
        return -1;
    }
    if (!json_object_object_get_ex(request.get(), "ObjectLen", &v)) {
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

    std::vector<unsigned char> plain;
    static const unsigned char s_nothing[1] = {0};
    const unsigned char* object = len ? data : s_nothing;
    size_t object_size = len;
    if (encrypted) {
        const char* hex = json_object_get_string(v);
        unsigned char nonce[FQ_SECRETBOX_NONCE_BYTES];
        size_t nonce_len = 0;
        const char* hex_end = nullptr;
        if (!hex || strlen(hex) != 2 * FQ_SECRETBOX_NONCE_BYTES ||
            sodium_hex2bin(nonce, sizeof(nonce), hex, strlen(hex), nullptr, &nonce_len, &hex_end) != 0 ||
            nonce_len != sizeof(nonce) || *hex_end != '\0') {
            peer_set_error(rr, SERVICE_ERROR, "Invalid Nonce for %s: 48 hexadecimal digits expected", name.c_str());
            return -1;
        }
        if (s_keys.empty()) {
            peer_set_error(rr, SERVICE_ERROR, "Cannot decrypt %s: no pass phrase is configured", name.c_str());
            return -1;
        }
        if (len < FQ_SECRETBOX_MAC_BYTES || object_len < 0 ||
            (uint64_t)object_len != (uint64_t)(len - FQ_SECRETBOX_MAC_BYTES)) {
            peer_set_error(rr, SERVICE_ERROR, "Encrypted payload of %zu bytes does not match ObjectLen %lld of %s",
                           len, (long long)object_len, name.c_str());
            return -1;
        }
        plain.resize(len - FQ_SECRETBOX_MAC_BYTES);
        bool opened = false;
        for (const unsigned char* key : s_keys) {
            if (crypto_secretbox_open_easy(plain.data(), data, len, nonce, key) == 0) {
                opened = true;
                break;
            }
        }
        if (!opened) {
            peer_set_error(rr, SERVICE_ERROR, "Cannot decrypt %s: wrong pass phrase or damaged object", name.c_str());
            return -1;
        }
        object = plain.data();
        object_size = plain.size();
    } else if (object_len < 0 || (uint64_t)object_len != len) {
        peer_set_error(rr, SERVICE_ERROR, "ObjectLen %lld does not match the %zu bytes received for %s",
                       (long long)object_len, len, name.c_str());
        return -1;
    }

    std::string stored, error;
    const bool ok = s_store(request.get(), object, object_size, encrypted, &stored, &error);
    if (!plain.empty())
        sodium_memzero(plain.data(), plain.size());
    if (!ok) {
        peer_set_error(rr, SERVICE_ERROR, "Cannot store %s: %s", name.c_str(), error.c_str());
        return -1;
    }
    log_info("Quarantined %s (%zu bytes%s) as %s", name.c_str(), object_size, encrypted ? ", decrypted" : "",
             stored.c_str());

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

}  // namespace

int main(int argc, char** argv)
{
    peer_program_t program{
        "fq-av-quarantine",
        "--key KEY --directory DIR [options]",
        "Serves fq-av-quarantine.<KEY> in its queue group. A request {\"Command\": 600, ...} with the\n"
        "object staged beside it is stored in DIR as <id>.bin (mode 0600) with its metadata in\n"
        "<id>.json, and answered {\"ReturnCode\": 0, \"QuarantineFilename\": \"<id>.bin\"}. An object that\n"
        "comes with a \"Nonce\" is decrypted first with a key derived from a configured pass phrase;\n"
        "one that does not decrypt is refused with {\"ReturnCode\": -1000, \"Error\": ...} and nothing is\n"
        "stored. A ping {\"Command\": 3} is answered {\"ReturnCode\": 0}.",
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
            {"passphrase", "TEXT", "pass phrase of encrypted objects; may be repeated",
             [](const char* v) {
                 s_cfg.passphrases.push_back(v);
                 return true;
             }},
            {"passphrase-file", "FILE", "file holding one pass phrase (one trailing line end ignored); may be repeated",
             [](const char* v) {
                 return s_read_passphrase_file(v);
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
    if (!s_make_directory(s_cfg.directory, &error)) {
        fprintf(stderr, "%s: %s\n", program.name, error.c_str());
        return PEER_EXIT_USAGE;
    }
    s_dir_fd = open(s_cfg.directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (s_dir_fd < 0 || faccessat(s_dir_fd, ".", W_OK | X_OK, AT_EACCESS) != 0) {
        fprintf(stderr, "%s: %s is not a writable directory: %s\n", program.name, s_cfg.directory.c_str(),
                strerror(errno));
        return PEER_EXIT_USAGE;
    }
    if (sodium_init() < 0) {
        fprintf(stderr, "%s: libsodium cannot be initialised\n", program.name);
        return PEER_EXIT_USAGE;
    }
    // Deriving a key costs 64 MiB and a moment: once per pass phrase, at start.
    log_set_level(opts.log_level);
    for (std::string& p : s_cfg.passphrases) {
        unsigned char* key = fq_secretbox_derive_key(p.c_str());
        sodium_memzero(p.data(), p.size());
        if (!key) {
            fprintf(stderr, "%s: cannot derive a key from a pass phrase\n", program.name);
            return PEER_EXIT_USAGE;
        }
        s_keys.push_back(key);
    }
    s_cfg.passphrases.clear();

    // The keys and the directory stay to the end of the process: a thread still busy when the
    // stop gives up waiting may be using them.
    return peer_serve(program, opts, {"fq-av-quarantine." + s_cfg.key, s_quarantine_handler, nullptr, true});
}
