// Small text helpers shared by the readers of the manager's messages.
#pragma once

#include <string>

#include <json/json.h>

namespace lumokit::wire::text {

bool is_blank(char c);
std::string trim(const std::string& text);
size_t skip_blanks(const std::string& text, size_t pos);
// Strict JSON (nothing but blanks after the value); false with the reason.
bool parse_json(const std::string& text, Json::Value* out, std::string* error);

}  // namespace lumokit::wire::text
