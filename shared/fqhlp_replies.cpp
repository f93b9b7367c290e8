// The standard reply texts of every service: {"ReturnCode": n}, and the error reply with "Error" and
// "WorkerHostname". Handlers leave one of these in their reply slot when they have nothing better to
// say. Error texts from anywhere are escaped, so a reply is always valid JSON whatever the text holds.
#include "fqhlp_replies.h"

#include <json-c/json.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <string>

#include "fq_request_reply_types.h"
#include "log.h"

namespace {

int s_set_text(char** json_txt, const std::string& text)
{
    if (!json_txt)
        return -1;
    char* copy = strdup(text.c_str());
    if (!copy) {
        log_error("Failed to allocate %s", "*json_txt");
        return -1;
    }
    *json_txt = copy;
    return 0;
}

// A JSON string literal for any text: quotes, backslashes and control characters escaped.
std::string s_json_quoted(const char* text)
{
    json_object* s = json_object_new_string(text ? text : "");
    if (!s)
        return "\"\"";
    std::string quoted = json_object_to_json_string_ext(s, JSON_C_TO_STRING_PLAIN | JSON_C_TO_STRING_NOSLASHESCAPE);
    json_object_put(s);
    return quoted;
}

}  // namespace

int fq_reply_set_OK(char** json_txt)
{
    return fq_reply_set_return_code(json_txt, 0);
}

int fq_reply_set_return_code(char** json_txt, int return_code)
{
    if (return_code == SERVICE_ERROR)
        return fq_reply_set_ERROR(json_txt, return_code, nullptr);
    char buf[64];
    snprintf(buf, sizeof(buf), "{\"ReturnCode\": %d}", return_code);
    return s_set_text(json_txt, buf);
}

int fq_reply_set_ERROR(char** json_txt, int return_code, const char* error_msg)
{
    char host[256];
    if (gethostname(host, sizeof(host)) != 0)
        host[0] = '\0';
    host[sizeof(host) - 1] = '\0';
    // A -1000 tells the client what failed; an empty text would tell it nothing.
    if (return_code == SERVICE_ERROR && (!error_msg || !*error_msg))
        error_msg = "Request failed, and no step of it said why";
    std::string text = "{\"ReturnCode\": " + std::to_string(return_code) + ", \"Error\": " + s_json_quoted(error_msg) +
                       ", \"WorkerHostname\": " + s_json_quoted(host) + "}";
    return s_set_text(json_txt, text);
}
