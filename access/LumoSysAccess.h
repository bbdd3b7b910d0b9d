// Access control: the link to the system service, the API privacy catalogue,
// the permission check, permission-change notices, client information queries.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "lumo_sys.h"

// What an API needs before it runs: the six texts after the catalogue id.
struct privacy_op {
  std::string permissions;  // names separated by ':'; empty: no checks
  std::string start_op;
  std::string stop_op;
  std::string extra1;
  std::string extra2;
  std::string subsystem;
};

// Cached grant state of one permission of one process.
struct permission_info {
  bool status = false;
  uint32_t opcode = 0;
  uint32_t ss_id = 0;
  uint32_t session_id = 0;
  uint32_t uid = 0;
};

class pPermissionChangeCallback : public lumosys::ILumoSysCallback {
 public:
  bool onpermissionchanged(int32_t pid, int32_t uid, const std::string& permission,
                           bool status) override;
};

// The cached proxy, guarded by its own mutex so a reader never uses a
// released one; copy it out before calling.
std::shared_ptr<lumosys::ILumoSys> lumo_sys_service();
void set_lumo_sys_service(std::shared_ptr<lumosys::ILumoSys> service);

extern std::map<std::string, permission_info>& pid_perminfo_map;
extern std::mutex& pid_perminfo_map_mtx;
extern std::map<std::string, privacy_op>& api_privacyop_map;
extern std::mutex& api_privacyop_map_mtx;
extern std::shared_ptr<pPermissionChangeCallback>& permissionChangeCallback;

// Step of the boot wait in seconds (10 unless a test shortens it).
void set_boot_wait_step_for_testing(unsigned int seconds);

int32_t getLumokitSysService();
void* waitForLumokitSysService(void* arg);
int32_t registerdeathrecipient();
void deathRecipientCallback(void* cookie);
int32_t setPermissionChangeCallback();
int32_t fetchAPIInfo();
// The catalogue key of one record: id's part before the first ':', ':',
// subsystem, then id's part from the first ':' on.
std::string api_catalogue_key(const std::string& id, const std::string& subsystem);

void checkPermissionFromPackage(unsigned int session_id, std::vector<std::string> permissions,
                                std::vector<bool>* result);
void queryInfo(unsigned int session_id, std::vector<std::string> keys,
               std::vector<std::string>* answers);
std::string vector_to_string_with_qutoes(std::vector<std::string> items);
