// What the example plugin's services have in common: the interface the
// plugin's main loop drives, the questions they may ask about a client, and
// the shape of their task answers.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include <json/json.h>

#include "lumokit/plugin_types.h"

namespace example {

// Task answer "status" values.
enum Status : int {
  kOk = 0,
  kBadArguments = -1,
  kUnknownFunction = -2,
  kOverflow = -3,
  kPermissionDenied = -4,
  kNotStarted = -5,
  kQueryFailed = -6,
};

// Questions about the client of a session, answered by the manager.
struct ClientQueries {
  std::function<std::vector<bool>(uint32_t session, const std::vector<std::string>& perms)>
      permission;
  std::function<std::vector<std::string>(uint32_t session, const std::vector<std::string>& keys)>
      info_query;
};

class Service {
 public:
  virtual ~Service() = default;
  virtual uint32_t opcode() const = 0;
  // Also the base name of its API definition and token files.
  virtual const char* name() const = 0;
  // Answer members for one task of a session that started this service.
  virtual Json::Value run(const lumokit::TaskRequest& task) = 0;
  virtual void session_ended(uint32_t /*session_id*/) {}
  virtual void permission_changed(const lumokit::PermissionChange& /*change*/) {}
};

// {"opcode", "subsys_id", "name", "status"} of an answer to `task`.
Json::Value task_result(const lumokit::TaskRequest& task, Status status);
// The same with "error": `message`.
Json::Value task_error(const lumokit::TaskRequest& task, Status status, const std::string& message);

}  // namespace example
