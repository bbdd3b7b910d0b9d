// Reading the manager's replies to the plugin's own requests.
#include <string>
#include <vector>

#include "lumokit/plugin_wire.h"
#include "wire_text.h"

namespace lumokit::wire {
namespace {

using text::parse_json;
using text::skip_blanks;

// The closing quote of a literal answer in "QueryInfosRes": a quote followed
// by the next answer's separator or by the end of the object.
size_t find_answer_end(const std::string& text, size_t from) {
  for (size_t q = text.find('"', from); q != std::string::npos; q = text.find('"', q + 1)) {
    size_t next = skip_blanks(text, q + 1);
    if (next >= text.size()) continue;
    if (text[next] == '}' && skip_blanks(text, next + 1) == text.size()) return q;
    if (text[next] == ',') {
      size_t after = skip_blanks(text, next + 1);
      if (after < text.size() && text[after] == '"') return q;
    }
  }
  return std::string::npos;
}

}  // namespace

bool read_int_member(const Json::Value& reply, const char* key, long long* out) {
  const Json::Value& v = reply[key];
  if (!v.isInt64()) return false;
  *out = v.asInt64();
  return true;
}

bool parse_perm_res(const Json::Value& reply, std::vector<bool>* out, std::string* error) {
  const Json::Value& list = reply["PermRes"];
  if (!list.isArray()) {
    *error = "\"PermRes\" is missing or not an array";
    return false;
  }
  std::vector<bool> result;
  for (const Json::Value& entry : list) {
    if (entry.isString() && (entry.asString() == "1" || entry.asString() == "0")) {
      result.push_back(entry.asString() == "1");
    } else if (entry.isBool()) {
      result.push_back(entry.asBool());
    } else {
      *error = "\"PermRes\" entry is not \"1\" or \"0\"";
      return false;
    }
  }
  *out = std::move(result);
  return true;
}

bool parse_query_infos_res(const std::string& reply_text, std::vector<std::string>* out,
                           std::string* error) {
  static const std::string kKey = "\"QueryInfosRes\"";
  size_t pos = reply_text.find(kKey);
  if (pos == std::string::npos) {
    *error = "\"QueryInfosRes\" is missing";
    return false;
  }
  pos = skip_blanks(reply_text, pos + kKey.size());
  if (pos >= reply_text.size() || reply_text[pos] != ':') {
    *error = "no ':' after \"QueryInfosRes\"";
    return false;
  }
  pos = skip_blanks(reply_text, pos + 1);
  if (pos < reply_text.size() && reply_text[pos] == '[') {
    Json::Value msg;
    if (!parse_json(reply_text, &msg, error)) return false;
    std::vector<std::string> result;
    for (const Json::Value& entry : msg["QueryInfosRes"]) {
      if (!entry.isString()) {
        *error = "\"QueryInfosRes\" entry is not a string";
        return false;
      }
      result.push_back(entry.asString());
    }
    *out = std::move(result);
    return true;
  }
  std::vector<std::string> result;
  // An empty answer list is written as nothing at all.
  if (pos < reply_text.size() && reply_text[pos] == '}') {
    *out = std::move(result);
    return true;
  }
  while (true) {
    if (pos >= reply_text.size() || reply_text[pos] != '"') {
      *error = "an answer in \"QueryInfosRes\" does not start with '\"'";
      return false;
    }
    const size_t end = find_answer_end(reply_text, pos + 1);
    if (end == std::string::npos) {
      *error = "an answer in \"QueryInfosRes\" is not closed";
      return false;
    }
    result.push_back(reply_text.substr(pos + 1, end - pos - 1));
    // find_answer_end saw a ',' or the closing '}' after the quote.
    pos = skip_blanks(reply_text, end + 1);
    if (reply_text[pos] == '}') break;
    pos = skip_blanks(reply_text, pos + 1);
  }
  *out = std::move(result);
  return true;
}

}  // namespace lumokit::wire
