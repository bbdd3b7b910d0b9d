#include "service.h"

namespace example {

Json::Value task_result(const lumokit::TaskRequest& task, Status status) {
  Json::Value result(Json::objectValue);
  result["opcode"] = task.opcode_text;
  result["subsys_id"] = task.subsystem;
  result["name"] = task.function;
  result["status"] = static_cast<int>(status);
  return result;
}

Json::Value task_error(const lumokit::TaskRequest& task, Status status, const std::string& message) {
  Json::Value result = task_result(task, status);
  result["error"] = message;
  return result;
}

}  // namespace example
