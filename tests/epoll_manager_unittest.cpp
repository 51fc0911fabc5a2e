// The epoll loop seen from the callbacks it calls: when, with which events,
// and how the loop ends.

#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "support/log_capture.h"
#include "utils/kavo_bpf_epoll_manager.h"

namespace {

using namespace std::chrono_literals;

cpu_set_t Cpu0() {
  cpu_set_t cpus;
  CPU_ZERO(&cpus);
  CPU_SET(0, &cpus);
  return cpus;
}

// A socket pair, one end watched by a manager whose callbacks log each call
// as "<callback>:<event mask>".
struct Watched {
  Watched() { socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, fds); }
  ~Watched() {
    manager.reset();
    for (int fd : fds) close(fd);
  }
  EpollEventCallback Logging(const std::string& name, std::function<int()> result) {
    return [this, name, result](epoll_event event) {
      std::lock_guard<std::mutex> guard(mutex);
      calls.push_back(name + ":" + std::to_string(event.events));
      return result();
    };
  }
  bool WaitForCalls(size_t count) {
    for (int i = 0; i < 10000; ++i, std::this_thread::sleep_for(1ms)) {
      if (Calls().size() >= count) return true;
    }
    return false;
  }
  std::vector<std::string> Calls() {
    std::lock_guard<std::mutex> guard(mutex);
    return calls;
  }
  int fds[2] = {-1, -1};
  std::mutex mutex;
  std::vector<std::string> calls;
  std::unique_ptr<EpollManager> manager = std::make_unique<EpollManager>(10, 32, nullptr, "EpollTest", Cpu0(), -1);
};

const std::string kOut = std::to_string(EPOLLOUT), kInOut = std::to_string(EPOLLIN | EPOLLOUT);

TEST(EpollManager, WriteInterestOnlyWhileSomethingIsLeftToWrite) {
  kavo::test::LogCapture log;
  Watched w;
  EXPECT_FALSE(w.manager->notifyWriteEventReady(w.fds[0]));  // not added yet
  EXPECT_TRUE(log.Contains("[EpollManager][notifyWriteEventReady] the socket fd does not exist"));

  std::atomic<int> rounds{3};  // three rounds of data, then nothing
  EpollCallback callbacks;
  callbacks.writeCallback = w.Logging("write", [&] { return --rounds > 0 ? 0 : -3; });
  ASSERT_TRUE(w.manager->addMonitorFd(w.fds[0], callbacks));  // mask 0: writable, but silent
  w.manager->start();
  std::this_thread::sleep_for(50ms);
  EXPECT_TRUE(w.Calls().empty());
  ASSERT_TRUE(w.manager->notifyWriteEventReady(w.fds[0]));
  ASSERT_TRUE(w.WaitForCalls(3));
  std::this_thread::sleep_for(50ms);  // -3 took EPOLLOUT away: no fourth call
  EXPECT_EQ(std::vector<std::string>(3, "write:" + kOut), w.Calls());

  // writeEventNow drains on the caller's thread, with an empty mask.
  rounds = 2;
  EXPECT_TRUE(w.manager->writeEventNow(w.fds[0]));
  EXPECT_EQ("write:0", w.Calls().back());
  EXPECT_EQ(5u, w.Calls().size());
}

TEST(EpollManager, ANewConnectionSuppressesTheWriteOfThatEvent) {
  for (int readResult : {1, 0}) {
    Watched w;
    EpollCallback callbacks;
    callbacks.readCallback = w.Logging("read", [&] {
      char byte;
      (void)!read(w.fds[0], &byte, 1);
      return readResult;
    });
    callbacks.writeCallback = w.Logging("write", [] { return -3; });
    ASSERT_TRUE(w.manager->addMonitorFd(w.fds[0], callbacks));
    // Readable and write-wanted before the first wait: one event with both.
    ASSERT_EQ(1, write(w.fds[1], "x", 1));
    ASSERT_TRUE(w.manager->notifyWriteEventReady(w.fds[0]));
    w.manager->start();
    ASSERT_TRUE(w.WaitForCalls(2));
    // After 1 the write waits for an event of its own; after 0 it follows.
    EXPECT_EQ((std::vector<std::string>{"read:" + kInOut, "write:" + (readResult == 1 ? kOut : kInOut)}),
              w.Calls());
  }
}

TEST(EpollManager, HangUpCallsOnlyTheCloseCallback) {
  Watched w;
  EpollCallback callbacks;
  callbacks.readCallback = w.Logging("read", [] { return 0; });
  callbacks.closeCallback = w.Logging("close", [&] { return w.manager->delMonitorFd(w.fds[0]) ? 0 : -1; });
  ASSERT_TRUE(w.manager->addMonitorFd(w.fds[0], callbacks));
  // The peer writes its last words and goes: readable and hung up at once.
  ASSERT_EQ(3, write(w.fds[1], "bye", 3));
  shutdown(w.fds[1], SHUT_RDWR);
  w.manager->start();
  ASSERT_TRUE(w.WaitForCalls(1));
  std::this_thread::sleep_for(50ms);
  ASSERT_EQ(1u, w.Calls().size());
  EXPECT_EQ("close:" + std::to_string(EPOLLIN | EPOLLHUP | EPOLLRDHUP), w.Calls()[0]);
}

TEST(EpollManager, StopWakesALoopThatWaitsWithoutTimeout) {
  std::atomic<bool> initRan{false};
  {
    EpollManager manager(10, 32, [&] { initRan = true; return 1; }, "EpollStop", Cpu0(), -1);
    manager.start();
    while (!initRan) std::this_thread::sleep_for(1ms);
    std::this_thread::sleep_for(20ms);  // into epoll_wait, with nothing to wait for
    manager.stop();
  }  // joins: a loop that did not wake would hang the test here
  // A stop while the init function still runs ends the thread right after it.
  std::atomic<bool> stopped{false};
  EpollManager manager(
      10, 32,
      [&] {
        while (!stopped) std::this_thread::sleep_for(1ms);
        return 1;
      },
      "EpollStop", Cpu0(), -1);
  manager.start();
  manager.stop();
  stopped = true;
}

}  // namespace
