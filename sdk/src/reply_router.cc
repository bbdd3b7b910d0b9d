#include "reply_router.h"

#include "lumokit/plugin_error.h"

namespace lumokit {

const char* reply_kind_name(ReplyKind kind) {
  switch (kind) {
    case ReplyKind::Init: return "INIT";
    case ReplyKind::Auth: return "AUTH";
    case ReplyKind::Regs: return "REGS";
    case ReplyKind::Redy: return "REDY";
    case ReplyKind::Permission: return "PERMISSION";
    case ReplyKind::InfoQuery: return "INFO_QUERY";
    case ReplyKind::Dint: return "DINT";
    case ReplyKind::kCount: break;
  }
  return "?";
}

std::string ReplyRouter::call(ReplyKind kind, const std::function<void()>& send,
                              std::chrono::milliseconds timeout) {
  Slot& slot = slots_[static_cast<size_t>(kind)];
  std::lock_guard<std::mutex> turn(slot.turn);
  {
    std::lock_guard<std::mutex> lock(mtx_);
    if (closed_) {
      throw PluginError(PluginError::Kind::Disconnected,
                        std::string(reply_kind_name(kind)) + ": " + close_reason_);
    }
    slot.waiting = true;
    slot.answered = false;
    slot.reply.clear();
  }
  try {
    send();
  } catch (...) {
    std::lock_guard<std::mutex> lock(mtx_);
    slot.waiting = false;
    throw;
  }
  std::unique_lock<std::mutex> lock(mtx_);
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  cv_.wait_until(lock, deadline, [&] { return slot.answered || closed_; });
  slot.waiting = false;
  if (slot.answered) return std::move(slot.reply);
  if (closed_) {
    throw PluginError(PluginError::Kind::Disconnected, std::string(reply_kind_name(kind)) +
                                                           " got no reply: " + close_reason_);
  }
  ++slot.late;
  throw PluginError(PluginError::Kind::Timeout,
                    std::string("no ") + reply_kind_name(kind) + " reply from the manager within " +
                        std::to_string(timeout.count()) + " ms");
}

bool ReplyRouter::deliver(ReplyKind kind, std::string text) {
  Slot& slot = slots_[static_cast<size_t>(kind)];
  std::lock_guard<std::mutex> lock(mtx_);
  if (slot.late > 0) {
    --slot.late;
    return false;
  }
  if (!slot.waiting || slot.answered) return false;
  slot.reply = std::move(text);
  slot.answered = true;
  cv_.notify_all();
  return true;
}

void ReplyRouter::close(const std::string& reason) {
  std::lock_guard<std::mutex> lock(mtx_);
  if (closed_) return;
  closed_ = true;
  close_reason_ = reason;
  cv_.notify_all();
}

}  // namespace lumokit
