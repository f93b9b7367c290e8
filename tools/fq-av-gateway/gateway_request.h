// fq-av-gateway: what an HTTP request must be before anything of it reaches the broker. The head
// (method, path, credentials, target service, content type, announced length) is judged before
// the body is read; the body is a multipart/form-data document with the parts "request" and
// "payload". Every refusal carries the HTTP status that says why.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <string>
#include <vector>

namespace fqgw {

inline constexpr size_t kDefaultMaxBody = (size_t)32 * 1024 * 1024;

struct Policy {
    std::string path = "/vsi";
    bool auth = false;
    unsigned char credentials[32] = {0};  // keyed hash of user and password, never the password itself
    unsigned char hash_key[32] = {0};
    std::vector<std::string> services;     // empty: any name the broker takes as a service
    size_t max_body = kDefaultMaxBody;
};

// Requires these credentials from now on; only their keyed hash is kept.
void set_credentials(Policy* policy, const std::string& user, const std::string& password);

struct Header {
    std::string name;
    std::string value;
};

struct Head {
    std::string method;
    std::string path;
    std::vector<Header> headers;
};

struct Refusal {
    int status = 0;  // 0: accepted
    std::string text;
    explicit operator bool() const { return status != 0; }
};

// Judges the head. Accepted: the target service and the body's boundary are filled in.
Refusal check_head(const Policy& policy, const Head& head, std::string* service, std::string* boundary);

// What goes on to the service: the request text and, pointing into the body, the payload.
struct Forward {
    std::string request;
    const unsigned char* payload = nullptr;
    size_t payload_len = 0;
};

// Reads the multipart body: exactly one part "request" holding one JSON object without members
// of the transport ("_..."), at most one part "payload" whose length matches an ObjectLen.
Refusal read_body(const std::string& boundary, const unsigned char* body, size_t len, Forward* out);

// The pieces, on their own.
// The boundary of a "multipart/form-data" content type; false for any other type or a bad boundary.
bool boundary_of(const std::string& content_type, std::string* boundary);
// User and password of a "Basic" Authorization header; false when it is none or malformed.
bool parse_basic_auth(const std::string& header, std::string* user, std::string* password);
// Runs of '/' collapsed into one, so that "//vsi" (a gateway URL ending in '/') finds "/vsi".
std::string normalise_path(const std::string& path);

}  // namespace fqgw
