// Command line of the example plugin.
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace example {

struct Options {
  std::string socket_path;  // default_socket_path() unless given
  std::string api_dir;      // where <service>.json files are
  std::string token_dir;    // where <service>.token files are
  // --token KEY=FILE; KEY is a service name, 0x-hex or decimal opcode.
  std::vector<std::pair<std::string, std::string>> tokens;
  bool legacy = false;
  bool help = false;
};

// $XDG_RUNTIME_DIR/lumokit/lumo, else /tmp/lumokit-<uid>/lumo.
std::string default_socket_path();
const char* usage();
// False with the reason in `error`.
bool parse_options(int argc, char** argv, Options* out, std::string* error);
// Whether a --token KEY names the service.
bool token_key_matches(const std::string& key, uint32_t opcode, const std::string& name);
// The token file for one service: --token first, then --token-dir; empty
// when neither names one.
std::string token_file(const Options& options, uint32_t opcode, const std::string& name);

}  // namespace example
