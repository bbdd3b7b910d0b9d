// lumokit_bench: the driver by default; "--scenario NAME" runs one scenario
// in this process; "--role ..." is a peer or plugin process of a scenario.
#include <signal.h>

#include <cstring>
#include <string>

#include "driver.h"
#include "peer_roles.h"
#include "scenarios.h"

int main(int argc, char** argv) {
  signal(SIGPIPE, SIG_IGN);
  if (argc >= 3 && std::strcmp(argv[1], "--role") == 0) return bench::run_role(argc, argv);
  if (argc == 3 && std::strcmp(argv[1], "--scenario") == 0) return bench::run_scenario_process(argv[2]);
  return bench::run_driver(argc, argv);
}
