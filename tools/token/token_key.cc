#include "token_key.h"

#include <fcntl.h>
#include <openssl/bio.h>
#include <openssl/bn.h>
#include <openssl/core_names.h>
#include <openssl/decoder.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace lumokit::token {
namespace {

constexpr int kKeyBits = 2048;
constexpr unsigned long kPublicExponent = 65537;

struct BioDeleter {
  void operator()(BIO* bio) const { BIO_free(bio); }
};
struct BnDeleter {
  void operator()(BIGNUM* bn) const { BN_free(bn); }
};
struct DecoderDeleter {
  void operator()(OSSL_DECODER_CTX* ctx) const { OSSL_DECODER_CTX_free(ctx); }
};
struct PkeyCtxDeleter {
  void operator()(EVP_PKEY_CTX* ctx) const { EVP_PKEY_CTX_free(ctx); }
};
using BnPtr = std::unique_ptr<BIGNUM, BnDeleter>;

BnPtr bn_param(const EVP_PKEY* key, const char* name) {
  BIGNUM* bn = nullptr;
  if (EVP_PKEY_get_bn_param(key, name, &bn) != 1) return nullptr;
  return BnPtr(bn);
}

bool check_shape(const EVP_PKEY* key, KeyUse use, const std::string& path, std::string* error) {
  if (!EVP_PKEY_is_a(key, "RSA")) {
    *error = path + ": not an RSA key";
    return false;
  }
  if (EVP_PKEY_get_bits(key) != kKeyBits) {
    *error =
        path + ": a " + std::to_string(EVP_PKEY_get_bits(key)) + "-bit key; tokens need RSA-2048";
    return false;
  }
  BnPtr e = bn_param(key, OSSL_PKEY_PARAM_RSA_E);
  if (!e || !BN_is_word(e.get(), kPublicExponent)) {
    *error = path + ": the public exponent must be 65537";
    return false;
  }
  if (use == KeyUse::kSigning && !bn_param(key, OSSL_PKEY_PARAM_RSA_D)) {
    *error = path + ": holds a public key; signing needs the private key";
    return false;
  }
  return true;
}

std::string to_upper_hex(const unsigned char* bytes, size_t size) {
  static const char kDigits[] = "0123456789ABCDEF";
  std::string hex;
  hex.reserve(2 * size);
  for (size_t i = 0; i < size; ++i) {
    hex.push_back(kDigits[bytes[i] >> 4]);
    hex.push_back(kDigits[bytes[i] & 0x0F]);
  }
  return hex;
}

}  // namespace

std::string crypto_error(const std::string& fallback) {
  unsigned long code = ERR_get_error();
  ERR_clear_error();
  if (code == 0) return fallback;
  char text[256];
  ERR_error_string_n(code, text, sizeof(text));
  return text;
}

KeyPtr load_key(const std::string& pem_path, KeyUse use, std::string* error) {
  std::unique_ptr<BIO, BioDeleter> bio(BIO_new_file(pem_path.c_str(), "r"));
  if (!bio) {
    const int open_errno = errno;
    ERR_clear_error();
    *error = pem_path + ": cannot open: " + std::strerror(open_errno);
    return nullptr;
  }
  EVP_PKEY* raw = nullptr;
  // Selection 0 takes whatever key the file holds; check_shape then says
  // precisely what is wrong with it (a public key given for signing, say).
  std::unique_ptr<OSSL_DECODER_CTX, DecoderDeleter> decoder(
      OSSL_DECODER_CTX_new_for_pkey(&raw, "PEM", nullptr, nullptr, 0, nullptr, nullptr));
  if (!decoder) {
    *error = "cannot set up the PEM decoder: " + crypto_error("unknown error");
    return nullptr;
  }
  // An empty pass phrase: an encrypted key fails here instead of prompting.
  OSSL_DECODER_CTX_set_passphrase(decoder.get(), reinterpret_cast<const unsigned char*>(""), 0);
  if (OSSL_DECODER_from_bio(decoder.get(), bio.get()) != 1 || raw == nullptr) {
    *error = pem_path + ": no unencrypted key in PEM form (" +
             crypto_error("unrecognised content") + ")";
    EVP_PKEY_free(raw);
    return nullptr;
  }
  KeyPtr key(raw);
  if (!check_shape(key.get(), use, pem_path, error)) return nullptr;
  return key;
}

bool generate_key_file(const std::string& pem_path, std::string* error) {
  std::unique_ptr<EVP_PKEY_CTX, PkeyCtxDeleter> ctx(
      EVP_PKEY_CTX_new_from_name(nullptr, "RSA", nullptr));
  BnPtr e(BN_new());
  EVP_PKEY* raw = nullptr;
  if (!ctx || !e || BN_set_word(e.get(), kPublicExponent) != 1 ||
      EVP_PKEY_keygen_init(ctx.get()) != 1 ||
      EVP_PKEY_CTX_set_rsa_keygen_bits(ctx.get(), kKeyBits) != 1 ||
      EVP_PKEY_CTX_set1_rsa_keygen_pubexp(ctx.get(), e.get()) != 1 ||
      EVP_PKEY_generate(ctx.get(), &raw) != 1) {
    *error = "key generation failed: " + crypto_error("unknown error");
    return false;
  }
  KeyPtr key(raw);

  const int fd = open(pem_path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
  if (fd < 0) {
    *error = pem_path + ": cannot create: " + std::strerror(errno);
    return false;
  }
  FILE* file = fdopen(fd, "w");
  if (file == nullptr) {
    *error = pem_path + ": cannot write: " + std::strerror(errno);
    close(fd);
    unlink(pem_path.c_str());
    return false;
  }
  std::unique_ptr<BIO, BioDeleter> bio(BIO_new_fp(file, BIO_CLOSE));
  if (!bio) {
    fclose(file);
    unlink(pem_path.c_str());
    *error = "cannot set up output: " + crypto_error("unknown error");
    return false;
  }
  const bool written =
      PEM_write_bio_PrivateKey(bio.get(), key.get(), nullptr, nullptr, 0, nullptr, nullptr) == 1 &&
      BIO_flush(bio.get()) == 1;
  bio.reset();  // closes the file
  if (!written) {
    unlink(pem_path.c_str());
    *error = pem_path + ": writing the key failed: " + crypto_error("I/O error");
    return false;
  }
  return true;
}

bool public_key_hex(const EVP_PKEY* key, PublicKeyHex* out, std::string* error) {
  BnPtr n = bn_param(key, OSSL_PKEY_PARAM_RSA_N);
  BnPtr e = bn_param(key, OSSL_PKEY_PARAM_RSA_E);
  unsigned char modulus[1 + kKeyBits / 8];
  unsigned char exponent[3];
  if (!n || !e || BN_bn2binpad(n.get(), modulus, sizeof(modulus)) < 0 ||
      BN_bn2binpad(e.get(), exponent, sizeof(exponent)) < 0) {
    *error = "cannot read the public key: " + crypto_error("modulus or exponent out of range");
    return false;
  }
  out->modulus = to_upper_hex(modulus, sizeof(modulus));
  out->exponent = to_upper_hex(exponent, sizeof(exponent));
  return true;
}

}  // namespace lumokit::token
