// Checking one client task and queueing it, unchanged, to the plugin that
// serves its pair. Only errors are answered here; the plugin answers later.
#include <android/log.h>

#include <string_view>

#include "LumoManager.h"
#include "LumoSysAccess.h"
#include "json_read.h"
#include "json_scan.h"
#include "message_tap.h"
#include "session_tables.h"

namespace {

constexpr int32_t kStatusArgumentCount = -1;
constexpr int32_t kStatusNoPlugin = -5;
constexpr int32_t kStatusUnknownSession = -7;
constexpr int32_t kStatusNotGranted = -8;

void answer_error(lumo_callback callback, const std::string& request, uint32_t session_id,
                  int32_t status, uint32_t transac_id) {
  call_client(callback, 0, LUMO_RESPONSE_TASK, session_id, create_error_response(request, status),
              0, transac_id);
}

// Base-16 reading of the task's opcode text; unreadable text gives 0.
unsigned int task_opcode(const std::string& text) {
  try {
    return static_cast<unsigned int>(std::stoul(text, nullptr, 16) & 0xFFFFFFFFul);
  } catch (...) {
    return 0;
  }
}

const Json::CharReaderBuilder& reader_builder() {
  static const Json::CharReaderBuilder* builder = [] {
    auto* b = new Json::CharReaderBuilder();
    (*b)["collectComments"] = false;
    return b;
  }();
  return *builder;
}

struct TaskClient {
  int32_t pid;
  uint32_t uid;
  uint32_t session_id;
  unsigned int opcode;
  unsigned int subsystem;
};

// The permission and privacy gate: false when the task must be dropped.
bool pass_privacy_gate(const std::string& api_key, const TaskClient& client) {
  privacy_op op;
  {
    std::lock_guard<std::mutex> lock(api_privacyop_map_mtx);
    auto it = api_privacyop_map.find(api_key);
    if (it == api_privacyop_map.end()) {
      __android_log_print(ANDROID_LOG_ERROR, kTagSession,
                          "API doesn't require any permission and privacy checks");
      return true;
    }
    op = it->second;
  }
  std::shared_ptr<lumosys::ILumoSys> sys = lumo_sys_service();
  if (!sys) {
    __android_log_print(ANDROID_LOG_ERROR, kTagSession, "Lumokit System service is not available!!!");
    return false;
  }

  std::vector<std::string> names;
  for (size_t start = 0; start < op.permissions.size();) {
    size_t end = op.permissions.find(':', start);
    if (end == std::string::npos) end = op.permissions.size();
    names.push_back(op.permissions.substr(start, end - start));
    start = end + 1;
  }
  const std::string pid_prefix = std::to_string(client.pid) + ":";
  std::vector<bool> granted(names.size(), false);
  std::vector<std::string> to_query;
  std::vector<size_t> query_index;
  {
    std::lock_guard<std::mutex> lock(pid_perminfo_map_mtx);
    for (size_t i = 0; i < names.size(); ++i) {
      const std::string key = pid_prefix + names[i];
      auto it = pid_perminfo_map.find(key);
      if (it != pid_perminfo_map.end()) {
        __android_log_print(ANDROID_LOG_INFO, kTagSession, "permission info found");
        granted[i] = it->second.status;
        continue;
      }
      permission_info info;
      info.status = false;
      info.uid = client.uid;
      info.opcode = client.opcode;
      info.ss_id = client.subsystem;
      info.session_id = client.session_id;
      pid_perminfo_map.emplace(key, info);
      __android_log_print(ANDROID_LOG_INFO, kTagSession,
                          "permission info not found, calling checkGrantedPermissions");
      to_query.push_back(names[i]);
      query_index.push_back(i);
    }
  }
  if (!to_query.empty()) {
    // An out array: the proxy sends only its size, and the service fills
    // that many entries, so it is sized to the question.
    std::vector<bool> answers(to_query.size(), false);
    if (!sys->checkGrantedPermissions(client.pid, static_cast<int32_t>(client.uid), to_query,
                                      &answers)) {
      // The task is refused; the entries made for this query go again so
      // that the next task asks the service afresh.
      __android_log_print(ANDROID_LOG_ERROR, kTagSession,
                          "checkGrantedPermissions from package manager failed");
      std::lock_guard<std::mutex> lock(pid_perminfo_map_mtx);
      for (const std::string& name : to_query) pid_perminfo_map.erase(pid_prefix + name);
    } else {
      std::lock_guard<std::mutex> lock(pid_perminfo_map_mtx);
      for (size_t j = 0; j < query_index.size() && j < answers.size(); ++j) {
        granted[query_index[j]] = answers[j];
        auto it = pid_perminfo_map.find(pid_prefix + to_query[j]);
        if (it != pid_perminfo_map.end()) it->second.status = answers[j];
      }
    }
  }
  for (bool g : granted) {
    if (!g) {
      __android_log_print(ANDROID_LOG_INFO, kTagSession, "Permission Denied");
      return false;
    }
  }
  __android_log_print(ANDROID_LOG_INFO, kTagSession, "Permission Granted");

  const std::pair<int32_t, uint32_t> who(client.pid, client.uid);
  int32_t result = 0;
  if (!op.start_op.empty()) {
    __android_log_print(ANDROID_LOG_INFO, kTagSession, "Start Operation");
    sys->updatePrivacyOperation(op.start_op, client.pid, static_cast<int32_t>(client.uid), false,
                                &result);
    std::lock_guard<std::mutex> lock(pid_uid_releaseindication_map_mtx);
    auto& list = pid_uid_releaseindication_map[who];
    if (list == nullptr) list = new std::list<std::string>();
    list->push_back(op.start_op);
  } else if (!op.stop_op.empty()) {
    __android_log_print(ANDROID_LOG_INFO, kTagSession, "Stop Operation");
    sys->updatePrivacyOperation(op.stop_op, client.pid, static_cast<int32_t>(client.uid), true,
                                &result);
    std::lock_guard<std::mutex> lock(pid_uid_releaseindication_map_mtx);
    auto it = pid_uid_releaseindication_map.find(who);
    // Every start of the operation is over: none is left to release at cancel.
    if (it != pid_uid_releaseindication_map.end()) it->second->remove(op.stop_op);
  }
  return true;
}

// Steps after sanitising, whichever reader filled `task`.
void execute_task(const std::string& request, lumo_callback callback, uint32_t session_id,
                  TaskClient& client, const TaskRequestScan& task) {
  if (task.session_id != session_id) return;

  bool granted_pair = false;
  client.opcode = task_opcode(std::string(task.opcode));
  client.subsystem = task.subsys_id;
  const uint32_t transac_id = task.transac_id;
  const OpcodeSubsys pair(client.opcode, client.subsystem);
  bool known_session;
  {
    std::lock_guard<std::mutex> lock(sessionid_granted_opcodesubsys_map_mtx);
    auto it = sessionid_granted_opcodesubsys_map.find(session_id);
    known_session = it != sessionid_granted_opcodesubsys_map.end();
    granted_pair = known_session && it->second->count(pair) != 0;
  }
  // Answered with the lock released: the callback may call back in.
  if (!known_session) {
    answer_error(callback, request, session_id, kStatusUnknownSession, transac_id);
    return;
  }

  const uint32_t num_of_args = task.num_of_args;
  std::string api_key(task.name);
  api_key += ":";
  api_key += std::to_string(client.subsystem);
  api_key += ":";
  api_key += std::to_string(num_of_args);
  api_key += ":";
  for (size_t i = 0; i < task.arg_types.size(); ++i) {
    if (i != 0) api_key += ":";
    api_key += task.arg_types[i];
  }

  if (task.arg_types.size() != num_of_args) {
    __android_log_print(ANDROID_LOG_ERROR, kTagSession, "Number of arguments mismatched!!!");
    answer_error(callback, request, session_id, kStatusArgumentCount, transac_id);
    return;
  }
  if (!granted_pair) {
    answer_error(callback, request, session_id, kStatusNotGranted, transac_id);
    return;
  }
  __android_log_print(ANDROID_LOG_INFO, kTagSession, "API Key: %s", api_key.c_str());

  if (!pass_privacy_gate(api_key, client)) return;

  int svc_id;
  {
    std::lock_guard<std::mutex> lock(opcodesubsys_svcid_map_mtx);
    auto it = opcodesubsys_svcid_map.find(pair);
    if (it == opcodesubsys_svcid_map.end()) {
      answer_error(callback, request, session_id, kStatusNoPlugin, transac_id);
      return;
    }
    svc_id = it->second;
  }
  std::shared_ptr<Service> svc = find_in_service_map(svc_id);
  if (!svc || svc->get_svc_hal_died()) return;
  bool serving;
  {
    std::lock_guard<std::mutex> lock(*svc->get_svc_hal_mtx());
    auto* map = svc->get_subsystem_map();
    auto it = map->find(pair);
    serving = it != map->end() && it->second->get_subsystem_status();
  }
  if (!serving) {
    answer_error(callback, request, session_id, kStatusNoPlugin, transac_id);
    return;
  }
  add_msg_to_queue(std::move(svc), request);
}

std::string_view text_of(const Json::Value& value) {
  const char* begin = nullptr;
  const char* end = nullptr;
  if (!value.getString(&begin, &end)) return std::string_view();
  return std::string_view(begin, static_cast<size_t>(end - begin));
}

// The JSON library's reading of a request the scanner did not vouch for:
// false once a parse or sanitising failure has been answered. The texts in
// `task` point into `root`.
bool read_with_library(const std::string& request, lumo_callback callback, uint32_t session_id,
                       Json::Value* root, TaskRequestScan* task) {
  thread_local std::unique_ptr<Json::CharReader> reader(reader_builder().newCharReader());
  std::string errors;
  if (!parse_json_safely(*reader, request.data(), request.data() + request.size(), root,
                         &errors)) {
    __android_log_print(ANDROID_LOG_WARN, kTagSession, "Parsing Failed!!!");
    call_client(callback, 0, LUMO_RESPONSE_TASK, session_id, "", 0, 0);
    return false;
  }
  if (!sanitizingJson(*root)) {
    __android_log_print(ANDROID_LOG_WARN, kTagSession,
                        "Sanitizing Failed!!! Input is not aligned with the criteria");
    call_client(callback, 0, LUMO_RESPONSE_TASK, session_id, "", 0, 0);
    return false;
  }
  const Json::Value& doc = *root;
  const Json::Value& func = doc["func"];
  task->session_id = doc["session_id"].asUInt();
  task->transac_id = doc["transac_id"].asUInt();
  task->opcode = text_of(doc["opcode"]);
  task->subsys_id = doc["subsys_id"].asUInt();
  task->name = text_of(func["name"]);
  task->num_of_args = func["num_of_args"].asUInt();
  task->arg_types.clear();
  for (const Json::Value& arg : func["args"]) task->arg_types.push_back(text_of(arg["type"]));
  return true;
}

}  // namespace

void perform_task(const std::string& request, lumo_callback callback, uint32_t session_id) {
  TaskClient client{0, 0, session_id, 0, 0};
  {
    std::lock_guard<std::mutex> lock(sessionid_pid_uid_map_mtx);
    auto it = sessionid_pid_uid_map.find(session_id);
    if (it != sessionid_pid_uid_map.end()) {
      client.pid = it->second.first;
      client.uid = it->second.second;
    }
  }

  // Plain requests are read in one pass; anything else goes to the JSON
  // library, which also decides every parse and sanitising failure.
  TaskRequestScan task;
  Json::Value root;
  if (!scan_task_request(request.data(), request.size(), &task) &&
      !read_with_library(request, callback, session_id, &root, &task)) {
    return;
  }
  execute_task(request, callback, session_id, client, task);
}
