// Process-wide index of connected plugins and of the pairs they registered.
#include "Service.h"

// Never destroyed: detached plugin threads may still use them at exit.
std::map<int, std::shared_ptr<Service>>& service_map = *new std::map<int, std::shared_ptr<Service>>();
std::mutex& service_map_mtx = *new std::mutex();
std::mutex& service_id_mutex = *new std::mutex();
std::mutex& registered_opcode_subsys_set_mtx = *new std::mutex();

namespace {
int32_t last_service_id = 101;
OpcodeSubsysSet* const registered_opcode_subsys_set = new OpcodeSubsysSet();
}  // namespace

int generate_service_id() {
  std::lock_guard<std::mutex> lock(service_id_mutex);
  int32_t next;
  if (__builtin_add_overflow(last_service_id, 1, &next)) abort();
  last_service_id = next;
  return next;
}

void add_to_service_map(int svc_id, std::shared_ptr<Service> svc) {
  std::lock_guard<std::mutex> lock(service_map_mtx);
  service_map.emplace(svc_id, std::move(svc));
}

std::shared_ptr<Service> find_in_service_map(int svc_id) {
  std::lock_guard<std::mutex> lock(service_map_mtx);
  auto it = service_map.find(svc_id);
  return it == service_map.end() ? nullptr : it->second;
}

void delete_from_service_map(unsigned int svc_id) {
  std::lock_guard<std::mutex> lock(service_map_mtx);
  auto it = service_map.find(static_cast<int>(svc_id));
  if (it == service_map.end()) return;
  std::shared_ptr<Service> svc = std::move(it->second);
  service_map.erase(it);
  if (svc) {
    {
      // Taken after service_map_mtx (the global order) so that a waiter that
      // just checked the flag cannot miss this wake-up.
      std::lock_guard<std::mutex> rec(*svc->get_svc_hal_mtx());
      svc->set_svc_hal_died(true);
    }
    svc->get_svc_hal_cv()->notify_all();
    svc->set_svc_hal_state(SVC_HAL_GONE);
  }
}

bool update_subsystem_status(int svc_id, unsigned int opcode, unsigned int subsystem, bool status) {
  std::shared_ptr<Service> svc = find_in_service_map(svc_id);
  if (!svc || svc->get_svc_hal_died()) return false;
  // Looked up in place under the plugin's lock: registration and teardown
  // change the map under the same lock.
  std::lock_guard<std::mutex> lock(*svc->get_svc_hal_mtx());
  auto* map = svc->get_subsystem_map();
  auto it = map->find(OpcodeSubsys(opcode, subsystem));
  if (it == map->end()) return false;
  it->second->set_subsystem_status(status);
  return true;
}

OpcodeSubsysSet* get_registered_opcode_subsys_set() { return registered_opcode_subsys_set; }
