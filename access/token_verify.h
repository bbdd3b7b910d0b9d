// Verification of the signed token a plugin presents with an API definition.
#pragma once

#include <cstdint>

#include <json/json.h>

// Checks "Token" of an "AUTH" message against its "Opcode" and "api_def":
// 0 verified, -1 rejected, -2 the built-in key is unusable.
int32_t verify_registration_token(const Json::Value& message);

// The same check, results and log lines with another public key, given as
// the build embeds one: the modulus and the exponent as hexadecimal texts.
// Lets a token be checked against its signer's key before a plugin ships.
int32_t verify_registration_token_with_key(const Json::Value& message, const char* modulus_hex,
                                           const char* exponent_hex);
