#include "daemon_link.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <exception>
#include <cstring>

#include "ipc/json_text.h"
#include "ipc/seqpacket.h"

namespace lumokit::cli {

namespace {

// Value's own == also compares the stored type (int vs uint), so numbers
// are compared by value here.
bool number_is(const Json::Value& v, int64_t n) { return v.isIntegral() && v.asInt64() == n; }

}  // namespace

DaemonLink::~DaemonLink() {
  if (fd_ >= 0) shutdown(fd_, SHUT_RDWR);
  if (reader_.joinable()) reader_.join();
  if (fd_ >= 0) close(fd_);
}

bool DaemonLink::open(const std::string& socket_path, Unasked unasked, std::string* error) {
  fd_ = lumokit::ipc::connect_seqpacket(socket_path, error);
  if (fd_ < 0) return false;
  unasked_ = std::move(unasked);
  reader_ = std::thread(&DaemonLink::read_loop, this);
  return true;
}

void DaemonLink::read_loop() {
  lumokit::ipc::RecvBuffer buffer;
  for (;;) {
    size_t length = 0;
    auto status = lumokit::ipc::recv_message(fd_, buffer, &length);
    if (status != lumokit::ipc::RecvStatus::kMessage) break;
    Message msg;
    msg.raw.assign(buffer.data.get(), length);
    std::string error;
    if (!lumokit::ipc::parse_json(msg.raw, &msg.json, &error)) msg.json = Json::Value();
    std::unique_lock<std::mutex> lock(mtx_);
    if (match_ != nullptr && !matched_ && (*match_)(msg)) {
      slot_ = std::move(msg);
      matched_ = true;
      cv_.notify_all();
      continue;
    }
    lock.unlock();
    if (!unasked_) continue;
    try {
      unasked_(msg);
    } catch (const std::exception& e) {
      // A message of an unexpected shape must not end the reader.
      std::fprintf(stderr, "lumokit: cannot show a message from the daemon: %s\n", e.what());
    }
  }
  std::lock_guard<std::mutex> lock(mtx_);
  closed_ = true;
  cv_.notify_all();
}

bool DaemonLink::wait_locked(std::unique_lock<std::mutex>& lock, std::chrono::milliseconds timeout,
                             Message* out, std::string* error) {
  bool done = cv_.wait_for(lock, timeout, [this] { return matched_ || closed_; });
  match_ = nullptr;
  if (matched_) {
    *out = std::move(slot_);
    matched_ = false;
    return true;
  }
  *error = done ? "the daemon closed the connection" : "no answer within " +
                                                           std::to_string(timeout.count()) + " ms";
  return false;
}

bool DaemonLink::request(const std::string& text, const Match& match,
                         std::chrono::milliseconds timeout, Message* out, std::string* error) {
  std::unique_lock<std::mutex> lock(mtx_);
  match_ = &match;
  matched_ = false;
  lock.unlock();
  if (!send(text, error)) {
    lock.lock();
    match_ = nullptr;
    return false;
  }
  lock.lock();
  return wait_locked(lock, timeout, out, error);
}

bool DaemonLink::await(const Match& match, std::chrono::milliseconds timeout, Message* out,
                       std::string* error) {
  std::unique_lock<std::mutex> lock(mtx_);
  match_ = &match;
  matched_ = false;
  return wait_locked(lock, timeout, out, error);
}

bool DaemonLink::send(const std::string& text, std::string* error) {
  if (!lumokit::ipc::send_message(fd_, text)) {
    *error = std::string("cannot send to the daemon: ") + std::strerror(errno);
    return false;
  }
  return true;
}

bool DaemonLink::closed() {
  std::lock_guard<std::mutex> lock(mtx_);
  return closed_;
}

DaemonLink::Match reply_to(const std::string& op) {
  return [op](const Message& m) {
    if (!m.json.isObject()) return false;
    const Json::Value& got = m.json["op"];
    return got.isString() && (got.asString() == op || got.asString() == "error");
  };
}

DaemonLink::Match session_answer(uint32_t handle) {
  return [handle](const Message& m) {
    const Json::Value& j = m.json;
    if (!j.isObject()) return false;
    if (j["op"] == "error") return true;
    return j["op"] == "callback" && number_is(j["kind"], 1) && number_is(j["handle"], handle);
  };
}

DaemonLink::Match task_answer(uint32_t session_id, uint32_t transac_id) {
  return [session_id, transac_id](const Message& m) {
    const Json::Value& j = m.json;
    if (!j.isObject()) return false;
    if (j["op"] == "error") return true;
    if (j["op"] != "callback" || !number_is(j["kind"], 2) || !number_is(j["session_id"], session_id)) {
      return false;
    }
    // A crash notice is not the task's answer; requests the manager cannot
    // read are answered with handle 0.
    if (number_is(j["error"], 1)) return false;
    return number_is(j["handle"], transac_id) || number_is(j["handle"], 0);
  };
}

}  // namespace lumokit::cli
