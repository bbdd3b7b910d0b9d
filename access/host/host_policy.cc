// Strict reader of the emulated service's policy. Every member is type-checked
// and unknown members are refused, so a typo in a test fixture fails loudly
// instead of silently granting or denying something.
#include "host_policy.h"
#include "json_read.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <memory>
#include <sstream>
#include <system_error>

#include <json/json.h>

namespace lumosys::host {
namespace {

std::string errno_text(int err) { return std::error_code(err, std::generic_category()).message(); }

// jsoncpp reports "* Line L, Column C\n  message\n" per error; fold that into
// one line so the whole error fits a log line.
std::string flatten_reader_errors(const std::string& errs) {
  std::string out;
  std::istringstream lines(errs);
  std::string line;
  while (std::getline(lines, line)) {
    const auto first = line.find_first_not_of(" \t");
    if (first == std::string::npos) continue;
    line = line.substr(first, line.find_last_not_of(" \t\r") - first + 1);
    if (line.rfind("* ", 0) == 0) {
      if (!out.empty()) out += "; ";
      out += line.substr(2);
    } else {
      out += out.empty() ? line : ": " + line;
    }
  }
  return out.empty() ? "unknown parse error" : out;
}

// Carries the source name and builds "<source>: <path>: <problem>".
struct Checker {
  const std::string& source;
  std::string* error;

  bool fail(const std::string& path, const std::string& problem) const {
    if (error != nullptr) *error = source + ": " + path + ": " + problem;
    return false;
  }

  bool only_members(const Json::Value& object, const std::string& path,
                    const std::set<std::string>& allowed) const {
    for (const auto& name : object.getMemberNames()) {
      if (allowed.count(name) == 0) {
        return fail(path, "unknown member \"" + name + "\"");
      }
    }
    return true;
  }

  // An absent member keeps `out` as it is (the default).
  bool optional_string(const Json::Value& object, const std::string& path, const char* name,
                       std::string* out) const {
    if (!object.isMember(name)) return true;
    const Json::Value& value = object[name];
    if (!value.isString()) return fail(path + "." + name, "expected a string");
    *out = value.asString();
    return true;
  }

  bool optional_bool(const Json::Value& object, const std::string& path, const char* name,
                     bool* out) const {
    if (!object.isMember(name)) return true;
    const Json::Value& value = object[name];
    if (!value.isBool()) return fail(path + "." + name, "expected a boolean");
    *out = value.asBool();
    return true;
  }
};

bool is_plain_uint32(const Json::Value& value) {
  // Only integer literals: jsoncpp would otherwise accept 10123.0.
  const bool integer = value.type() == Json::intValue || value.type() == Json::uintValue;
  return integer && value.isUInt();
}

bool parse_api(const Checker& check, const Json::Value& entry, const std::string& path,
               APIInfo* info) {
  if (!entry.isObject()) return check.fail(path, "expected an object");
  if (!check.only_members(entry, path,
                          {"id", "permissions", "start_op", "stop_op", "extra1", "extra2",
                           "subsystem"})) {
    return false;
  }
  if (!entry.isMember("id")) return check.fail(path + ".id", "required member missing");
  if (!check.optional_string(entry, path, "id", &info->id)) return false;
  if (info->id.empty()) return check.fail(path + ".id", "must not be empty");
  return check.optional_string(entry, path, "permissions", &info->permissions) &&
         check.optional_string(entry, path, "start_op", &info->start_op) &&
         check.optional_string(entry, path, "stop_op", &info->stop_op) &&
         check.optional_string(entry, path, "extra1", &info->extra1) &&
         check.optional_string(entry, path, "extra2", &info->extra2) &&
         check.optional_string(entry, path, "subsystem", &info->subsystem);
}

bool parse_granted(const Checker& check, const Json::Value& entry, const std::string& path,
                   std::set<std::string>* granted) {
  if (!entry.isMember("granted")) return true;
  const Json::Value& list = entry["granted"];
  if (!list.isArray()) return check.fail(path + ".granted", "expected an array");
  for (Json::ArrayIndex i = 0; i < list.size(); ++i) {
    if (!list[i].isString()) {
      return check.fail(path + ".granted[" + std::to_string(i) + "]", "expected a string");
    }
    granted->insert(list[i].asString());
  }
  return true;
}

bool parse_app(const Checker& check, const Json::Value& entry, const std::string& path,
               uint32_t* uid, HostApp* app) {
  if (!entry.isObject()) return check.fail(path, "expected an object");
  if (!check.only_members(entry, path,
                          {"uid", "package", "cert_hash", "foreground", "granted"})) {
    return false;
  }
  if (!entry.isMember("uid")) return check.fail(path + ".uid", "required member missing");
  if (!is_plain_uint32(entry["uid"])) {
    return check.fail(path + ".uid", "expected an unsigned 32-bit integer");
  }
  *uid = entry["uid"].asUInt();
  return check.optional_string(entry, path, "package", &app->package) &&
         check.optional_string(entry, path, "cert_hash", &app->cert_hash) &&
         check.optional_bool(entry, path, "foreground", &app->foreground) &&
         parse_granted(check, entry, path, &app->granted);
}

bool parse_root(const Checker& check, const Json::Value& root, HostPolicy* policy) {
  if (!root.isObject()) return check.fail("top level", "expected an object");
  for (const auto& name : root.getMemberNames()) {
    if (name != "declared" && name != "apis" && name != "apps") {
      return check.fail("top level", "unknown member \"" + name + "\"");
    }
  }
  if (root.isMember("declared")) {
    if (!root["declared"].isBool()) return check.fail("declared", "expected a boolean");
    policy->declared = root["declared"].asBool();
  }
  if (root.isMember("apis")) {
    const Json::Value& apis = root["apis"];
    if (!apis.isArray()) return check.fail("apis", "expected an array");
    for (Json::ArrayIndex i = 0; i < apis.size(); ++i) {
      APIInfo info;
      if (!parse_api(check, apis[i], "apis[" + std::to_string(i) + "]", &info)) return false;
      policy->apis.push_back(std::move(info));
    }
  }
  if (root.isMember("apps")) {
    const Json::Value& apps = root["apps"];
    if (!apps.isArray()) return check.fail("apps", "expected an array");
    for (Json::ArrayIndex i = 0; i < apps.size(); ++i) {
      const std::string path = "apps[" + std::to_string(i) + "]";
      uint32_t uid = 0;
      HostApp app;
      if (!parse_app(check, apps[i], path, &uid, &app)) return false;
      if (!policy->apps.emplace(uid, std::move(app)).second) {
        return check.fail(path + ".uid", "duplicate uid " + std::to_string(uid));
      }
    }
  }
  return true;
}

}  // namespace

bool parse_policy(const std::string& text, const std::string& source, HostPolicy* policy,
                  std::string* error) {
  if (policy == nullptr) {
    if (error != nullptr) *error = source + ": no policy record to fill";
    return false;
  }
  Json::CharReaderBuilder builder;
  // Strict mode also refuses duplicate keys, which would hide one of two values.
  Json::CharReaderBuilder::strictMode(&builder.settings_);
  const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  Json::Value root;
  std::string errs;
  if (!parse_json_safely(*reader, text.data(), text.data() + text.size(), &root, &errs)) {
    if (error != nullptr) *error = source + ": not valid JSON: " + flatten_reader_errors(errs);
    return false;
  }
  HostPolicy parsed;
  if (!parse_root(Checker{source, error}, root, &parsed)) return false;
  *policy = std::move(parsed);
  return true;
}

bool read_policy_file(const std::string& path, std::string* text, std::string* error) {
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    const int err = errno;
    if (error != nullptr) *error = path + ": cannot open: " + errno_text(err);
    return false;
  }
  std::string content;
  char buffer[4096];
  for (;;) {
    const ssize_t got = ::read(fd, buffer, sizeof buffer);
    if (got == 0) break;
    if (got < 0) {
      const int err = errno;
      if (err == EINTR) continue;
      ::close(fd);
      if (error != nullptr) *error = path + ": cannot read: " + errno_text(err);
      return false;
    }
    content.append(buffer, static_cast<size_t>(got));
  }
  ::close(fd);
  *text = std::move(content);
  return true;
}

}  // namespace lumosys::host
