// The admin socket of lumokitd: properties, the emulated system service and
// its effect on permission-gated tasks, and bad admin input.
#include <gtest/gtest.h>

#include "e2e_rig.h"
#include "ipc/json_text.h"

namespace lumokit::e2e {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

const char* const kFine = "android.permission.ACCESS_FINE_LOCATION";

Json::Value get_location(uint32_t sid, uint32_t transac) {
  return perform(sid, task_text(sid, transac, "0x2002", 3, "getLocation"));
}

Json::Value permission(bool granted) {
  Json::Value v = op("sys_set_permission");
  v["pid"] = 4242;
  v["uid"] = 10123;
  v["permission"] = kFine;
  v["granted"] = granted;
  return v;
}

TEST(DaemonAdmin, PropertiesAndBadRequests) {
  Rig rig;
  rig.start_daemon({"--boot-completed", "0"});
  auto admin = rig.admin();

  Json::Value get = op("get_property");
  get["name"] = "sys.boot_completed";
  Json::Value boot = admin->call(get);
  EXPECT_EQ(boot["op"], "get_property");
  EXPECT_EQ(boot["value"], "0");
  get["name"] = "vendor.lumokit.ready";
  EXPECT_EQ(admin->call(get)["value"], "1");

  // Setting and reading back are run through the CLI (Cli.AdminCommandsAndErrors).
  Json::Value set = op("set_property");
  set["name"] = "persist.demo.flag";
  set["value"] = "on";
  Json::Value long_value = set;
  long_value["value"] = std::string(200, 'x');
  Json::Value bad_name = set;
  bad_name["name"] = "has space";
  Json::Value perm_no_granted = permission(true);
  perm_no_granted.removeMember("granted");
  Json::Value perm_bad_pid = permission(true);
  perm_bad_pid["pid"] = "4242";
  const Json::Value bad[] = {op("nope"), long_value, bad_name, perm_no_granted, perm_bad_pid,
                             op("get_property"), op("end_session")};
  for (const Json::Value& request : bad) {
    Json::Value reply = admin->call(request);
    EXPECT_EQ(reply["op"], "error") << ipc::write_json(request);
  }
  // Not JSON, and nested far past any reader's limit.
  for (const std::string& text : {std::string("{{{"), "{\"op\":\"status\",\"x\":" + std::string(100000, '[') +
                                                          std::string(100000, ']') + "}"}) {
    admin->send_text(text);
    EXPECT_EQ(admin->next()["op"], "error");
  }
  EXPECT_EQ(admin->call(op("status"))["op"], "status");
}

TEST(DaemonAdmin, PermissionChangesGateTasksAndServiceDeath) {
  Rig rig;
  rig.start_daemon();
  rig.start_plugin();
  auto client = rig.client();
  const uint32_t sid = open_session(*client, 4242, 10123);

  // Granted by the policy: an answer, and the privacy operation starts.
  Json::Value first = client->call(get_location(sid, 1));
  EXPECT_EQ(first["error"].asInt(), 0);
  EXPECT_EQ(parse(first["text"].asString())["status"].asInt(), 0) << first["text"].asString();
  Json::Value log = rig.admin_call(op("sys_privacy_log"));
  ASSERT_EQ(log["op"], "sys_privacy_log");
  ASSERT_GE(log["calls"].size(), 1u);
  EXPECT_EQ(log["calls"][0]["operation"], "android:fine_location");
  EXPECT_EQ(log["calls"][0]["pid"].asInt(), 4242);
  EXPECT_FALSE(log["calls"][0]["stop"].asBool());

  // Revoked: the manager drops the task without an answer.
  Json::Value revoked = rig.admin_call(permission(false));
  EXPECT_EQ(revoked["op"], "sys_set_permission") << ipc::write_json(revoked);
  client->send(get_location(sid, 2));
  EXPECT_TRUE(client->silent_for(milliseconds(1500)));

  // Without the service, changes are refused and gated tasks get nothing.
  Json::Value killed = rig.admin_call(op("sys_kill"));
  EXPECT_EQ(killed["op"], "sys_kill");
  EXPECT_FALSE(killed["alive"].asBool());
  EXPECT_FALSE(rig.status()["sys_alive"].asBool());
  EXPECT_EQ(rig.admin_call(permission(false))["op"], "error");
  Json::Value started = rig.admin_call(op("sys_start"));
  EXPECT_TRUE(started["alive"].asBool());
  EXPECT_TRUE(rig.wait_status([](const Json::Value& s) { return s["sys_alive"].asBool(); }));

  // An administrator may end any client's session.
  Json::Value end = op("end_session");
  end["session_id"] = sid;
  Json::Value ended = rig.admin_call(end);
  EXPECT_TRUE(ended["ended"].asBool()) << ipc::write_json(ended);
  EXPECT_TRUE(rig.status()["state"]["sessions"].empty());
}

}  // namespace
}  // namespace lumokit::e2e
