// JSON as tests read it: members by name, entries of a list, and the service replies that
// in-test scan services answer with.
#pragma once

#include <json-c/json.h>
#include <stdint.h>

#include <initializer_list>
#include <memory>
#include <string>
#include <vector>

namespace fqtest {

// A parsed JSON value (empty when the text is no JSON), or a part of one, for assertions.
class Json {
public:
    Json() = default;
    explicit Json(const std::string& text) : Json(json_tokener_parse(text.c_str())) {}
    // Takes over the reference.
    explicit Json(json_object* owned) : root_(owned, json_object_put), node_(owned) {}

    explicit operator bool() const { return node_ != nullptr; }
    json_object* get() const { return node_; }
    json_object* get(const char* key) const
    {
        json_object* v = nullptr;
        return node_ && json_object_object_get_ex(node_, key, &v) ? v : nullptr;
    }
    bool has(const char* key) const { return node_ && json_object_object_get_ex(node_, key, nullptr); }
    // A member as json-c renders it; "" when absent.
    std::string str(const char* key) const
    {
        json_object* v = get(key);
        return v ? json_object_get_string(v) : "";
    }
    int64_t num(const char* key, int64_t missing = 12345) const
    {
        json_object* v = get(key);
        return v ? json_object_get_int64(v) : missing;
    }
    int rc() const { return (int)num("ReturnCode"); }
    // The compact text, for failure messages.
    std::string text() const { return node_ ? json_object_to_json_string_ext(node_, JSON_C_TO_STRING_PLAIN) : "(none)"; }
    // The entries of an array member.
    std::vector<Json> list(const char* key = "Results") const
    {
        std::vector<Json> out;
        json_object* a = get(key);
        for (size_t i = 0; a && json_object_is_type(a, json_type_array) && i < json_object_array_length(a); ++i)
            out.push_back(Json(root_, json_object_array_get_idx(a, i)));
        return out;
    }
    // The entry of Results with this File-name; empty when there is none.
    Json entry(const std::string& name) const
    {
        for (const Json& e : list())
            if (e.str("File-name") == name)
                return e;
        return Json();
    }
    std::vector<std::string> keys() const
    {
        std::vector<std::string> out;
        if (node_ && json_object_is_type(node_, json_type_object)) {
            json_object_object_foreach(node_, k, v)
            {
                (void)v;
                out.emplace_back(k);
            }
        }
        return out;
    }

private:
    Json(std::shared_ptr<json_object> root, json_object* node) : root_(std::move(root)), node_(node) {}
    std::shared_ptr<json_object> root_;
    json_object* node_ = nullptr;
};

// A result entry and a whole reply of a scan service, as the wire has them.
inline std::string service_entry(const std::string& name, int rc, const std::string& virus = "",
                                 const std::string& mime = "")
{
    std::string e = "{\"ReturnCode\": " + std::to_string(rc) + ", \"File-name\": \"" + name +
                    "\", \"File-size\": 11, \"Object-type\": -1";
    if (!virus.empty())
        e += ", \"Virusname\": \"" + virus + "\"";
    if (!mime.empty())
        e += ", \"MIME-type\": \"" + mime + "\", \"MIME-encoding\": \"us-ascii\", \"File-type\": \"ASCII text\", "
             "\"Extension\": \"txt\"";
    return e + "}";
}

inline std::string service_reply(int rc, const std::vector<std::string>& entries, const std::string& extra = "")
{
    std::string r = "{\"ReturnCode\": " + std::to_string(rc) + ", \"FilesScanned\": " + std::to_string(entries.size()) +
                    ", \"Results\": [";
    for (size_t i = 0; i < entries.size(); ++i)
        r += (i ? ", " : "") + entries[i];
    return r + "]" + extra + "}";
}

// The member at path (keys one below the other) as text: a string as it is, any other value in its
// JSON form; "" when a key is missing or the text is no JSON.
std::string json_at(json_object* obj, std::initializer_list<const char*> path);
std::string json_at(const std::string& text, std::initializer_list<const char*> path);
// The keys of an object, in their order.
std::vector<std::string> json_keys(json_object* obj);

}  // namespace fqtest
