#include "monitor_hub.h"

#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <memory>
#include <mutex>
#include <system_error>
#include <thread>
#include <vector>

#include "daemon_log.h"
#include "ipc/json_text.h"
#include "ipc/seqpacket.h"
#include "session_routing.h"

namespace lumokitd {

std::atomic<bool> monitors_attached{false};

namespace {

using EventPtr = std::shared_ptr<MonitorEvent>;

// Events a monitor's thread takes at once, so that the buffer's lock is
// held for a few pointer copies only.
constexpr size_t kBatchEvents = 64;
// After a batch that was not full, a monitor's thread lets events gather
// this long: on a busy manager it is then woken about once per interval
// instead of once per message, and the manager's threads find no waiter
// to wake. Lines reach a monitor at most this much later.
constexpr std::chrono::milliseconds kGatherTime(1);

struct Watcher {
  uint64_t next_seq = 0;  // the first event it has not taken
  bool stop = false;
  size_t buffer = 0;  // the buffer's size when it attached, for its greeting
};

// The buffer's lock is a leaf: nothing else is taken while it is held, and
// no event is freed under it.
struct Hub {
  std::mutex mtx;
  std::condition_variable cv;
  std::deque<EventPtr> events;  // oldest first, numbered without gaps
  uint64_t next_seq = 1;
  size_t bytes = 0;
  size_t capacity = kDefaultMonitorBuffer;
  std::vector<Watcher*> watchers;
};
// Never destroyed: manager threads may still call the tap at exit.
Hub& hub = *new Hub();

size_t cost_of(const MonitorEvent& e) { return sizeof(MonitorEvent) + e.text.size(); }

uint64_t first_seq_locked() { return hub.events.empty() ? hub.next_seq : hub.events.front()->seq; }

void drop_front_locked(std::vector<EventPtr>* dropped) {
  hub.bytes -= cost_of(*hub.events.front());
  dropped->push_back(std::move(hub.events.front()));
  hub.events.pop_front();
}

void publish(EventPtr event) {
  std::vector<EventPtr> dropped;  // freed after the unlock
  {
    std::lock_guard<std::mutex> lock(hub.mtx);
    if (hub.watchers.empty()) return;
    event->seq = hub.next_seq++;
    hub.bytes += cost_of(*event);
    hub.events.push_back(std::move(event));
    // The newest event stays even when it alone is over the limit.
    while (hub.bytes > hub.capacity && hub.events.size() > 1) drop_front_locked(&dropped);
  }
  hub.cv.notify_all();
}

// The manager's tap. Callbacks are told with the client they go to.
void on_tap(const lumo_tap_event& tap) {
  if (!monitors_watching()) return;
  uint64_t client = 0;
  if (tap.direction == LUMO_TAP_CALLBACK) {
    client = callback_client(static_cast<lumo_response_t>(tap.callback_kind), tap.session_id);
  }
  publish(std::make_shared<MonitorEvent>(event_from_tap(tap, client)));
}

void attach(Watcher* w) {
  std::lock_guard<std::mutex> lock(hub.mtx);
  w->next_seq = hub.next_seq;
  w->buffer = hub.capacity;
  hub.watchers.push_back(w);
  if (hub.watchers.size() == 1) {
    monitors_attached.store(true, std::memory_order_release);
    lumokit_set_message_tap(on_tap);
  }
}

void detach(Watcher* w) {
  std::vector<EventPtr> dropped;
  std::lock_guard<std::mutex> lock(hub.mtx);
  hub.watchers.erase(std::find(hub.watchers.begin(), hub.watchers.end(), w));
  if (!hub.watchers.empty()) return;
  lumokit_set_message_tap(nullptr);
  monitors_attached.store(false, std::memory_order_release);
  while (!hub.events.empty()) drop_front_locked(&dropped);
}

// Takes the next events for `w`; false when it is to stop. `lost` counts the
// events dropped before it could take them.
bool take_events(Watcher* w, std::vector<EventPtr>* batch, uint64_t* lost) {
  std::vector<EventPtr> dropped;
  std::unique_lock<std::mutex> lock(hub.mtx);
  hub.cv.wait(lock, [w] { return w->stop || w->next_seq < hub.next_seq; });
  if (w->stop) return false;
  const uint64_t first = first_seq_locked();
  *lost = w->next_seq < first ? first - w->next_seq : 0;
  w->next_seq += *lost;
  for (size_t i = w->next_seq - first; i < hub.events.size() && batch->size() < kBatchEvents; ++i) {
    batch->push_back(hub.events[i]);
  }
  w->next_seq += batch->size();
  // What every monitor has taken is not kept.
  uint64_t wanted = hub.next_seq;
  for (const Watcher* other : hub.watchers) wanted = std::min(wanted, other->next_seq);
  while (!hub.events.empty() && hub.events.front()->seq < wanted) drop_front_locked(&dropped);
  return true;
}

void stop_watcher(Watcher* w) {
  {
    std::lock_guard<std::mutex> lock(hub.mtx);
    w->stop = true;
  }
  hub.cv.notify_all();
}

// The monitor's writer: blocking sends, so a monitor that reads slowly
// holds up this thread only, and falls behind in the buffer.
void write_events(ClientConnection& conn, Watcher* w) {
  const int fd = conn.fd();
  auto send_line = [fd](const std::string& line) {
    if (lumokit::ipc::send_message(fd, line)) return true;
    // A line too large for the socket is left out; anything else ends it.
    return errno == EMSGSIZE;
  };
  // Only this thread moves its place on, so it is read here unlocked.
  const std::string hello = lumokit::ipc::ObjectWriter()
                                .str("op", "monitor")
                                .num("buffer", static_cast<int64_t>(w->buffer))
                                .num("seq", static_cast<int64_t>(w->next_seq))
                                .done();
  bool open = send_line(hello);
  std::vector<EventPtr> batch;
  uint64_t lost = 0;
  while (open && take_events(w, &batch, &lost)) {
    if (lost != 0) {
      open = send_line(lumokit::ipc::ObjectWriter()
                           .str("op", "lost")
                           .num("count", static_cast<int64_t>(lost))
                           .done());
    }
    for (size_t i = 0; open && i < batch.size(); ++i) open = send_line(event_line(*batch[i]));
    if (batch.size() < kBatchEvents) std::this_thread::sleep_for(kGatherTime);
    batch.clear();
  }
  // The reader learns of it from its socket.
  if (!open) conn.close_connection();
}

}  // namespace

void set_monitor_buffer(size_t bytes) {
  std::lock_guard<std::mutex> lock(hub.mtx);
  hub.capacity = std::max(bytes, kMinMonitorBuffer);
}

void record_client_call(MonitorEvent event) {
  publish(std::make_shared<MonitorEvent>(std::move(event)));
}

void serve_monitor(ClientConnection& conn) {
  const unsigned long long id = conn.id();
  Watcher watcher;
  attach(&watcher);
  std::thread writer;
  try {
    writer = std::thread(write_events, std::ref(conn), &watcher);
  } catch (const std::system_error& e) {
    log_error("admin %llu: cannot start a monitor thread: %s", id, e.what());
    detach(&watcher);
    conn.deliver(lumokit::ipc::error_message("cannot start a monitor"));
    return;
  }
  log_info("admin %llu: monitor attached", id);
  lumokit::ipc::RecvBuffer buffer;
  size_t length = 0;
  lumokit::ipc::RecvStatus status;
  do {
    status = lumokit::ipc::recv_message(conn.fd(), buffer, &length);
  } while (status == lumokit::ipc::RecvStatus::kMessage ||
           status == lumokit::ipc::RecvStatus::kTooLarge);
  stop_watcher(&watcher);
  // A writer blocked on a monitor that stopped reading is released here.
  conn.close_connection();
  writer.join();
  detach(&watcher);
  log_info("admin %llu: monitor detached", id);
}

size_t monitor_count() {
  std::lock_guard<std::mutex> lock(hub.mtx);
  return hub.watchers.size();
}

}  // namespace lumokitd
