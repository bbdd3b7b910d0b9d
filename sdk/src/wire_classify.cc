// Telling the manager's messages apart. Replies to the plugin's own
// requests carry a trailing blank, the probe and the "DINT" answer are not
// JSON, and a session start may hold "[," (see plugin_wire.h).
#include <cctype>
#include <cstdlib>
#include <string>

#include "lumokit/plugin_wire.h"
#include "wire_text.h"

namespace lumokit::wire {
namespace {

using text::is_blank;
using text::parse_json;
using text::skip_blanks;
using text::trim;

bool is_integer_text(const std::string& text) {
  size_t i = (!text.empty() && text[0] == '-') ? 1 : 0;
  if (i == text.size() || text.size() > 18) return false;
  for (; i < text.size(); ++i) {
    if (!std::isdigit(static_cast<unsigned char>(text[i]))) return false;
  }
  return true;
}

}  // namespace

std::string repair_empty_list_commas(const std::string& text) {
  std::string out;
  out.reserve(text.size());
  bool in_string = false;
  bool escaped = false;
  bool after_open = false;
  for (char c : text) {
    if (in_string) {
      out += c;
      if (escaped) {
        escaped = false;
      } else if (c == '\\') {
        escaped = true;
      } else if (c == '"') {
        in_string = false;
      }
      continue;
    }
    if (after_open && c == ',') {
      after_open = false;
      continue;
    }
    if (!(after_open && is_blank(c))) after_open = (c == '[');
    if (c == '"') in_string = true;
    out += c;
  }
  return out;
}

std::string scan_req_type(const std::string& text) {
  size_t pos = text.find("\"req_type\"");
  if (pos == std::string::npos) return "";
  pos = skip_blanks(text, pos + 10);
  if (pos >= text.size() || text[pos] != ':') return "";
  pos = skip_blanks(text, pos + 1);
  if (pos >= text.size() || text[pos] != '"') return "";
  size_t end = text.find('"', pos + 1);
  if (end == std::string::npos) return "";
  return text.substr(pos + 1, end - pos - 1);
}

Classified classify(const std::string& text) {
  Classified out;
  const std::string trimmed = trim(text);
  if (trimmed == "PING") {
    out.kind = Incoming::Ping;
    return out;
  }
  if (is_integer_text(trimmed)) {
    out.kind = Incoming::Digit;
    out.digit = std::strtoll(trimmed.c_str(), nullptr, 10);
    return out;
  }
  std::string error;
  Json::Value msg;
  bool parsed = parse_json(text, &msg, &error);
  if (!parsed) {
    const std::string repaired = repair_empty_list_commas(text);
    std::string ignored;
    if (repaired != text) parsed = parse_json(repaired, &msg, &ignored);
  }
  if (parsed && msg.isObject()) {
    out.kind = Incoming::Json;
    const Json::Value& rt = msg["req_type"];
    out.req_type = rt.isString() ? rt.asString() : "";
    out.message = std::move(msg);
    return out;
  }
  out.kind = Incoming::Unreadable;
  out.error = parsed ? "not a JSON object" : error;
  out.req_type = scan_req_type(text);
  return out;
}

}  // namespace lumokit::wire
