// The receive thread: every message of the manager is read here; replies
// go to the waiting request, probes are ignored, and everything else becomes
// a job for the event thread (plugin_hooks.cc).
#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "lumokit/plugin.h"
#include "lumokit/plugin_wire.h"
#include "plugin_impl.h"
#include "seqpacket.h"

namespace lumokit {
namespace {

std::string excerpt(const std::string& text) {
  return text.size() <= 200 ? text : text.substr(0, 200) + "...";
}

bool reply_kind_of(const std::string& req_type, ReplyKind* kind) {
  static const struct {
    const char* name;
    ReplyKind kind;
  } kKinds[] = {{"INIT", ReplyKind::Init},
                {"AUTH", ReplyKind::Auth},
                {"REGS", ReplyKind::Regs},
                {"REDY", ReplyKind::Redy},
                {"PERMISSION", ReplyKind::Permission},
                {"INFO_QUERY", ReplyKind::InfoQuery}};
  for (const auto& k : kKinds) {
    if (req_type == k.name) {
      *kind = k.kind;
      return true;
    }
  }
  return false;
}

}  // namespace

void Plugin::Impl::receive_loop(int connected_fd) {
  // One byte more than the manager ever sends, so that truncation shows.
  std::vector<char> buffer(wire::kManagerSendMax + 1);
  std::string reason;
  while (true) {
    bool truncated = false;
    const long n =
        seqpacket::receive_message(connected_fd, buffer.data(), buffer.size(), &truncated);
    if (n < 0) {
      reason = std::string("receive failed: ") + std::strerror(errno);
      break;
    }
    if (n == 0) {
      if (stopping.load()) {
        reason = "the plugin was stopped";
        break;
      }
      if (seqpacket::hung_up(connected_fd)) {
        reason = "the manager closed the connection";
        break;
      }
      log("empty message ignored");
      continue;
    }
    if (truncated) {
      log("dropped a message longer than " + std::to_string(buffer.size()) + " bytes");
      continue;
    }
    route(std::string(buffer.data(), static_cast<size_t>(n)));
  }
  log("connection closed: " + reason);
  router.close(reason);
  {
    std::lock_guard<std::mutex> lock(closed_mtx);
    closed = true;
  }
  closed_cv.notify_all();
}

void Plugin::Impl::route(const std::string& text) {
  wire::Classified c = wire::classify(text);
  ReplyKind kind = ReplyKind::kCount;
  switch (c.kind) {
    case wire::Incoming::Ping:
      return;  // a liveness probe; the manager wants no answer
    case wire::Incoming::Digit:
      if (!router.deliver(ReplyKind::Dint, text)) log("unexpected DINT reply dropped: " + excerpt(text));
      return;
    case wire::Incoming::Unreadable:
      // The information answer with several items is not JSON; any other
      // unreadable reply still goes to its caller, who then fails at once
      // with the text rather than waiting out the time limit.
      if (reply_kind_of(c.req_type, &kind)) {
        if (!router.deliver(kind, text)) {
          log(std::string("late or unexpected ") + reply_kind_name(kind) + " reply dropped");
        }
        return;
      }
      log("unreadable message dropped (" + c.error + "): " + excerpt(text));
      return;
    case wire::Incoming::Json:
      break;
  }
  if (reply_kind_of(c.req_type, &kind)) {
    if (!router.deliver(kind, text)) {
      log(std::string("late or unexpected ") + reply_kind_name(kind) + " reply dropped");
    }
    return;
  }
  std::string error;
  if (c.req_type == "start_session") {
    SessionStart start;
    if (!wire::parse_session_start(c.message, &start, &error)) {
      log("malformed start_session: " + error + ": " + excerpt(text));
      // Refuse at once rather than let the client wait for nothing.
      if (c.message["session_id"].isUInt()) {
        const uint32_t session = c.message["session_id"].asUInt();
        events.post([this, session] {
          answer("start_session answer", wire::start_session_answer(session, {}));
        });
      }
      return;
    }
    events.post([this, start] { on_session_start(start); });
  } else if (c.req_type == "end_session") {
    uint32_t session = 0;
    if (!wire::parse_end_session(c.message, &session, &error)) {
      log("malformed end_session: " + error + ": " + excerpt(text));
      return;
    }
    events.post([this, session] { on_session_end(session); });
  } else if (c.req_type == "permission_change") {
    PermissionChange change;
    if (!wire::parse_permission_change(c.message, &change, &error)) {
      log("malformed permission_change: " + error + ": " + excerpt(text));
      return;
    }
    events.post([this, change] { on_permission_change(change); });
  } else if (wire::is_task_request(c.message)) {
    events.post([this, msg = std::move(c.message)] { on_task(msg); });
  } else {
    log("message of unknown kind dropped: " + excerpt(text));
  }
}

}  // namespace lumokit
