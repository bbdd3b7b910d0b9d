// Test stand-in for the manager's end of the plugin link: a listening local
// sequenced-packet socket in a fresh directory, one accepted plugin, and
// texts sent and received exactly as given.
#pragma once

#include <chrono>
#include <optional>
#include <string>

#include <json/json.h>

namespace lumokit::test {

// Parses one JSON text strictly; null when it does not parse.
Json::Value sdk_parse_json(const std::string& text);

class SdkFakeManager {
 public:
  SdkFakeManager();
  ~SdkFakeManager();
  SdkFakeManager(const SdkFakeManager&) = delete;
  SdkFakeManager& operator=(const SdkFakeManager&) = delete;

  const std::string& socket_path() const { return socket_path_; }
  // Waits for the plugin to connect.
  bool accept_plugin(std::chrono::milliseconds timeout = std::chrono::seconds(5));
  // The next message, or nothing on timeout or when the plugin has closed.
  std::optional<std::string> receive(std::chrono::milliseconds timeout = std::chrono::seconds(5));
  // The next message read as JSON; null when there is none or it is not JSON.
  Json::Value receive_json() { return sdk_parse_json(receive().value_or("")); }
  // Sends one message as is, with no terminator.
  bool send(const std::string& text);
  void close_plugin();

 private:
  std::string dir_;
  std::string socket_path_;
  int listen_fd_ = -1;
  int plugin_fd_ = -1;
};

}  // namespace lumokit::test
