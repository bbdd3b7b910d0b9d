#include "fuzz_tables.h"

#include <map>
#include <memory>
#include <set>

#include "LumoManager.h"
#include "Service.h"
#include "json_read.h"

namespace {

std::string pair_key(const Json::Value& pair) {
  return pair["opcode"].asString() + "/" + std::to_string(pair["subsystem"].asUInt());
}

}  // namespace

std::string check_table_consistency() {
  const std::string text = lumokit_state_dump();
  Json::CharReaderBuilder builder;
  const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  Json::Value dump;
  if (!parse_json_safely(*reader, text.data(), text.data() + text.size(), &dump, nullptr)) {
    return "the state dump is not JSON";
  }
  std::map<int, bool> died;          // service id -> gone
  std::map<std::string, int> owner;  // pair -> the plugin holding it
  for (const Json::Value& p : dump["plugins"]) {
    const int id = p["service_id"].asInt();
    died[id] = p["died"].asBool();
    // A record can stay filed after a goodbye naming another id; it must be empty then.
    if (died[id] && !p["pairs"].empty()) return "dead plugin " + std::to_string(id) + " holds pairs";
    for (const Json::Value& pair : p["pairs"]) {
      if (!owner.emplace(pair_key(pair), id).second) return pair_key(pair) + " held by two plugins";
    }
  }
  std::set<std::string> registered;
  {
    std::lock_guard<std::mutex> lock(registered_opcode_subsys_set_mtx);
    for (const OpcodeSubsys& pair : *get_registered_opcode_subsys_set()) {
      registered.insert(uint32_to_hexstring(pair.first) + "/" + std::to_string(pair.second));
    }
  }
  for (const auto& entry : owner) {
    if (registered.erase(entry.first) == 0) return entry.first + " held but not registered";
  }
  if (!registered.empty()) return *registered.begin() + " registered but held by no plugin";
  for (const Json::Value& r : dump["registry"]) {
    auto it = owner.find(pair_key(r));
    if (it == owner.end() || it->second != r["service_id"].asInt()) {
      return "registry entry " + pair_key(r) + " names a plugin without the pair";
    }
  }
  for (const Json::Value& s : dump["sessions"]) {
    const std::string sid = "session " + s["session_id"].asString() + ": ";
    if (!s["has_callback"].asBool()) return sid + "no callback";
    for (const Json::Value& id : s["plugins"]) {
      if (died.count(id.asInt()) == 0) return sid + "unknown plugin " + id.asString();
    }
    std::set<std::string> granted;
    for (const Json::Value& pair : s["granted"]) granted.insert(pair_key(pair));
    for (const Json::Value& pair : s["connected"]) {
      if (granted.count(pair_key(pair)) == 0) return sid + "connected to ungranted " + pair_key(pair);
    }
  }
  return "";
}
