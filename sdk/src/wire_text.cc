#include "wire_text.h"

#include <exception>
#include <memory>

namespace lumokit::wire::text {

bool is_blank(char c) {
  return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\f' || c == '\v' || c == '\0';
}

std::string trim(const std::string& text) {
  size_t begin = 0;
  size_t end = text.size();
  while (begin < end && is_blank(text[begin])) ++begin;
  while (end > begin && is_blank(text[end - 1])) --end;
  return text.substr(begin, end - begin);
}

size_t skip_blanks(const std::string& text, size_t pos) {
  while (pos < text.size() && is_blank(text[pos])) ++pos;
  return pos;
}

bool parse_json(const std::string& text, Json::Value* out, std::string* error) {
  Json::CharReaderBuilder builder;
  builder["failIfExtra"] = true;
  builder["collectComments"] = false;
  std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  std::string errs;
  bool parsed;
  try {
    parsed = reader->parse(text.data(), text.data() + text.size(), out, &errs);
  } catch (const std::exception& e) {  // nested past the reader's depth limit
    parsed = false;
    errs = e.what();
  }
  if (!parsed) {
    *error = trim(errs);
    return false;
  }
  return true;
}

}  // namespace lumokit::wire::text
