#include "token_check.h"

#include <climits>
#include <cstring>
#include <exception>
#include <memory>
#include <string>

#include "conformance_token.pb.h"
#include "token_key.h"
#include "token_sign.h"

namespace lumokit::token {
namespace {

constexpr size_t kMinTokenChars = 512;
constexpr size_t kSignatureBytes = 256;

struct MdCtxDeleter {
  void operator()(EVP_MD_CTX* ctx) const { EVP_MD_CTX_free(ctx); }
};

// The member as text, empty when absent or not a scalar (as the manager reads it).
std::string member_text(const Json::Value& message, const char* name) {
  if (!message.isObject()) return std::string();
  const Json::Value* value = message.find(name, name + std::strlen(name));
  if (value == nullptr || !value->isConvertibleTo(Json::stringValue)) return std::string();
  return value->asString();
}

bool decode_token(const std::string& raw, std::string* bytes, std::string* reason) {
  std::string text;
  text.reserve(raw.size());
  for (char c : raw) {
    const auto u = static_cast<unsigned char>(c);
    if (u != ' ' && (u < 9 || u > 13)) text.push_back(c);
  }
  if (text.size() < kMinTokenChars) {
    *reason = "Invalid token.";
    return false;
  }
  // The same pairwise base-16 conversion as the manager, quirks included.
  try {
    for (size_t i = 0; i < text.size(); i += 2) {
      bytes->push_back(static_cast<char>(std::stoul(text.substr(i, 2), nullptr, 16) & 0xFFu));
    }
  } catch (const std::exception&) {
    *reason = "Invalid token.";
    return false;
  }
  return true;
}

bool signature_holds(EVP_PKEY* key, const std::string& bytes) {
  std::unique_ptr<EVP_MD_CTX, MdCtxDeleter> ctx(EVP_MD_CTX_new());
  const auto* data = reinterpret_cast<const unsigned char*>(bytes.data());
  const bool ok = ctx &&
                  EVP_DigestVerifyInit(ctx.get(), nullptr, EVP_sha256(), nullptr, key) == 1 &&
                  EVP_DigestVerify(ctx.get(), data, kSignatureBytes, data + kSignatureBytes,
                                   bytes.size() - kSignatureBytes) == 1;
  crypto_error("");  // drop the failure's reason from this thread's queue
  return ok;
}

// Decimal opcode text, converted as the manager does (standard unsigned
// conversion, low 32 bits kept).
bool parse_opcode(const std::string& text, uint32_t* opcode) {
  try {
    *opcode = static_cast<uint32_t>(std::stoul(text, nullptr, 10));
  } catch (const std::exception&) {
    return false;
  }
  return true;
}

}  // namespace

bool check_auth_message(EVP_PKEY* key, const Json::Value& message, std::string* reason) {
  std::string bytes;
  if (!decode_token(member_text(message, "Token"), &bytes, reason)) return false;
  if (!signature_holds(key, bytes)) {
    *reason = "Failed to validate token authenticity.";
    return false;
  }
  conformance::Token token;
  const size_t signed_size = bytes.size() - kSignatureBytes;
  const bool parsed =
      signed_size <= static_cast<size_t>(INT_MAX) &&
      token.ParsePartialFromArray(bytes.data() + kSignatureBytes, static_cast<int>(signed_size)) &&
      token.IsInitialized();
  if (!parsed) token.Clear();

  const std::string opcode_text = member_text(message, "Opcode");
  uint32_t opcode = 0;
  if (!parse_opcode(opcode_text, &opcode)) {
    *reason = "Opcode is not valid: " + opcode_text;
    return false;
  }
  const auto entry = token.op_json().find(opcode);
  if (entry == token.op_json().end()) {
    *reason = "Token is not valid for provided opcode: " + opcode_text;
    return false;
  }
  const Json::Value api_def = message.isObject() ? message["api_def"] : Json::Value();
  if (sha1_hex(compact_api_def(api_def)) != entry->second) {
    *reason = "Token is not valid for provided json api definition.";
    return false;
  }
  return true;
}

}  // namespace lumokit::token
