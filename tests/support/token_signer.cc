#include "token_signer.h"

#include <stdexcept>

#include "token_key.h"
#include "token_sign.h"

namespace lumokit::test {
namespace {

lumokit::token::KeyPtr signing_key(const std::string& pem_path) {
  std::string error;
  lumokit::token::KeyPtr key =
      lumokit::token::load_key(pem_path, lumokit::token::KeyUse::kSigning, &error);
  if (!key) throw std::runtime_error("token signing key: " + error);
  return key;
}

}  // namespace

std::string sign_token(const std::string& pem_path,
                       const std::map<uint32_t, std::string>& op_json) {
  lumokit::token::TokenContent content;
  content.op_json = op_json;
  std::string token, error;
  if (!lumokit::token::sign_token(signing_key(pem_path).get(), content, &token, &error)) {
    throw std::runtime_error(error);
  }
  return token;
}

std::string sign_bytes(const std::string& pem_path, const std::string& message) {
  std::string token, error;
  if (!lumokit::token::sign_bytes(signing_key(pem_path).get(), message, &token, &error)) {
    throw std::runtime_error(error);
  }
  return token;
}

std::string make_token(uint32_t opcode, const Json::Value& api_def) {
  return sign_token(LUMOKIT_TEST_KEY_PEM,
                    {{opcode, lumokit::token::sha1_hex(lumokit::token::compact_api_def(api_def))}});
}

}  // namespace lumokit::test
