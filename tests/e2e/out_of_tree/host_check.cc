// The smallest hosting program: no session is known yet, and with no
// control socket handed over the manager's server refuses to start.
#include "LumoManager.h"
#include "LumokitSessionManager.h"

int main() {
  int32_t pid = 0;
  uint32_t uid = 0;
  if (find_pid_uid_session_id(1, &pid, &uid) != 0) return 1;
  return LumoServiceManagerServer::init_manager() == -1 ? 0 : 1;
}
