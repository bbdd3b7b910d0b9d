// Making registration tokens: the digest of an API definition as the
// manager computes it, and the signed token text.
#pragma once

#include <json/json.h>
#include <openssl/evp.h>

#include <cstdint>
#include <map>
#include <string>

namespace lumokit::token {

// Texts put into fields 1 and 2 of tokens made for development.
inline constexpr const char* kDevIssuer = "lumokit-dev-signer";
inline constexpr const char* kDevPlugin = "lumokit-dev-plugin";

// The "api_def" value written as the manager digests it: compact JSON.
std::string compact_api_def(const Json::Value& api_def);
// SHA-1 of the text as 40 lower-case hexadecimal digits.
std::string sha1_hex(const std::string& text);
// Bytes as lower-case hexadecimal digits, two per byte.
std::string to_hex(const std::string& bytes);

struct TokenContent {
  std::string issuer = kDevIssuer;
  std::string plugin = kDevPlugin;
  std::map<uint32_t, std::string> op_json;  // opcode -> sha1_hex(compact_api_def)
};

// Token text for arbitrary signed bytes: hex of the 256-byte RSA signature
// (PKCS#1 v1.5, SHA-256) over `message`, then hex of `message`.
bool sign_bytes(EVP_PKEY* key, const std::string& message, std::string* token, std::string* error);

// Serialises the content as conformance::Token and signs it.
bool sign_token(EVP_PKEY* key, const TokenContent& content, std::string* token, std::string* error);

}  // namespace lumokit::token
