#include "message_fields.h"

#include "ipc/json_text.h"

namespace lumokitd {

namespace {

// False when the member is absent: then `error` is set only if required.
bool present(const Json::Value& msg, const char* name, bool required, std::string* error) {
  if (msg.isMember(name)) return true;
  if (required) *error = std::string("missing member \"") + name + "\"";
  return false;
}

std::string wrong_type(const char* name, const char* expected) {
  return std::string("member \"") + name + "\" must be " + expected;
}

}  // namespace

bool read_uint32(const Json::Value& msg, const char* name, bool required, uint32_t* out,
                 std::string* error) {
  if (!present(msg, name, required, error)) return !required;
  const Json::Value& v = msg[name];
  if (!v.isIntegral() || !v.isUInt()) {
    *error = wrong_type(name, "an unsigned 32-bit integer");
    return false;
  }
  *out = v.asUInt();
  return true;
}

bool read_int32(const Json::Value& msg, const char* name, bool required, int32_t* out,
                std::string* error) {
  if (!present(msg, name, required, error)) return !required;
  const Json::Value& v = msg[name];
  if (!v.isIntegral() || !v.isInt()) {
    *error = wrong_type(name, "a signed 32-bit integer");
    return false;
  }
  *out = v.asInt();
  return true;
}

bool read_string(const Json::Value& msg, const char* name, bool required, std::string* out,
                 std::string* error) {
  if (!present(msg, name, required, error)) return !required;
  const Json::Value& v = msg[name];
  if (!v.isString()) {
    *error = wrong_type(name, "a string");
    return false;
  }
  *out = v.asString();
  return true;
}

bool read_bool(const Json::Value& msg, const char* name, bool required, bool* out,
               std::string* error) {
  if (!present(msg, name, required, error)) return !required;
  const Json::Value& v = msg[name];
  if (!v.isBool()) {
    *error = wrong_type(name, "true or false");
    return false;
  }
  *out = v.asBool();
  return true;
}

bool read_op(const Json::Value& msg, std::string* op, std::string* error) {
  if (!msg.isObject()) {
    *error = "a request must be a JSON object";
    return false;
  }
  return read_string(msg, "op", true, op, error);
}

bool read_request(const char* data, size_t length, Json::Value* msg, std::string* op,
                  std::string* error) {
  if (!lumokit::ipc::parse_json(data, length, msg, error)) {
    *error = "request is not valid JSON: " + *error;
    return false;
  }
  return read_op(*msg, op, error);
}

}  // namespace lumokitd
