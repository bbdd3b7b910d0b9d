// RSA keys for registration tokens: loading PEM files, making new keys and
// writing the public half as the hexadecimal texts the manager embeds.
// Every key handled here is RSA-2048 with public exponent 65537.
#pragma once

#include <openssl/evp.h>

#include <memory>
#include <string>

namespace lumokit::token {

struct KeyDeleter {
  void operator()(EVP_PKEY* key) const { EVP_PKEY_free(key); }
};
using KeyPtr = std::unique_ptr<EVP_PKEY, KeyDeleter>;

enum class KeyUse {
  kSigning,       // the file must hold a private key
  kVerification,  // a private or a public key will do
};

// The key of a PEM file ("PRIVATE KEY", "RSA PRIVATE KEY" and, for
// verification, "PUBLIC KEY" or "RSA PUBLIC KEY"); null and *error set when
// the file can't be read or the key is of the wrong kind or size.
KeyPtr load_key(const std::string& pem_path, KeyUse use, std::string* error);

// Makes a new key and writes it as an unencrypted PKCS#8 PEM file readable
// by its owner only. Refuses to overwrite an existing file.
bool generate_key_file(const std::string& pem_path, std::string* error);

// The public key as the build embeds it: the modulus as 514 upper-case hex
// digits ("00" then 256 bytes) and the exponent as "010001".
struct PublicKeyHex {
  std::string modulus;
  std::string exponent;
};
bool public_key_hex(const EVP_PKEY* key, PublicKeyHex* out, std::string* error);

// libcrypto's text for the most recent error of this thread, or `fallback`.
std::string crypto_error(const std::string& fallback);

}  // namespace lumokit::token
