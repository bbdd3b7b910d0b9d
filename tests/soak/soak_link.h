// A lean connection to one of lumokitd's sockets for the soak: one reusable
// receive buffer per connection, since the soak reads thousands of
// messages a second.
#pragma once

#include <cstdint>
#include <string>

#include <json/json.h>

#include "ipc/seqpacket.h"

namespace lumokit::soak {

class Link {
 public:
  Link() = default;
  ~Link() { close_now(); }
  Link(const Link&) = delete;
  Link& operator=(const Link&) = delete;

  bool open(const std::string& socket_path, std::string* error);
  bool is_open() const { return fd_ >= 0; }
  void close_now();

  bool send(const std::string& text, std::string* error);
  bool send(const Json::Value& message, std::string* error);

  enum class Rx { kMessage, kNone, kClosed, kError };
  // Waits at most `timeout_ms` for one message; kMessage leaves it in `text`.
  Rx receive(int timeout_ms, std::string* text, std::string* error);

 private:
  int fd_ = -1;
  lumokit::ipc::RecvBuffer buffer_;
};

// One admin request on its own connection kept open between calls; false
// with `error` when there is no parsable answer within `timeout_ms`.
class AdminLink {
 public:
  explicit AdminLink(std::string socket_path) : path_(std::move(socket_path)) {}
  bool call(const Json::Value& request, Json::Value* reply, std::string* error,
            int timeout_ms = 10000);

 private:
  std::string path_;
  Link link_;
};

bool parse_text(const std::string& text, Json::Value* out, std::string* error);
std::string json_text(const Json::Value& value);

}  // namespace lumokit::soak
