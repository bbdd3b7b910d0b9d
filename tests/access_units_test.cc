// Access-control functions called directly against the emulated system
// service: catalogue keys and loading, the permission check, information
// queries, the reply list text, and a permission change with no plugin.
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

// Each case starts from an unlinked manager and a fresh service.
class AccessUnits : public ::testing::Test {
 protected:
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

  LogCapture log_;
};

TEST(AccessCatalogueKey, SplicesTheSubsystemAfterTheFirstColon) {
  struct Case {
    const char* id;
    const char* subsystem;
    const char* key;
  };
  const Case cases[] = {
      {"getLocation:2:int:string", "3", "getLocation:3:2:int:string"},
      {"stop:0:", "3", "stop:3:0:"},
      {"ping", "1", "ping:1"},
      {"ping", "", "ping:"},
      {"a:b:c", "", "a::b:c"},
      {":x", "7", ":7:x"},
  };
  for (const Case& c : cases) EXPECT_EQ(api_catalogue_key(c.id, c.subsystem), c.key) << c.id;
}

TEST_F(AccessUnits, CatalogueLoadsFromTheServiceAndKeepsItsEntriesOnFailure) {
  EXPECT_EQ(fetchAPIInfo(), -1);  // not declared, nothing to ask
  EXPECT_TRUE(log_.contains("E/LUMOKIT_SESSION_MANAGER: Lumokit System Service is not available"));

  load(kPolicy);
  ASSERT_EQ(fetchAPIInfo(), 0);
  {
    std::lock_guard<std::mutex> lock(api_privacyop_map_mtx);
    ASSERT_EQ(api_privacyop_map.size(), 2u);
    const privacy_op& loc = api_privacyop_map.at("getLocation:3:2:int:string");
    EXPECT_EQ(loc.permissions, kFine);
    EXPECT_EQ(loc.start_op, "android:fine_location");
    EXPECT_EQ(loc.stop_op, "");
    EXPECT_EQ(loc.extra1, "x1");
    EXPECT_EQ(loc.extra2, "x2");
    EXPECT_EQ(loc.subsystem, "3");
    // The later record with the same key replaces every field.
    const privacy_op& ping = api_privacyop_map.at("ping:1");
    EXPECT_EQ(ping.permissions, "second");
    EXPECT_EQ(ping.stop_op, "");
  }

  host::fail_next("getAPIInfo", 1);
  EXPECT_EQ(fetchAPIInfo(), -1);
  EXPECT_TRUE(log_.contains("E/LUMOKIT_SESSION_MANAGER: fetchAPIInfo failed"));
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

TEST(AccessReplyText, QuotesAndJoinsWithoutBrackets) {
  struct Case {
    std::vector<std::string> items;
    std::string text;
  };
  const Case cases[] = {
      {{}, ""},
      {{""}, R"("")"},
      {{"a"}, R"("a")"},
      {{"SUCCESS:1", "ERROR:Query failed"}, R"("SUCCESS:1","ERROR:Query failed")"},
      {{"", "", ""}, R"("","","")"},
      {{"a,"}, R"("a,")"},
  };
  for (const Case& c : cases) EXPECT_EQ(vector_to_string_with_qutoes(c.items), c.text);
}

TEST_F(AccessUnits, PermissionCheckFailsClosed) {
  load(kPolicy);
  update_pid_uid_session_id(1, 4711, 10123);
  update_pid_uid_session_id(2, 4712, 20000);  // an app the service does not know
  enum class Service { up, failing, down };
  struct Case {
    unsigned int session;
    std::vector<std::string> names;
    Service service;
    std::vector<bool> result;
    int queries;
    const char* log;
  };
  const Case cases[] = {
      {1, {kFine, kCamera}, Service::up, {true, false}, 1, nullptr},
      {1, {kCamera, kFine, kFine}, Service::up, {false, true, true}, 1, nullptr},
      {2, {kFine}, Service::up, {false}, 1, nullptr},
      {1, {}, Service::up, {true}, 0, "valid session_id but no permissions, so return true"},
      {3, {kFine, kCamera}, Service::up, {false, false}, 0, "No entry for this session_id"},
      {3, {}, Service::up, {false}, 0, "No entry for this session_id"},
      {1, {kFine, kCamera}, Service::failing, {false, false}, 1,
       "checkGrantedPermissions from package manager failed"},
      {1, {kFine, kCamera}, Service::down, {false, false}, 0,
       "Failed to connect to LumokitSysService service."},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::Message() << "session " << c.session << ", " << c.names.size() << " names");
    if (c.service == Service::down) {
      host::kill();
      set_lumo_sys_service(nullptr);
    }
    if (c.service == Service::failing) host::fail_next("checkGrantedPermissions", 1);
    const int calls = host::checkGrantedPermissions_calls();
    const size_t logged = c.log ? log_.count(std::string("E/LUMOKIT_SESSION_MANAGER: ") + c.log) : 0;
    std::vector<bool> result{true, true, true, true};  // overwritten, never appended to
    checkPermissionFromPackage(c.session, c.names, &result);
    EXPECT_EQ(result, c.result);
    EXPECT_EQ(host::checkGrantedPermissions_calls() - calls, c.queries);
    if (c.log) {
      EXPECT_EQ(log_.count(std::string("E/LUMOKIT_SESSION_MANAGER: ") + c.log), logged + 1);
    }
  }
}

TEST_F(AccessUnits, QueryInfoAnswersEachKeyInOrder) {
  load(kPolicy);
  update_pid_uid_session_id(1, 4711, 10123);
  update_pid_uid_session_id(2, 0, 0);  // a client seen as pid 0, uid 0
  update_pid_uid_session_id(3, -5, 20000);
  const std::vector<std::string> all = {"app.id.pid",       "app.id.uid",           "app.name.package",
                                        "app.id.cert_hash", "app.status.fore_back", "app.color"};
  enum class Service { up, failing, down };
  struct Case {
    unsigned int session;
    std::vector<std::string> keys;
    Service service;
    std::vector<std::string> answers;
  };
  const std::string failed = "ERROR:Query failed";
  const Case cases[] = {
      {1, all, Service::up,
       {"SUCCESS:4711", "SUCCESS:10123", "SUCCESS:com.example.maps", "SUCCESS:5f0c11",
        "SUCCESS:background", ""}},
      {1, {"app.id.uid", "app.id.pid"}, Service::up, {"SUCCESS:10123", "SUCCESS:4711"}},
      {2, all, Service::up, {failed, failed, "SUCCESS:android", "SUCCESS:", "SUCCESS:foreground", ""}},
      // Unknown to the service: its items come back empty.
      {3, all, Service::up, {failed, "SUCCESS:20000", failed, "", "", ""}},
      {9, {"app.id.pid", "app.id.uid", "x"}, Service::up,
       {"ERROR:Invalid session ID", "ERROR:Invalid session ID", "ERROR:Invalid session ID"}},
      {1, all, Service::failing,
       {"SUCCESS:4711", "SUCCESS:10123", "SUCCESS:" + failed, failed, failed, ""}},
      {1, all, Service::down, {"SUCCESS:4711", "SUCCESS:10123", "SUCCESS:" + failed, failed, failed, ""}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::Message() << "session " << c.session << ", " << c.keys.size() << " keys");
    if (c.service == Service::failing) host::fail_next("queryInfo", 1);
    if (c.service == Service::down) host::kill();
    std::vector<std::string> answers;
    queryInfo(c.session, c.keys, &answers);
    EXPECT_EQ(answers, c.answers);
  }
  EXPECT_TRUE(log_.contains("E/LUMOKIT_SESSION_MANAGER: No entry for this session_id: 9"));
  EXPECT_TRUE(log_.contains(
      "E/LUMOKIT_SESSION_MANAGER: queryInfo from LumokitSysService failed, some items query failed"));
  EXPECT_TRUE(log_.contains(
      "E/LUMOKIT_SESSION_MANAGER: Failed to connect to LumokitSysService service, some items query failed"));

  // An empty request is answered with one error, added to what the list held.
  std::vector<std::string> answers{"earlier"};
  queryInfo(1, {}, &answers);
  EXPECT_EQ(answers, (std::vector<std::string>{"earlier", "ERROR:Empty requested info"}));
}

TEST_F(AccessUnits, PermissionChangeUpdatesTheCacheEvenWithoutAPlugin) {
  {
    std::lock_guard<std::mutex> lock(pid_perminfo_map_mtx);
    permission_info info;
    info.opcode = 0x7777;  // served by nobody
    info.ss_id = 1;
    info.session_id = 1;
    pid_perminfo_map["4711:" + kCamera] = info;
  }
  EXPECT_TRUE(permissionChangeCallback->onpermissionchanged(4711, 10123, kCamera, true));
  EXPECT_TRUE(log_.contains("I/LUMOKIT_SESSION_MANAGER: onpermissionchanged pid : 4711 uid : 10123 "
                            "permission: " + kCamera + " status: 1"));
  // The uid takes no part in the look-up; another pid's change finds nothing.
  EXPECT_TRUE(permissionChangeCallback->onpermissionchanged(4712, 10123, kCamera, false));
  EXPECT_EQ(log_.count("E/LUMOKIT_SESSION_MANAGER: Key not found"), 1u);
  std::lock_guard<std::mutex> lock(pid_perminfo_map_mtx);
  const permission_info& info = pid_perminfo_map.at("4711:" + kCamera);
  EXPECT_TRUE(info.status);
  EXPECT_EQ(info.opcode, 0x7777u);
  EXPECT_EQ(info.session_id, 1u);
}

}  // namespace
