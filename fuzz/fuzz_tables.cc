#include "fuzz_tables.h"

#include "Service.h"
#include "session_tables.h"

std::string check_table_consistency() {
  std::map<int, std::shared_ptr<Service>> services;
  {
    std::lock_guard<std::mutex> lock(service_map_mtx);
    services = service_map;
  }
  OpcodeSubsysSet owned;
  for (const auto& entry : services) {
    if (!entry.second) return "null record in the service map";
    std::lock_guard<std::mutex> lock(*entry.second->get_svc_hal_mtx());
    // A record can stay filed after a goodbye naming another id; it must be
    // empty then.
    if (entry.second->get_svc_hal_died() && !entry.second->get_subsystem_map()->empty()) {
      return "a dead plugin still holds pairs";
    }
    for (const auto& pair : *entry.second->get_subsystem_map()) {
      if (!owned.insert(pair.first).second) return "a pair owned by two plugins";
    }
  }
  {
    std::lock_guard<std::mutex> lock(registered_opcode_subsys_set_mtx);
    if (*get_registered_opcode_subsys_set() != owned) {
      return "registered pairs differ from the plugins' subsystem maps";
    }
  }
  std::lock_guard<std::mutex> lock(opcodesubsys_svcid_map_mtx);
  for (const auto& entry : opcodesubsys_svcid_map) {
    auto svc = services.find(entry.second);
    if (svc == services.end()) return "a served pair names an unknown plugin";
    std::lock_guard<std::mutex> rec(*svc->second->get_svc_hal_mtx());
    if (svc->second->get_subsystem_map()->count(entry.first) == 0) {
      return "a served pair its plugin did not register";
    }
  }
  return "";
}
