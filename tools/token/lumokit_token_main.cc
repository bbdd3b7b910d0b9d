// lumokit-token: makes keys, signs API definitions into registration tokens
// and checks "AUTH" messages with the manager's own verifier.
#include <android/log.h>
#include <json/json.h>
#include <lumokit/host_platform.h>

#include <cstdint>
#include <cstdio>
#include <exception>
#include <fstream>
#include <iostream>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "token_key.h"
#include "token_sign.h"
#include "token_verify.h"

namespace {

using lumokit::token::KeyPtr;
using lumokit::token::KeyUse;

constexpr int kExitOk = 0;
constexpr int kExitRefused = 1;
constexpr int kExitError = 2;

const char kUsage[] =
    "Usage: lumokit-token COMMAND OPTIONS\n"
    "\n"
    "Makes and checks the signed tokens that plugins present with \"AUTH\" registrations.\n"
    "\n"
    "Commands:\n"
    "  keygen --out PEM\n"
    "      Writes a new RSA-2048 key (public exponent 65537) as an unencrypted PKCS#8\n"
    "      PEM file readable by its owner only. An existing file is never overwritten.\n"
    "\n"
    "  sign --key PEM --opcode N --api-def FILE [--opcode N --api-def FILE ...]\n"
    "       [--issuer TEXT] [--plugin TEXT]\n"
    "      Prints the token (hexadecimal text) covering the given opcodes. The i-th\n"
    "      --opcode goes with the i-th --api-def. N is decimal (26) or hexadecimal\n"
    "      with 0x (0x1a). FILE is JSON holding either the \"api_def\" value itself\n"
    "      (normally an array) or an object with an \"api_def\" member, such as a\n"
    "      whole \"AUTH\" message. The token records the SHA-1 of that value written\n"
    "      as compact JSON, so spacing and member order in FILE do not matter.\n"
    "      --issuer and --plugin set the token's two text fields (defaults:\n"
    "      lumokit-dev-signer and lumokit-dev-plugin); the manager ignores them.\n"
    "\n"
    "  verify --key PEM --message FILE\n"
    "      FILE holds a whole \"AUTH\" message. Prints OK when a manager built with\n"
    "      this key accepts its \"Token\" for its \"Opcode\" and \"api_def\"; otherwise\n"
    "      prints the manager's reason and exits with 1.\n"
    "\n"
    "  pubkey-hex --key PEM\n"
    "      Prints the public key as the build embeds it: the modulus (514 upper-case\n"
    "      hexadecimal digits, a leading 00 then 256 bytes) on the first line, the\n"
    "      exponent (010001) on the second.\n"
    "\n"
    "keygen and sign need a private key; verify and pubkey-hex also take a public\n"
    "key (PEM \"PUBLIC KEY\" or \"RSA PUBLIC KEY\"). Keys must be RSA-2048, e=65537.\n"
    "\n"
    "Exit status: 0 success; 1 the token was refused (verify); 2 bad arguments,\n"
    "unreadable files or unusable keys.\n";

using Options = std::vector<std::pair<std::string, std::string>>;

int fail(const std::string& message) {
  std::cerr << "lumokit-token: " << message << "\n";
  return kExitError;
}

// "--name value" pairs, each name one of `allowed`; false with *error set otherwise.
bool parse_options(int argc, char** argv, const std::set<std::string>& allowed, Options* out,
                   std::string* error) {
  for (int i = 2; i < argc; i += 2) {
    const std::string name = argv[i];
    if (allowed.count(name) == 0) {
      *error = "unknown option for " + std::string(argv[1]) + ": " + name;
      return false;
    }
    if (i + 1 >= argc) {
      *error = name + " needs a value";
      return false;
    }
    out->emplace_back(name, argv[i + 1]);
  }
  return true;
}

// The single value of a required option that may be given once.
bool single(const Options& options, const std::string& name, std::string* value,
            std::string* error) {
  int seen = 0;
  for (const auto& option : options) {
    if (option.first == name) {
      *value = option.second;
      ++seen;
    }
  }
  if (seen == 1) return true;
  *error = seen == 0 ? "missing " + name : name + " given more than once";
  return false;
}

bool read_json_file(const std::string& path, Json::Value* value, std::string* error) {
  std::ifstream in(path, std::ios::binary);
  if (!in) {
    *error = path + ": cannot open";
    return false;
  }
  std::ostringstream text;
  text << in.rdbuf();
  if (in.bad()) {
    *error = path + ": read error";
    return false;
  }
  const std::string content = text.str();
  Json::CharReaderBuilder builder;
  std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  std::string parse_error;
  bool parsed;
  try {
    parsed = reader->parse(content.data(), content.data() + content.size(), value, &parse_error);
  } catch (const std::exception& e) {  // nested past the reader's depth limit
    parsed = false;
    parse_error = e.what();
  }
  if (!parsed) {
    *error = path + ": not valid JSON: " + parse_error;
    return false;
  }
  return true;
}

// Decimal, or hexadecimal after "0x"; every character must be a digit and
// the value must fit 32 bits.
bool parse_opcode(const std::string& text, uint32_t* opcode) {
  const bool hex = text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X');
  const size_t start = hex ? 2 : 0;
  if (text.size() <= start) return false;
  uint64_t value = 0;
  for (size_t i = start; i < text.size(); ++i) {
    const char c = text[i];
    int digit = -1;
    if (c >= '0' && c <= '9')
      digit = c - '0';
    else if (hex && c >= 'a' && c <= 'f')
      digit = c - 'a' + 10;
    else if (hex && c >= 'A' && c <= 'F')
      digit = c - 'A' + 10;
    if (digit < 0) return false;
    value = value * (hex ? 16 : 10) + static_cast<uint64_t>(digit);
    if (value > UINT32_MAX) return false;
  }
  *opcode = static_cast<uint32_t>(value);
  return true;
}

int run_keygen(const Options& options) {
  std::string out, error;
  if (!single(options, "--out", &out, &error)) return fail(error);
  if (!lumokit::token::generate_key_file(out, &error)) return fail(error);
  return kExitOk;
}

int run_sign(const Options& options) {
  std::string key_path, error;
  if (!single(options, "--key", &key_path, &error)) return fail(error);
  lumokit::token::TokenContent content;
  std::vector<std::string> opcodes, files;
  int issuers = 0, plugins = 0;
  for (const auto& option : options) {
    if (option.first == "--opcode")
      opcodes.push_back(option.second);
    else if (option.first == "--api-def")
      files.push_back(option.second);
    else if (option.first == "--issuer")
      content.issuer = option.second, ++issuers;
    else if (option.first == "--plugin")
      content.plugin = option.second, ++plugins;
  }
  if (issuers > 1 || plugins > 1) return fail("--issuer and --plugin may be given once each");
  if (opcodes.empty()) return fail("missing --opcode and --api-def");
  if (opcodes.size() != files.size()) {
    return fail("each --opcode needs one --api-def (got " + std::to_string(opcodes.size()) +
                " opcodes and " + std::to_string(files.size()) + " API definitions)");
  }
  for (size_t i = 0; i < opcodes.size(); ++i) {
    uint32_t opcode = 0;
    if (!parse_opcode(opcodes[i], &opcode)) {
      return fail("not an opcode (decimal or 0x-hexadecimal, 32 bits): " + opcodes[i]);
    }
    Json::Value document;
    if (!read_json_file(files[i], &document, &error)) return fail(error);
    const Json::Value& api_def =
        document.isObject() && document.isMember("api_def") ? document["api_def"] : document;
    const std::string digest = lumokit::token::sha1_hex(lumokit::token::compact_api_def(api_def));
    if (!content.op_json.emplace(opcode, digest).second) {
      return fail("opcode " + opcodes[i] + " given more than once");
    }
  }
  KeyPtr key = lumokit::token::load_key(key_path, KeyUse::kSigning, &error);
  if (!key) return fail(error);
  std::string token;
  if (!lumokit::token::sign_token(key.get(), content, &token, &error)) return fail(error);
  std::cout << token << "\n";
  return kExitOk;
}

int run_verify(const Options& options) {
  std::string key_path, message_path, error;
  if (!single(options, "--key", &key_path, &error) ||
      !single(options, "--message", &message_path, &error)) {
    return fail(error);
  }
  KeyPtr key = lumokit::token::load_key(key_path, KeyUse::kVerification, &error);
  if (!key) return fail(error);
  Json::Value message;
  if (!read_json_file(message_path, &message, &error)) return fail(error);
  if (!message.isObject()) return fail(message_path + ": not a JSON object");
  lumokit::token::PublicKeyHex hex;
  if (!lumokit::token::public_key_hex(key.get(), &hex, &error)) return fail(error);

  // The verifier's reason is its last error log line; the log itself stays
  // off the terminal.
  std::string reason;
  lumokit::host::set_log_min_priority(ANDROID_LOG_SILENT);
  const int hook = lumokit::host::add_log_hook(
      [&reason](int prio, const std::string&, const std::string& msg) {
        if (prio >= ANDROID_LOG_ERROR) reason = msg;
      });
  const int32_t result =
      verify_registration_token_with_key(message, hex.modulus.c_str(), hex.exponent.c_str());
  lumokit::host::remove_log_hook(hook);
  if (result == -2) return fail(key_path + ": " + reason);
  if (result != 0) {
    std::cout << reason << "\n";
    return kExitRefused;
  }
  std::cout << "OK\n";
  return kExitOk;
}

int run_pubkey_hex(const Options& options) {
  std::string key_path, error;
  if (!single(options, "--key", &key_path, &error)) return fail(error);
  KeyPtr key = lumokit::token::load_key(key_path, KeyUse::kVerification, &error);
  if (!key) return fail(error);
  lumokit::token::PublicKeyHex hex;
  if (!lumokit::token::public_key_hex(key.get(), &hex, &error)) return fail(error);
  std::cout << hex.modulus << "\n" << hex.exponent << "\n";
  return kExitOk;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) {
    std::cerr << kUsage;
    return kExitError;
  }
  const std::string command = argv[1];
  if (command == "--help" || command == "-h" || command == "help") {
    std::cout << kUsage;
    return kExitOk;
  }
  struct Command {
    const char* name;
    std::set<std::string> options;
    int (*run)(const Options&);
  };
  const Command commands[] = {
      {"keygen", {"--out"}, run_keygen},
      {"sign", {"--key", "--opcode", "--api-def", "--issuer", "--plugin"}, run_sign},
      {"verify", {"--key", "--message"}, run_verify},
      {"pubkey-hex", {"--key"}, run_pubkey_hex},
  };
  for (const auto& entry : commands) {
    if (command != entry.name) continue;
    Options options;
    std::string error;
    if (!parse_options(argc, argv, entry.options, &options, &error)) {
      return fail(error + " (see lumokit-token --help)");
    }
    return entry.run(options);
  }
  return fail("unknown command: " + command + " (see lumokit-token --help)");
}
