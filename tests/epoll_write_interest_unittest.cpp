// Producers asking for write interest once per queued event while the loop
// keeps dropping it whenever it finds nothing left: whatever the timing, no
// queued event is ever left waiting without EPOLLOUT, and a connection that
// is gone is never reported as still watched.

#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "support/log_capture.h"
#include "utils/kavo_bpf_epoll_manager.h"
#include "support/wait_until.h"

namespace {

using namespace std::chrono_literals;
using kavo::test::WaitUntil;

cpu_set_t AllCpus() {
  cpu_set_t cpus;
  sched_getaffinity(0, sizeof(cpus), &cpus);
  return cpus;
}

// One watched socket whose write callback takes everything "queued" so far,
// and reports -3 when it found nothing, as the service's callback does.
struct Connection {
  explicit Connection(EpollManager* manager, int wantFd = -1) {
    socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, fds);
    if (wantFd >= 0) {
      // A descriptor number past the manager's lock-free slots.
      struct rlimit limit;
      getrlimit(RLIMIT_NOFILE, &limit);
      if (limit.rlim_cur <= static_cast<rlim_t>(wantFd) && limit.rlim_max > static_cast<rlim_t>(wantFd)) {
        limit.rlim_cur = static_cast<rlim_t>(wantFd) + 1;
        setrlimit(RLIMIT_NOFILE, &limit);
      }
      dup2(fds[0], wantFd);
      close(fds[0]);
      fds[0] = wantFd;
    }
    EpollCallback callbacks;
    callbacks.writeCallback = [this](epoll_event) {
      const uint64_t taken = queued.exchange(0);
      delivered += taken;
      return taken != 0 ? 0 : -3;
    };
    added = manager->addMonitorFd(fds[0], callbacks);
  }
  ~Connection() {
    for (int fd : fds) close(fd);
  }
  int fd() const { return fds[0]; }

  int fds[2] = {-1, -1};
  bool added = false;
  std::atomic<uint64_t> queued{0};
  std::atomic<uint64_t> delivered{0};
};

TEST(EpollWriteInterest, EveryQueuedEventIsWrittenHoweverTheAsksAndFinishesInterleave) {
  auto manager = std::make_unique<EpollManager>(10, 32, nullptr, "EpollRace", AllCpus(), -1);
  Connection small(manager.get()), large(manager.get(), 1500);
  ASSERT_TRUE(small.added);
  ASSERT_TRUE(large.added);
  manager->start();

  // Two producers, like the two ring monitors, each event queued then asked
  // for; bursts and pauses so that the loop often finds the queue empty.
  constexpr uint64_t kEvents = 200000;
  auto produce = [&manager](Connection* connection) {
    for (uint64_t i = 1; i <= kEvents; ++i) {
      ++connection->queued;
      ASSERT_TRUE(manager->notifyWriteEventReady(connection->fd()));
      if (i % 512 == 0) std::this_thread::sleep_for(std::chrono::microseconds(i % 3 * 50));
    }
  };
  std::vector<std::thread> producers;
  for (Connection* connection : {&small, &small, &large, &large}) producers.emplace_back(produce, connection);
  for (std::thread& producer : producers) producer.join();

  EXPECT_TRUE(WaitUntil([&] { return small.delivered == 2 * kEvents; }, 10s, 1ms)) << small.delivered;
  EXPECT_TRUE(WaitUntil([&] { return large.delivered == 2 * kEvents; }, 10s, 1ms)) << large.delivered;
  manager.reset();  // the loop ends before the connections it calls back go
}

TEST(EpollWriteInterest, AConnectionRemovedWhileWatchedForWritingIsGone) {
  kavo::test::LogCapture log;
  auto manager = std::make_unique<EpollManager>(10, 32, nullptr, "EpollGone", AllCpus(), -1);
  // Never started: EPOLLOUT, once on, stays on.
  Connection connection(manager.get());
  ASSERT_TRUE(manager->notifyWriteEventReady(connection.fd()));
  ASSERT_TRUE(manager->notifyWriteEventReady(connection.fd()));  // already on
  ASSERT_TRUE(manager->delMonitorFd(connection.fd()));
  EXPECT_FALSE(manager->notifyWriteEventReady(connection.fd()));
  EXPECT_EQ(1u, log.Count("[EpollManager][notifyWriteEventReady] the socket fd does not exist", ANDROID_LOG_ERROR));

  // The same descriptor number watched again starts without write interest:
  // its first ask must reach epoll, or it would never be written.
  EpollCallback callbacks;
  std::atomic<int> writes{0};
  callbacks.writeCallback = [&writes](epoll_event) {
    ++writes;
    return -3;
  };
  ASSERT_TRUE(manager->addMonitorFd(connection.fd(), callbacks));
  manager->start();
  std::this_thread::sleep_for(50ms);
  EXPECT_EQ(0, writes.load());
  ASSERT_TRUE(manager->notifyWriteEventReady(connection.fd()));
  EXPECT_TRUE(WaitUntil([&] { return writes.load() == 1; }, 10s, 1ms));
  manager.reset();
}

}  // namespace
