// The one process-wide link to the system service: waiting for it at boot,
// caching its proxy, re-connecting after it dies, registering our callback.
#include <android/log.h>
#include <cutils/properties.h>

#include <pthread.h>
#include <unistd.h>

#include <atomic>

#include "LumoSysAccess.h"
#include "Service.h"
#include "session_tables.h"

namespace {
// Never destroyed: binder and plugin threads may still use them at exit.
std::mutex& pLumoSysService_mtx = *new std::mutex();
std::shared_ptr<lumosys::ILumoSys>& pLumoSysService = *new std::shared_ptr<lumosys::ILumoSys>();
std::atomic<lumosys::DeathRecipient*> mDeathRecipient{nullptr};
std::atomic<unsigned int> boot_wait_step_seconds{10};

void connect_and_link() {
  std::shared_ptr<lumosys::ILumoSys> service = lumosys::waitForService(lumosys::kLumoSysInstance);
  set_lumo_sys_service(service);
  lumosys::DeathRecipient* recipient = lumosys::newDeathRecipient(deathRecipientCallback);
  mDeathRecipient.store(recipient);
  if (recipient != nullptr && service) lumosys::linkToDeath(service, recipient, recipient);
}
}  // namespace

std::map<std::string, permission_info>& pid_perminfo_map = *new std::map<std::string, permission_info>();
std::mutex& pid_perminfo_map_mtx = *new std::mutex();
std::map<std::string, privacy_op>& api_privacyop_map = *new std::map<std::string, privacy_op>();
std::mutex& api_privacyop_map_mtx = *new std::mutex();
std::shared_ptr<pPermissionChangeCallback>& permissionChangeCallback =
    *new std::shared_ptr<pPermissionChangeCallback>(std::make_shared<pPermissionChangeCallback>());

std::shared_ptr<lumosys::ILumoSys> lumo_sys_service() {
  std::lock_guard<std::mutex> lock(pLumoSysService_mtx);
  return pLumoSysService;
}

void set_lumo_sys_service(std::shared_ptr<lumosys::ILumoSys> service) {
  std::shared_ptr<lumosys::ILumoSys> old;
  {
    std::lock_guard<std::mutex> lock(pLumoSysService_mtx);
    old = std::move(pLumoSysService);
    pLumoSysService = std::move(service);
  }
  // `old` is released here, outside the lock.
}

void set_boot_wait_step_for_testing(unsigned int seconds) { boot_wait_step_seconds.store(seconds); }

int32_t getLumokitSysServiceHandle() {
  if (!lumosys::isDeclared(lumosys::kLumoSysInstance)) {
    __android_log_print(ANDROID_LOG_ERROR, kTagLink, "LumoSysService isn't declared");
    return -1;
  }
  auto* handle = new pthread_t;
  int rc = pthread_create(handle, nullptr, waitForLumokitSysService, nullptr);
  if (rc != 0) {
    delete handle;
    __android_log_print(ANDROID_LOG_ERROR, kTagLink, "Failed to create sys svc handle getter thread");
    return rc;
  }
  pthread_detach(*handle);
  delete handle;
  return 0;
}

void* waitForLumokitSysService(void*) {
  while (property_get_int32("sys.boot_completed", 0) == 0) sleep(boot_wait_step_seconds.load());
  connect_and_link();
  fetchAPIInfo();
  setPermissionChangeCallback();
  return nullptr;
}

int32_t getLumokitSysService() {
  std::lock_guard<std::mutex> lock(pLumoSysService_mtx);
  if (pLumoSysService) return 0;
  pLumoSysService = lumosys::getService(lumosys::kLumoSysInstance);
  return pLumoSysService ? 0 : -1;
}

int32_t registerdeathrecipient() {
  connect_and_link();
  return 0;
}

void deathRecipientCallback(void*) {
  __android_log_print(ANDROID_LOG_INFO, kTagLink, "Lumokit Systemservice Crashed");
  set_lumo_sys_service(nullptr);
  {
    std::lock_guard<std::mutex> lock(pid_perminfo_map_mtx);
    pid_perminfo_map.clear();
  }
  registerdeathrecipient();
  setPermissionChangeCallback();
}

int32_t setPermissionChangeCallback() {
  if (getLumokitSysService() == -1) {
    __android_log_print(ANDROID_LOG_ERROR, kTagLink, "Lumokit System Service is not available");
    return -1;
  }
  std::shared_ptr<lumosys::ILumoSys> service = lumo_sys_service();
  lumosys::startThreadPool();
  if (service && service->setPermissionChangeCallback(permissionChangeCallback)) return 0;
  __android_log_print(ANDROID_LOG_ERROR, kTagLink, "setting Permission Change Callback failed");
  return -1;
}
