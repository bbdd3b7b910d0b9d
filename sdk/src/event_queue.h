// The thread that runs a plugin's hooks: jobs run one at a time, in the
// order they were posted, off the receive thread so that a hook may wait for
// a reply that the receive thread has yet to read.
#pragma once

#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>

namespace lumokit {

class EventQueue {
 public:
  EventQueue() = default;
  ~EventQueue();  // stop() and join()
  EventQueue(const EventQueue&) = delete;
  EventQueue& operator=(const EventQueue&) = delete;

  void start();
  // Dropped once stop() was called.
  void post(std::function<void()> job);
  // Ends the thread after the running job; pending jobs are dropped.
  void stop();
  // Waits for the thread; a no-op on the queue's own thread.
  void join();
  bool on_queue_thread() const;

 private:
  void run();

  std::mutex mtx_;
  std::condition_variable cv_;
  std::deque<std::function<void()>> jobs_;
  bool stopping_ = false;
  std::thread thread_;
  std::thread::id thread_id_;  // written before the thread starts, then read-only
};

}  // namespace lumokit
