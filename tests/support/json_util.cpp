#include "json_util.h"

#include "fq_raii.h"

namespace fqtest {

std::string json_at(json_object* obj, std::initializer_list<const char*> path)
{
    for (const char* key : path)
        if (!json_object_object_get_ex(obj, key, &obj))
            return "";
    return obj ? json_object_get_string(obj) : "";
}

std::string json_at(const std::string& text, std::initializer_list<const char*> path)
{
    fq_json_ptr obj(json_tokener_parse(text.c_str()));
    return obj ? json_at(obj.get(), path) : "";
}

std::vector<std::string> json_keys(json_object* obj)
{
    std::vector<std::string> keys;
    json_object_object_foreach(obj, k, v)
    {
        (void)v;
        keys.emplace_back(k);
    }
    return keys;
}

}  // namespace fqtest
