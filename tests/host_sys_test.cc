// The host stand-in for the system service: policy validation, its answers,
// permission-change delivery, calls racing deaths and restarts. How the
// manager links to it, relinks after each death, reads its answers and copes
// with its failures is proved in integration_access_test.
#include <gtest/gtest.h>

#include <unistd.h>

#include <atomic>
#include <chrono>
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
  // One row per kind of error, in each kind of place.
  const std::pair<const char*, const char*> cases[] = {  // text, error after "policy text: "
      {"[]", "top level: expected an object"},
      {R"({"declard": true})", "top level: unknown member \"declard\""},
      {R"({"declared": 1})", "declared: expected a boolean"},
      {R"({"apps": {}})", "apps: expected an array"},
      {R"({"apis": ["getLocation"]})", "apis[0]: expected an object"},
      {R"({"apis": [{"permissions": "a"}]})", "apis[0].id: required member missing"},
      {R"({"apis": [{"id": ""}]})", "apis[0].id: must not be empty"},
      {R"({"apis": [{"id": "a"}, {"id": "b"}, {"id": "c", "permissions": 5}]})",
       "apis[2].permissions: expected a string"},
      {R"({"apis": [{"id": "a", "permision": "x"}]})", "apis[0]: unknown member \"permision\""},
      // jsoncpp itself would take 10123.0 as a uid.
      {R"({"apps": [{"uid": 10123.0}]})", "apps[0].uid: expected an unsigned 32-bit integer"},
      {R"({"apps": [{"uid": 4294967296}]})", "apps[0].uid: expected an unsigned 32-bit integer"},
      {R"({"apps": [{"uid": 1, "granted": ["a", 2]}]})", "apps[0].granted[1]: expected a string"},
      {R"({"apps": [{"uid": 5}, {"uid": 5}]})", "apps[1].uid: duplicate uid 5"},
  };
  std::string error;
  for (const auto& [text, want] : cases) {
    EXPECT_FALSE(host::load_policy_text(text, &error)) << text;
    EXPECT_EQ(error, std::string("policy text: ") + want) << text;
  }
  // Not JSON, strictly read: the reader's error on one line. A key given
  // twice would hide one of its values; nesting past the reader's limit
  // makes it throw.
  const std::string deep = "{\"apis\":" + std::string(100000, '[') + std::string(100000, ']') + "}";
  const std::pair<std::string, const char*> not_json[] = {
      {R"({"declared": true, "declared": false})", "policy text: not valid JSON: Line 1, Column 20"},
      {deep, "policy text: not valid JSON: "}};
  for (const auto& [text, want] : not_json) {
    EXPECT_FALSE(host::load_policy_text(text, &error)) << text.substr(0, 80);
    EXPECT_EQ(error.rfind(want, 0), 0u) << error;
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
      {base + "good_policy.json", kPolicy}};
  for (const auto& [path, text] : files) std::ofstream(path) << text;
  const std::pair<std::string, std::string> cases[] = {  // path, start of the error
      {missing, missing + ": cannot open: No such file or directory"},
      {::testing::TempDir(), ::testing::TempDir() + ": cannot read: "},
      {files[0].first, files[0].first + ": apis[0].extra1: expected a string"}};
  std::string error;
  for (const auto& [path, want] : cases) {
    EXPECT_FALSE(host::load_policy_file(path, &error)) << path;
    EXPECT_EQ(error.substr(0, want.size()), want);
  }
  EXPECT_TRUE(host::load_policy_file(files[1].first, &error)) << error;
  EXPECT_TRUE(host::is_alive());
  for (const auto& file : files) std::remove(file.first.c_str());
}

// ---- answers and permission changes ----------------------------------------

TEST_F(HostSysTest, AnswersComeFromThePolicyAndSetPermissionTellsThisIncarnation) {
  auto service = load_and_connect();
  const std::vector<std::string> keys = {"app.id.pid", "app.id.uid", "app.name.package",
                                         "app.id.cert_hash", "app.status.fore_back", "app.unknown"};
  std::vector<std::string> answers = {"stale"};
  ASSERT_TRUE(service->queryInfo(4711, 10200, keys, &answers));
  EXPECT_EQ(answers, (std::vector<std::string>{"", "", "com.example.radio", "SUCCESS:aa77",
                                               "SUCCESS:background", ""}));
  ASSERT_TRUE(service->queryInfo(1, 10123, {}, &answers));
  EXPECT_TRUE(answers.empty());

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
  std::vector<bool> granted(3);
  ASSERT_TRUE(service->checkGrantedPermissions(1, 10123, {kCamera, kAudio, kFine}, &granted));
  EXPECT_EQ(granted, (std::vector<bool>{false, true, true}));
  // An out array is filled to the caller's size only, as through binder.
  granted.assign(1, false);
  ASSERT_TRUE(service->checkGrantedPermissions(1, 30001, {kCamera, kAudio}, &granted));
  EXPECT_EQ(granted, std::vector<bool>{true});
  EXPECT_EQ(host::checkGrantedPermissions_calls(), 2);

  host::kill();
  EXPECT_FALSE(host::set_permission(1, 10123, kCamera, true));
  host::start();
  ASSERT_TRUE(host::set_permission(1, 10123, kCamera, true));
  EXPECT_EQ(callback->calls().size(), 3u);  // the new incarnation has no callback yet
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
