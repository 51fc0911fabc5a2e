// A slow client beside a reader, with real records: 6,000 processes fork and
// exit at a steady 3,000 a second (children of a workload process, not of
// this one, which hosts the service). One subscriber takes everything those
// processes cause and never reads; another takes their forks and exits and
// reads as they come. The reader misses none; the slow one's queue is held
// at its bound of 10001, and each trim is recorded in the error log.

#include <sys/wait.h>

#include <algorithm>
#include <atomic>
#include <mutex>
#include <set>
#include <sstream>
#include <thread>

#include <gtest/gtest.h>

#include "service/kavo_bpf_error_log.h"
#include "service/kavo_bpf_event_manager.h"
#include "service/kavo_bpf_service.h"
#include "support/event_sink.h"
#include "support/harness.h"
#include "support/kernel.h"
#include "support/kernel_stand_ins.h"
#include "support/log_capture.h"
#include "support/stress.h"
#include "support/wire.h"

namespace {

using namespace std::chrono_literals;
using Kavo::Bpf::EventManager;
using kavo::test::RequestFrame;

constexpr size_t kQueueBound = 10001;  // a queue is trimmed when an append finds more

TEST(SlowClient, AReaderMissesNothingWhileANonReaderIsTrimmed) {
  kavo::test::RunInNamespace([] {
    std::string why;
    if (!kavo::test::BpfAvailable(&why)) KAVO_KERNEL_SKIP(why);
    kavo::test::LogCapture log;
    // The rings see the whole machine, whose memory records alone may come by
    // the hundred thousand a second: this test is about the client queues, so
    // the kernel gets room for 16 times the default.
    Kavo::Bpf::KavoBpfService* service = kavo::test::StartServiceOnKernel(&why, {"--ring-size", "16777216"});
    ASSERT_NE(nullptr, service) << why;
    kavo::test::RawClient slow, reader;
    ASSERT_TRUE(slow.Connect());
    slow.SetReceiveBuffer(4096);
    ASSERT_TRUE(reader.Connect());
    std::string all;
    for (int type : std::vector<int>{KAVO_EVENT_RSS_STAT, KAVO_EVENT_TASK_CREATE, KAVO_EVENT_TASK_EXIT,
                                     KAVO_EVENT_PROCESS_CREATED, KAVO_EVENT_PROCESS_EXITED}) all += RequestFrame(type, 51, type);
    ASSERT_TRUE(slow.Send(all));
    ASSERT_TRUE(reader.Send(RequestFrame(1, 51, KAVO_EVENT_TASK_CREATE) + RequestFrame(2, 51, KAVO_EVENT_TASK_EXIT)));
    // Only the slow one takes derived events: that tells the two queues apart.
    ASSERT_TRUE(kavo::test::WaitUntil(
        [] { return EventManager::GetInstance()->observersOf(KAVO_EVENT_PROCESS_EXITED).size() == 1; }));
    const int slowFd = EventManager::GetInstance()->observersOf(KAVO_EVENT_PROCESS_EXITED)[0];

    std::mutex mutex;
    std::set<pid_t> created, exited;
    std::atomic<bool> done{false};
    std::thread readerThread([&] {
      while (!done) {
        auto event = reader.ReadEvent(200ms);
        auto fork = event ? kavo::test::RecordAs<kavo_fork_event>(*event) : kavo_fork_event{};
        auto exit = event ? kavo::test::RecordAs<kavo_exit_event>(*event) : kavo_exit_event{};
        std::lock_guard<std::mutex> guard(mutex);
        if (fork.header.type == KAVO_EVENT_TASK_CREATE && fork.kind == KAVO_TASK_PROCESS) created.insert(fork.pid);
        if (exit.header.type == KAVO_EVENT_TASK_EXIT && exit.kind == KAVO_TASK_PROCESS) exited.insert(exit.pid);
      }
    });
    size_t slowLongest = 0, readerLongest = 0;
    // Forked from this process, each child would make the service's pages
    // copy-on-write and hold its memory map: a host of the service never does.
    kavo::test::ChildProcess forker({kavo::test::ToolPath("kavo_workload"), "forks-paced", "6000", "60", "20"});
    int status = -1;
    do {
      for (const auto& [fd, length] : service->getClientQueueLengths()) {
        size_t& longest = fd == slowFd ? slowLongest : readerLongest;
        longest = std::max(longest, length);
      }
    } while (!forker.WaitExit(20ms, &status));
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << forker.Output();
    std::set<pid_t> children;
    std::istringstream forked(forker.Output());
    for (pid_t child; forked >> child;) children.insert(child);
    ASSERT_FALSE(children.empty());
    EXPECT_TRUE(kavo::test::WaitUntil(
        [&] {
          std::lock_guard<std::mutex> guard(mutex);
          return std::includes(created.begin(), created.end(), children.begin(), children.end()) &&
                 std::includes(exited.begin(), exited.end(), children.begin(), children.end());
        },
        20s))
        << "the reader missed some";
    done = true;
    readerThread.join();
    kavo::test::Figure("slow_longest_queue", static_cast<long long>(slowLongest));
    // Records the kernel could not place never reach anyone: the full bit tells
    // such a loss from one in the service.
    EXPECT_EQ(0, kavo::test::ReadControlWord(Kavo::Bpf::KavoBpfService::RINGBUF_STATUS_PATH[0]) & KAVO_RING_FULL_BIT);
    EXPECT_FALSE(log.Contains("bpf ringbuff full!"));

    EXPECT_LE(slowLongest, kQueueBound);
    EXPECT_GT(service->getClientQueueLengths()[slowFd], 0u) << "still connected";
    EXPECT_LT(readerLongest, kQueueBound);
    // Every trim is in the error log, as far back as it reaches (the newest
    // record and 4999 lines before it, some 550 records); the slow one is
    // trimmed for as long as it is subscribed, so count once it is let go.
    slow.Close();
    ASSERT_TRUE(kavo::test::WaitUntil([slowFd] { return !EventManager::GetInstance()->hasObserverEntry(slowFd); }));
    const size_t trims = log.Count("[AppendSecondIpc] ipc Package Queue too big: ");
    EXPECT_GE(trims, 2u) << "the load should trim the slow queue more than once";
    const std::string errors = kavo::test::ReadFile(Kavo::Bpf::KAVO_ERROR_LOG_PATH);
    const std::string trim = "ErrorCode: 4\nError: B&A Ipc Package queue full 10000\n";
    const size_t recorded = kavo::test::Occurrences(errors, trim);
    EXPECT_LE(recorded, trims);
    EXPECT_GE(recorded, std::min<size_t>(trims, 500));
  });
}

}  // namespace
