// One connection of the lumokit tool to the daemon (client or admin
// socket): a reader thread hands each incoming message either to the
// request waiting for it or, unasked, to a printer.
#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <thread>

#include <json/json.h>

namespace lumokit::cli {

struct Message {
  std::string raw;
  Json::Value json;
};

class DaemonLink {
 public:
  using Match = std::function<bool(const Message&)>;
  using Unasked = std::function<void(const Message&)>;

  DaemonLink() = default;
  ~DaemonLink();
  DaemonLink(const DaemonLink&) = delete;
  DaemonLink& operator=(const DaemonLink&) = delete;

  // Connects and starts the reader; `unasked` gets every message no
  // request claims (it runs on the reader thread).
  bool open(const std::string& socket_path, Unasked unasked, std::string* error);

  // Sends `text` and waits for the first message that `match` accepts.
  // False with `error` on a send failure, a closed connection or timeout.
  bool request(const std::string& text, const Match& match, std::chrono::milliseconds timeout,
               Message* out, std::string* error);
  // Waits for a message that `match` accepts without sending anything.
  bool await(const Match& match, std::chrono::milliseconds timeout, Message* out,
             std::string* error);
  bool send(const std::string& text, std::string* error);
  bool closed();

 private:
  void read_loop();
  bool wait_locked(std::unique_lock<std::mutex>& lock, std::chrono::milliseconds timeout,
                   Message* out, std::string* error);

  int fd_ = -1;
  std::thread reader_;
  Unasked unasked_;
  std::mutex mtx_;
  std::condition_variable cv_;
  const Match* match_ = nullptr;  // the active waiter, if any
  bool matched_ = false;
  Message slot_;
  bool closed_ = false;
};

// Matches a direct reply: op `op` or an error.
DaemonLink::Match reply_to(const std::string& op);
// Matches the create_session answer carrying `handle`, or an error.
DaemonLink::Match session_answer(uint32_t handle);
// Matches the answer to task `transac_id` of `session_id`, or an error.
DaemonLink::Match task_answer(uint32_t session_id, uint32_t transac_id);

}  // namespace lumokit::cli
