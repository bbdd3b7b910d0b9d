// The host stand-in for the system service: policy validation, the answers
// of each operation, death and restart, permission-change delivery, injected
// failures. How the manager links to it, relinks after a death and reads its
// answers is proved in integration_access_test.
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
const std::string kCamera = "android.permission.CAMERA";
const std::string kAudio = "android.permission.RECORD_AUDIO";
const std::string kFine = "android.permission.ACCESS_FINE_LOCATION";

// Records each call as "pid uid permission status"; `off_thread` stays true
// while every call came on a thread other than the one that made it.
class RecordingCallback : public lumosys::ILumoSysCallback {
 public:
  bool onpermissionchanged(int32_t pid, int32_t uid, const std::string& permission,
                           bool status) override {
    std::lock_guard<std::mutex> lock(mtx_);
    calls_.push_back(std::to_string(pid) + " " + std::to_string(uid) + " " + permission + " " +
                     std::to_string(status));
    if (std::this_thread::get_id() == owner_) off_thread = false;
    return true;
  }
  std::vector<std::string> calls() {
    std::lock_guard<std::mutex> lock(mtx_);
    return calls_;
  }
  std::atomic<bool> off_thread{true};

 private:
  const std::thread::id owner_ = std::this_thread::get_id();
  std::mutex mtx_;
  std::vector<std::string> calls_;
};

// Which of the five operations succeed, '1' each, in the order
// checkGrantedPermissions, queryInfo, updatePrivacyOperation, getAPIInfo,
// setPermissionChangeCallback.
std::string outcomes(lumosys::ILumoSys& service) {
  std::vector<bool> granted;
  std::vector<std::string> answers;
  std::vector<lumosys::APIInfo> infos;
  int32_t result = -1;
  const bool ok[] = {
      service.checkGrantedPermissions(1, 10123, {kCamera}, &granted),
      service.queryInfo(1, 10123, {"app.name.package"}, &answers),
      service.updatePrivacyOperation("op", 1, 10123, false, &result),
      service.getAPIInfo(&infos),
      service.setPermissionChangeCallback(std::make_shared<RecordingCallback>())};
  std::string out;
  for (bool b : ok) out += b ? '1' : '0';
  return out;
}

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

TEST_F(HostSysTest, MalformedPoliciesAreRefusedWithWhereAndWhat) {
  const std::pair<const char*, const char*> cases[] = {  // text, error after "policy text: "
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
      {R"({"apps": [{"uid": 1, "foreground": "true"}]})", "apps[0].foreground: expected a boolean"},
      {R"({"apps": [{"uid": 1, "granted": "android.permission.CAMERA"}]})",
       "apps[0].granted: expected an array"},
      {R"({"apps": [{"uid": 1, "granted": ["a", 2]}]})", "apps[0].granted[1]: expected a string"},
      {R"({"apps": [{"uid": 1, "foregrnd": true}]})", "apps[0]: unknown member \"foregrnd\""},
      {R"({"apps": [{"uid": 5}, {"uid": 5}]})", "apps[1].uid: duplicate uid 5"},
  };
  std::string error;
  for (const auto& [text, want] : cases) {
    EXPECT_FALSE(host::load_policy_text(text, &error)) << text;
    EXPECT_EQ(error, std::string("policy text: ") + want) << text;
  }
  // Not JSON, strictly read: the reader's error on one line.
  for (const char* text : {"{", R"({"declared": true,})", R"({"declared": true, "declared": false})",
                           "// comment\n{}", "{} {}"}) {
    EXPECT_FALSE(host::load_policy_text(text, &error)) << text;
    EXPECT_EQ(error.rfind("policy text: not valid JSON: Line ", 0), 0u) << error;
    EXPECT_EQ(error.find('\n'), std::string::npos) << error;
  }
  // None of them changed anything.
  EXPECT_FALSE(lumosys::isDeclared(lumosys::kLumoSysInstance));
  EXPECT_FALSE(host::is_alive());
  // Nor does a failed load once a policy is in force.
  auto service = load_and_connect();
  EXPECT_FALSE(host::load_policy_text(R"({"declared": false, "apps": [{"uid": "x"}]})", &error));
  EXPECT_TRUE(lumosys::isDeclared(lumosys::kLumoSysInstance));
  std::vector<lumosys::APIInfo> infos;
  ASSERT_TRUE(service->getAPIInfo(&infos));
  EXPECT_EQ(infos.size(), 2u);
}

TEST_F(HostSysTest, PolicyFilesAreNamedInTheirErrors) {
  // Other builds may run this test at the same time.
  const std::string base = ::testing::TempDir() + "host_sys_" + std::to_string(::getpid()) + "_";
  const std::string missing = base + "no_such_policy.json";
  const std::pair<std::string, const char*> files[] = {  // name, content
      {base + "bad_policy.json", R"({"apis": [{"id": "a", "extra1": []}]})"},
      {base + "broken_policy.json", "{\"declared\": tru}"},
      {base + "good_policy.json", kPolicy}};
  for (const auto& [path, text] : files) std::ofstream(path) << text;
  const std::pair<std::string, std::string> cases[] = {  // path, start of the error
      {missing, missing + ": cannot open: No such file or directory"},
      {::testing::TempDir(), ::testing::TempDir() + ": cannot read: "},
      {files[0].first, files[0].first + ": apis[0].extra1: expected a string"},
      {files[1].first, files[1].first + ": not valid JSON: "}};
  std::string error;
  for (const auto& [path, want] : cases) {
    EXPECT_FALSE(host::load_policy_file(path, &error)) << path;
    EXPECT_EQ(error.substr(0, want.size()), want);
  }
  EXPECT_TRUE(host::load_policy_file(files[2].first, &error)) << error;
  EXPECT_TRUE(host::is_alive());
  for (const auto& file : files) std::remove(file.first.c_str());
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

TEST_F(HostSysTest, QueriesPermissionChecksAndPrivacyOperationsAnswerFromThePolicy) {
  auto service = load_and_connect();
  const std::vector<std::string> keys = {"app.id.pid", "app.id.uid", "app.name.package",
                                         "app.id.cert_hash", "app.status.fore_back", "app.unknown"};
  const struct {
    int32_t uid;
    std::vector<std::string> answers;
    std::vector<bool> granted;  // camera, audio, fine location
  } cases[] = {
      {10123, {"", "", "com.example.maps", "SUCCESS:5f0c11", "SUCCESS:foreground", ""}, {true, false, true}},
      {10200, {"", "", "com.example.radio", "SUCCESS:aa77", "SUCCESS:background", ""}, {false, false, false}},
      {99999, {"", "", "", "", "", ""}, {false, false, false}},
  };
  for (const auto& c : cases) {
    std::vector<std::string> answers = {"stale"};
    std::vector<bool> granted(3, true);
    ASSERT_TRUE(service->queryInfo(4711, c.uid, keys, &answers)) << c.uid;
    ASSERT_TRUE(service->checkGrantedPermissions(1, c.uid, {kCamera, kAudio, kFine}, &granted));
    EXPECT_EQ(answers, c.answers) << c.uid;
    EXPECT_EQ(granted, c.granted) << c.uid;
  }
  EXPECT_EQ(host::checkGrantedPermissions_calls(), 3);
  // An out array is filled to the caller's size only, as through binder.
  std::vector<bool> unsized;
  ASSERT_TRUE(service->checkGrantedPermissions(1, 10123, {kCamera}, &unsized));
  EXPECT_TRUE(unsized.empty());
  std::vector<std::string> answers = {"stale"};
  ASSERT_TRUE(service->queryInfo(1, 10123, {}, &answers));
  EXPECT_TRUE(answers.empty());
  int32_t result = -7;
  ASSERT_TRUE(service->updatePrivacyOperation("android:fine_location", 4711, 10123, true, &result));
  EXPECT_EQ(result, 0);
}

// ---- death and restart --------------------------------------------------------

// What a death recipient saw; the cookie points at one of these.
struct Notice {
  std::mutex mtx;
  std::condition_variable cv;
  int count = 0;
  std::thread::id thread;
};

void record_notice(void* cookie) {
  auto* notice = static_cast<Notice*>(cookie);
  std::lock_guard<std::mutex> lock(notice->mtx);
  ++notice->count;
  notice->thread = std::this_thread::get_id();
  notice->cv.notify_all();
}

TEST_F(HostSysTest, KillTellsEachLinkOfItsIncarnationOnceAndDeadProxiesFail) {
  auto service = load_and_connect();
  Notice notices[2];
  for (Notice& notice : notices) {
    ASSERT_TRUE(lumosys::linkToDeath(service, lumosys::newDeathRecipient(&record_notice), &notice));
  }
  EXPECT_EQ(lumosys::newDeathRecipient(nullptr), nullptr);
  EXPECT_FALSE(lumosys::linkToDeath(nullptr, lumosys::newDeathRecipient(&record_notice), &notices[0]));

  host::kill();
  for (Notice& notice : notices) {
    std::unique_lock<std::mutex> lock(notice.mtx);
    ASSERT_TRUE(notice.cv.wait_for(lock, 5s, [&] { return notice.count > 0; }));
    EXPECT_NE(notice.thread, std::this_thread::get_id());
  }
  EXPECT_FALSE(host::is_alive());
  EXPECT_EQ(lumosys::getService(lumosys::kLumoSysInstance), nullptr);
  EXPECT_TRUE(lumosys::isDeclared(lumosys::kLumoSysInstance));

  host::kill();  // already dead: nothing more to tell
  host::start();
  auto fresh = lumosys::getService(lumosys::kLumoSysInstance);
  ASSERT_NE(fresh, nullptr);
  // Proxies of the dead incarnation fail every call, the new one's succeed.
  EXPECT_EQ(outcomes(*service), "00000");
  EXPECT_FALSE(lumosys::linkToDeath(service, lumosys::newDeathRecipient(&record_notice), &notices[0]));
  EXPECT_TRUE(host::privacy_log().empty());
  EXPECT_EQ(outcomes(*fresh), "11111");
  host::kill();  // the old links belonged to the first incarnation
  std::this_thread::sleep_for(100ms);
  for (Notice& notice : notices) {
    std::lock_guard<std::mutex> lock(notice.mtx);
    EXPECT_EQ(notice.count, 1);
  }
  host::start();
  fresh = lumosys::getService(lumosys::kLumoSysInstance);
  ASSERT_NE(fresh, nullptr);
  host::reset();  // ends the live incarnation too
  EXPECT_EQ(outcomes(*fresh), "00000");
}

// ---- permission changes -------------------------------------------------------

TEST_F(HostSysTest, SetPermissionChangesGrantsAndTellsTheCallbackOfThisIncarnation) {
  auto service = load_and_connect();
  auto replaced = std::make_shared<RecordingCallback>();
  auto callback = std::make_shared<RecordingCallback>();
  ASSERT_TRUE(service->setPermissionChangeCallback(replaced));
  ASSERT_TRUE(service->setPermissionChangeCallback(callback));
  ASSERT_TRUE(host::set_permission(4711, 10123, kCamera, false));
  ASSERT_TRUE(host::set_permission(4711, 10123, kAudio, true));
  ASSERT_TRUE(host::set_permission(5000, 30001, kCamera, true));  // an app the policy did not list
  // set_permission returned after each call ran.
  EXPECT_EQ(callback->calls(), (std::vector<std::string>{"4711 10123 " + kCamera + " 0",
                                                         "4711 10123 " + kAudio + " 1",
                                                         "5000 30001 " + kCamera + " 1"}));
  EXPECT_TRUE(callback->off_thread);
  EXPECT_TRUE(replaced->calls().empty());

  std::vector<bool> granted(2);
  ASSERT_TRUE(service->checkGrantedPermissions(1, 10123, {kCamera, kAudio}, &granted));
  EXPECT_EQ(granted, (std::vector<bool>{false, true}));
  granted.resize(1);
  ASSERT_TRUE(service->checkGrantedPermissions(1, 30001, {kCamera}, &granted));
  EXPECT_EQ(granted, std::vector<bool>{true});

  host::kill();
  EXPECT_FALSE(host::set_permission(1, 10123, kCamera, true));
  host::start();
  ASSERT_TRUE(host::set_permission(1, 10123, kCamera, true));
  EXPECT_EQ(callback->calls().size(), 3u);  // the new incarnation has no callback yet
}

// ---- injected failures ----------------------------------------------------------

TEST_F(HostSysTest, FailNextFailsExactlyThatManyCallsOfThatOperation) {
  auto service = load_and_connect();
  host::fail_next("checkGrantedPermissions", 1);
  host::fail_next("queryInfo", 2);
  EXPECT_EQ(outcomes(*service), "00111");
  EXPECT_EQ(outcomes(*service), "10111");
  for (const char* op : {"updatePrivacyOperation", "getAPIInfo", "setPermissionChangeCallback"}) {
    host::fail_next(op, 1);
  }
  EXPECT_EQ(outcomes(*service), "11000");
  host::fail_next("getAPIInfo", 3);
  host::fail_next("getAPIInfo", 0);  // withdrawn
  EXPECT_EQ(outcomes(*service), "11111");
  EXPECT_EQ(host::checkGrantedPermissions_calls(), 4);  // failed calls reached the service too
  EXPECT_EQ(host::privacy_log().size(), 3u);            // the failed call was not recorded
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
        service->checkGrantedPermissions(1, 10123, {kCamera}, &granted);
        service->setPermissionChangeCallback(callback);
        host::set_permission(1, 10123, kCamera, true);
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
  while (host::checkGrantedPermissions_calls() == 0 && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(1ms);
  }
  stop = true;
  for (auto& caller : callers) caller.join();
  EXPECT_TRUE(host::is_alive());
  EXPECT_GT(host::checkGrantedPermissions_calls(), 0);
}

}  // namespace
