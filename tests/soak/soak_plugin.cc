// lumokit-soak-plugin SOCKET OPCODE API_DEF TOKEN: one plugin of the chaos
// soak. Each answer echoes the task's nonce and names the opcode served, so
// an answer that reaches the wrong client or task shows. Runs until killed.
#include <unistd.h>

#include <cstdlib>
#include <iostream>

#include "lumokit/api_def.h"
#include "lumokit/plugin.h"

int main(int argc, char** argv) {
  if (argc != 5) {
    std::cerr << "usage: lumokit-soak-plugin SOCKET OPCODE API_DEF TOKEN\n";
    return 2;
  }
  const uint32_t opcode = static_cast<uint32_t>(std::strtoul(argv[2], nullptr, 16));
  lumokit::PluginHooks hooks;
  hooks.on_task = [&](const lumokit::TaskRequest& task) {
    Json::Value result(Json::objectValue);
    result["status"] = 0;
    result["served"] = argv[2];
    result["nonce"] = task.args[0]["value"];
    return result;
  };
  lumokit::Plugin plugin(hooks);
  try {
    plugin.connect(argv[1]);
    plugin.init();
    plugin.register_auth(opcode, lumokit::load_api_def(argv[3]), lumokit::load_token(argv[4]));
    plugin.ready(opcode);
  } catch (const lumokit::PluginError& e) {
    std::cerr << "lumokit-soak-plugin: " << e.what() << "\n";
    return 1;
  }
  for (;;) pause();
}
