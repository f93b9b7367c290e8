// fq-av-mimescan: a scan service that tells what an object is, usually the first of a job's services,
// so that the worker can pass its findings on to the services after it. For the staged object of a
// job it reports one result entry with the MIME type, the MIME encoding, the description and the
// extension that libmagic finds. It never blocks anything by itself, and an object whose bytes are not
// all there is an error, never a type.
#include <errno.h>
#include <magic.h>
#include <stdio.h>
#include <string.h>

#include <cctype>
#include <memory>
#include <string>

#include "fq_request_reply_types.h"
#include "fqhlp_replies.h"
#include "log.h"
#include "peer_common.h"

namespace {

std::string s_magic_file;  // empty: libmagic's own database

// A magic_t is not safe between threads: each serving thread opens its own on first use.
thread_local std::unique_ptr<struct magic_set, fq::fn_deleter<magic_close>> t_magic;

magic_t s_open_magic(std::string* error)
{
    magic_t m = magic_open(MAGIC_NONE);
    if (!m) {
        *error = std::string("magic_open failed: ") + strerror(errno);
        return nullptr;
    }
    if (magic_load(m, s_magic_file.empty() ? nullptr : s_magic_file.c_str()) != 0) {
        const char* e = magic_error(m);
        *error = std::string("cannot load the magic database: ") + (e ? e : "unknown error");
        magic_close(m);
        return nullptr;
    }
    return m;
}

// One look at the buffer with the given flags; false with the reason on failure.
bool s_look(magic_t m, int flags, const unsigned char* data, size_t len, std::string* out, std::string* error)
{
    if (magic_setflags(m, flags) != 0) {
        *error = "libmagic refused its flags";
        return false;
    }
    static const unsigned char s_empty[1] = {0};
    const char* r = magic_buffer(m, len ? data : s_empty, len);
    if (!r) {
        const char* e = magic_error(m);
        *error = std::string("libmagic failed: ") + (e ? e : "unknown error");
        return false;
    }
    *out = r;
    return true;
}

// "report.PDF" gives "pdf"; no extension for "README", ".profile" or "name.".
std::string s_extension_from_name(const std::string& name)
{
    const size_t slash = name.find_last_of("/\\");
    const std::string base = slash == std::string::npos ? name : name.substr(slash + 1);
    const size_t dot = base.rfind('.');
    if (dot == std::string::npos || dot == 0 || dot + 1 == base.size())
        return "";
    std::string ext = base.substr(dot + 1);
    for (char& c : ext)
        c = (char)std::tolower((unsigned char)c);
    return ext;
}

// libmagic's first choice ("jpeg/jpg/jpe" gives "jpeg"); "???" means it has none.
std::string s_first_extension(const std::string& list)
{
    if (list.empty() || list == "???")
        return "";
    return list.substr(0, list.find('/'));
}

int s_mimescan_handler(void* context, fq_const_request_reply_t* rr)
{
    (void)context;
    if (!rr || !rr->reply)
        return -1;
    fq_json_ptr request(rr->request ? peer_parse_object(rr->request->json_txt) : nullptr);
    if (!request) {
        peer_set_error(rr, SERVICE_ERROR, "Invalid request: not a JSON object");
        return -1;
    }
    if (peer_read_command(request.get()) == PING_SERVICE)
        return fq_reply_set_OK(&rr->reply->json_txt);

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
    const unsigned char* data = rr->request->data;
    const size_t len = data ? rr->request->data_len : 0;
    // Only an object whose bytes are all here is looked at; ObjectLen 0 without data is an empty object.
    if (json_object_object_get_ex(request.get(), "ObjectLen", &v)) {
        const int64_t announced = json_object_get_int64(v);
        if (announced < 0 || (uint64_t)announced != len) {
            peer_set_error(rr, SERVICE_ERROR, "ObjectLen %lld does not match the %zu bytes received for %s",
                           (long long)announced, len, name.c_str());
            return -1;
        }
    } else if (len == 0) {
        peer_set_error(rr, SERVICE_ERROR, "No object data in the request for %s", name.c_str());
        return -1;
    }

    std::string error;
    if (!t_magic)
        t_magic.reset(s_open_magic(&error));
    if (!t_magic) {
        peer_set_error(rr, SERVICE_ERROR, "Cannot examine %s: %s", name.c_str(), error.c_str());
        return -1;
    }
    std::string mime_type, mime_encoding, file_type, extensions;
    if (!s_look(t_magic.get(), MAGIC_MIME_TYPE, data, len, &mime_type, &error) ||
        !s_look(t_magic.get(), MAGIC_MIME_ENCODING, data, len, &mime_encoding, &error) ||
        !s_look(t_magic.get(), MAGIC_NONE, data, len, &file_type, &error) ||
        !s_look(t_magic.get(), MAGIC_EXTENSION, data, len, &extensions, &error)) {
        peer_set_error(rr, SERVICE_ERROR, "Cannot examine %s: %s", name.c_str(), error.c_str());
        return -1;
    }
    std::string extension = s_first_extension(extensions);
    if (extension.empty())
        extension = s_extension_from_name(name);
    log_debug("%s: %s; %s; %s; extension '%s'", name.c_str(), mime_type.c_str(), mime_encoding.c_str(),
              file_type.c_str(), extension.c_str());

    fq_json_ptr reply(json_object_new_object());
    json_object* entry = json_object_new_object();
    json_object* results = json_object_new_array();
    if (!reply || !entry || !results) {
        json_object_put(entry);
        json_object_put(results);
        peer_set_error(rr, SERVICE_ERROR, "Failed to allocate %s", "reply");
        return -1;
    }
    json_object_object_add(entry, "ReturnCode", json_object_new_int(SCAN_OK));
    json_object_object_add(entry, "File-name", json_object_new_string(name.c_str()));
    json_object_object_add(entry, "MIME-type", json_object_new_string(mime_type.c_str()));
    json_object_object_add(entry, "MIME-encoding", json_object_new_string(mime_encoding.c_str()));
    json_object_object_add(entry, "File-type", json_object_new_string(file_type.c_str()));
    json_object_object_add(entry, "Extension", json_object_new_string(extension.c_str()));
    json_object_object_add(entry, "Object-type", json_object_new_int(-1));
    json_object_object_add(entry, "File-size", json_object_new_int64((int64_t)len));
    json_object_array_add(results, entry);
    json_object_object_add(reply.get(), "ReturnCode", json_object_new_int(SCAN_OK));
    json_object_object_add(reply.get(), "FilesScanned", json_object_new_int(1));
    json_object_object_add(reply.get(), "Results", results);
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
        "fq-av-mimescan",
        "[options]",
        "Serves the scan service fq-av-mimescan in its queue group. For the staged object of a job it\n"
        "answers ReturnCode 0 with one result entry: MIME-type, MIME-encoding, File-type (libmagic's\n"
        "description), Extension (libmagic's first choice, else the one of ObjectName), File-name\n"
        "(ObjectName), File-size and Object-type -1. An object it cannot examine is answered\n"
        "{\"ReturnCode\": -1000, \"Error\": ...}; a ping {\"Command\": 3} with {\"ReturnCode\": 0}.",
        {
            {"magic-file", "FILE", "magic database(s) to load, ':'-separated (default: libmagic's own)",
             [](const char* v) {
                 s_magic_file = v;
                 return !s_magic_file.empty();
             }},
        },
    };
    peer_options_t opts;
    const int rc = peer_parse_command_line(argc, argv, program, &opts);
    if (rc >= 0)
        return rc;

    // A database that does not load is a set-up error: find it before serving.
    std::string error;
    magic_t probe = s_open_magic(&error);
    if (!probe) {
        fprintf(stderr, "%s: %s\n", program.name, error.c_str());
        return PEER_EXIT_USAGE;
    }
    magic_close(probe);
    return peer_serve(program, opts, {"fq-av-mimescan", s_mimescan_handler, nullptr, true});
}
