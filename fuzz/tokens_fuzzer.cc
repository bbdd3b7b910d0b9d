// Arbitrary "Token", "Opcode" and "api_def" values through the token check.
// Input: opcode text, a newline, token text, a newline, api_def JSON text.
#include <cstdlib>
#include <string>

#include <android/log.h>
#include <lumokit/host_platform.h>

#include "json_read.h"
#include "token_verify.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  lumokit::host::set_log_min_priority(ANDROID_LOG_SILENT);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string input(reinterpret_cast<const char*>(data), size);
  const size_t first = input.find('\n');
  const size_t second = first == std::string::npos ? std::string::npos : input.find('\n', first + 1);
  Json::Value message(Json::objectValue);
  message["req_type"] = "AUTH";
  message["Opcode"] = input.substr(0, first);
  if (first != std::string::npos) message["Token"] = input.substr(first + 1, second - first - 1);
  if (second != std::string::npos) {
    const std::string def = input.substr(second + 1);
    Json::CharReaderBuilder builder;
    std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    Json::Value parsed;
    if (parse_json_safely(*reader, def.data(), def.data() + def.size(), &parsed, nullptr)) {
      message["api_def"] = parsed;
    } else {
      message["api_def"] = def;
    }
  }
  const int32_t result = verify_registration_token(message);
  // Nothing but a signature made with the development key can pass, and the
  // built-in key itself is sound.
  if (result != 0 && result != -1) abort();
  return 0;
}
