// Arbitrary task texts through perform_task, for a live session (1) whose
// pair is served by a plugin record, and for unknown sessions. Each call is
// forwarded unchanged or answered, never both and never twice.
#include <cstdlib>
#include <cstring>

#include "LumoManager.h"
#include <android/log.h>
#include <lumokit/host_platform.h>

#include "Service.h"
#include "fuzz_tables.h"
#include "session_tables.h"

namespace {

std::shared_ptr<Service>* plugin = nullptr;
unsigned long answers = 0;

void count_answer(lumo_response_t kind, uint32_t, std::string, int32_t, uint32_t) {
  if (kind != LUMO_RESPONSE_TASK) abort();
  ++answers;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  lumokit::host::set_log_min_priority(ANDROID_LOG_SILENT);
  const int id = generate_service_id();
  plugin = new std::shared_ptr<Service>(std::make_shared<Service>(id, -1, SVC_HAL_READY));
  add_to_service_map(id, *plugin);
  Json::Value def;
  Json::Value entry;
  entry["opcode"] = "0x1001";
  entry["subsystems"][0]["id"] = 1;
  entry["subsystems"][1]["id"] = 2;
  def["api_def"].append(entry);
  register_client(id, 0x1001, def);
  update_subsystem_status(id, 0x1001, 1, true);  // subsystem 2 stays switched off
  opcodesubsys_svcid_map[{0x1001, 1}] = id;
  opcodesubsys_svcid_map[{0x1001, 2}] = id;
  unsigned int ops[] = {0x1001, 0x1001, 0x2002};
  unsigned int subs[] = {1, 2, 1};
  addToGrantedOpcodesubsysMap(1, ops, subs, 3);
  update_pid_uid_session_id(1, 4242, 10123);
  session_cb_map[1] = count_answer;
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  // The first byte picks the session the call names.
  const uint32_t session = data[0] % 4;
  const std::string request(reinterpret_cast<const char*>(data + 1), size - 1);
  const unsigned long answers_before = answers;
  perform_task(request, count_answer, session);

  {
    std::lock_guard<std::mutex> lock(*(*plugin)->get_svc_hal_mtx());
    auto* queue = (*plugin)->get_svc_hal_queue();
    if (queue->size() + (answers - answers_before) > 1) abort();
    // Whatever was queued is exactly the request text.
    if (!queue->empty() && (queue->front() != request || session != 1)) abort();
    queue->clear();
  }
  if (!check_table_consistency().empty()) abort();
  return 0;
}
