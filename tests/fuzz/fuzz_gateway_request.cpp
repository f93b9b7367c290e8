// Fuzzes what fq-av-gateway reads from the network before anything reaches the broker: the head
// (method, path, headers with credentials, target service, content type and length) and the
// multipart body. The input is "METHOD\nPATH\nName: value\n...\n\nBODY". Whatever is accepted must
// be safe to forward; every refusal must carry a status and a reason.
#include <json-c/json.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <iterator>
#include <string>

#include "fq_nats_names.h"
#include "fq_raii.h"
#include "gateway_request.h"
#include "log.h"

namespace {

// Every refusal says why, with a status the gateway uses.
void s_check_refusal(const fqgw::Refusal& r)
{
    static const int known[] = {400, 401, 403, 404, 405, 413, 415, 500};
    if (r.text.empty() || std::find(std::begin(known), std::end(known), r.status) == std::end(known))
        abort();
}

// The next line of text from pos, without its line feed; pos moves past it.
std::string s_line(const std::string& text, size_t* pos)
{
    const size_t nl = text.find('\n', *pos);
    const std::string line = text.substr(*pos, nl == std::string::npos ? std::string::npos : nl - *pos);
    *pos = nl == std::string::npos ? text.size() : nl + 1;
    return line;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    log_set_level(0);
    log_set_screentrace(0);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static fqgw::Policy policy = [] {
        fqgw::Policy p;
        p.max_body = 65536;
        fqgw::set_credentials(&p, "alice", "pw");
        return p;
    }();
    const std::string text(reinterpret_cast<const char*>(data), size);
    size_t pos = 0;
    fqgw::Head head;
    head.method = s_line(text, &pos);
    head.path = s_line(text, &pos);
    while (pos < text.size()) {
        const std::string line = s_line(text, &pos);
        if (line.empty())
            break;
        // As the HTTP server hands them over: the name, and the value without the blanks before it.
        const size_t colon = line.find(':');
        const size_t value = colon == std::string::npos ? colon : line.find_first_not_of(" \t", colon + 1);
        head.headers.push_back({line.substr(0, colon), value == std::string::npos ? "" : line.substr(value)});
    }
    const std::string body = text.substr(pos);

    std::string service, boundary;
    const fqgw::Refusal r = fqgw::check_head(policy, head, &service, &boundary);
    if (r) {
        s_check_refusal(r);
        return 0;
    }
    // Accepted: the right credentials, a service the broker cannot misread, a usable boundary.
    if (fq_nats_check_name(service.c_str(), FQ_NAME_SERVICE, nullptr, 0) != 0 || boundary.empty())
        abort();

    fqgw::Forward f;
    const auto* bytes = reinterpret_cast<const unsigned char*>(body.data());
    const fqgw::Refusal b = fqgw::read_body(boundary, bytes, body.size(), &f);
    if (b) {
        s_check_refusal(b);
        return 0;
    }
    // Accepted: one JSON object without the transport's members, a payload inside the body.
    fq_json_ptr req(json_tokener_parse(f.request.c_str()));
    if (!req || !json_object_is_type(req.get(), json_type_object))
        abort();
    json_object_object_foreach(req.get(), key, value)
    {
        (void)value;
        if (key[0] == '_')
            abort();
    }
    if (f.payload && (f.payload < bytes || f.payload + f.payload_len > bytes + body.size()))
        abort();
    return 0;
}
