// Reading members of JSON texts in tests.
#pragma once

#include <json-c/json.h>

#include <initializer_list>
#include <string>
#include <vector>

namespace fqtest {

// The member at path (keys one below the other) as text: a string as it is, any other value in its
// JSON form; "" when a key is missing or the text is no JSON.
std::string json_at(json_object* obj, std::initializer_list<const char*> path);
std::string json_at(const std::string& text, std::initializer_list<const char*> path);
// The keys of an object, in their order.
std::vector<std::string> json_keys(json_object* obj);

}  // namespace fqtest
