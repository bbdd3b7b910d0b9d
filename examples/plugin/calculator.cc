#include "calculator.h"

#include <charconv>
#include <string>
#include <vector>

#include "event_log.h"

namespace example {
namespace {

// An "int" argument's "value": a JSON integer or decimal text.
bool read_int_arg(const Json::Value& arg, int64_t* out) {
  if (!arg.isObject() || arg["type"].asString() != "int") return false;
  const Json::Value& value = arg["value"];
  if (value.isInt64()) {
    *out = value.asInt64();
    return true;
  }
  if (!value.isString()) return false;
  const std::string text = value.asString();
  const char* end = text.data() + text.size();
  auto [ptr, ec] = std::from_chars(text.data(), end, *out);
  return ec == std::errc() && ptr == end && !text.empty();
}

}  // namespace

Json::Value Calculator::run(const lumokit::TaskRequest& task) {
  const bool add = task.function == "add";
  if (task.subsystem != kCalculatorSubsystem || (!add && task.function != "multiply")) {
    return task_error(task, kUnknownFunction, "calculator has no function " + task.function +
                                                  " in subsystem " + std::to_string(task.subsystem));
  }
  if (task.args.empty()) return task_error(task, kBadArguments, task.function + " needs arguments");
  std::vector<int64_t> values;
  for (const Json::Value& arg : task.args) {
    int64_t v = 0;
    if (!read_int_arg(arg, &v)) {
      return task_error(task, kBadArguments, "arguments must be {\"type\":\"int\",\"value\":N}");
    }
    values.push_back(v);
  }
  int64_t total = values[0];
  std::string shown = std::to_string(values[0]);
  for (size_t i = 1; i < values.size(); ++i) {
    const bool overflow = add ? __builtin_add_overflow(total, values[i], &total)
                              : __builtin_mul_overflow(total, values[i], &total);
    if (overflow) return task_error(task, kOverflow, task.function + " overflows 64 bits");
    shown += ", " + std::to_string(values[i]);
  }
  log_line("calculator: session " + std::to_string(task.session_id) + " " + task.function + "(" +
           shown + ") = " + std::to_string(total));
  Json::Value result = task_result(task, kOk);
  result["return"] = Json::Int64(total);
  return result;
}

}  // namespace example
