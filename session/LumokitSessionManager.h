// Client sessions: the entry points the hosting daemon calls.
#pragma once

#include <cstdint>
#include <string>

enum lumo_response_t : int32_t {
  LUMO_RESPONSE_CREATE_SESSION = 1,  // answer to create_session
  LUMO_RESPONSE_TASK = 2,            // task answer, task error or crash notice
};

typedef void (*lumo_callback)(lumo_response_t kind, uint32_t session_id, std::string text,
                              int32_t error_flag, uint32_t client_handle);

// Opens a session (session_id 0) or re-attaches one; answers once through
// `callback` with kind 1 before returning.
void create_session(std::string request, lumo_callback callback, uint32_t session_id,
                    uint32_t client_handle, int32_t pid, uint32_t uid);

// Checks one task and queues it unchanged to its plugin; errors are answered
// through `callback`, the plugin's answer later through the session's callback.
void perform_task(const std::string& request, lumo_callback callback, uint32_t session_id);

// Ends one pair (opcode and subsys non-zero) or the whole session.
// 0 done or pairs remain, 2 nothing known to end.
uint32_t cancel_session(uint32_t session_id, uint32_t opcode, uint32_t subsys);

// 1 and the client's ids when the session is known, else 0.
uint32_t find_pid_uid_session_id(uint32_t session_id, int32_t* pid, uint32_t* uid);

// Starts connecting to the system service in the background; -1 when it is
// not declared (the manager then runs without it).
int32_t getLumokitSysServiceHandle();
