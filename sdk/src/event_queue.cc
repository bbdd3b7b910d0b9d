#include "event_queue.h"

#include <utility>

namespace lumokit {

EventQueue::~EventQueue() {
  stop();
  join();
}

void EventQueue::start() {
  std::lock_guard<std::mutex> lock(mtx_);
  if (thread_.joinable()) return;
  thread_ = std::thread([this] { run(); });
  thread_id_ = thread_.get_id();
}

void EventQueue::post(std::function<void()> job) {
  std::lock_guard<std::mutex> lock(mtx_);
  if (stopping_) return;
  jobs_.push_back(std::move(job));
  cv_.notify_one();
}

void EventQueue::stop() {
  std::lock_guard<std::mutex> lock(mtx_);
  stopping_ = true;
  jobs_.clear();
  cv_.notify_one();
}

void EventQueue::join() {
  if (on_queue_thread()) return;
  std::thread thread;
  {
    std::lock_guard<std::mutex> lock(mtx_);
    thread = std::move(thread_);
  }
  if (thread.joinable()) thread.join();
}

bool EventQueue::on_queue_thread() const {
  return std::this_thread::get_id() == thread_id_;
}

void EventQueue::run() {
  while (true) {
    std::function<void()> job;
    {
      std::unique_lock<std::mutex> lock(mtx_);
      cv_.wait(lock, [this] { return stopping_ || !jobs_.empty(); });
      if (stopping_) return;
      job = std::move(jobs_.front());
      jobs_.pop_front();
    }
    job();
  }
}

}  // namespace lumokit
