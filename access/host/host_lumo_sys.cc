// Answers of the emulated `ILumoSys`, all taken from the loaded policy.
#include "host_lumo_sys.h"

#include <mutex>

#include "host_state.h"

namespace lumosys::host {
namespace {

const HostApp* find_app(const HostState& state, int32_t uid) {
  // The policy keys apps by the unsigned value; binder carries the same bits.
  const auto it = state.policy.apps.find(static_cast<uint32_t>(uid));
  return it == state.policy.apps.end() ? nullptr : &it->second;
}

// The common prologue of every call: a dead incarnation or an injected
// failure answers a failed status before anything is looked at.
bool admit_locked(HostState& state, uint64_t incarnation, const char* operation) {
  return serving_locked(state, incarnation) && !take_failure_locked(state, operation);
}

}  // namespace

std::string host_query_answer(const HostApp& app, const std::string& key) {
  if (key == "app.name.package") return app.package;
  if (key == "app.id.cert_hash") return "SUCCESS:" + app.cert_hash;
  if (key == "app.status.fore_back") {
    return app.foreground ? "SUCCESS:foreground" : "SUCCESS:background";
  }
  // The ids are the caller's own knowledge; the service has nothing to add.
  return std::string();
}

bool HostLumoSys::checkGrantedPermissions(int32_t /*pid*/, int32_t uid,
                                          const std::vector<std::string>& permissions,
                                          std::vector<bool>* granted) {
  HostState& state = host_state();
  std::lock_guard<std::mutex> lock(state.mtx);
  if (!serving_locked(state, incarnation_)) return false;
  // Counted before an injected failure: that call did reach the service.
  ++state.check_calls;
  if (take_failure_locked(state, kOpCheckGrantedPermissions)) return false;
  if (granted == nullptr) return false;
  const HostApp* app = find_app(state, uid);
  // `granted` is an out array: the NDK proxy sends only its size, the
  // service fills an array of that size and the caller reads it back. A
  // caller that did not size it learns nothing, as on a device.
  std::vector<bool> answer(granted->size(), false);
  for (size_t i = 0; i < answer.size() && i < permissions.size(); ++i) {
    answer[i] = app != nullptr && app->granted.count(permissions[i]) > 0;
  }
  *granted = std::move(answer);
  return true;
}

bool HostLumoSys::queryInfo(int32_t /*pid*/, int32_t uid, const std::vector<std::string>& keys,
                            std::vector<std::string>* answers) {
  HostState& state = host_state();
  std::lock_guard<std::mutex> lock(state.mtx);
  if (!admit_locked(state, incarnation_, kOpQueryInfo)) return false;
  if (answers == nullptr) return false;
  const HostApp* app = find_app(state, uid);
  std::vector<std::string> out;
  out.reserve(keys.size());
  for (const std::string& key : keys) {
    out.push_back(app != nullptr ? host_query_answer(*app, key) : std::string());
  }
  *answers = std::move(out);
  return true;
}

bool HostLumoSys::updatePrivacyOperation(const std::string& operation, int32_t pid, int32_t uid,
                                         bool stop, int32_t* result) {
  HostState& state = host_state();
  std::lock_guard<std::mutex> lock(state.mtx);
  if (!admit_locked(state, incarnation_, kOpUpdatePrivacyOperation)) return false;
  if (result == nullptr) return false;
  state.privacy_log.push_back(PrivacyCall{operation, pid, uid, stop});
  *result = 0;
  return true;
}

bool HostLumoSys::getAPIInfo(std::vector<APIInfo>* infos) {
  HostState& state = host_state();
  std::lock_guard<std::mutex> lock(state.mtx);
  if (!admit_locked(state, incarnation_, kOpGetAPIInfo)) return false;
  if (infos == nullptr) return false;
  *infos = state.policy.apis;
  return true;
}

bool HostLumoSys::setPermissionChangeCallback(const std::shared_ptr<ILumoSysCallback>& callback) {
  HostState& state = host_state();
  std::shared_ptr<ILumoSysCallback> replaced;
  {
    std::lock_guard<std::mutex> lock(state.mtx);
    if (!admit_locked(state, incarnation_, kOpSetPermissionChangeCallback)) return false;
    // A null interface is refused, as binder refuses a null non-nullable argument.
    if (!callback) return false;
    replaced = std::move(state.callback);
    state.callback = callback;
  }
  // The old callback is released here, outside the lock: its destructor is
  // the manager's code.
  return true;
}

}  // namespace lumosys::host
