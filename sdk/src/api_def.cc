// API definition and token files.
#include "lumokit/api_def.h"

#include <exception>
#include <algorithm>
#include <cctype>
#include <fstream>
#include <memory>
#include <sstream>

#include "lumokit/plugin_error.h"
#include "lumokit/plugin_wire.h"

namespace lumokit {
namespace {

std::string read_file(const std::string& path, const char* what) {
  std::ifstream in(path, std::ios::binary);
  if (!in) throw PluginError(PluginError::Kind::Invalid, std::string("cannot read ") + what + " " + path);
  std::ostringstream text;
  text << in.rdbuf();
  if (in.bad()) throw PluginError(PluginError::Kind::Invalid, std::string("error reading ") + what + " " + path);
  return text.str();
}

}  // namespace

Json::Value load_api_def(const std::string& path) {
  const std::string text = read_file(path, "API definition");
  Json::CharReaderBuilder builder;
  builder["failIfExtra"] = true;
  std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  Json::Value doc;
  std::string errs;
  bool parsed;
  try {
    parsed = reader->parse(text.data(), text.data() + text.size(), &doc, &errs);
  } catch (const std::exception& e) {  // nested past the reader's depth limit
    parsed = false;
    errs = e.what();
  }
  if (!parsed) {
    throw PluginError(PluginError::Kind::Invalid, "API definition " + path + " is not JSON: " + errs);
  }
  if (doc.isObject() && doc.isMember("api_def")) doc = doc["api_def"];
  if (!doc.isArray()) {
    throw PluginError(PluginError::Kind::Invalid,
                      "API definition " + path + " is neither an array nor an object with \"api_def\"");
  }
  return doc;
}

bool check_api_def(const Json::Value& api_def, uint32_t opcode, std::string* error) {
  if (!api_def.isArray()) {
    *error = "the definition is not an array of API entries";
    return false;
  }
  for (Json::ArrayIndex i = 0; i < api_def.size(); ++i) {
    const Json::Value& entry = api_def[i];
    const std::string where = "entry " + std::to_string(i);
    if (!entry.isObject()) {
      *error = where + " is not an object";
      return false;
    }
    const Json::Value& text = entry["opcode"];
    uint32_t value = 0;
    if (!text.isString() || text.asString().compare(0, 2, "0x") != 0 ||
        !wire::parse_hex_u32(text.asString(), &value)) {
      *error = where + " has no \"opcode\" of the form \"0x...\"";
      return false;
    }
    if (value != opcode) {
      *error = where + " is for opcode " + text.asString() + ", not " + wire::opcode_hex(opcode);
      return false;
    }
    const Json::Value& subsystems = entry["subsystems"];
    if (!subsystems.isArray()) {
      *error = where + " has no \"subsystems\" array";
      return false;
    }
    for (const Json::Value& sub : subsystems) {
      if (!sub.isObject() || !sub["id"].isUInt()) {
        *error = where + " has a subsystem without an unsigned \"id\"";
        return false;
      }
    }
  }
  return true;
}

std::vector<uint32_t> api_def_subsystems(const Json::Value& api_def) {
  std::vector<uint32_t> ids;
  if (!api_def.isArray()) return ids;
  for (const Json::Value& entry : api_def) {
    if (!entry.isObject()) continue;
    for (const Json::Value& sub : entry["subsystems"]) {
      if (!sub.isObject() || !sub["id"].isUInt()) continue;
      const uint32_t id = sub["id"].asUInt();
      if (std::find(ids.begin(), ids.end(), id) == ids.end()) ids.push_back(id);
    }
  }
  return ids;
}

std::string load_token(const std::string& path) {
  const std::string text = read_file(path, "token");
  std::string token;
  for (char c : text) {
    if (std::isspace(static_cast<unsigned char>(c))) continue;
    if (!std::isxdigit(static_cast<unsigned char>(c))) {
      throw PluginError(PluginError::Kind::Invalid,
                        "token " + path + " holds a character that is not a hexadecimal digit");
    }
    token += c;
  }
  if (token.empty()) throw PluginError(PluginError::Kind::Invalid, "token " + path + " is empty");
  return token;
}

}  // namespace lumokit
