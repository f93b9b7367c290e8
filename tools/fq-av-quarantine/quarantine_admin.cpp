// The operator's side of fq-av-quarantine: what is in a quarantine directory, one object's
// metadata, an object restored to a file of the operator's choosing (opened with the pass phrase
// typed on the terminal or read from a file, never taken from the command line), and the removal
// of old objects. It needs no broker, never changes a stored object, and reads and removes only
// names the store itself made.
#include "quarantine_admin.h"

#include <errno.h>
#include <fcntl.h>
#include <getopt.h>
#include <sodium.h>
#include <stdio.h>
#include <string.h>
#include <termios.h>
#include <time.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "fq_nats_names.h"
#include "fq_secretbox_encryption.h"
#include "peer_common.h"
#include "quarantine_store.h"

namespace {

const char* const s_prog = "fq-av-quarantine";
// Longer pass phrases are not typed; the cap keeps a runaway input from growing without end.
constexpr size_t s_typed_passphrase_max = 4096;

struct s_args {
    std::string command;
    std::string directory;
    std::string id;
    std::string to;
    std::string passphrase_file;
    std::string older_than;
    bool dry_run = false;
};

void s_usage(FILE* out)
{
    fprintf(out,
            "Usage: %s list --directory DIR\n"
            "       %s show ID --directory DIR\n"
            "       %s restore ID --to PATH --directory DIR [--passphrase-file FILE]\n"
            "       %s purge --older-than D --directory DIR [--dry-run]\n"
            "Works on the directory a quarantine server (%s --key KEY --directory DIR) fills.\n"
            "  list     one line per stored object, oldest first, fields separated by tabs: ID, time\n"
            "           stored (UTC), size in bytes, plain or sealed, the object's name at the client,\n"
            "           the verdict; unprintable characters are shown as \\xNN\n"
            "  show     the object's metadata (JSON)\n"
            "  restore  writes the object's plain bytes to PATH (mode 0600; PATH must not exist). A\n"
            "           sealed object is opened with the pass phrase read from FILE, or asked for on\n"
            "           the terminal. The bytes are checked against the recorded SHA-256 when there\n"
            "           is one; nothing is written if they do not match or do not open.\n"
            "  purge    removes objects stored more than D ago (and remains of interrupted stores)\n"
            "ID is the stored file's name with or without .bin. D takes ms, s (the default), m, h or d.\n"
            "Exit status: 0 done, 1 a usage error or a failure.\n",
            s_prog, s_prog, s_prog, s_prog, s_prog);
}

int s_fail(const std::string& text)
{
    fprintf(stderr, "%s: %s\n", s_prog, text.c_str());
    return 1;
}

bool s_parse(int argc, char** argv, s_args* a, int* status)
{
    a->command = argv[0];
    static const struct option longs[] = {
        {"directory", required_argument, nullptr, 'd'}, {"to", required_argument, nullptr, 'o'},
        {"passphrase-file", required_argument, nullptr, 'f'}, {"older-than", required_argument, nullptr, 'a'},
        {"dry-run", no_argument, nullptr, 'n'}, {"help", no_argument, nullptr, 'h'},
        {nullptr, 0, nullptr, 0},
    };
    std::vector<std::string> positional;
    optind = 0;  // a fresh scan of a new argument vector
    int c;
    while ((c = getopt_long(argc, argv, "-d:h", longs, nullptr)) != -1) {
        switch (c) {
        case 1:
            positional.push_back(optarg);
            break;
        case 'd':
            a->directory = optarg;
            break;
        case 'o':
            a->to = optarg;
            break;
        case 'f':
            a->passphrase_file = optarg;
            break;
        case 'a':
            a->older_than = optarg;
            break;
        case 'n':
            a->dry_run = true;
            break;
        case 'h':
            s_usage(stdout);
            *status = 0;
            return false;
        default:
            *status = s_fail("see " + std::string(s_prog) + " " + a->command + " --help");
            return false;
        }
    }
    const bool takes_id = a->command == "show" || a->command == "restore";
    const bool ok_options = (a->to.empty() && a->passphrase_file.empty()) || a->command == "restore";
    const bool ok_purge = (a->older_than.empty() && !a->dry_run) || a->command == "purge";
    std::string why;
    if (a->directory.empty())
        why = "--directory is required";
    else if (positional.size() != (takes_id ? 1u : 0u))
        why = takes_id ? a->command + " takes exactly one ID" : a->command + " takes no other arguments";
    else if (!ok_options || !ok_purge)
        why = "an option given does not belong to " + a->command;
    else if (takes_id && !qstore_parse_id(positional[0], &a->id))
        why = "'" + fq_nats_printable(positional[0].c_str(), 80) + "' is no quarantine ID";
    else if (a->command == "restore" && a->to.empty())
        why = "restore needs --to PATH";
    else if (a->command == "purge" && a->older_than.empty())
        why = "purge needs --older-than D";
    if (!why.empty()) {
        *status = s_fail(why + " (see --help)");
        return false;
    }
    return true;
}

std::string s_member(json_object* meta, const char* key)
{
    json_object* v = nullptr;
    return json_object_object_get_ex(meta, key, &v) && v ? json_object_get_string(v) : "";
}

// A member as a printable text, also past a NUL inside it: a client's names may hold anything.
std::string s_shown(json_object* meta, const char* key, size_t max = 200)
{
    json_object* v = nullptr;
    if (!json_object_object_get_ex(meta, key, &v) || !v)
        return "";
    const char* text = json_object_get_string(v);
    const size_t len = static_cast<size_t>(json_object_get_string_len(v));
    std::string out;
    for (size_t i = 0;;) {
        out += fq_nats_printable(text + i, max);
        i += strlen(text + i);
        if (i >= len || out.size() > max)
            return out;
        out += "\\x00";
        ++i;
    }
}

int s_list(const QuarantineStore& store)
{
    for (const std::string& id : store.ids()) {
        std::string error;
        fq_json_ptr meta = store.metadata(id, &error);
        if (!meta) {
            fprintf(stderr, "%s: %s: %s\n", s_prog, id.c_str(), error.c_str());
            continue;
        }
        json_object* v = nullptr;
        const bool sealed = json_object_object_get_ex(meta.get(), "Encrypted", &v) && json_object_get_boolean(v);
        printf("%s\t%s\t%s\t%s\t%s\t%s\n", id.c_str(), s_shown(meta.get(), "StoredAt").c_str(),
               s_shown(meta.get(), "ObjectLen").c_str(), sealed ? "sealed" : "plain",
               s_shown(meta.get(), "ObjectName").c_str(), s_shown(meta.get(), "ResultDescription").c_str());
    }
    return 0;
}

int s_show(const QuarantineStore& store, const std::string& id)
{
    std::string error;
    fq_json_ptr meta = store.metadata(id, &error);
    if (!meta)
        return s_fail(error);
    printf("%s\n", json_object_to_json_string_ext(meta.get(), JSON_C_TO_STRING_PRETTY | JSON_C_TO_STRING_NOSLASHESCAPE));
    return 0;
}

// Asks on the controlling terminal with echo off, so the pass phrase is neither shown nor kept
// in a shell's history or the process list.
bool s_ask_passphrase(const std::string& id, std::string* passphrase, std::string* error)
{
    fq_fd_guard tty(open("/dev/tty", O_RDWR | O_NOCTTY | O_CLOEXEC));
    if (!tty) {
        *error = "no terminal to ask for the pass phrase on; give it with --passphrase-file FILE";
        return false;
    }
    struct termios old;
    const bool restore_echo = tcgetattr(tty.get(), &old) == 0;
    if (restore_echo) {
        struct termios quiet = old;
        quiet.c_lflag &= ~static_cast<tcflag_t>(ECHO);
        tcsetattr(tty.get(), TCSAFLUSH, &quiet);
    }
    dprintf(tty.get(), "Pass phrase for %s: ", id.c_str());
    passphrase->clear();
    char ch;
    ssize_t r;
    while ((r = read(tty.get(), &ch, 1)) == 1 || (r < 0 && errno == EINTR)) {
        if (r == 1 && ch == '\n')
            break;
        if (r == 1 && passphrase->size() < s_typed_passphrase_max)
            passphrase->push_back(ch);
    }
    if (restore_echo)
        tcsetattr(tty.get(), TCSAFLUSH, &old);
    dprintf(tty.get(), "\n");
    return true;
}

// The sealed bytes opened with the key of the pass phrase and the object's recorded nonce.
bool s_open(json_object* meta, const std::string& id, const std::string& passphrase_file,
            const std::vector<unsigned char>& sealed, std::vector<unsigned char>* plain, std::string* error)
{
    unsigned char nonce[FQ_SECRETBOX_NONCE_BYTES];
    const std::string hex = s_member(meta, "Nonce");
    size_t n = 0;
    if (hex.size() != 2 * FQ_SECRETBOX_NONCE_BYTES ||
        sodium_hex2bin(nonce, sizeof(nonce), hex.c_str(), hex.size(), nullptr, &n, nullptr) != 0 || n != sizeof(nonce)) {
        *error = "the metadata of " + id + " has no valid Nonce";
        return false;
    }
    if (sealed.size() < FQ_SECRETBOX_MAC_BYTES) {
        *error = id + ".bin is too short to be a sealed object";
        return false;
    }
    std::string passphrase;
    const bool have = passphrase_file.empty() ? s_ask_passphrase(id, &passphrase, error)
                                              : qstore_read_passphrase_file(passphrase_file.c_str(), &passphrase, error);
    if (!have)
        return false;
    unsigned char* key = fq_secretbox_derive_key(passphrase.c_str());
    sodium_memzero(passphrase.data(), passphrase.size());
    if (!key) {
        *error = "cannot derive a key from the pass phrase";
        return false;
    }
    plain->assign(sealed.size() - FQ_SECRETBOX_MAC_BYTES, 0);
    static unsigned char s_nothing[1];
    const int opened = crypto_secretbox_open_easy(plain->empty() ? s_nothing : plain->data(), sealed.data(),
                                                  sealed.size(), nonce, key);
    sodium_memzero(key, FQ_SECRETBOX_KEY_BYTES);
    free(key);
    if (opened != 0) {
        *error = "the object does not open with this pass phrase (wrong pass phrase or damaged object)";
        return false;
    }
    return true;
}

int s_restore(const QuarantineStore& store, const s_args& a)
{
    std::string error;
    fq_json_ptr meta = store.metadata(a.id, &error);
    std::vector<unsigned char> stored, plain;
    if (!meta || !store.read_object(a.id, &stored, &error))
        return s_fail(error);
    json_object* v = nullptr;
    const bool sealed = json_object_object_get_ex(meta.get(), "Encrypted", &v) && json_object_get_boolean(v);
    if (sealed && !s_open(meta.get(), a.id, a.passphrase_file, stored, &plain, &error))
        return s_fail(error);
    const std::vector<unsigned char>& bytes = sealed ? plain : stored;
    const std::string digest = qstore_sha256_hex(bytes.data(), bytes.size());
    const std::string recorded = s_member(meta.get(), "SHA256");
    if (!recorded.empty() && recorded != digest)
        return s_fail("the bytes of " + a.id + " do not match the recorded SHA-256; nothing was written");

    // The target is the operator's choice; its folder is opened once and the file made in it.
    const size_t slash = a.to.find_last_of('/');
    const std::string folder = slash == std::string::npos ? "." : slash == 0 ? "/" : a.to.substr(0, slash);
    const std::string name = slash == std::string::npos ? a.to : a.to.substr(slash + 1);
    if (name.empty() || name == "." || name == "..")
        return s_fail("--to must name a file, not a directory: " + a.to);
    fq_fd_guard dir(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!dir)
        return s_fail("cannot open " + folder + ": " + strerror(errno));
    static const unsigned char s_nothing = 0;
    const bool written =
        qstore_write_new_file(dir.get(), name, bytes.empty() ? &s_nothing : bytes.data(), bytes.size(), 0600, &error);
    if (!plain.empty())
        sodium_memzero(plain.data(), plain.size());
    if (!written)
        return s_fail(error);
    printf("restored %s to %s: %zu bytes, SHA-256 %s%s\n", a.id.c_str(), a.to.c_str(), bytes.size(), digest.c_str(),
           recorded.empty() ? " (no digest was recorded)" : ", as recorded");
    return 0;
}

int s_purge(QuarantineStore& store, const s_args& a)
{
    int64_t age_ms = 0;
    if (!peer_parse_duration_ms(a.older_than.c_str(), &age_ms))
        return s_fail("invalid duration '" + a.older_than + "' for --older-than");
    const time_t cutoff = time(nullptr) - static_cast<time_t>(age_ms / 1000);
    int files = 0;
    std::string error;
    const std::vector<std::string> removed = store.purge(cutoff, a.dry_run, &files, &error);
    for (const std::string& id : removed)
        printf("%s %s\n", a.dry_run ? "would purge" : "purged", id.c_str());
    printf("%s %zu object(s), %d file(s) in all\n", a.dry_run ? "would purge" : "purged", removed.size(), files);
    return error.empty() ? 0 : s_fail(error);
}

}  // namespace

bool quarantine_admin_is_command(const char* word)
{
    for (const char* c : {"list", "show", "restore", "purge"})
        if (strcmp(word, c) == 0)
            return true;
    return false;
}

int quarantine_admin_main(int argc, char** argv)
{
    s_args a;
    int status = 0;
    if (!s_parse(argc, argv, &a, &status))
        return status;
    if (sodium_init() < 0)
        return s_fail("libsodium cannot be initialised");
    QuarantineStore store;
    std::string error;
    if (!store.open(a.directory, false, &error))
        return s_fail(error);
    if (a.command == "list")
        return s_list(store);
    if (a.command == "show")
        return s_show(store, a.id);
    if (a.command == "restore")
        return s_restore(store, a);
    return s_purge(store, a);
}
