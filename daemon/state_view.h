// Reading the manager's diagnostic state dump for the admin "status" answer.
#pragma once

#include <cstdint>
#include <string>

#include <json/json.h>

namespace lumokitd {

// Parses the dump text; false with `error` when it is not the expected JSON.
bool parse_state(const std::string& dump, Json::Value* out, std::string* error);

}  // namespace lumokitd
