// Registration token check: a token is the hex text of an RSA signature
// (PKCS#1 v1.5, SHA-256) over a serialised conformance::Token, which maps
// each approved opcode to the SHA-1 of its compact API definition.
#include "token_verify.h"

#include <android/log.h>
#include <openssl/bn.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/objects.h>
#include <openssl/rsa.h>
#include <openssl/sha.h>

#include <climits>
#include <cstring>
#include <exception>
#include <string>

#include "Service.h"
#include "json_read.h"
#include "conformance_token.pb.h"
#include "lumokit_token_key.h"

namespace {

constexpr size_t kMinTokenChars = 512;
constexpr size_t kSignatureBytes = 256;

// A public key as libcrypto holds it, or why it could not be made.
struct VerificationKey {
  RSA* rsa = nullptr;           // null when the key is unusable
  bool install_failed = false;  // otherwise the key check failed
  std::string error;            // libcrypto's text for the failure
};

std::string last_crypto_error() {
  const unsigned long code = ERR_get_error();
  ERR_clear_error();
  if (code == 0) return "no error recorded by libcrypto";
  char text[256];  // own buffer: the shared static one is not thread-safe
  return ERR_error_string(code, text);
}

// OpenSSL's RSA_check_key wants the private factors and reports them missing
// for a key of modulus and exponent alone, which the device's libcrypto
// (BoringSSL) accepts as it is. Under OpenSSL such a key gets the EVP
// public-key validation instead, which still rejects a malformed modulus or
// exponent; BoringSSL has no such call and needs none.
bool key_is_sound(RSA* rsa) {
  if (RSA_check_key(rsa) == 1) return true;
#if defined(OPENSSL_IS_BORINGSSL)
  return false;
#else
  const unsigned long code = ERR_peek_last_error();
  if (ERR_GET_LIB(code) != ERR_LIB_RSA || ERR_GET_REASON(code) != RSA_R_VALUE_MISSING) return false;
  ERR_clear_error();

  EVP_PKEY* pkey = EVP_PKEY_new();
  bool sound = false;
  if (pkey != nullptr && EVP_PKEY_set1_RSA(pkey, rsa) == 1) {
    EVP_PKEY_CTX* ctx = EVP_PKEY_CTX_new(pkey, nullptr);
    sound = ctx != nullptr && EVP_PKEY_public_check(ctx) == 1;
    EVP_PKEY_CTX_free(ctx);
  }
  EVP_PKEY_free(pkey);
  return sound;
#endif
}

VerificationKey build_key(const char* modulus_hex, const char* exponent_hex) {
  VerificationKey key;
  BIGNUM* n = nullptr;
  BIGNUM* e = nullptr;
  BN_hex2bn(&n, modulus_hex);
  BN_hex2bn(&e, exponent_hex);
  RSA* rsa = RSA_new();
  if (rsa == nullptr || RSA_set0_key(rsa, n, e, nullptr) != 1) {
    key.install_failed = true;
    key.error = last_crypto_error();
    BN_free(n);  // not taken over by the failed install
    BN_free(e);
    RSA_free(rsa);
    return key;
  }
  if (!key_is_sound(rsa)) {
    key.error = last_crypto_error();
    RSA_free(rsa);
    return key;
  }
  key.rsa = rsa;
  return key;
}

const VerificationKey& built_in_key() {
  // Built on first use (thread-safe static initialisation) and never freed,
  // so a registration still running at exit keeps a valid key.
  static const VerificationKey* key =
      new VerificationKey(build_key(kLumokitTokenModulusHex, kLumokitTokenExponentHex));
  return *key;
}

bool is_token_space(char c) {
  auto u = static_cast<unsigned char>(c);
  return u == ' ' || (u >= 9 && u <= 13);
}

// "Token" with all white space removed, read in place when it is a string;
// otherwise as the library reads text (empty when missing or unreadable).
std::string token_text(const Json::Value& message) {
  const char* begin = nullptr;
  const char* end = nullptr;
  std::string scalar;
  const Json::Value* value = json_member(message, "Token");
  if (value == nullptr || !value->getString(&begin, &end)) {
    json_read_text(message, "Token", "", &scalar);
    begin = scalar.data();
    end = begin + scalar.size();
  }
  std::string text;
  text.reserve(static_cast<size_t>(end - begin));
  for (const char* p = begin; p != end; ++p) {
    if (!is_token_space(*p)) text.push_back(*p);
  }
  return text;
}

int hex_digit_value(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// Two characters per byte through the standard base-16 conversion; false
// when a pair holds no hex digit (the conversion throws). Two plain digits,
// the usual case, are decoded directly; anything else keeps the
// conversion's own leniency (a sign, a lone digit, a trailing odd one).
bool decode_pairs(const std::string& text, std::string* bytes) {
  bytes->clear();
  bytes->reserve(text.size() / 2 + 1);
  std::string pair;
  try {
    for (size_t i = 0; i < text.size(); i += 2) {
      const int high = hex_digit_value(text[i]);
      const int low = i + 1 < text.size() ? hex_digit_value(text[i + 1]) : -1;
      if (high >= 0 && low >= 0) {
        bytes->push_back(static_cast<char>(high << 4 | low));
        continue;
      }
      pair.assign(text, i, 2);
      bytes->push_back(static_cast<char>(std::stoul(pair, nullptr, 16) & 0xFFu));
    }
  } catch (const std::exception&) {
    return false;
  }
  return true;
}

std::string compact_json(const Json::Value& value) {
  static const Json::StreamWriterBuilder* writer = [] {
    auto* builder = new Json::StreamWriterBuilder();
    (*builder)["indentation"] = "";
    return builder;
  }();
  return Json::writeString(*writer, value);
}

std::string sha1_lower_hex(const std::string& text) {
  unsigned char digest[SHA_DIGEST_LENGTH];
  SHA1(reinterpret_cast<const unsigned char*>(text.data()), text.size(), digest);
  static const char kDigits[] = "0123456789abcdef";
  std::string hex(2 * SHA_DIGEST_LENGTH, '0');
  for (size_t i = 0; i < SHA_DIGEST_LENGTH; ++i) {
    hex[2 * i] = kDigits[digest[i] >> 4];
    hex[2 * i + 1] = kDigits[digest[i] & 0x0F];
  }
  return hex;
}

void log_error(const char* text) { __android_log_print(ANDROID_LOG_ERROR, kTagLink, "%s", text); }

// Steps before the key: the token's text decoded to bytes; false (logged)
// when it is too short or a pair holds no hex digit.
bool token_bytes(const Json::Value& message, std::string* bytes) {
  const std::string token = token_text(message);
  if (token.size() < kMinTokenChars || !decode_pairs(token, bytes)) {
    log_error("Invalid token.");
    return false;
  }
  return true;
}

// True when the key can verify; otherwise logs why.
bool key_usable(const VerificationKey& key) {
  if (key.rsa != nullptr) return true;
  __android_log_print(ANDROID_LOG_ERROR, kTagLink,
                      key.install_failed ? "Error setting public key: %s"
                                         : "Error in the public key: %s",
                      key.error.c_str());
  return false;
}

// Steps after the key: signature, opcode coverage and definition digest.
int32_t check_signed_token(const Json::Value& message, const std::string& bytes, RSA* rsa) {
  const auto* data = reinterpret_cast<const unsigned char*>(bytes.data());
  const unsigned char* signed_part = data + kSignatureBytes;
  const size_t signed_size = bytes.size() - kSignatureBytes;

  unsigned char digest[SHA256_DIGEST_LENGTH];
  SHA256(signed_part, signed_size, digest);
  if (RSA_verify(NID_sha256, digest, SHA256_DIGEST_LENGTH, data, kSignatureBytes, rsa) != 1) {
    ERR_clear_error();  // don't leave the reason on this thread's queue
    log_error("Failed to validate token authenticity.");
    return -1;
  }

  // A message that does not parse, or lacks its required fields, covers no
  // opcode: the lookup below then refuses it.
  conformance::Token parsed;
  const bool parsed_ok = signed_size <= static_cast<size_t>(INT_MAX) &&
                         parsed.ParsePartialFromArray(signed_part, static_cast<int>(signed_size)) &&
                         parsed.IsInitialized();
  if (!parsed_ok) parsed.Clear();

  // Read as the handler reads it: "0" when missing.
  std::string opcode_text;
  unsigned int opcode = 0;
  if (!json_read_text(message, "Opcode", "0", &opcode_text) ||
      string_to_uint32_validation(opcode_text, &opcode) < 0) {
    __android_log_print(ANDROID_LOG_ERROR, kTagLink, "Opcode is not valid: %s",
                        opcode_text.c_str());
    return -1;
  }
  const auto entry = parsed.op_json().find(opcode);
  if (entry == parsed.op_json().end()) {
    __android_log_print(ANDROID_LOG_ERROR, kTagLink, "Token is not valid for provided opcode: %s",
                        opcode_text.c_str());
    return -1;
  }

  static const Json::Value kNoDefinition;
  const Json::Value& api_def = message.isObject() ? message["api_def"] : kNoDefinition;
  if (sha1_lower_hex(compact_json(api_def)) != entry->second) {
    log_error("Token is not valid for provided json api definition.");
    return -1;
  }
  return 0;
}

}  // namespace

int32_t verify_registration_token(const Json::Value& message) {
  std::string bytes;
  if (!token_bytes(message, &bytes)) return -1;
  const VerificationKey& key = built_in_key();
  if (!key_usable(key)) return -2;
  return check_signed_token(message, bytes, key.rsa);
}

int32_t verify_registration_token_with_key(const Json::Value& message, const char* modulus_hex,
                                           const char* exponent_hex) {
  std::string bytes;
  if (!token_bytes(message, &bytes)) return -1;
  const VerificationKey key = build_key(modulus_hex, exponent_hex);
  const int32_t result = key_usable(key) ? check_signed_token(message, bytes, key.rsa) : -2;
  RSA_free(key.rsa);
  return result;
}
