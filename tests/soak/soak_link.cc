#include "soak_link.h"

#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "ipc/json_text.h"
#include "soak_clock.h"

namespace lumokit::soak {

bool parse_text(const std::string& text, Json::Value* out, std::string* error) {
  return lumokit::ipc::parse_json(text, out, error);
}

std::string json_text(const Json::Value& value) { return lumokit::ipc::write_json(value); }

bool Link::open(const std::string& socket_path, std::string* error) {
  close_now();
  fd_ = lumokit::ipc::connect_seqpacket(socket_path, error);
  return fd_ >= 0;
}

void Link::close_now() {
  if (fd_ >= 0) ::close(fd_);
  fd_ = -1;
}

bool Link::send(const std::string& text, std::string* error) {
  if (fd_ < 0) {
    *error = "not connected";
    return false;
  }
  if (!lumokit::ipc::send_message(fd_, text)) {
    *error = std::string("send: ") + std::strerror(errno);
    return false;
  }
  return true;
}

bool Link::send(const Json::Value& message, std::string* error) {
  return send(json_text(message), error);
}

Link::Rx Link::receive(int timeout_ms, std::string* text, std::string* error) {
  if (fd_ < 0) {
    *error = "not connected";
    return Rx::kError;
  }
  pollfd p{fd_, POLLIN, 0};
  int rc = poll(&p, 1, timeout_ms);
  if (rc == 0) return Rx::kNone;
  if (rc < 0) {
    if (errno == EINTR) return Rx::kNone;
    *error = std::string("poll: ") + std::strerror(errno);
    return Rx::kError;
  }
  size_t length = 0;
  switch (lumokit::ipc::recv_message(fd_, buffer_, &length)) {
    case lumokit::ipc::RecvStatus::kMessage:
      text->assign(buffer_.data.get(), length);
      return Rx::kMessage;
    case lumokit::ipc::RecvStatus::kClosed:
      return Rx::kClosed;
    case lumokit::ipc::RecvStatus::kTooLarge:
      *error = "message of " + std::to_string(length) + " bytes is too large";
      return Rx::kError;
    case lumokit::ipc::RecvStatus::kError:
      break;
  }
  *error = std::string("recv: ") + std::strerror(errno);
  return Rx::kError;
}

bool AdminLink::call(const Json::Value& request, Json::Value* reply, std::string* error,
                     int timeout_ms) {
  // A connection that failed once is replaced, so one bad call does not
  // poison the next.
  if (!link_.is_open() && !link_.open(path_, error)) return false;
  if (!link_.send(request, error)) {
    link_.close_now();
    return false;
  }
  const int64_t deadline = mono_ns() + static_cast<int64_t>(timeout_ms) * kMs;
  std::string text;
  for (;;) {
    const int64_t left_ms = (deadline - mono_ns()) / kMs;
    if (left_ms <= 0) {
      *error = "no admin answer within " + std::to_string(timeout_ms) + " ms";
      link_.close_now();
      return false;
    }
    switch (link_.receive(static_cast<int>(left_ms), &text, error)) {
      case Link::Rx::kMessage:
        if (!parse_text(text, reply, error)) {
          link_.close_now();
          return false;
        }
        return true;
      case Link::Rx::kNone:
        continue;
      case Link::Rx::kClosed:
        *error = "the daemon closed the admin connection";
        link_.close_now();
        return false;
      case Link::Rx::kError:
        link_.close_now();
        return false;
    }
  }
}

}  // namespace lumokit::soak
