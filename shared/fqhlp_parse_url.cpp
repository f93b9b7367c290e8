// Splits a broker endpoint written as host:port, or scheme://host:port/path, into its parts for a
// --broker that is not a NATS URL. The parts live to the end of the process, so records may point at
// them. The rules work on the text alone: nothing here resolves or contacts a host.
#include "fqhlp_parse_url.h"

#include <string.h>

#include <deque>
#include <mutex>
#include <string>

namespace {

// Parsed URLs live to the end of the process; their texts are kept here so
// that nothing points into freed memory and nothing is reported as leaked.
std::mutex s_store_mu;
std::deque<std::string> s_store;

const char* s_keep(std::string text)
{
    std::lock_guard<std::mutex> lock(s_store_mu);
    s_store.push_back(std::move(text));
    return s_store.back().c_str();
}

std::string s_up_to_colon_or_slash(const std::string& text)
{
    return text.substr(0, text.find_first_of(":/"));
}

}  // namespace

URL_INFO* fqhlp_split_url(URL_INFO* info, const char* url)
{
    if (!info || !url)
        return nullptr;
    const std::string u(url);

    info->protocol = s_keep(s_up_to_colon_or_slash(u));

    const size_t scheme_end = u.find("://");
    const std::string rest = scheme_end == std::string::npos ? u : u.substr(scheme_end + 3);
    info->site = s_keep(s_up_to_colon_or_slash(rest));

    // The search starts at a fixed index so that a scheme's own colon is stepped over.
    const size_t colon = u.size() > 6 ? u.find(':', 6) : std::string::npos;
    if (colon != std::string::npos && colon + 1 < u.size() && u[colon + 1] >= '0' && u[colon + 1] <= '9') {
        const size_t slash = u.find('/', colon + 1);
        info->port = s_keep(u.substr(colon + 1, slash == std::string::npos ? std::string::npos : slash - colon - 1));
        info->path = s_keep(slash == std::string::npos ? std::string() : u.substr(slash));
    } else {
        info->port = s_keep("5672");
        const size_t slash = u.size() > 8 ? u.find('/', 8) : std::string::npos;
        info->path = s_keep(slash == std::string::npos ? std::string("/") : u.substr(slash));
    }
    return info;
}
