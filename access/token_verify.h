// Verification of the signed token a plugin presents with an API definition.
#pragma once

#include <cstdint>

#include <json/json.h>

// Checks "Token" of an "AUTH" message against its "Opcode" and "api_def":
// 0 verified, -1 rejected, -2 the built-in key is unusable.
int32_t verify_registration_token(const Json::Value& message);
