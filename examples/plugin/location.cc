#include "location.h"

#include <exception>
#include <string>

#include "event_log.h"
#include "lumokit/plugin.h"

namespace example {
namespace {

uint64_t mix(uint64_t z) {
  z += 0x9E3779B97F4A7C15ull;
  z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
  z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
  return z ^ (z >> 31);
}

std::string degrees(int64_t e6) {
  const char* sign = e6 < 0 ? "-" : "";
  const uint64_t v = static_cast<uint64_t>(e6 < 0 ? -e6 : e6);
  std::string frac = std::to_string(v % 1000000);
  return sign + std::to_string(v / 1000000) + "." + std::string(6 - frac.size(), '0') + frac;
}

}  // namespace

FakePosition fake_position(uint32_t session_id) {
  const uint64_t z = mix(session_id);
  return {static_cast<int64_t>(z % 170000001ull) - 85000000,
          static_cast<int64_t>((z >> 28) % 360000001ull) - 180000000};
}

Json::Value Location::run(const lumokit::TaskRequest& task) {
  if (task.subsystem != kLocationSubsystem || task.function != "getLocation") {
    return task_error(task, kUnknownFunction, "location has no function " + task.function +
                                                  " in subsystem " + std::to_string(task.subsystem));
  }
  if (!task.args.empty()) return task_error(task, kBadArguments, "getLocation takes no arguments");
  const uint32_t session = task.session_id;

  bool granted = false;
  bool known = false;
  {
    std::lock_guard<std::mutex> lock(mtx_);
    auto it = granted_.find(session);
    if (it != granted_.end()) {
      known = true;
      granted = it->second;
    }
  }
  if (!known) {
    try {
      granted = queries_.permission(session, {kFineLocation}).at(0);
    } catch (const std::exception& e) {
      return task_error(task, kQueryFailed, std::string("permission check failed: ") + e.what());
    }
    std::lock_guard<std::mutex> lock(mtx_);
    granted_[session] = granted;
    log_line("location: session " + std::to_string(session) + " " + kFineLocation +
             (granted ? " granted" : " not granted"));
  }
  if (!granted) {
    log_line("location: session " + std::to_string(session) + " getLocation denied");
    return task_error(task, kPermissionDenied, std::string(kFineLocation) + " is not granted");
  }

  std::string package = "unknown";
  try {
    std::string value;
    const std::vector<std::string> answers = queries_.info_query(session, {"app.name.package"});
    if (!answers.empty() && lumokit::info_success(answers[0], &value)) package = value;
    else log_line("location: package of session " + std::to_string(session) + " unknown: " +
                  (answers.empty() ? std::string("no answer") : answers[0]));
  } catch (const std::exception& e) {
    log_line("location: package query failed: " + std::string(e.what()));
  }

  const FakePosition pos = fake_position(session);
  log_line("location: session " + std::to_string(session) + " getLocation for " + package + " = " +
           degrees(pos.latitude_e6) + "," + degrees(pos.longitude_e6));
  Json::Value result = task_result(task, kOk);
  Json::Value where(Json::objectValue);
  where["latitude_e6"] = Json::Int64(pos.latitude_e6);
  where["longitude_e6"] = Json::Int64(pos.longitude_e6);
  where["accuracy_m"] = 25;
  result["return"] = where;
  result["package"] = package;
  return result;
}

void Location::session_ended(uint32_t session_id) {
  std::lock_guard<std::mutex> lock(mtx_);
  granted_.erase(session_id);
}

void Location::permission_changed(const lumokit::PermissionChange& change) {
  if (change.opcode != kLocationOpcode || change.permission != kFineLocation) return;
  std::lock_guard<std::mutex> lock(mtx_);
  granted_[change.session_id] = change.granted;
}

}  // namespace example
