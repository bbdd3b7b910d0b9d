// The per-plugin queue and sender over a real seqpacket pair.
#include <gtest/gtest.h>

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <thread>

#include "LumoManager.h"
#include "Service.h"

namespace {

struct Pair {
  int manager_end, plugin_end;
  Pair() {
    int fds[2];
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET, 0, fds), 0);
    manager_end = fds[0];
    plugin_end = fds[1];
    int size = 2 << 20;
    setsockopt(manager_end, SOL_SOCKET, SO_SNDBUF, &size, sizeof(size));
    setsockopt(plugin_end, SOL_SOCKET, SO_RCVBUF, &size, sizeof(size));
  }
  ~Pair() {
    close(manager_end);
    close(plugin_end);
  }
  // One message, or "<none>" when nothing arrives in time.
  std::string next(int timeout_ms = 1000) {
    pollfd p{plugin_end, POLLIN, 0};
    if (poll(&p, 1, timeout_ms) <= 0) return "<none>";
    std::string buf(1 << 20, '\0');
    ssize_t n = recv(plugin_end, &buf[0], buf.size(), 0);
    buf.resize(n > 0 ? static_cast<size_t>(n) : 0);
    return buf;
  }
};

pthread_t start_sender(const std::shared_ptr<Service>& svc) {
  pthread_t t;
  EXPECT_EQ(pthread_create(&t, nullptr, manager_send, new std::shared_ptr<Service>(svc)), 0);
  return t;
}

void stop_sender(const std::shared_ptr<Service>& svc, pthread_t t) {
  {
    std::lock_guard<std::mutex> lock(*svc->get_svc_hal_mtx());
    svc->set_svc_hal_died(true);
  }
  svc->get_svc_hal_cv()->notify_all();
  pthread_join(t, nullptr);
}

}  // namespace

TEST(OutboundQueue, OrderOneSendEachAndTheCut) {
  Pair pair;
  auto svc = std::make_shared<Service>(1, pair.manager_end, SVC_HAL_READY);
  // Queued before the sender starts: waits, then goes out in order.
  add_msg_to_queue(svc, "first");
  add_msg_to_queue(svc, "second");
  pthread_t t = start_sender(svc);
  EXPECT_EQ(pair.next(), "first");
  EXPECT_EQ(pair.next(), "second");

  const std::string exact(kPluginSendMax, 'a');
  add_msg_to_queue(svc, exact);
  EXPECT_EQ(pair.next(), exact);
  add_msg_to_queue(svc, exact + "bc");
  EXPECT_EQ(pair.next(), exact);
  // Sent as a C string: text after an embedded NUL does not go out.
  add_msg_to_queue(svc, std::string("head\0tail", 9));
  EXPECT_EQ(pair.next(), "head");
  add_msg_to_queue(nullptr, "dropped");  // no record: nothing happens
  stop_sender(svc, t);
  EXPECT_EQ(pair.next(200), "<none>");
}

TEST(OutboundQueue, NothingSentAfterDeath) {
  Pair pair;
  auto svc = std::make_shared<Service>(1, pair.manager_end, SVC_HAL_READY);
  add_msg_to_queue(svc, "queued before death");
  {
    std::lock_guard<std::mutex> lock(*svc->get_svc_hal_mtx());
    svc->set_svc_hal_died(true);
  }
  pthread_t t = start_sender(svc);  // sees the flag first and ends
  pthread_join(t, nullptr);
  add_msg_to_queue(svc, "after death");
  EXPECT_EQ(svc->get_svc_hal_queue()->size(), 1u);  // the later one was refused
  EXPECT_EQ(pair.next(200), "<none>");
}
