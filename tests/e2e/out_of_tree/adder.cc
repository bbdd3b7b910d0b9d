// The plugin of the plugin guide, which adds numbers:
//   adder SOCKET API_DEF TOKEN
// It serves opcode 0x1001 until the manager goes away.
#include <chrono>
#include <iostream>

#include "lumokit/api_def.h"
#include "lumokit/plugin.h"

int main(int argc, char** argv) {
  if (argc != 4) {
    std::cerr << "usage: adder SOCKET API_DEF TOKEN\n";
    return 2;
  }
  lumokit::PluginHooks hooks;
  hooks.on_task = [](const lumokit::TaskRequest& task) {
    Json::Value result;
    long long sum = 0;
    for (const Json::Value& arg : task.args) sum += arg["value"].asInt64();
    result["status"] = 0;
    result["return"] = Json::Int64(sum);
    return result;  // the SDK adds "req_type", "session_id", "transac_id"
  };
  lumokit::PluginOptions options;
  options.log = [](const std::string& line) { std::cout << line << std::endl; };

  lumokit::Plugin plugin(hooks, options);
  try {
    plugin.connect(argv[1]);
    plugin.init();
    plugin.register_auth(0x1001, lumokit::load_api_def(argv[2]), lumokit::load_token(argv[3]));
    plugin.ready(0x1001);
  } catch (const lumokit::PluginError& e) {
    std::cerr << e.what() << "\n";
    return 1;
  }
  plugin.wait_closed(std::chrono::hours(24));  // or wait for a signal, then:
  if (plugin.connected()) plugin.deinit();
  plugin.stop();
}
