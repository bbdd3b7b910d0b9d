// The one error type the plugin SDK throws: what went wrong, by kind, with a
// message fit for a log line.
#pragma once

#include <stdexcept>
#include <string>

namespace lumokit {

class PluginError : public std::runtime_error {
 public:
  enum class Kind {
    Io,            // a socket call failed (connect, send, buffer set-up)
    Timeout,       // the manager did not answer in time
    Disconnected,  // the connection is closed or was never opened
    Protocol,      // the manager's answer could not be read, or a message is too large
    Refused,       // the manager answered and said no
    State,         // the call does not fit the plugin's state (e.g. register before init)
    Invalid,       // bad input from the caller (e.g. an API definition for another opcode)
  };

  PluginError(Kind kind, const std::string& message)
      : std::runtime_error(message), kind_(kind) {}

  Kind kind() const noexcept { return kind_; }

 private:
  Kind kind_;
};

// "io", "timeout", ... for log lines.
const char* plugin_error_kind_name(PluginError::Kind kind) noexcept;

}  // namespace lumokit
