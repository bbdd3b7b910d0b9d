// The manager's acceptance test for an "AUTH" message, run with any key:
// lets a token be checked against a key before a plugin ships with it.
#pragma once

#include <json/json.h>
#include <openssl/evp.h>

#include <string>

namespace lumokit::token {

// True when the manager, built with `key`, would accept the message's token
// for its "Opcode" and "api_def"; otherwise *reason holds the manager's log
// text for the refusal.
bool check_auth_message(EVP_PKEY* key, const Json::Value& message, std::string* reason);

}  // namespace lumokit::token
