// Matching the manager's replies to the plugin's synchronous requests.
// Replies carry no request id, only their kind, so one request per kind is
// outstanding at a time: callers of a kind queue up, the receive thread
// delivers each reply to the caller of its kind. A reply that comes after
// its caller gave up is recognised by count and dropped, since the manager
// answers one plugin's requests in order.
#pragma once

#include <array>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>

namespace lumokit {

enum class ReplyKind { Init, Auth, Regs, Redy, Permission, InfoQuery, Dint, kCount };

const char* reply_kind_name(ReplyKind kind);

class ReplyRouter {
 public:
  // Runs `send` and waits for the reply of `kind`; returns its text. Throws
  // PluginError: Timeout, Disconnected, or whatever `send` throws.
  std::string call(ReplyKind kind, const std::function<void()>& send,
                   std::chrono::milliseconds timeout);

  // From the receive thread. False when no caller waits for it (a late or
  // stray reply), which is then dropped.
  bool deliver(ReplyKind kind, std::string text);

  // The connection is gone: wakes every caller with Disconnected and makes
  // later calls fail at once.
  void close(const std::string& reason);

 private:
  struct Slot {
    std::mutex turn;     // held by the one caller of this kind
    bool waiting = false;
    bool answered = false;
    int late = 0;        // replies still due to callers that timed out
    std::string reply;
  };

  std::mutex mtx_;  // guards every Slot field but `turn`, and the two below
  std::condition_variable cv_;
  bool closed_ = false;
  std::string close_reason_;
  std::array<Slot, static_cast<size_t>(ReplyKind::kCount)> slots_;
};

}  // namespace lumokit
