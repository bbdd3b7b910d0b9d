// The plugin side of the manager's socket protocol, kept minimal: connect,
// the registration steps, and a serving loop that answers session starts,
// session ends and tasks with as little parsing as the texts allow.
#pragma once

#include <cstdint>
#include <string>

namespace bench {

// Connected SOCK_SEQPACKET socket, or -1.
int connect_seqpacket(const std::string& path);

// The "api_def" and "Token" members of an AUTH message for `opcode` (one
// subsystem, 1), with a token signed by the key the manager trusts. The text
// starts with a comma so that it can close any message head.
bool registration_members(uint32_t opcode, std::string* members, std::string* error);

// Sends one message and returns the next one that is not a probe; empty on
// failure or after `timeout_ms`.
std::string request(int fd, const std::string& text, int timeout_ms = 5000);

// The registration steps; each returns false when the manager refuses.
bool plugin_init(int fd, int* service_id);
bool plugin_auth(int fd, int service_id, uint32_t opcode, const std::string& members);
bool plugin_redy(int fd, int service_id, uint32_t opcode);
bool plugin_dint(int fd, int service_id);

// Answers every request of the manager until it closes the connection:
// session starts accepted for all pairs, session ends with success, tasks
// with an "exec_task" answer of the task text's size.
void serve(int fd);

}  // namespace bench
