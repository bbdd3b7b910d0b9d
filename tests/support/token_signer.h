// Registration tokens for tests, signed with the key the test build embeds
// (LUMOKIT_TEST_KEY_PEM). Failures throw std::runtime_error with the reason,
// which fails the calling test.
#pragma once

#include <json/json.h>

#include <cstdint>
#include <map>
#include <string>

namespace lumokit::test {

// Token text for a conformance::Token with development issuer/plugin texts
// and the given opcode -> digest entries, signed with the PEM private key.
std::string sign_token(const std::string& pem_path, const std::map<uint32_t, std::string>& op_json);
// Token text for arbitrary signed bytes (for malformed token messages).
std::string sign_bytes(const std::string& pem_path, const std::string& message);

// A token that covers `opcode` with exactly this API definition.
std::string make_token(uint32_t opcode, const Json::Value& api_def);

}  // namespace lumokit::test
