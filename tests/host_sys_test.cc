// The host stand-in for the system service: policy validation, the answers
// of each operation, death and restart, permission-change delivery, injected
// failures.
#include <gtest/gtest.h>

#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <fstream>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "lumo_sys.h"
#include "host/lumo_sys_host.h"

namespace {

using namespace std::chrono_literals;
namespace host = lumosys::host;

constexpr const char* kPolicy = R"({
  "declared": true,
  "apis": [
    {"id": "getLocation:2:int:string", "permissions": "android.permission.ACCESS_FINE_LOCATION",
     "start_op": "android:fine_location", "stop_op": "", "extra1": "e1", "extra2": "e2",
     "subsystem": "3"},
    {"id": "ping", "subsystem": "1"}
  ],
  "apps": [
    {"uid": 10123, "package": "com.example.maps", "cert_hash": "5f0c11", "foreground": true,
     "granted": ["android.permission.ACCESS_FINE_LOCATION", "android.permission.CAMERA"]},
    {"uid": 10200, "package": "com.example.radio", "cert_hash": "aa77", "foreground": false}
  ]
})";

class HostSysTest : public ::testing::Test {
 protected:
  void SetUp() override { host::reset(); }
  void TearDown() override { host::reset(); }

  std::shared_ptr<lumosys::ILumoSys> load_and_connect() {
    std::string error;
    EXPECT_TRUE(host::load_policy_text(kPolicy, &error)) << error;
    auto service = lumosys::getService(lumosys::kLumoSysInstance);
    EXPECT_NE(service, nullptr);
    return service;
  }
};

// ---- policy validation ----------------------------------------------------

struct BadPolicy {
  const char* text;
  const char* error;  // exact text after "policy text: "
};

TEST_F(HostSysTest, MalformedPoliciesAreRefusedWithWhereAndWhat) {
  const BadPolicy cases[] = {
      {"[]", "top level: expected an object"},
      {R"({"declard": true})", "top level: unknown member \"declard\""},
      {R"({"declared": "yes"})", "declared: expected a boolean"},
      {R"({"declared": 1})", "declared: expected a boolean"},
      {R"({"apis": {}})", "apis: expected an array"},
      {R"({"apis": ["getLocation"]})", "apis[0]: expected an object"},
      {R"({"apis": [{"permissions": "a"}]})", "apis[0].id: required member missing"},
      {R"({"apis": [{"id": ""}]})", "apis[0].id: must not be empty"},
      {R"({"apis": [{"id": 7}]})", "apis[0].id: expected a string"},
      {R"({"apis": [{"id": "a"}, {"id": "b"}, {"id": "c", "permissions": 5}]})",
       "apis[2].permissions: expected a string"},
      {R"({"apis": [{"id": "a", "subsystem": 3}]})", "apis[0].subsystem: expected a string"},
      {R"({"apis": [{"id": "a", "stop_op": null}]})", "apis[0].stop_op: expected a string"},
      {R"({"apis": [{"id": "a", "permision": "x"}]})", "apis[0]: unknown member \"permision\""},
      {R"({"apps": {}})", "apps: expected an array"},
      {R"({"apps": [3]})", "apps[0]: expected an object"},
      {R"({"apps": [{"package": "p"}]})", "apps[0].uid: required member missing"},
      {R"({"apps": [{"uid": -1}]})", "apps[0].uid: expected an unsigned 32-bit integer"},
      {R"({"apps": [{"uid": 1.5}]})", "apps[0].uid: expected an unsigned 32-bit integer"},
      {R"({"apps": [{"uid": 10123.0}]})", "apps[0].uid: expected an unsigned 32-bit integer"},
      {R"({"apps": [{"uid": "10123"}]})", "apps[0].uid: expected an unsigned 32-bit integer"},
      {R"({"apps": [{"uid": 4294967296}]})", "apps[0].uid: expected an unsigned 32-bit integer"},
      {R"({"apps": [{"uid": 1, "package": 2}]})", "apps[0].package: expected a string"},
      {R"({"apps": [{"uid": 1, "cert_hash": false}]})", "apps[0].cert_hash: expected a string"},
      {R"({"apps": [{"uid": 1, "foreground": "true"}]})",
       "apps[0].foreground: expected a boolean"},
      {R"({"apps": [{"uid": 1, "granted": "android.permission.CAMERA"}]})",
       "apps[0].granted: expected an array"},
      {R"({"apps": [{"uid": 1, "granted": ["a", 2]}]})", "apps[0].granted[1]: expected a string"},
      {R"({"apps": [{"uid": 1, "foregrnd": true}]})", "apps[0]: unknown member \"foregrnd\""},
      {R"({"apps": [{"uid": 5}, {"uid": 5}]})", "apps[1].uid: duplicate uid 5"},
  };
  for (const BadPolicy& c : cases) {
    std::string error;
    EXPECT_FALSE(host::load_policy_text(c.text, &error)) << c.text;
    EXPECT_EQ(error, std::string("policy text: ") + c.error) << c.text;
  }
  // None of them changed anything.
  EXPECT_FALSE(lumosys::isDeclared(lumosys::kLumoSysInstance));
  EXPECT_FALSE(host::is_alive());
}

TEST_F(HostSysTest, TextThatIsNotJsonIsRefusedWithTheReaderError) {
  const char* cases[] = {
      "{",
      R"({"declared": true,})",                    // trailing comma
      R"({"declared": true, "declared": false})",  // a duplicate would hide a value
      "// comment\n{}",
      "{} {}",
  };
  for (const char* text : cases) {
    std::string error;
    EXPECT_FALSE(host::load_policy_text(text, &error)) << text;
    EXPECT_EQ(error.rfind("policy text: not valid JSON: Line ", 0), 0u) << error;
    EXPECT_EQ(error.find('\n'), std::string::npos) << error;
  }
}

TEST_F(HostSysTest, FailedLoadKeepsThePreviousPolicy) {
  auto service = load_and_connect();
  std::string error;
  EXPECT_FALSE(host::load_policy_text(R"({"declared": false, "apps": [{"uid": "x"}]})", &error));
  EXPECT_TRUE(lumosys::isDeclared(lumosys::kLumoSysInstance));
  std::vector<lumosys::APIInfo> infos;
  ASSERT_TRUE(service->getAPIInfo(&infos));
  EXPECT_EQ(infos.size(), 2u);
}

TEST_F(HostSysTest, PolicyFilesAreNamedInTheirErrors) {
  const std::string dir = ::testing::TempDir();
  // Other builds may run this test at the same time.
  const std::string tag = "host_sys_" + std::to_string(::getpid()) + "_";
  const std::string missing = dir + tag + "no_such_policy.json";
  std::remove(missing.c_str());
  std::string error;
  EXPECT_FALSE(host::load_policy_file(missing, &error));
  EXPECT_EQ(error, missing + ": cannot open: No such file or directory");

  EXPECT_FALSE(host::load_policy_file(dir, &error));
  EXPECT_EQ(error.rfind(dir + ": cannot read: ", 0), 0u) << error;

  const std::string bad = dir + tag + "bad_policy.json";
  std::ofstream(bad) << R"({"apis": [{"id": "a", "extra1": []}]})";
  EXPECT_FALSE(host::load_policy_file(bad, &error));
  EXPECT_EQ(error, bad + ": apis[0].extra1: expected a string");

  const std::string broken = dir + tag + "broken_policy.json";
  std::ofstream(broken) << "{\"declared\": tru}";
  EXPECT_FALSE(host::load_policy_file(broken, &error));
  EXPECT_EQ(error.rfind(broken + ": not valid JSON: ", 0), 0u) << error;

  const std::string good = dir + tag + "good_policy.json";
  std::ofstream(good) << kPolicy;
  EXPECT_TRUE(host::load_policy_file(good, &error)) << error;
  EXPECT_TRUE(host::is_alive());
  for (const auto& path : {bad, broken, good}) std::remove(path.c_str());
}

TEST_F(HostSysTest, DeclaredFlagControlsDeclarationAndRegistration) {
  std::string error;
  ASSERT_TRUE(host::load_policy_text(R"({"declared": false})", &error)) << error;
  EXPECT_FALSE(lumosys::isDeclared(lumosys::kLumoSysInstance));
  EXPECT_EQ(lumosys::getService(lumosys::kLumoSysInstance), nullptr);
  host::start();  // a service may register without being declared
  EXPECT_NE(lumosys::getService(lumosys::kLumoSysInstance), nullptr);
  EXPECT_FALSE(lumosys::isDeclared(lumosys::kLumoSysInstance));

  ASSERT_TRUE(host::load_policy_text("{}", &error)) << error;  // declared by default
  EXPECT_TRUE(lumosys::isDeclared(lumosys::kLumoSysInstance));
  EXPECT_FALSE(lumosys::isDeclared("vendor.brx.lumosys.ILumoSys/other"));
  EXPECT_EQ(lumosys::getService("vendor.brx.lumosys.ILumoSys/other"), nullptr);
  EXPECT_EQ(lumosys::waitForService(nullptr), nullptr);
}

// ---- answers ----------------------------------------------------------------

TEST_F(HostSysTest, GetAPIInfoReturnsRecordsInFileOrderWithDefaults) {
  auto service = load_and_connect();
  std::vector<lumosys::APIInfo> infos;
  ASSERT_TRUE(service->getAPIInfo(&infos));
  ASSERT_EQ(infos.size(), 2u);
  EXPECT_EQ(infos[0].id, "getLocation:2:int:string");
  EXPECT_EQ(infos[0].permissions, "android.permission.ACCESS_FINE_LOCATION");
  EXPECT_EQ(infos[0].start_op, "android:fine_location");
  EXPECT_EQ(infos[0].stop_op, "");
  EXPECT_EQ(infos[0].extra1, "e1");
  EXPECT_EQ(infos[0].extra2, "e2");
  EXPECT_EQ(infos[0].subsystem, "3");
  EXPECT_EQ(infos[1].id, "ping");
  EXPECT_EQ(infos[1].permissions, "");
  EXPECT_EQ(infos[1].subsystem, "1");
}

TEST_F(HostSysTest, QueryInfoAnswersPerKeyFromTheAppRecord) {
  auto service = load_and_connect();
  const std::vector<std::string> keys = {"app.id.pid",       "app.id.uid",
                                         "app.name.package", "app.id.cert_hash",
                                         "app.status.fore_back", "app.unknown"};
  struct Case {
    int32_t uid;
    std::vector<std::string> answers;
  };
  const Case cases[] = {
      {10123, {"", "", "com.example.maps", "SUCCESS:5f0c11", "SUCCESS:foreground", ""}},
      {10200, {"", "", "com.example.radio", "SUCCESS:aa77", "SUCCESS:background", ""}},
      {99999, {"", "", "", "", "", ""}},
  };
  for (const Case& c : cases) {
    std::vector<std::string> answers = {"stale"};
    ASSERT_TRUE(service->queryInfo(4711, c.uid, keys, &answers)) << c.uid;
    EXPECT_EQ(answers, c.answers) << c.uid;
  }
  std::vector<std::string> answers = {"stale"};
  ASSERT_TRUE(service->queryInfo(1, 10123, {}, &answers));
  EXPECT_TRUE(answers.empty());
}

TEST_F(HostSysTest, CheckGrantedPermissionsAnswersOneBoolPerName) {
  auto service = load_and_connect();
  const std::vector<std::string> names = {"android.permission.CAMERA",
                                          "android.permission.RECORD_AUDIO",
                                          "android.permission.ACCESS_FINE_LOCATION"};
  struct Case {
    int32_t uid;
    std::vector<bool> granted;
  };
  const Case cases[] = {
      {10123, {true, false, true}},
      {10200, {false, false, false}},
      {424242, {false, false, false}},
  };
  for (const Case& c : cases) {
    std::vector<bool> granted;
    ASSERT_TRUE(service->checkGrantedPermissions(1, c.uid, names, &granted)) << c.uid;
    EXPECT_EQ(granted, c.granted) << c.uid;
  }
  EXPECT_EQ(host::checkGrantedPermissions_calls(), 3);
}

TEST_F(HostSysTest, PrivacyOperationsAreLoggedInOrder) {
  auto service = load_and_connect();
  int32_t result = -7;
  ASSERT_TRUE(service->updatePrivacyOperation("android:fine_location", 4711, 10123, false, &result));
  EXPECT_EQ(result, 0);
  ASSERT_TRUE(service->updatePrivacyOperation("android:fine_location", 4711, 10123, true, &result));
  const auto log = host::privacy_log();
  ASSERT_EQ(log.size(), 2u);
  EXPECT_EQ(log[0].operation, "android:fine_location");
  EXPECT_EQ(log[0].pid, 4711);
  EXPECT_EQ(log[0].uid, 10123);
  EXPECT_FALSE(log[0].stop);
  EXPECT_TRUE(log[1].stop);
  host::clear_privacy_log();
  EXPECT_TRUE(host::privacy_log().empty());
}

// ---- death and restart --------------------------------------------------------

// What a death recipient saw; the cookie points at one of these.
struct Notice {
  std::mutex mtx;
  std::condition_variable cv;
  int count = 0;
  std::thread::id thread;

  bool wait_for(int expected) {
    std::unique_lock<std::mutex> lock(mtx);
    return cv.wait_for(lock, 5s, [&] { return count >= expected; });
  }
  int seen() {
    std::lock_guard<std::mutex> lock(mtx);
    return count;
  }
};

void record_notice(void* cookie) {
  auto* notice = static_cast<Notice*>(cookie);
  std::lock_guard<std::mutex> lock(notice->mtx);
  ++notice->count;
  notice->thread = std::this_thread::get_id();
  notice->cv.notify_all();
}

TEST_F(HostSysTest, KillFiresEachLinkOnceOnAnotherThread) {
  auto service = load_and_connect();
  lumosys::DeathRecipient* recipient = lumosys::newDeathRecipient(&record_notice);
  ASSERT_NE(recipient, nullptr);
  Notice first;
  Notice second;
  ASSERT_TRUE(lumosys::linkToDeath(service, recipient, &first));
  ASSERT_TRUE(lumosys::linkToDeath(service, lumosys::newDeathRecipient(&record_notice), &second));
  EXPECT_EQ(lumosys::newDeathRecipient(nullptr), nullptr);
  EXPECT_FALSE(lumosys::linkToDeath(nullptr, recipient, &first));

  host::kill();
  ASSERT_TRUE(first.wait_for(1));
  ASSERT_TRUE(second.wait_for(1));
  EXPECT_NE(first.thread, std::this_thread::get_id());
  EXPECT_NE(second.thread, std::this_thread::get_id());
  EXPECT_FALSE(host::is_alive());
  EXPECT_EQ(lumosys::getService(lumosys::kLumoSysInstance), nullptr);
  EXPECT_TRUE(lumosys::isDeclared(lumosys::kLumoSysInstance));

  host::kill();  // already dead: nothing more to tell
  host::start();
  auto again = lumosys::getService(lumosys::kLumoSysInstance);
  ASSERT_NE(again, nullptr);
  host::kill();  // the old links belonged to the first incarnation
  std::this_thread::sleep_for(100ms);
  EXPECT_EQ(first.seen(), 1);
  EXPECT_EQ(second.seen(), 1);
}

TEST_F(HostSysTest, WaitForServiceBlocksUntilStart) {
  load_and_connect();
  host::kill();
  std::atomic<bool> returned{false};
  std::shared_ptr<lumosys::ILumoSys> found;
  std::thread waiter([&] {
    found = lumosys::waitForService(lumosys::kLumoSysInstance);
    returned = true;
  });
  std::this_thread::sleep_for(150ms);
  EXPECT_FALSE(returned.load());
  host::start();
  waiter.join();
  ASSERT_NE(found, nullptr);
  std::vector<bool> granted;
  EXPECT_TRUE(found->checkGrantedPermissions(1, 10123, {"android.permission.CAMERA"}, &granted));
  EXPECT_EQ(granted, std::vector<bool>{true});
}

// A recipient that reconnects from the notice thread, as the manager does,
// must not hold up kill() and must get the next incarnation.
struct Reconnect {
  std::mutex mtx;
  std::condition_variable cv;
  std::shared_ptr<lumosys::ILumoSys> service;
};

void reconnect_on_death(void* cookie) {
  auto* state = static_cast<Reconnect*>(cookie);
  auto service = lumosys::waitForService(lumosys::kLumoSysInstance);
  std::lock_guard<std::mutex> lock(state->mtx);
  state->service = std::move(service);
  state->cv.notify_all();
}

TEST_F(HostSysTest, RecipientMayBlockUntilTheServiceReturns) {
  auto service = load_and_connect();
  Reconnect state;
  ASSERT_TRUE(
      lumosys::linkToDeath(service, lumosys::newDeathRecipient(&reconnect_on_death), &state));
  host::kill();  // returns although the recipient blocks
  std::this_thread::sleep_for(50ms);
  host::start();
  std::unique_lock<std::mutex> lock(state.mtx);
  ASSERT_TRUE(state.cv.wait_for(lock, 5s, [&] { return state.service != nullptr; }));
  std::vector<lumosys::APIInfo> infos;
  EXPECT_TRUE(state.service->getAPIInfo(&infos));
  EXPECT_FALSE(service->getAPIInfo(&infos));
}

TEST_F(HostSysTest, ProxiesOfADeadIncarnationFailEveryCall) {
  auto old_proxy = load_and_connect();
  host::kill();
  host::start();
  auto fresh = lumosys::getService(lumosys::kLumoSysInstance);
  ASSERT_NE(fresh, nullptr);

  std::vector<bool> granted;
  std::vector<std::string> answers;
  std::vector<lumosys::APIInfo> infos;
  int32_t result = -1;
  EXPECT_FALSE(old_proxy->checkGrantedPermissions(1, 10123, {"android.permission.CAMERA"},
                                                  &granted));
  EXPECT_FALSE(old_proxy->queryInfo(1, 10123, {"app.name.package"}, &answers));
  EXPECT_FALSE(old_proxy->updatePrivacyOperation("op", 1, 10123, false, &result));
  EXPECT_FALSE(old_proxy->getAPIInfo(&infos));
  EXPECT_FALSE(old_proxy->setPermissionChangeCallback(nullptr));
  Notice notice;
  EXPECT_FALSE(
      lumosys::linkToDeath(old_proxy, lumosys::newDeathRecipient(&record_notice), &notice));
  EXPECT_TRUE(host::privacy_log().empty());

  EXPECT_TRUE(fresh->queryInfo(1, 10123, {"app.name.package"}, &answers));
  EXPECT_EQ(answers, std::vector<std::string>{"com.example.maps"});
  host::reset();
  EXPECT_FALSE(fresh->getAPIInfo(&infos));
}

// ---- permission changes -------------------------------------------------------

class RecordingCallback : public lumosys::ILumoSysCallback {
 public:
  struct Call {
    int32_t pid;
    int32_t uid;
    std::string permission;
    bool status;
    std::thread::id thread;
  };
  bool onpermissionchanged(int32_t pid, int32_t uid, const std::string& permission,
                           bool status) override {
    std::lock_guard<std::mutex> lock(mtx_);
    calls_.push_back(Call{pid, uid, permission, status, std::this_thread::get_id()});
    return true;
  }
  std::vector<Call> calls() {
    std::lock_guard<std::mutex> lock(mtx_);
    return calls_;
  }

 private:
  std::mutex mtx_;
  std::vector<Call> calls_;
};

TEST_F(HostSysTest, SetPermissionChangesGrantsAndCallsTheCallback) {
  auto service = load_and_connect();
  auto callback = std::make_shared<RecordingCallback>();
  ASSERT_TRUE(service->setPermissionChangeCallback(callback));

  struct Change {
    int32_t pid;
    int32_t uid;
    const char* permission;
    bool granted;
  };
  const Change changes[] = {
      {4711, 10123, "android.permission.CAMERA", false},
      {4711, 10123, "android.permission.RECORD_AUDIO", true},
      {5000, 30001, "android.permission.CAMERA", true},  // an app the policy did not list
  };
  for (const Change& c : changes) {
    ASSERT_TRUE(host::set_permission(c.pid, c.uid, c.permission, c.granted));
  }
  const auto calls = callback->calls();  // set_permission returned after each ran
  ASSERT_EQ(calls.size(), 3u);
  for (size_t i = 0; i < calls.size(); ++i) {
    EXPECT_EQ(calls[i].pid, changes[i].pid);
    EXPECT_EQ(calls[i].uid, changes[i].uid);
    EXPECT_EQ(calls[i].permission, changes[i].permission);
    EXPECT_EQ(calls[i].status, changes[i].granted);
    EXPECT_NE(calls[i].thread, std::this_thread::get_id());
  }

  std::vector<bool> granted;
  ASSERT_TRUE(service->checkGrantedPermissions(
      1, 10123, {"android.permission.CAMERA", "android.permission.RECORD_AUDIO"}, &granted));
  EXPECT_EQ(granted, (std::vector<bool>{false, true}));
  ASSERT_TRUE(service->checkGrantedPermissions(1, 30001, {"android.permission.CAMERA"}, &granted));
  EXPECT_EQ(granted, std::vector<bool>{true});
}

TEST_F(HostSysTest, CallbackIsReplacedByReRegistrationAndLostWithTheService) {
  auto service = load_and_connect();
  auto first = std::make_shared<RecordingCallback>();
  auto second = std::make_shared<RecordingCallback>();
  ASSERT_TRUE(service->setPermissionChangeCallback(first));
  ASSERT_TRUE(service->setPermissionChangeCallback(second));
  ASSERT_TRUE(host::set_permission(1, 10123, "android.permission.CAMERA", false));
  EXPECT_TRUE(first->calls().empty());
  EXPECT_EQ(second->calls().size(), 1u);

  host::kill();
  EXPECT_FALSE(host::set_permission(1, 10123, "android.permission.CAMERA", true));
  host::start();
  ASSERT_TRUE(host::set_permission(1, 10123, "android.permission.CAMERA", true));
  EXPECT_EQ(second->calls().size(), 1u);  // the new incarnation has no callback yet
}

// ---- injected failures ----------------------------------------------------------

TEST_F(HostSysTest, FailNextFailsExactlyThatManyCallsOfThatOperation) {
  auto service = load_and_connect();
  host::fail_next("queryInfo", 2);
  host::fail_next("checkGrantedPermissions", 1);
  std::vector<std::string> answers;
  EXPECT_FALSE(service->queryInfo(1, 10123, {"app.name.package"}, &answers));
  EXPECT_FALSE(service->queryInfo(1, 10123, {"app.name.package"}, &answers));
  EXPECT_TRUE(service->queryInfo(1, 10123, {"app.name.package"}, &answers));

  std::vector<bool> granted;
  EXPECT_FALSE(service->checkGrantedPermissions(1, 10123, {"android.permission.CAMERA"}, &granted));
  EXPECT_TRUE(service->checkGrantedPermissions(1, 10123, {"android.permission.CAMERA"}, &granted));
  EXPECT_EQ(host::checkGrantedPermissions_calls(), 2);  // failed calls reached the service too

  const struct {
    const char* operation;
  } others[] = {{"updatePrivacyOperation"}, {"getAPIInfo"}, {"setPermissionChangeCallback"}};
  for (const auto& other : others) host::fail_next(other.operation, 1);
  int32_t result = -1;
  std::vector<lumosys::APIInfo> infos;
  auto callback = std::make_shared<RecordingCallback>();
  EXPECT_FALSE(service->updatePrivacyOperation("op", 1, 10123, false, &result));
  EXPECT_FALSE(service->getAPIInfo(&infos));
  EXPECT_FALSE(service->setPermissionChangeCallback(callback));
  EXPECT_TRUE(service->updatePrivacyOperation("op", 1, 10123, false, &result));
  EXPECT_TRUE(service->getAPIInfo(&infos));
  EXPECT_TRUE(service->setPermissionChangeCallback(callback));
  EXPECT_EQ(host::privacy_log().size(), 1u);  // the failed call was not recorded

  host::fail_next("getAPIInfo", 3);
  host::fail_next("getAPIInfo", 0);  // withdrawn
  EXPECT_TRUE(service->getAPIInfo(&infos));
}

// ---- concurrency ------------------------------------------------------------------

TEST_F(HostSysTest, CallsRaceKillsAndRestartsSafely) {
  load_and_connect();
  auto callback = std::make_shared<RecordingCallback>();
  std::atomic<bool> stop{false};
  std::vector<std::thread> callers;
  for (int t = 0; t < 3; ++t) {
    callers.emplace_back([&] {
      while (!stop) {
        auto service = lumosys::getService(lumosys::kLumoSysInstance);
        if (!service) continue;
        std::vector<bool> granted;
        service->checkGrantedPermissions(1, 10123, {"android.permission.CAMERA"}, &granted);
        service->setPermissionChangeCallback(callback);
        host::set_permission(1, 10123, "android.permission.CAMERA", true);
      }
    });
  }
  for (int round = 0; round < 50; ++round) {
    host::kill();
    std::this_thread::sleep_for(200us);
    host::start();
    std::this_thread::sleep_for(500us);
  }
  // Let the callers reach at least one live incarnation before stopping them.
  const auto deadline = std::chrono::steady_clock::now() + 5s;
  while (host::checkGrantedPermissions_calls() == 0 &&
         std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(1ms);
  }
  stop = true;
  for (auto& caller : callers) caller.join();
  EXPECT_TRUE(host::is_alive());
  EXPECT_GT(host::checkGrantedPermissions_calls(), 0);
}

}  // namespace
