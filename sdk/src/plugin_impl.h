// State of one plugin connection, shared by the Plugin's source files:
// plugin.cc (life of the connection), plugin_requests.cc (the synchronous
// requests), plugin_receive.cc (the receive thread) and plugin_hooks.cc (the
// hooks on the event thread).
#pragma once

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>

#include "event_queue.h"
#include "lumokit/plugin.h"
#include "lumokit/plugin_wire.h"
#include "reply_router.h"

namespace lumokit {

struct Plugin::Impl {
  Impl(PluginHooks h, PluginOptions o) : hooks(std::move(h)), options(std::move(o)) {}

  const PluginHooks hooks;
  const PluginOptions options;

  // The socket: -1 before connect and after stop. Sends hold send_mtx, so a
  // send never races the close in stop().
  std::mutex send_mtx;
  int fd = -1;
  // What the manager accepts from us at most; grows once we have answered
  // a session start (the manager grows its buffer at that point).
  size_t send_limit = wire::kManagerRecvInitial;

  ReplyRouter router;
  EventQueue events;
  std::mutex threads_mtx;  // starting and joining the threads
  std::thread receiver;
  std::atomic<bool> started{false};
  std::atomic<bool> stopping{false};
  std::atomic<int32_t> service_id{-1};

  // Set when the receive thread has ended.
  std::mutex closed_mtx;
  std::condition_variable closed_cv;
  bool closed = false;

  std::mutex log_mtx;
  void log(const std::string& line);

  // Sends one message; PluginError(Disconnected / Io / Protocol) on failure.
  void send(const std::string& text);
  // Sends `text` and waits for the reply of `kind`.
  std::string request(ReplyKind kind, const std::string& text);
  int32_t require_service_id(const char* what) const;

  void start_threads(int connected_fd);
  void receive_loop(int connected_fd);
  void route(const std::string& text);
  void on_session_start(const SessionStart& start);
  void on_session_end(uint32_t session_id);
  void on_task(const Json::Value& message);
  void on_permission_change(const PermissionChange& change);
  // Sends an answer from the event thread, where a failure can only be logged.
  void answer(const std::string& what, const std::string& text);
};

}  // namespace lumokit
