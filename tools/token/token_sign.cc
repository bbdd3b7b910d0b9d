#include "token_sign.h"

#include <openssl/sha.h>

#include <memory>

#include "conformance_token.pb.h"
#include "token_key.h"

namespace lumokit::token {
namespace {

constexpr size_t kSignatureBytes = 256;

struct MdCtxDeleter {
  void operator()(EVP_MD_CTX* ctx) const { EVP_MD_CTX_free(ctx); }
};

}  // namespace

std::string compact_api_def(const Json::Value& api_def) {
  Json::StreamWriterBuilder builder;
  builder["indentation"] = "";
  return Json::writeString(builder, api_def);
}

std::string to_hex(const std::string& bytes) {
  static const char kDigits[] = "0123456789abcdef";
  std::string hex;
  hex.reserve(2 * bytes.size());
  for (char c : bytes) {
    const auto b = static_cast<unsigned char>(c);
    hex.push_back(kDigits[b >> 4]);
    hex.push_back(kDigits[b & 0x0F]);
  }
  return hex;
}

std::string sha1_hex(const std::string& text) {
  unsigned char digest[SHA_DIGEST_LENGTH];
  SHA1(reinterpret_cast<const unsigned char*>(text.data()), text.size(), digest);
  return to_hex(std::string(reinterpret_cast<const char*>(digest), sizeof(digest)));
}

bool sign_bytes(EVP_PKEY* key, const std::string& message, std::string* token, std::string* error) {
  std::unique_ptr<EVP_MD_CTX, MdCtxDeleter> ctx(EVP_MD_CTX_new());
  std::string signature(kSignatureBytes, '\0');
  size_t size = signature.size();
  // RSA keys sign with PKCS#1 v1.5 padding unless told otherwise.
  if (!ctx || EVP_DigestSignInit(ctx.get(), nullptr, EVP_sha256(), nullptr, key) != 1 ||
      EVP_DigestSign(ctx.get(), reinterpret_cast<unsigned char*>(&signature[0]), &size,
                     reinterpret_cast<const unsigned char*>(message.data()), message.size()) != 1) {
    *error = "signing failed: " + crypto_error("unknown error");
    return false;
  }
  if (size != kSignatureBytes) {
    *error = "signing failed: the key made a " + std::to_string(size) +
             "-byte signature instead of 256 bytes";
    return false;
  }
  *token = to_hex(signature) + to_hex(message);
  return true;
}

bool sign_token(EVP_PKEY* key, const TokenContent& content, std::string* token,
                std::string* error) {
  conformance::Token message;
  message.set_issuer(content.issuer);
  message.set_plugin(content.plugin);
  for (const auto& entry : content.op_json)
    (*message.mutable_op_json())[entry.first] = entry.second;
  std::string bytes;
  if (!message.SerializeToString(&bytes)) {
    *error = "cannot serialise the token message";
    return false;
  }
  return sign_bytes(key, bytes, token, error);
}

}  // namespace lumokit::token
