// Access-control functions called directly against the emulated system
// service: catalogue keys and loading, the permission check, information
// queries and a permission change with no plugin. The same functions behind
// the manager's socket, and the reply texts they make, are proved in
// integration_access_test; the cases here are the ones it does not reach.
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "LumoSysAccess.h"
#include "host/lumo_sys_host.h"
#include "manager_harness.h"
#include "session_tables.h"

namespace {

namespace host = lumosys::host;
using lumokit::test::LogCapture;

constexpr const char* kPolicy = R"({
  "apis": [
    {"id": "getLocation:2:int:string", "permissions": "android.permission.ACCESS_FINE_LOCATION",
     "start_op": "android:fine_location", "extra1": "x1", "extra2": "x2", "subsystem": "3"},
    {"id": "ping", "permissions": "first", "stop_op": "op1", "subsystem": "1"},
    {"id": "ping", "permissions": "second", "subsystem": "1"}
  ],
  "apps": [
    {"uid": 10123, "package": "com.example.maps", "cert_hash": "5f0c11",
     "granted": ["android.permission.ACCESS_FINE_LOCATION"]},
    {"uid": 0, "package": "android", "foreground": true}
  ]
})";

const std::string kFine = "android.permission.ACCESS_FINE_LOCATION";
const std::string kCamera = "android.permission.CAMERA";
const std::string kError = "E/LUMOKIT_SESSION_MANAGER: ";

// Each case starts from an unlinked manager and a fresh service.
class AccessUnits : public ::testing::Test {
 protected:
  enum class Service { up, failing, down };

  void SetUp() override { clean(); }
  void TearDown() override { clean(); }

  static void clean() {
    host::reset();
    set_lumo_sys_service(nullptr);
    std::lock_guard<std::mutex> a(api_privacyop_map_mtx);
    api_privacyop_map.clear();
    std::lock_guard<std::mutex> p(pid_perminfo_map_mtx);
    pid_perminfo_map.clear();
    for (unsigned int s : {1u, 2u, 3u}) remove_pid_uid_session_id(s);
  }

  static void load(const char* policy) {
    std::string error;
    ASSERT_TRUE(host::load_policy_text(policy, &error)) << error;
  }

  // The policy, and sessions 1 (pid 4711, the maps app), 2 (pid 0, uid 0:
  // the "android" app) and 3 (pid -5, an app the service does not know).
  static void load_with_sessions() {
    load(kPolicy);
    update_pid_uid_session_id(1, 4711, 10123);
    update_pid_uid_session_id(2, 0, 0);
    update_pid_uid_session_id(3, -5, 20000);
  }

  // The next call of `operation` fails, or the service is gone.
  static void prepare(Service service, const char* operation) {
    if (service == Service::failing) host::fail_next(operation, 1);
    if (service == Service::down) {
      host::kill();
      set_lumo_sys_service(nullptr);
    }
  }

  LogCapture log_;
};

TEST(AccessCatalogueKey, SplicesTheSubsystemAfterTheFirstColon) {
  const char* cases[][3] = {  // id, subsystem, key
      {"getLocation:2:int:string", "3", "getLocation:3:2:int:string"},
      {"stop:0:", "3", "stop:3:0:"},
      {"ping", "1", "ping:1"},
      {"ping", "", "ping:"},
      {"a:b:c", "", "a::b:c"},
      {":x", "7", ":7:x"},
  };
  for (const auto& c : cases) EXPECT_EQ(api_catalogue_key(c[0], c[1]), c[2]) << c[0];
}

TEST_F(AccessUnits, CatalogueLoadsFromTheServiceAndKeepsItsEntriesOnFailure) {
  EXPECT_EQ(fetchAPIInfo(), -1);  // not declared, nothing to ask
  EXPECT_TRUE(log_.contains(kError + "Lumokit System Service is not available"));
  load(kPolicy);
  ASSERT_EQ(fetchAPIInfo(), 0);
  const auto fields = [](const privacy_op& op) {
    return op.permissions + "|" + op.start_op + "|" + op.stop_op + "|" + op.extra1 + "|" +
           op.extra2 + "|" + op.subsystem;
  };
  {
    std::lock_guard<std::mutex> lock(api_privacyop_map_mtx);
    ASSERT_EQ(api_privacyop_map.size(), 2u);
    EXPECT_EQ(fields(api_privacyop_map.at("getLocation:3:2:int:string")),
              kFine + "|android:fine_location||x1|x2|3");
    // The later record with the same key replaces every field.
    EXPECT_EQ(fields(api_privacyop_map.at("ping:1")), "second|||||1");
  }
  host::fail_next("getAPIInfo", 1);
  EXPECT_EQ(fetchAPIInfo(), -1);
  EXPECT_TRUE(log_.contains(kError + "fetchAPIInfo failed"));
  load(R"({"apis": []})");
  EXPECT_EQ(fetchAPIInfo(), 0);
  std::lock_guard<std::mutex> lock(api_privacyop_map_mtx);
  EXPECT_EQ(api_privacyop_map.size(), 2u);
}

TEST_F(AccessUnits, ProxyIsLookedUpOnlyWhileNoneIsCached) {
  EXPECT_EQ(getLumokitSysService(), -1);  // nothing registered
  load(kPolicy);
  ASSERT_EQ(getLumokitSysService(), 0);
  const std::shared_ptr<lumosys::ILumoSys> first = lumo_sys_service();
  ASSERT_TRUE(first);
  // A cached proxy is kept even across a restart nobody was told of.
  host::kill();
  host::start();
  EXPECT_EQ(getLumokitSysService(), 0);
  EXPECT_EQ(lumo_sys_service(), first);
}

TEST_F(AccessUnits, PermissionCheckFailsClosed) {
  load_with_sessions();
  const struct {
    unsigned int session;
    std::vector<std::string> names;
    Service service;
    std::vector<bool> result;
    int queries;
    const char* log;
  } cases[] = {
      {1, {kCamera, kFine, kFine}, Service::up, {false, true, true}, 1, nullptr},
      {3, {kFine}, Service::up, {false}, 1, nullptr},
      {1, {}, Service::up, {true}, 0, "valid session_id but no permissions, so return true"},
      {9, {kFine, kCamera}, Service::up, {false, false}, 0, "No entry for this session_id"},
      {1, {kFine, kCamera}, Service::failing, {false, false}, 1,
       "checkGrantedPermissions from package manager failed"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << "session " << c.session << ", " << c.names.size() << " names");
    prepare(c.service, "checkGrantedPermissions");
    const int calls = host::checkGrantedPermissions_calls();
    const size_t logged = c.log ? log_.count(kError + c.log) : 0;
    std::vector<bool> result{true, true, true, true};  // overwritten, never appended to
    checkPermissionFromPackage(c.session, c.names, &result);
    EXPECT_EQ(result, c.result);
    EXPECT_EQ(host::checkGrantedPermissions_calls() - calls, c.queries);
    EXPECT_EQ(c.log ? log_.count(kError + c.log) : 0, c.log ? logged + 1 : 0);
  }
}

TEST_F(AccessUnits, QueryInfoAnswersEachKeyInOrder) {
  load_with_sessions();
  const std::vector<std::string> all = {"app.id.pid",       "app.id.uid",           "app.name.package",
                                        "app.id.cert_hash", "app.status.fore_back", "app.color"};
  const std::string failed = "ERROR:Query failed";
  const std::vector<std::string> unreachable = {"SUCCESS:4711", "SUCCESS:10123", "SUCCESS:" + failed,
                                                failed,         failed,          ""};
  const struct {
    unsigned int session;
    std::vector<std::string> keys;
    Service service;
    std::vector<std::string> answers;
  } cases[] = {
      {1, {"app.id.uid", "app.id.pid"}, Service::up, {"SUCCESS:10123", "SUCCESS:4711"}},
      {2, all, Service::up, {failed, failed, "SUCCESS:android", "SUCCESS:", "SUCCESS:foreground", ""}},
      // Unknown to the service: its items come back empty.
      {3, all, Service::up, {failed, "SUCCESS:20000", failed, "", "", ""}},
      {9, {"app.id.pid", "app.id.uid", "x"}, Service::up,
       {"ERROR:Invalid session ID", "ERROR:Invalid session ID", "ERROR:Invalid session ID"}},
      {1, all, Service::failing, unreachable},
      {1, all, Service::down, unreachable},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << "session " << c.session << ", " << c.keys.size() << " keys");
    prepare(c.service, "queryInfo");
    std::vector<std::string> answers;
    queryInfo(c.session, c.keys, &answers);
    EXPECT_EQ(answers, c.answers);
  }
  EXPECT_TRUE(log_.contains(kError + "No entry for this session_id: 9"));
  EXPECT_TRUE(log_.contains(kError + "queryInfo from LumokitSysService failed, some items query failed"));
  EXPECT_TRUE(log_.contains(kError +
                            "Failed to connect to LumokitSysService service, some items query failed"));
  // An empty request is answered with one error, added to what the list held.
  std::vector<std::string> answers{"earlier"};
  queryInfo(1, {}, &answers);
  EXPECT_EQ(answers, (std::vector<std::string>{"earlier", "ERROR:Empty requested info"}));
}

TEST_F(AccessUnits, PermissionChangeUpdatesTheCacheEvenWithoutAPlugin) {
  {
    std::lock_guard<std::mutex> lock(pid_perminfo_map_mtx);
    pid_perminfo_map["4711:" + kCamera].opcode = 0x7777;  // served by nobody
  }
  EXPECT_TRUE(permissionChangeCallback->onpermissionchanged(4711, 10123, kCamera, true));
  std::lock_guard<std::mutex> lock(pid_perminfo_map_mtx);
  const permission_info& info = pid_perminfo_map.at("4711:" + kCamera);
  EXPECT_TRUE(info.status);
  EXPECT_EQ(info.opcode, 0x7777u);
}

}  // namespace
