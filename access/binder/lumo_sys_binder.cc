// Device backend of the system-service seam: the platform service manager and
// the `ILumoSys` proxy through the binder NDK, with the generated NDK client
// of vendor.brx.lumosys (version 3) behind the manager's plain interfaces.
#include <android/binder_auto_utils.h>
#include <android/binder_ibinder.h>
#include <android/binder_interface_utils.h>
#include <android/binder_manager.h>
#include <android/binder_process.h>
#include <android/binder_status.h>

#include <aidl/vendor/brx/lumosys/APIInfo.h>
#include <aidl/vendor/brx/lumosys/BnLumoSysCallback.h>
#include <aidl/vendor/brx/lumosys/ILumoSys.h>
#include <aidl/vendor/brx/lumosys/ILumoSysCallback.h>

#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "lumo_sys.h"

namespace lumosys {

// The binder library's recipient; our wrapper only exists because the seam
// must not name binder types.
struct DeathRecipient {
  AIBinder_DeathRecipient* handle;
};

namespace {

namespace sys_aidl = ::aidl::vendor::brx::lumosys;

// Receives the service's calls on a binder pool thread and hands them to the
// manager's callback. Inside this class the bare name ILumoSysCallback is the
// generated interface (a base class's name), so the seam's is spelt in full.
class CallbackForwarder : public sys_aidl::BnLumoSysCallback {
 public:
  explicit CallbackForwarder(std::shared_ptr<::lumosys::ILumoSysCallback> target)
      : target_(std::move(target)) {}

  ndk::ScopedAStatus onpermissionchanged(int32_t in_pid, int32_t in_uid,
                                         const std::string& in_permission,
                                         bool in_status) override {
    if (!target_->onpermissionchanged(in_pid, in_uid, in_permission, in_status)) {
      return ndk::ScopedAStatus::fromExceptionCode(EX_ILLEGAL_STATE);
    }
    return ndk::ScopedAStatus::ok();
  }

  const std::shared_ptr<::lumosys::ILumoSysCallback>& target() const { return target_; }

 private:
  const std::shared_ptr<::lumosys::ILumoSysCallback> target_;
};

// One binder object per manager callback, so every registration (also after a
// service restart) hands the service the same object. Never destroyed: binder
// threads may still deliver calls while the process exits.
std::shared_ptr<sys_aidl::ILumoSysCallback> forwarder_for(
    const std::shared_ptr<ILumoSysCallback>& target) {
  static std::mutex* const mtx = new std::mutex();
  static auto* const current = new std::shared_ptr<CallbackForwarder>();
  std::lock_guard<std::mutex> lock(*mtx);
  if (!*current || (*current)->target() != target) {
    *current = ndk::SharedRefBase::make<CallbackForwarder>(target);
  }
  return *current;
}

// The seam's proxy over the generated NDK proxy. A call on a dead service
// comes back as a failed status (DEAD_OBJECT), which maps to false.
class BinderLumoSys : public ILumoSys {
 public:
  explicit BinderLumoSys(std::shared_ptr<sys_aidl::ILumoSys> remote)
      : remote_(std::move(remote)) {}

  ndk::SpAIBinder binder() const { return remote_->asBinder(); }

  bool checkGrantedPermissions(int32_t pid, int32_t uid,
                               const std::vector<std::string>& permissions,
                               std::vector<bool>* granted) override {
    if (granted == nullptr) return false;
    return remote_->checkGrantedPermissions(pid, uid, permissions, granted).isOk();
  }

  bool queryInfo(int32_t pid, int32_t uid, const std::vector<std::string>& keys,
                 std::vector<std::string>* answers) override {
    if (answers == nullptr) return false;
    return remote_->queryInfo(pid, uid, keys, answers).isOk();
  }

  bool updatePrivacyOperation(const std::string& operation, int32_t pid, int32_t uid, bool stop,
                              int32_t* result) override {
    if (result == nullptr) return false;
    return remote_->updatePrivacyOperation(operation, pid, uid, stop, result).isOk();
  }

  bool getAPIInfo(std::vector<APIInfo>* infos) override {
    if (infos == nullptr) return false;
    std::vector<sys_aidl::APIInfo> records;
    if (!remote_->getAPIInfo(&records).isOk()) return false;
    infos->clear();
    infos->reserve(records.size());
    for (sys_aidl::APIInfo& record : records) {
      infos->push_back(APIInfo{std::move(record.id), std::move(record.permissions),
                               std::move(record.startOp), std::move(record.stopOp),
                               std::move(record.extra1), std::move(record.extra2),
                               std::move(record.subsystem)});
    }
    return true;
  }

  bool setPermissionChangeCallback(const std::shared_ptr<ILumoSysCallback>& callback) override {
    // The parameter is not nullable; the service would refuse a null anyway.
    if (!callback) return false;
    return remote_->setPermissionChangeCallback(forwarder_for(callback)).isOk();
  }

 private:
  const std::shared_ptr<sys_aidl::ILumoSys> remote_;
};

// Takes over the strong reference the service manager handed out.
std::shared_ptr<ILumoSys> wrap(AIBinder* raw) {
  ndk::SpAIBinder binder(raw);
  if (binder.get() == nullptr) return nullptr;
  std::shared_ptr<sys_aidl::ILumoSys> remote = sys_aidl::ILumoSys::fromBinder(binder);
  if (!remote) return nullptr;  // not an ILumoSys (wrong descriptor)
  return std::make_shared<BinderLumoSys>(std::move(remote));
}

}  // namespace

bool isDeclared(const char* instance) {
  return instance != nullptr && AServiceManager_isDeclared(instance);
}

std::shared_ptr<ILumoSys> waitForService(const char* instance) {
  if (instance == nullptr) return nullptr;
  return wrap(AServiceManager_waitForService(instance));
}

std::shared_ptr<ILumoSys> getService(const char* instance) {
  if (instance == nullptr) return nullptr;
  // Newer NDK headers deprecate this call in favour of checkService; the
  // manager wants its short wait for a service that is starting.
#pragma clang diagnostic push
#pragma clang diagnostic ignored "-Wdeprecated-declarations"
  AIBinder* raw = AServiceManager_getService(instance);
#pragma clang diagnostic pop
  return wrap(raw);
}

DeathRecipient* newDeathRecipient(DeathCallback callback) {
  if (callback == nullptr) return nullptr;
  AIBinder_DeathRecipient* handle = AIBinder_DeathRecipient_new(callback);
  if (handle == nullptr) return nullptr;
  return new DeathRecipient{handle};
}

bool linkToDeath(const std::shared_ptr<ILumoSys>& service, DeathRecipient* recipient,
                 void* cookie) {
  if (!service || recipient == nullptr || recipient->handle == nullptr) return false;
  // Every ILumoSys in a device build is made by wrap() above (the library is
  // built without RTTI, so the type cannot be checked at run time).
  const auto* proxy = static_cast<const BinderLumoSys*>(service.get());
  ndk::SpAIBinder binder = proxy->binder();
  if (binder.get() == nullptr) return false;
  return AIBinder_linkToDeath(binder.get(), recipient->handle, cookie) == STATUS_OK;
}

void startThreadPool() { ABinderProcess_startThreadPool(); }

}  // namespace lumosys
