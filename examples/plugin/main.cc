// lumokit-example-plugin: a service plugin built on the plugin SDK. It
// registers the calculator and location services, answers their tasks, and
// leaves the manager in order on SIGINT or SIGTERM.
#include <signal.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iostream>
#include <set>
#include <string>
#include <vector>

#include "calculator.h"
#include "event_log.h"
#include "location.h"
#include "lumokit/api_def.h"
#include "lumokit/plugin.h"
#include "lumokit/plugin_wire.h"
#include "options.h"
#include "session_book.h"

namespace {

using example::log_line;

struct Registration {
  example::Service* service;
  Json::Value api_def;
  std::string token;  // empty with --legacy
};

std::string label(const example::Service& service) {
  return std::string(service.name()) + " (" + lumokit::wire::opcode_hex(service.opcode()) + ")";
}

// API definitions and tokens, read before connecting so that a missing file
// is reported without touching the manager. Exit status, or -1 when all is
// well.
int load_registrations(const example::Options& options,
                       const std::vector<example::Service*>& services,
                       std::vector<Registration>* out) {
  for (const auto& token : options.tokens) {
    const std::string& key = token.first;
    const bool known = std::any_of(services.begin(), services.end(), [&](example::Service* s) {
      return example::token_key_matches(key, s->opcode(), s->name());
    });
    if (!known) {
      std::cerr << "lumokit-example-plugin: --token " << key << " names no service of this plugin\n";
      return 2;
    }
  }
  try {
    for (example::Service* service : services) {
      Registration reg{service, lumokit::load_api_def(options.api_dir + "/" + service->name() + ".json"), ""};
      if (!options.legacy) {
        const std::string file = example::token_file(options, service->opcode(), service->name());
        if (file.empty()) {
          std::cerr << "lumokit-example-plugin: no token for " << label(*service)
                    << ": give --token-dir DIR, --token " << service->name()
                    << "=FILE, or --legacy\n";
          return 2;
        }
        reg.token = lumokit::load_token(file);
      }
      out->push_back(std::move(reg));
    }
  } catch (const lumokit::PluginError& e) {
    std::cerr << "lumokit-example-plugin: " << e.what() << "\n";
    return 2;
  }
  return -1;
}

}  // namespace

int main(int argc, char** argv) {
  example::Options options;
  std::string error;
  if (!example::parse_options(argc, argv, &options, &error)) {
    std::cerr << "lumokit-example-plugin: " << error << "\n\n" << example::usage();
    return 2;
  }
  if (options.help) {
    std::cout << example::usage();
    return 0;
  }

  // Blocked before any thread starts, so that only sigtimedwait below sees them.
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);

  lumokit::Plugin* plugin_ptr = nullptr;  // set before any hook can run
  example::ClientQueries queries{
      [&](uint32_t session, const std::vector<std::string>& perms) {
        return plugin_ptr->permission(session, perms);
      },
      [&](uint32_t session, const std::vector<std::string>& keys) {
        return plugin_ptr->info_query(session, keys);
      }};
  example::Calculator calculator;
  example::Location location(queries);
  const std::vector<example::Service*> services{&calculator, &location};

  std::vector<Registration> registrations;
  const int load_status = load_registrations(options, services, &registrations);
  if (load_status >= 0) return load_status;

  std::set<lumokit::OpcodeSubsystem> served;
  for (const Registration& reg : registrations) {
    for (uint32_t sub : lumokit::api_def_subsystems(reg.api_def)) {
      served.insert({reg.service->opcode(), sub});
    }
  }
  auto find_service = [&](uint32_t opcode) -> example::Service* {
    for (example::Service* s : services) {
      if (s->opcode() == opcode) return s;
    }
    return nullptr;
  };

  example::SessionBook book;
  lumokit::PluginHooks hooks;
  hooks.on_session_start = [&](const lumokit::SessionStart& start,
                               std::vector<lumokit::OpcodeSubsystem>* accepted) {
    accepted->erase(std::remove_if(accepted->begin(), accepted->end(),
                                   [&](const lumokit::OpcodeSubsystem& p) {
                                     return served.count(p) == 0;
                                   }),
                    accepted->end());
    book.start(start.session_id, *accepted);
    return !accepted->empty();
  };
  hooks.on_session_end = [&](uint32_t session_id) {
    book.end(session_id);
    for (example::Service* s : services) s->session_ended(session_id);
  };
  hooks.on_task = [&](const lumokit::TaskRequest& task) -> Json::Value {
    example::Service* service = find_service(task.opcode);
    if (service == nullptr) {
      return example::task_error(task, example::kUnknownFunction,
                                 "opcode " + task.opcode_text + " is not served here");
    }
    if (!book.has(task.session_id, {task.opcode, task.subsystem})) {
      return example::task_error(task, example::kNotStarted,
                                 "session " + std::to_string(task.session_id) +
                                     " has not started subsystem " + std::to_string(task.subsystem));
    }
    return service->run(task);
  };
  hooks.on_permission_change = [&](const lumokit::PermissionChange& change) {
    for (example::Service* s : services) s->permission_changed(change);
  };

  lumokit::PluginOptions plugin_options;
  plugin_options.log = [](const std::string& line) { log_line("sdk: " + line); };
  lumokit::Plugin plugin(hooks, plugin_options);
  plugin_ptr = &plugin;

  try {
    plugin.connect(options.socket_path);
    plugin.init();
    for (const Registration& reg : registrations) {
      if (options.legacy) {
        plugin.register_legacy(reg.service->opcode(), reg.api_def);
      } else {
        plugin.register_auth(reg.service->opcode(), reg.api_def, reg.token);
      }
    }
    for (const Registration& reg : registrations) plugin.ready(reg.service->opcode());
  } catch (const lumokit::PluginError& e) {
    log_line(std::string("error: ") + e.what());
    return 1;
  }
  log_line("serving calculator (0x1001) and location (0x2002)");

  int status = 0;
  while (true) {
    const timespec tick{0, 200 * 1000 * 1000};
    const int sig = sigtimedwait(&signals, nullptr, &tick);
    if (sig > 0) {
      log_line(std::string("signal ") + strsignal(sig) + ": leaving the manager");
      break;
    }
    if (sig < 0 && errno != EAGAIN && errno != EINTR) {
      log_line(std::string("error: waiting for signals failed: ") + std::strerror(errno));
      status = 1;
      break;
    }
    if (!plugin.connected()) {
      log_line("the manager closed the connection");
      status = 1;
      break;
    }
  }
  if (plugin.connected()) {
    try {
      plugin.deinit();
    } catch (const lumokit::PluginError& e) {
      log_line(std::string("error: DINT failed: ") + e.what());
      status = 1;
    }
  }
  plugin.stop();
  log_line("stopped");
  return status;
}
