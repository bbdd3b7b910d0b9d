// The plugin's synchronous requests: each sends one message and reads the
// manager's reply, which the receive thread routes here by its kind.
#include <limits>
#include <string>
#include <vector>

#include "lumokit/api_def.h"
#include "lumokit/plugin.h"
#include "lumokit/plugin_wire.h"
#include "plugin_impl.h"

namespace lumokit {
namespace {

std::string excerpt(const std::string& text) {
  return text.size() <= 200 ? text : text.substr(0, 200) + "...";
}

Json::Value reply_object(ReplyKind kind, const std::string& text) {
  wire::Classified c = wire::classify(text);
  if (c.kind != wire::Incoming::Json) {
    throw PluginError(PluginError::Kind::Protocol, std::string("unreadable ") +
                                                       reply_kind_name(kind) +
                                                       " reply: " + excerpt(text));
  }
  return c.message;
}

long long reply_int(ReplyKind kind, const Json::Value& reply, const char* key,
                    const std::string& text) {
  long long value = 0;
  if (!wire::read_int_member(reply, key, &value)) {
    throw PluginError(PluginError::Kind::Protocol, std::string(reply_kind_name(kind)) +
                                                       " reply has no \"" + key +
                                                       "\" number: " + excerpt(text));
  }
  return value;
}

std::string opcode_label(uint32_t opcode) {
  return wire::opcode_hex(opcode) + " (" + std::to_string(opcode) + ")";
}

// AUTH, REGS and REDY replies: "opcode" echoes our text, "result" 0 is yes.
void expect_accepted(ReplyKind kind, uint32_t opcode, const std::string& text) {
  const Json::Value reply = reply_object(kind, text);
  const Json::Value& echoed = reply["opcode"];
  if (!echoed.isString() || echoed.asString() != std::to_string(opcode)) {
    throw PluginError(PluginError::Kind::Protocol, std::string(reply_kind_name(kind)) +
                                                       " reply is for another opcode: " +
                                                       excerpt(text));
  }
  const long long result = reply_int(kind, reply, "result", text);
  if (result != 0) {
    throw PluginError(PluginError::Kind::Refused,
                      std::string(reply_kind_name(kind)) + " for opcode " + opcode_label(opcode) +
                          " refused by the manager (result " + std::to_string(result) + ")");
  }
}

}  // namespace

std::string Plugin::Impl::request(ReplyKind kind, const std::string& text) {
  return router.call(kind, [&] { send(text); }, options.reply_timeout);
}

int32_t Plugin::Impl::require_service_id(const char* what) const {
  const int32_t id = service_id.load();
  if (id < 0) {
    throw PluginError(PluginError::Kind::State, std::string(what) + " needs a service id: call init() first");
  }
  return id;
}

int32_t Plugin::init() {
  const std::string text = impl_->request(ReplyKind::Init, wire::init_request());
  const long long id = reply_int(ReplyKind::Init, reply_object(ReplyKind::Init, text),
                                 "service_id", text);
  if (id < 0) {
    throw PluginError(PluginError::Kind::Refused,
                      "INIT refused by the manager (service id " + std::to_string(id) + ")");
  }
  if (id > std::numeric_limits<int32_t>::max()) {
    throw PluginError(PluginError::Kind::Protocol, "INIT reply has an out-of-range service id: " +
                                                       excerpt(text));
  }
  impl_->service_id.store(static_cast<int32_t>(id));
  impl_->log("INIT: service id " + std::to_string(id));
  return static_cast<int32_t>(id);
}

void Plugin::register_auth(uint32_t opcode, const Json::Value& api_def, const std::string& token) {
  const int32_t sid = impl_->require_service_id("AUTH");
  std::string error;
  if (!check_api_def(api_def, opcode, &error)) {
    throw PluginError(PluginError::Kind::Invalid,
                      "API definition for opcode " + opcode_label(opcode) + ": " + error);
  }
  if (token.empty()) {
    throw PluginError(PluginError::Kind::Invalid,
                      "AUTH for opcode " + opcode_label(opcode) + " needs a token");
  }
  const std::string text =
      impl_->request(ReplyKind::Auth, wire::auth_request(sid, opcode, token, api_def));
  expect_accepted(ReplyKind::Auth, opcode, text);
  impl_->log("AUTH: opcode " + opcode_label(opcode) + " registered");
}

void Plugin::register_legacy(uint32_t opcode, const Json::Value& api_def) {
  const int32_t sid = impl_->require_service_id("REGS");
  std::string error;
  if (!check_api_def(api_def, opcode, &error)) {
    throw PluginError(PluginError::Kind::Invalid,
                      "API definition for opcode " + opcode_label(opcode) + ": " + error);
  }
  const std::string text = impl_->request(ReplyKind::Regs, wire::regs_request(sid, opcode, api_def));
  expect_accepted(ReplyKind::Regs, opcode, text);
  impl_->log("REGS: opcode " + opcode_label(opcode) + " registered without a token");
}

void Plugin::ready(uint32_t opcode) {
  const int32_t sid = impl_->require_service_id("REDY");
  const std::string text = impl_->request(ReplyKind::Redy, wire::redy_request(sid, opcode));
  expect_accepted(ReplyKind::Redy, opcode, text);
  impl_->log("REDY: opcode " + opcode_label(opcode) + " ready");
}

std::vector<bool> Plugin::permission(uint32_t session_id,
                                     const std::vector<std::string>& permissions) {
  const std::string text =
      impl_->request(ReplyKind::Permission, wire::permission_request(session_id, permissions));
  const Json::Value reply = reply_object(ReplyKind::Permission, text);
  const long long status = reply_int(ReplyKind::Permission, reply, "status", text);
  if (status != 0) {
    throw PluginError(PluginError::Kind::Refused,
                      "PERMISSION refused by the manager for session " +
                          std::to_string(session_id) + " (status " + std::to_string(status) + ")");
  }
  std::vector<bool> granted;
  std::string error;
  if (!wire::parse_perm_res(reply, &granted, &error)) {
    throw PluginError(PluginError::Kind::Protocol, "PERMISSION reply: " + error);
  }
  if (!permissions.empty() && granted.size() != permissions.size()) {
    throw PluginError(PluginError::Kind::Protocol,
                      "PERMISSION reply has " + std::to_string(granted.size()) +
                          " answers for " + std::to_string(permissions.size()) + " permissions");
  }
  return granted;
}

std::vector<std::string> Plugin::info_query(uint32_t session_id,
                                            const std::vector<std::string>& keys) {
  const std::string text =
      impl_->request(ReplyKind::InfoQuery, wire::info_query_request(session_id, keys));
  std::vector<std::string> answers;
  std::string error;
  if (!wire::parse_query_infos_res(text, &answers, &error)) {
    const wire::Classified c = wire::classify(text);
    long long status = 0;
    if (c.kind == wire::Incoming::Json && wire::read_int_member(c.message, "status", &status) &&
        status != 0) {
      throw PluginError(PluginError::Kind::Refused,
                        "INFO_QUERY refused by the manager for session " +
                            std::to_string(session_id) + " (status " + std::to_string(status) + ")");
    }
    throw PluginError(PluginError::Kind::Protocol, "INFO_QUERY reply: " + error);
  }
  if (!keys.empty() && answers.size() != keys.size()) {
    throw PluginError(PluginError::Kind::Protocol,
                      "INFO_QUERY reply has " + std::to_string(answers.size()) +
                          " answers for " + std::to_string(keys.size()) + " keys");
  }
  return answers;
}

bool Plugin::deinit() {
  const std::string text =
      impl_->request(ReplyKind::Dint, wire::dint_request(impl_->service_id.load()));
  const wire::Classified c = wire::classify(text);
  if (c.kind != wire::Incoming::Digit || (c.digit != 0 && c.digit != 1)) {
    throw PluginError(PluginError::Kind::Protocol, "unreadable DINT reply: " + excerpt(text));
  }
  impl_->service_id.store(-1);
  impl_->log(std::string("DINT: ") + (c.digit == 1 ? "left the manager" : "the manager had no record"));
  return c.digit == 1;
}

}  // namespace lumokit
