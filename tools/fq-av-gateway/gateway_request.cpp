// fq-av-gateway's parser of what comes in from the network. It sits between the HTTP server and
// the broker: the head of a request is judged before a byte of its body is read, the multipart
// body after it has arrived whole, and only what passes both is forwarded. Everything here is
// untrusted input: sizes are checked before they are used, a service name must be one the broker
// cannot misread, the transport's own members never come from a client, and credentials are
// compared by keyed hash in constant time. It never throws and never reads past what it was given.
#include "gateway_request.h"

#include <json-c/json.h>
#include <sodium.h>
#include <string.h>
#include <strings.h>

#include <algorithm>
#include <map>

#include "fq_nats_names.h"
#include "fq_raii.h"

namespace fqgw {

namespace {

constexpr size_t s_max_part_headers = 8192;
constexpr size_t s_max_boundary = 70;

bool s_iequal(const std::string& a, const char* b)
{
    return strcasecmp(a.c_str(), b) == 0;
}

std::string s_lower(std::string s)
{
    std::transform(s.begin(), s.end(), s.begin(), [](unsigned char c) { return (char)tolower(c); });
    return s;
}

std::string s_trim(const std::string& s)
{
    const size_t b = s.find_first_not_of(" \t");
    if (b == std::string::npos)
        return "";
    const size_t e = s.find_last_not_of(" \t");
    return s.substr(b, e - b + 1);
}

Refusal s_refuse(int status, const std::string& text)
{
    return Refusal{status, text};
}

// A header value and a list of "; key=value" parameters, values quoted or not. Keys are lower
// case; a repeated key or an unterminated quote makes the whole value unreadable.
bool s_parse_params(const std::string& value, std::string* first, std::map<std::string, std::string>* params)
{
    size_t i = value.find(';');
    *first = s_lower(s_trim(value.substr(0, i)));
    while (i != std::string::npos && i < value.size()) {
        ++i;  // past ';'
        while (i < value.size() && (value[i] == ' ' || value[i] == '\t'))
            ++i;
        if (i == value.size())
            break;
        const size_t eq = value.find('=', i);
        if (eq == std::string::npos)
            return false;
        const std::string key = s_lower(s_trim(value.substr(i, eq - i)));
        std::string v;
        i = eq + 1;
        while (i < value.size() && (value[i] == ' ' || value[i] == '\t'))
            ++i;
        if (i < value.size() && value[i] == '"') {
            bool closed = false;
            for (++i; i < value.size(); ++i) {
                if (value[i] == '\\' && i + 1 < value.size()) {
                    v += value[++i];
                } else if (value[i] == '"') {
                    closed = true;
                    ++i;
                    break;
                } else {
                    v += value[i];
                }
            }
            if (!closed)
                return false;
            const size_t next = value.find(';', i);
            if (!s_trim(value.substr(i, next == std::string::npos ? std::string::npos : next - i)).empty())
                return false;
            i = next;
        } else {
            const size_t next = value.find(';', i);
            v = s_trim(value.substr(i, next == std::string::npos ? std::string::npos : next - i));
            i = next;
        }
        if (key.empty() || !params->emplace(key, v).second)
            return false;
    }
    return true;
}

// The only header of that name: 0 absent, 1 found (in *value), 2 repeated.
int s_find_header(const Head& head, const char* name, std::string* value)
{
    int found = 0;
    for (const Header& h : head.headers) {
        if (!s_iequal(h.name, name))
            continue;
        if (++found > 1)
            return 2;
        *value = h.value;
    }
    return found;
}

void s_credentials_hash(const unsigned char key[32], const std::string& user, const std::string& password,
                        unsigned char out[32])
{
    // The user and the password with the NUL between them, so that no other pair gives these bytes.
    crypto_generichash_state st;
    crypto_generichash_init(&st, key, 32, 32);
    crypto_generichash_update(&st, reinterpret_cast<const unsigned char*>(user.data()), user.size() + 1);
    crypto_generichash_update(&st, reinterpret_cast<const unsigned char*>(password.data()), password.size());
    crypto_generichash_final(&st, out, 32);
}

bool s_is_digits(const std::string& s)
{
    return !s.empty() && s.size() <= 19 && s.find_first_not_of("0123456789") == std::string::npos;
}

// The request part: one JSON object and nothing behind it, no member of the transport, and an
// ObjectLen (when there is one) that says how long the payload is.
Refusal s_check_request(const std::string& text, size_t payload_len)
{
    if (text.find('\0') != std::string::npos)
        return s_refuse(400, "part \"request\" contains a NUL byte");
    fq_json_tokener_ptr tok(json_tokener_new());
    if (!tok)
        return s_refuse(500, "out of memory");
    fq_json_ptr obj(json_tokener_parse_ex(tok.get(), text.c_str(), (int)text.size()));
    if (!obj || json_tokener_get_error(tok.get()) != json_tokener_success ||
        !json_object_is_type(obj.get(), json_type_object) ||
        text.find_first_not_of(" \t\r\n", json_tokener_get_parse_end(tok.get())) != std::string::npos)
        return s_refuse(400, "part \"request\" is not a JSON object");
    json_object_object_foreach(obj.get(), key, value)
    {
        (void)value;
        if (key[0] == '_')
            return s_refuse(400, "member " + fq_nats_printable(key) + " of the request is the gateway's to set");
    }
    json_object* len = nullptr;
    if (json_object_object_get_ex(obj.get(), "ObjectLen", &len)) {
        errno = 0;
        const int64_t n = json_object_get_int64(len);
        if (!json_object_is_type(len, json_type_int) || errno != 0 || n < 0 || (uint64_t)n != payload_len)
            return s_refuse(400, "ObjectLen " + fq_nats_printable(json_object_get_string(len)) +
                                     " does not match the payload of " + std::to_string(payload_len) + " bytes");
    }
    return {};
}

const unsigned char* s_find(const unsigned char* from, const unsigned char* end, const std::string& what)
{
    if ((size_t)(end - from) < what.size())
        return nullptr;
    return static_cast<const unsigned char*>(memmem(from, (size_t)(end - from), what.data(), what.size()));
}

// After a delimiter: "--" ends the body, optional blanks and CRLF start a part. 1 part, 0 end, -1 bad.
int s_after_delimiter(const unsigned char** p, const unsigned char* end)
{
    if (end - *p >= 2 && (*p)[0] == '-' && (*p)[1] == '-')
        return 0;
    while (*p < end && (**p == ' ' || **p == '\t'))
        ++*p;
    if (end - *p >= 2 && (*p)[0] == '\r' && (*p)[1] == '\n') {
        *p += 2;
        return 1;
    }
    return -1;
}

// The name of a part from its header block (without the blank line that ends it).
Refusal s_part_name(const std::string& block, std::string* name)
{
    int dispositions = 0;
    size_t pos = 0;
    while (pos < block.size()) {
        size_t eol = block.find("\r\n", pos);
        if (eol == std::string::npos)
            eol = block.size();
        const std::string line = block.substr(pos, eol - pos);
        pos = eol + 2;
        const size_t colon = line.find(':');
        if (colon == std::string::npos || colon == 0 || line[0] == ' ' || line[0] == '\t')
            return s_refuse(400, "malformed header line in a multipart part");
        if (!s_iequal(line.substr(0, colon), "Content-Disposition"))
            continue;
        if (++dispositions > 1)
            return s_refuse(400, "a multipart part has more than one Content-Disposition");
        std::string type;
        std::map<std::string, std::string> params;
        if (!s_parse_params(line.substr(colon + 1), &type, &params) || type != "form-data" || !params.count("name"))
            return s_refuse(400, "a multipart part has no form-data name");
        *name = params["name"];
    }
    if (dispositions == 0)
        return s_refuse(400, "a multipart part has no Content-Disposition");
    return {};
}

}  // namespace

void set_credentials(Policy* policy, const std::string& user, const std::string& password)
{
    randombytes_buf(policy->hash_key, sizeof(policy->hash_key));
    s_credentials_hash(policy->hash_key, user, password, policy->credentials);
    policy->auth = true;
}

std::string normalise_path(const std::string& path)
{
    std::string out;
    for (char c : path)
        if (c != '/' || out.empty() || out.back() != '/')
            out += c;
    return out;
}

bool boundary_of(const std::string& content_type, std::string* boundary)
{
    std::string type;
    std::map<std::string, std::string> params;
    if (!s_parse_params(content_type, &type, &params) || type != "multipart/form-data")
        return false;
    const auto it = params.find("boundary");
    if (it == params.end())
        return false;
    const std::string& b = it->second;
    static const char bchars[] =
        "0123456789abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ'()+_,-./:=? ";
    if (b.empty() || b.size() > s_max_boundary || b.back() == ' ' || b.find_first_not_of(bchars) != std::string::npos)
        return false;
    *boundary = b;
    return true;
}

bool parse_basic_auth(const std::string& header, std::string* user, std::string* password)
{
    const std::string v = s_trim(header);
    if (v.size() < 6 || strncasecmp(v.c_str(), "Basic ", 6) != 0)
        return false;
    const std::string b64 = s_trim(v.substr(6));
    if (b64.empty() || b64.size() > 4096)
        return false;
    std::vector<unsigned char> bin(b64.size());
    size_t n = 0;
    if (sodium_base642bin(bin.data(), bin.size(), b64.data(), b64.size(), nullptr, &n, nullptr,
                          sodium_base64_VARIANT_ORIGINAL) != 0)
        return false;
    const std::string text(reinterpret_cast<const char*>(bin.data()), n);
    const size_t colon = text.find(':');
    if (colon == std::string::npos)
        return false;
    *user = text.substr(0, colon);
    *password = text.substr(colon + 1);
    return true;
}

Refusal check_head(const Policy& policy, const Head& head, std::string* service, std::string* boundary)
{
    if (head.method != "POST")
        return s_refuse(405, "only POST is accepted");
    if (normalise_path(head.path) != policy.path)
        return s_refuse(404, "no gateway at " + fq_nats_printable(head.path.c_str()) + "; it is at " + policy.path);

    std::string value;
    if (policy.auth) {
        std::string user, password;
        unsigned char got[32];
        const bool readable = s_find_header(head, "Authorization", &value) == 1 &&
                              parse_basic_auth(value, &user, &password);
        s_credentials_hash(policy.hash_key, user, password, got);
        const bool match = sodium_memcmp(got, policy.credentials, sizeof(got)) == 0;
        sodium_memzero(password.data(), password.size());
        if (!readable || !match)
            return s_refuse(401, "credentials missing or wrong");
    }

    const int services = s_find_header(head, "X-Target-Service", &value);
    if (services == 0)
        return s_refuse(400, "header X-Target-Service missing");
    if (services > 1)
        return s_refuse(400, "header X-Target-Service given more than once");
    char why[256];
    if (fq_nats_check_name(value.c_str(), FQ_NAME_SERVICE, why, sizeof(why)) != 0 ||
        value.size() != strlen(value.c_str()))
        return s_refuse(400, "X-Target-Service '" + fq_nats_printable(value.c_str()) + "' refused: " + why);
    if (!policy.services.empty() &&
        std::find(policy.services.begin(), policy.services.end(), value) == policy.services.end())
        return s_refuse(403, "service " + value + " is not offered by this gateway");
    *service = value;

    const int types = s_find_header(head, "Content-Type", &value);
    if (types > 1)
        return s_refuse(400, "header Content-Type given more than once");
    if (types == 0 || !boundary_of(value, boundary)) {
        std::string type;
        std::map<std::string, std::string> params;
        if (types == 1 && s_parse_params(value, &type, &params) && type == "multipart/form-data")
            return s_refuse(400, "multipart boundary missing or invalid");
        return s_refuse(415, "multipart/form-data expected");
    }

    const int lengths = s_find_header(head, "Content-Length", &value);
    if (lengths > 1)
        return s_refuse(400, "header Content-Length given more than once");
    if (lengths == 1) {
        const std::string n = s_trim(value);
        if (!s_is_digits(n))
            return s_refuse(400, "header Content-Length is not a number");
        if (strtoull(n.c_str(), nullptr, 10) > policy.max_body)
            return s_refuse(413, "request body larger than " + std::to_string(policy.max_body) + " bytes");
    }
    return {};
}

Refusal read_body(const std::string& boundary, const unsigned char* body, size_t len, Forward* out)
{
    const unsigned char* p = body;
    const unsigned char* end = body + len;
    const std::string delimiter = "--" + boundary;
    const std::string next_delimiter = "\r\n" + delimiter;

    // A preamble before the first delimiter is allowed and ignored.
    if (len >= delimiter.size() && memcmp(body, delimiter.data(), delimiter.size()) == 0) {
        p += delimiter.size();
    } else {
        const unsigned char* d = s_find(body, end, next_delimiter);
        if (!d)
            return s_refuse(400, "multipart body without its boundary");
        p = d + next_delimiter.size();
    }

    bool have_request = false;
    bool have_payload = false;
    std::string request;
    for (;;) {
        const int next = s_after_delimiter(&p, end);
        if (next < 0)
            return s_refuse(400, "malformed multipart delimiter");
        if (next == 0)
            break;  // the closing delimiter; an epilogue behind it is ignored

        // Headers end with an empty line; a part may have none at all.
        std::string block;
        if (end - p >= 2 && p[0] == '\r' && p[1] == '\n') {
            p += 2;
        } else {
            const unsigned char* limit = end - p > (ptrdiff_t)s_max_part_headers ? p + s_max_part_headers : end;
            const unsigned char* blank = s_find(p, limit, "\r\n\r\n");
            if (!blank)
                return s_refuse(400, "multipart part headers unterminated or too long");
            block.assign(reinterpret_cast<const char*>(p), (size_t)(blank - p));
            p = blank + 4;
        }
        std::string name;
        if (Refusal r = s_part_name(block, &name))
            return r;

        const unsigned char* content_end = s_find(p, end, next_delimiter);
        if (!content_end)
            return s_refuse(400, "multipart body ends inside a part");
        if (name == "request") {
            if (have_request)
                return s_refuse(400, "part \"request\" given more than once");
            have_request = true;
            request.assign(reinterpret_cast<const char*>(p), (size_t)(content_end - p));
        } else if (name == "payload") {
            if (have_payload)
                return s_refuse(400, "part \"payload\" given more than once");
            have_payload = true;
            out->payload = p;
            out->payload_len = (size_t)(content_end - p);
        } else {
            return s_refuse(400, "unexpected multipart part '" + fq_nats_printable(name.c_str()) + "'");
        }
        p = content_end + next_delimiter.size();
    }
    if (!have_request)
        return s_refuse(400, "part \"request\" missing");
    if (Refusal r = s_check_request(request, out->payload_len))
        return r;
    out->request = std::move(request);
    return {};
}

}  // namespace fqgw
