// Access control: the manager on its real plugin socket, a raw plugin,
// client sessions, and the emulated system service deciding grants, failing,
// dying and coming back; and the link to the service at boot.
#include <gtest/gtest.h>

#include <lumokit/host_platform.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "LumoSysAccess.h"
#include "host/lumo_sys_host.h"
#include "manager_harness.h"

namespace lumokit::test {
namespace {

using namespace std::chrono_literals;
namespace host = lumosys::host;

size_t perminfo_cache_size() {
  std::lock_guard<std::mutex> lock(pid_perminfo_map_mtx);
  return pid_perminfo_map.size();
}

constexpr uint32_t kOpcode = 0x100;
constexpr uint32_t kSubsys = 3;
constexpr int32_t kPid = 4711;
constexpr uint32_t kUid = 10123;
const std::string kFine = "android.permission.ACCESS_FINE_LOCATION";

constexpr const char* kPolicy = R"({
  "apis": [
    {"id": "getLocation:2:int:string", "permissions": "android.permission.ACCESS_FINE_LOCATION",
     "start_op": "android:fine_location", "subsystem": "3"},
    {"id": "stopLocation:0:", "permissions": "android.permission.ACCESS_FINE_LOCATION",
     "stop_op": "android:fine_location", "subsystem": "3"},
    {"id": "recordAudio:0:", "permissions": "android.permission.CAMERA", "stop_op": "x", "subsystem": "3"},
    {"id": "recordAudio:0:", "permissions": "android.permission.RECORD_AUDIO",
     "start_op": "android:record_audio", "subsystem": "3"},
    {"id": "takePhoto:1:int", "permissions": "android.permission.RECORD_AUDIO:android.permission.CAMERA",
     "subsystem": "3"}
  ],
  "apps": [
    {"uid": 10123, "package": "com.example.maps", "cert_hash": "5f0c11", "foreground": true,
     "granted": ["android.permission.ACCESS_FINE_LOCATION", "android.permission.RECORD_AUDIO"]}
  ]
})";

// One client task on the test plugin's pair: the function and its argument types.
struct Task {
  std::string name;
  std::vector<std::string> args;
};

class Access : public ::testing::Test {
 protected:
  void SetUp() override {
    bring_up(plugin_, kOpcode, {kSubsys}, "maps");
    // Linked as at boot, with boot already complete.
    std::string error;
    ASSERT_TRUE(connect_sys_service(kPolicy, &error)) << error;
    session_ = open_session({&plugin_}, 77, kPid, kUid);
  }

  // A plugin that just closed its socket would be cleaned up by its handler
  // while the process exits and destroys the tables; leave in order instead.
  void TearDown() override { EXPECT_EQ(plugin_.dint(), "1 "); }

  std::string request(const Task& task) {
    return task_request(session_, ++transac_, "0x100", kSubsys, task.name, task.args);
  }

  // Runs the task and checks that it reached the plugin byte for byte.
  void expect_forwarded(const Task& task) {
    const std::string text = request(task);
    perform_task(text, recording_callback(), session_);
    EXPECT_EQ(plugin_.recv(), text) << task.name;
  }

  // Runs the task and checks that it was dropped without a word to anyone.
  void expect_dropped(const Task& task) {
    perform_task(request(task), recording_callback(), session_);
    EXPECT_EQ(plugin_.recv(300ms), "") << task.name;
    EXPECT_TRUE(callbacks().empty()) << task.name;
  }

  void wait_until_dead() {
    ASSERT_TRUE(log_.wait_for("I/LUMOKIT_SESSION_MANAGER: Lumokit Systemservice Crashed", 2000ms));
    ASSERT_TRUE(wait_until([] { return !lumo_sys_service() && perminfo_cache_size() == 0; }, 2000ms));
  }

  // Never destroyed: manager threads may still be logging when a test ends.
  LogCapture& log_ = *new LogCapture();
  RawPlugin plugin_;
  uint32_t session_ = 0;
  uint32_t transac_ = 0;
};

const Task kLocation{"getLocation", {"int", "string"}};
const Task kStopLocation{"stopLocation", {}};
const Task kAudio{"recordAudio", {}};
const Task kPhoto{"takePhoto", {"int"}};  // needs CAMERA, which is not granted
const Task kPing{"ping", {}};             // not in the catalogue

TEST_F(Access, GateDeniesGrantsAndAnswersFromTheCache) {
  struct Step {
    Task task;
    bool forwarded;
    int queries;  // checkGrantedPermissions calls the step makes
    const char* log;
  };
  const Step steps[] = {
      {kPhoto, false, 1, "I/LUMOKIT_MANAGER: Permission Denied"},
      {kLocation, true, 1, "I/LUMOKIT_MANAGER: Permission Granted"},
      // Both are cached now (the denied task cached RECORD_AUDIO too).
      {kLocation, true, 0, "I/LUMOKIT_MANAGER: permission info found"},
      {kPhoto, false, 0, "I/LUMOKIT_MANAGER: Permission Denied"},
      // Of two catalogue records for one API the later holds, every field.
      {kAudio, true, 0, "I/LUMOKIT_MANAGER: Start Operation"},
      {kPing, true, 0, "E/LUMOKIT_MANAGER: API doesn't require any permission and privacy checks"},
  };
  for (const Step& step : steps) {
    SCOPED_TRACE(step.task.name);
    const int calls = host::checkGrantedPermissions_calls();
    const size_t logged = log_.count(step.log);
    if (step.forwarded) {
      expect_forwarded(step.task);
    } else {
      expect_dropped(step.task);
    }
    EXPECT_EQ(host::checkGrantedPermissions_calls() - calls, step.queries);
    EXPECT_GT(log_.count(step.log), logged);
  }
  EXPECT_EQ(perminfo_cache_size(), 3u);  // one entry per permission asked
  // Two location starts and one audio start; the uncatalogued task made none.
  ASSERT_EQ(host::privacy_log().size(), 3u);
  EXPECT_EQ(host::privacy_log()[2].operation, "android:record_audio");
}

TEST_F(Access, ServiceDeathEmptiesTheCacheAndTheGateStillAppliesAfterRelink) {
  expect_forwarded(kLocation);
  ASSERT_EQ(host::checkGrantedPermissions_calls(), 1);

  host::kill();
  wait_until_dead();

  // While the service is away, catalogued tasks are dropped; others pass.
  expect_dropped(kLocation);
  EXPECT_TRUE(log_.contains("E/LUMOKIT_MANAGER: Lumokit System service is not available!!!"));
  expect_forwarded(kPing);

  host::start();
  ASSERT_TRUE(wait_for_sys_callback(3000ms));
  // The catalogue stayed and the cache was forgotten: the grant is asked
  // again of the new incarnation.
  expect_forwarded(kLocation);
  EXPECT_EQ(host::checkGrantedPermissions_calls(), 2);
  expect_dropped(kPhoto);
  EXPECT_EQ(host::checkGrantedPermissions_calls(), 3);

  // A second death is noticed once, and the link is made once more.
  host::kill();
  wait_until_dead();
  host::start();
  ASSERT_TRUE(wait_for_sys_callback(3000ms));
  EXPECT_EQ(log_.count("I/LUMOKIT_SESSION_MANAGER: Lumokit Systemservice Crashed"), 2u);
  expect_forwarded(kLocation);
  EXPECT_EQ(host::checkGrantedPermissions_calls(), 4);
}

TEST_F(Access, PermissionChangesReachThePluginOfTheTask) {
  expect_forwarded(kLocation);
  const std::string head = "{\"req_type\":\"permission_change\", \"opcode\":\"256\", \"ss_id\":\"3\", "
                           "\"session_id\":\"" + std::to_string(session_) +
                           "\", \"permission\":\"" + kFine + "\", \"status\":\"";

  ASSERT_TRUE(host::set_permission(kPid, kUid, kFine, false));
  EXPECT_EQ(plugin_.recv(), head + "0\"}");
  // The revocation is cached: denied without asking the service.
  expect_dropped(kLocation);
  EXPECT_EQ(host::checkGrantedPermissions_calls(), 1);

  // So is the grant.
  ASSERT_TRUE(host::set_permission(kPid, kUid, kFine, true));
  EXPECT_EQ(plugin_.recv(), head + "1\"}");
  expect_forwarded(kLocation);
  EXPECT_EQ(host::checkGrantedPermissions_calls(), 1);

  // A process that never ran a task needing the permission: nothing is sent.
  ASSERT_TRUE(host::set_permission(999, kUid, kFine, false));
  EXPECT_TRUE(log_.contains("E/LUMOKIT_SESSION_MANAGER: Key not found"));
  EXPECT_EQ(plugin_.recv(300ms), "");

  // A cached grant whose pair no plugin serves any more still changes.
  const std::string camera = std::to_string(kPid) + ":android.permission.CAMERA";
  {
    std::lock_guard<std::mutex> lock(pid_perminfo_map_mtx);
    pid_perminfo_map[camera].opcode = 0x7777;
  }
  ASSERT_TRUE(host::set_permission(kPid, kUid, "android.permission.CAMERA", true));
  std::lock_guard<std::mutex> lock(pid_perminfo_map_mtx);
  EXPECT_TRUE(pid_perminfo_map.at(camera).status);
}

// What a plugin's questions are answered: with the service up, failing and
// down; for the session's client, for a client the service does not know
// (pid 0, uid 0) and for no session at all.
TEST_F(Access, QuestionRepliesWithTheServiceUpFailingAndDown) {
  const std::string sid = std::to_string(session_);
  const std::string perm = "{\"req_type\":\"PERMISSION\",\"status\": 0,\"PermRes\":";
  const std::string info = "{\"req_type\":\"INFO_QUERY\",\"QueryInfosRes\":";
  const std::string fine = "\"" + kFine + "\"", camera = "\"android.permission.CAMERA\"";
  const std::string all =
      R"(["app.id.pid","app.id.uid","app.name.package","app.id.cert_hash","app.status.fore_back","app.color"])";
  const std::string failed = R"("SUCCESS:4711","SUCCESS:10123","SUCCESS:ERROR:Query failed",)"
                             R"("ERROR:Query failed","ERROR:Query failed",""} )";
  auto permission = [this](const std::string& session, const std::string& names) {
    return plugin_.request("{\"req_type\":\"PERMISSION\",\"Session_Id\":\"" + session +
                           "\",\"Permissions\":[" + names + "]}");
  };
  auto query = [this](const std::string& session, const std::string& keys) {
    return plugin_.request("{\"req_type\":\"INFO_QUERY\",\"Session_Id\":\"" + session +
                           "\",\"QueryInfos\":" + keys + "}");
  };
  EXPECT_EQ(permission(sid, fine + "," + camera + "," + fine), perm + "[\"1\",\"0\",\"1\"]} ");
  EXPECT_EQ(permission(sid, ""), perm + "[\"1\"]} ");
  EXPECT_EQ(permission("999", fine + "," + camera), perm + "[\"0\",\"0\"]} ");
  EXPECT_EQ(query(sid, all), info + R"("SUCCESS:4711","SUCCESS:10123","SUCCESS:com.example.maps",)"
                                    R"("SUCCESS:5f0c11","SUCCESS:foreground",""} )");
  EXPECT_EQ(query(sid, "[]"), info + "\"ERROR:Empty requested info\"} ");
  EXPECT_EQ(query("999", R"(["app.id.pid","x"])"),
            info + "\"ERROR:Invalid session ID\",\"ERROR:Invalid session ID\"} ");
  const uint32_t unknown = open_session({&plugin_}, 79, 0, 0);
  EXPECT_EQ(query(std::to_string(unknown), all),
            info + R"("ERROR:Query failed","ERROR:Query failed","ERROR:Query failed","","",""} )");

  host::fail_next("checkGrantedPermissions", 1);
  EXPECT_EQ(permission(sid, fine), perm + "[\"0\"]} ");
  EXPECT_TRUE(log_.contains("E/LUMOKIT_SESSION_MANAGER: checkGrantedPermissions from package manager failed"));
  host::fail_next("queryInfo", 1);
  EXPECT_EQ(query(sid, all), info + failed);

  host::kill();
  wait_until_dead();
  EXPECT_EQ(permission(sid, fine + ",\"android.permission.RECORD_AUDIO\""), perm + "[\"0\",\"0\"]} ");
  EXPECT_EQ(permission(sid, ""), perm + "[\"1\"]} ");
  EXPECT_TRUE(log_.contains("E/LUMOKIT_SESSION_MANAGER: Failed to connect to LumokitSysService service."));
  EXPECT_EQ(query(sid, all), info + failed);
}

TEST_F(Access, PrivacyOperationsStartStopAndEndWithTheSession) {
  expect_forwarded(kLocation);
  expect_forwarded(kAudio);
  EXPECT_EQ(cancel_answered(plugin_, session_), 0u);

  // A second client of the same app starts an operation twice and stops it
  // itself: the stop releases both starts, leaving nothing for the end.
  const int32_t other_pid = kPid + 1;
  session_ = open_session({&plugin_}, 78, other_pid, kUid);
  expect_forwarded(kLocation);
  expect_forwarded(kLocation);
  expect_forwarded(kStopLocation);
  EXPECT_TRUE(log_.contains("I/LUMOKIT_MANAGER: Stop Operation"));
  EXPECT_EQ(cancel_answered(plugin_, session_), 0u);

  std::vector<std::string> calls;
  for (const host::PrivacyCall& c : host::privacy_log()) {
    calls.push_back(c.operation + " " + std::to_string(c.pid) + "/" + std::to_string(c.uid) +
                    (c.stop ? " stop" : " start"));
  }
  EXPECT_EQ(calls, (std::vector<std::string>{
                       "android:fine_location 4711/10123 start", "android:record_audio 4711/10123 start",
                       "android:fine_location 4711/10123 stop", "android:record_audio 4711/10123 stop",
                       "android:fine_location 4712/10123 start", "android:fine_location 4712/10123 start",
                       "android:fine_location 4712/10123 stop"}));
}

// ---- linking at boot --------------------------------------------------------

// An undeclared service is never waited for; a declared one is linked once
// boot completes, and its catalogue loaded then.
TEST(AccessBoot, LinkWaitsForBootCompletedThenLoadsTheCatalogue) {
  LogCapture log;
  set_boot_wait_step_for_testing(1);
  lumokit::host::set_property("sys.boot_completed", "1");
  // Without any policy the instance is not declared either.
  EXPECT_EQ(getLumokitSysServiceHandle(), -1);
  std::string error;
  ASSERT_TRUE(host::load_policy_text(R"({"declared": false, "apis": [{"id": "ping"}]})", &error)) << error;
  EXPECT_EQ(getLumokitSysServiceHandle(), -1);
  EXPECT_EQ(log.count("E/LUMOKIT_SESSION_MANAGER: LumoSysService isn't declared"), 2u);
  host::start();  // even once it runs, nobody was waiting for it
  std::this_thread::sleep_for(1200ms);
  EXPECT_FALSE(lumo_sys_service());

  ASSERT_TRUE(host::load_policy_text(kPolicy, &error)) << error;
  lumokit::host::set_property("sys.boot_completed", "0");
  ASSERT_EQ(getLumokitSysServiceHandle(), 0);
  std::this_thread::sleep_for(1500ms);
  EXPECT_FALSE(lumo_sys_service());
  {
    std::lock_guard<std::mutex> lock(api_privacyop_map_mtx);
    EXPECT_TRUE(api_privacyop_map.empty());
  }

  lumokit::host::set_property("sys.boot_completed", "1");
  const auto start = std::chrono::steady_clock::now();
  ASSERT_TRUE(wait_until([] { return static_cast<bool>(lumo_sys_service()); }, 3000ms));
  EXPECT_LT(std::chrono::steady_clock::now() - start, 2500ms);
  EXPECT_TRUE(wait_for_sys_callback(2000ms));
  std::lock_guard<std::mutex> lock(api_privacyop_map_mtx);
  EXPECT_EQ(api_privacyop_map.count("getLocation:3:2:int:string"), 1u);
}

}  // namespace
}  // namespace lumokit::test
