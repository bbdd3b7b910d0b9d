#include "soak_setup.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>

#include "soak_link.h"
#include "soak_records.h"
#include "token_key.h"
#include "token_sign.h"

namespace lumokit::soak {

namespace {

bool write_file(const std::string& path, const std::string& text, std::string* error) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << text;
  out.close();
  if (!out) {
    *error = "cannot write " + path;
    return false;
  }
  return true;
}

bool make_dir(const std::string& path, std::string* error) {
  if (mkdir(path.c_str(), 0700) != 0) {
    *error = "mkdir " + path + ": " + std::strerror(errno);
    return false;
  }
  return true;
}

std::string policy_text() {
  Json::Value policy(Json::objectValue);
  policy["declared"] = true;
  Json::Value api(Json::objectValue);
  // Catalogue key "gated:1:1:string": the gated function with its one
  // string argument, on subsystem 1 of every slot.
  api["id"] = "gated:1:string";
  api["permissions"] = kGatedPermission;
  api["subsystem"] = "1";
  policy["apis"].append(api);
  Json::Value permitted(Json::objectValue);
  permitted["uid"] = kPermittedUid;
  permitted["package"] = "com.example.soak";
  permitted["granted"].append(kGatedPermission);
  Json::Value denied(Json::objectValue);
  denied["uid"] = kDeniedUid;
  denied["package"] = "com.example.soak.denied";
  denied["granted"] = Json::Value(Json::arrayValue);
  policy["apps"].append(permitted);
  policy["apps"].append(denied);
  return json_text(policy);
}

Json::Value api_def_for(uint32_t slot) {
  Json::Value function(Json::objectValue);
  function["num_of_args"] = 1;
  function["args"].append(Json::Value(Json::objectValue));
  function["args"][0]["type"] = "string";
  Json::Value echo = function;
  echo["name"] = "echo";
  Json::Value gated = function;
  gated["name"] = "gated";
  Json::Value subsystem(Json::objectValue);
  subsystem["id"] = kSubsystem;
  subsystem["functions"].append(echo);
  subsystem["functions"].append(gated);
  Json::Value entry(Json::objectValue);
  char opcode[16];
  std::snprintf(opcode, sizeof(opcode), "0x%X", kOpcodeBase + slot);
  entry["opcode"] = opcode;
  entry["name"] = "soak" + std::to_string(slot);
  entry["subsystems"].append(subsystem);
  Json::Value defs(Json::arrayValue);
  defs.append(entry);
  return defs;
}

void append_option(const char* variable, const std::string& option) {
  const char* old = std::getenv(variable);
  std::string value = (old != nullptr && *old != '\0') ? std::string(old) + ":" + option : option;
  setenv(variable, value.c_str(), 1);
}

}  // namespace

std::string WorkDir::api_def(uint32_t slot) const {
  return plugins + "/api-" + std::to_string(slot) + ".json";
}

std::string WorkDir::token(uint32_t slot) const {
  return plugins + "/token-" + std::to_string(slot) + ".hex";
}

bool prepare_work_dir(const Options& options, WorkDir* dir, std::string* error) {
  std::string templ = options.work_parent + "/lumokit-soak.XXXXXX";
  if (mkdtemp(templ.data()) == nullptr) {
    *error = "mkdtemp " + templ + ": " + std::strerror(errno);
    return false;
  }
  dir->root = templ;
  dir->runtime = dir->root + "/run";
  dir->policy = dir->root + "/policy.json";
  dir->plugins = dir->root + "/plugins";
  dir->sanitizer = dir->root + "/sanitizer";
  dir->daemon_log = dir->root + "/daemon.log";
  dir->daemon_out = dir->root + "/daemon.out";
  if (!make_dir(dir->plugins, error) || !make_dir(dir->sanitizer, error) ||
      !write_file(dir->policy, policy_text(), error)) {
    return false;
  }

  lumokit::token::KeyPtr key =
      lumokit::token::load_key(options.signing_key, lumokit::token::KeyUse::kSigning, error);
  if (!key) {
    *error = "signing key " + options.signing_key + ": " + *error;
    return false;
  }
  for (uint32_t slot = 0; slot < options.plugins; ++slot) {
    const Json::Value defs = api_def_for(slot);
    Json::Value file(Json::objectValue);
    file["api_def"] = defs;
    lumokit::token::TokenContent content;
    content.op_json[kOpcodeBase + slot] =
        lumokit::token::sha1_hex(lumokit::token::compact_api_def(defs));
    std::string token;
    if (!lumokit::token::sign_token(key.get(), content, &token, error)) return false;
    if (!write_file(dir->api_def(slot), json_text(file), error) ||
        !write_file(dir->token(slot), token + "\n", error)) {
      return false;
    }
  }
  return true;
}

void route_sanitizer_logs(const WorkDir& dir) {
  // glibc gives busy threads arenas of their own, up to eight per core, and
  // an arena keeps its high-water mark: with the daemon's many short-lived
  // connection threads that alone adds tens of MiB over the first minutes
  // and then stops. Two arenas keep the RSS a measure of what the daemon
  // holds. An explicit setting in the environment wins.
  setenv("MALLOC_ARENA_MAX", "2", 0);
  append_option("ASAN_OPTIONS", "log_path=" + dir.sanitizer + "/asan");
  append_option("UBSAN_OPTIONS", "log_path=" + dir.sanitizer + "/ubsan:print_stacktrace=1");
  append_option("TSAN_OPTIONS", "log_path=" + dir.sanitizer + "/tsan");
}

void remove_work_dir(const WorkDir& dir) {
  std::error_code ec;
  std::filesystem::remove_all(dir.root, ec);
}

}  // namespace lumokit::soak
