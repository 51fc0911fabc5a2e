// A slow client beside a reader, with real records: 15,000 processes fork
// and exit at a steady 3,000 a second (children of a workload process, not of
// this one, which hosts the service). One subscriber takes everything those
// processes cause and never reads; another takes their forks and exits and
// reads as they come. The reader misses none of them; the slow one's queue
// is trimmed back whenever it passes its bound, and each trim is recorded in
// the error log.

#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <mutex>
#include <set>
#include <sstream>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "support/kernel_stand_ins.h"
#include "support/event_sink.h"
#include "support/kernel.h"
#include "support/log_capture.h"
#include "support/harness.h"
#include "support/wire.h"
#include "service/kavo_bpf_error_log.h"
#include "service/kavo_bpf_event_manager.h"
#include "service/kavo_bpf_service.h"
#include "support/stress.h"
#include "support/processes.h"

namespace {

using namespace std::chrono_literals;
using Kavo::Bpf::EventManager;
using Kavo::Bpf::KavoBpfService;
using kavo::test::AsResponse;
using kavo::test::Figure;
using kavo::test::RawClient;
using kavo::test::RequestFrame;

constexpr int kProcesses = 15000;
constexpr int kBatch = 60;               // forked and reaped together...
constexpr auto kBatchPeriod = 20ms;      // ...every 20 ms: 3,000 a second
constexpr size_t kQueueBound = 10001;    // a queue is trimmed when an append finds more

// What the reader saw of the test's own children.
struct Seen {
  std::mutex mutex;
  std::set<pid_t> created, exited;
};

void Read(RawClient& reader, Seen& seen, std::atomic<bool>& done) {
  while (!done) {
    auto event = reader.ReadEvent(200ms);
    if (!event) continue;
    std::lock_guard<std::mutex> guard(seen.mutex);
    if (kavo::test::RecordType(*event) == KAVO_EVENT_TASK_CREATE) {
      auto fork = kavo::test::RecordAs<kavo_fork_event>(*event);
      if (fork.kind == KAVO_TASK_PROCESS) seen.created.insert(fork.pid);
    } else {
      auto exit = kavo::test::RecordAs<kavo_exit_event>(*event);
      if (exit.kind == KAVO_TASK_PROCESS) seen.exited.insert(exit.pid);
    }
  }
}

TEST(SlowClient, AReaderMissesNothingWhileANonReaderIsTrimmed) {
  kavo::test::RunInNamespace([] {
    std::string why;
    if (!kavo::test::BpfAvailable(&why)) KAVO_KERNEL_SKIP(why);
    kavo::test::LogCapture log;
    // The rings see the whole machine: on a busy one other processes' memory
    // records come by the hundred thousand a second, and the default ring
    // (some 26,000 of them) would hold less than a second of them, less than
    // the monitor may wait for a CPU there. This test is about the client
    // queues, so it gives the kernel room for 16 times that.
    KavoBpfService* service = kavo::test::StartServiceOnKernel(&why, {"--ring-size", "16777216"});
    ASSERT_NE(nullptr, service) << why;

    RawClient slow, reader;
    ASSERT_TRUE(slow.Connect());
    slow.SetReceiveBuffer(4096);
    ASSERT_TRUE(reader.Connect());
    ASSERT_TRUE(slow.Send(RequestFrame(1, 51, KAVO_EVENT_RSS_STAT) + RequestFrame(2, 51, KAVO_EVENT_TASK_CREATE) +
                          RequestFrame(3, 51, KAVO_EVENT_TASK_EXIT) + RequestFrame(4, 51, KAVO_EVENT_PROCESS_CREATED) +
                          RequestFrame(5, 51, KAVO_EVENT_PROCESS_EXITED)));
    ASSERT_TRUE(reader.Send(RequestFrame(1, 51, KAVO_EVENT_TASK_CREATE) + RequestFrame(2, 51, KAVO_EVENT_TASK_EXIT)));
    // Both answered (records of other processes may come first).
    for (uint32_t answered = 0; answered < 2;) {
      auto frame = reader.ReadFrame(2s);
      ASSERT_TRUE(frame);
      if (auto response = AsResponse(*frame)) {
        EXPECT_EQ(++answered, response->reqId);
        EXPECT_EQ(0, response->result);
      }
    }
    // Only the slow one takes derived events: that tells the two queues apart.
    ASSERT_TRUE(kavo::test::WaitUntil(
        [] { return EventManager::GetInstance()->observersOf(KAVO_EVENT_PROCESS_EXITED).size() == 1; }, 2s));
    const int slowFd = EventManager::GetInstance()->observersOf(KAVO_EVENT_PROCESS_EXITED)[0];

    std::set<pid_t> children;
    Seen seen;
    std::atomic<bool> done{false};
    std::thread readerThread(Read, std::ref(reader), std::ref(seen), std::ref(done));
    size_t slowLongest = 0, readerLongest = 0;
    // Forked from this process, each child would also make every page the
    // service's threads write copy-on-write, and each fork would hold this
    // process's memory map while those threads wait to fault: the ring's
    // monitor would spend most of its time on this test's forks, which no
    // host of the service makes, and fall behind the kernel.
    kavo::test::ChildProcess forker({kavo::test::ToolPath("kavo_workload"), "forks-paced",
                                     std::to_string(kProcesses), std::to_string(kBatch),
                                     std::to_string(kBatchPeriod.count())});
    int forkerStatus = -1;
    do {
      for (const auto& [fd, length] : service->getClientQueueLengths()) {
        size_t& longest = fd == slowFd ? slowLongest : readerLongest;
        longest = std::max(longest, length);
      }
    } while (!forker.WaitExit(kBatchPeriod, &forkerStatus));
    ASSERT_TRUE(WIFEXITED(forkerStatus) && WEXITSTATUS(forkerStatus) == 0) << forker.Output();
    // (Fewer pids than children only if the machine went through every pid
    // meanwhile and one came round again.)
    std::istringstream forked(forker.Output());
    for (pid_t child; forked >> child;) children.insert(child);
    ASSERT_FALSE(children.empty()) << forker.Output();
    auto allSeen = [&] {
      std::lock_guard<std::mutex> guard(seen.mutex);
      return std::includes(seen.created.begin(), seen.created.end(), children.begin(), children.end()) &&
             std::includes(seen.exited.begin(), seen.exited.end(), children.begin(), children.end());
    };
    bool complete = kavo::test::WaitUntil(allSeen, 20s);
    done = true;
    readerThread.join();

    size_t missedForks = 0, missedExits = 0;
    for (pid_t child : children) {
      missedForks += seen.created.count(child) == 0;
      missedExits += seen.exited.count(child) == 0;
    }
    Figure("children", static_cast<long long>(children.size()));
    Figure("reader_missed_forks", static_cast<long long>(missedForks));
    Figure("reader_missed_exits", static_cast<long long>(missedExits));
    Figure("reader_longest_queue", static_cast<long long>(readerLongest));
    Figure("slow_longest_queue", static_cast<long long>(slowLongest));
    // Records the kernel could not put into a full ring never reach anyone;
    // the ring's full bit tells such a loss from one in the service. The
    // service's status check clears the bit when it reports it (every 30 s,
    // and a run that waited for missing records lasts longer than that), so
    // its report counts as well.
    int64_t control = kavo::test::ReadControlWord(KavoBpfService::RINGBUF_STATUS_PATH[0]);
    const bool ringRanFull = (control & KAVO_RING_FULL_BIT) != 0 ||
                             log.Contains("[KavoBpfService][checkBpfRingBuffStatus] bpf ringbuff full!");
    Figure("ring_ran_full", ringRanFull);
    EXPECT_FALSE(ringRanFull) << "the kernel dropped records: the monitor fell behind";
    EXPECT_TRUE(complete);
    EXPECT_EQ(0u, missedForks);
    EXPECT_EQ(0u, missedExits);

    // The slow one is held at its bound, never beyond, and still connected.
    EXPECT_LE(slowLongest, kQueueBound);
    EXPECT_LE(service->getClientQueueLengths()[slowFd], kQueueBound);
    EXPECT_GT(service->getClientQueueLengths()[slowFd], 0u);
    EXPECT_LT(readerLongest, kQueueBound) << "the reader's queue was never trimmed";
    // Every trim is in the error log, as far as the log reaches back: it
    // keeps the newest record and 4999 lines before it, some 550 records.
    // The slow one is trimmed for as long as it is subscribed (the rest of
    // the machine keeps writing records), each trim recorded before it is
    // logged: both are counted once the service has let go of it, which
    // waits for a record being forwarded to it.
    slow.Close();
    ASSERT_TRUE(
        kavo::test::WaitUntil([slowFd] { return !EventManager::GetInstance()->hasObserverEntry(slowFd); }));
    const size_t trims = log.Count("[AppendSecondIpc] ipc Package Queue too big: ");
    Figure("slow_trims", static_cast<long long>(trims));
    EXPECT_GE(trims, 2u) << "the load should trim the slow queue more than once";
    std::string errors = kavo::test::ReadFile(Kavo::Bpf::KAVO_ERROR_LOG_PATH);
    size_t recorded = 0;
    for (size_t at = errors.find("ErrorCode: 4\nError: B&A Ipc Package queue full 10000\n");
         at != std::string::npos; at = errors.find("ErrorCode: 4\nError: B&A Ipc Package queue full 10000\n", at + 1)) {
      ++recorded;
    }
    EXPECT_LE(recorded, trims);
    EXPECT_GE(recorded, std::min<size_t>(trims, 500)) << errors.substr(0, 2000);
  }, [] {
    kavo::test::NamespaceOptions options;
    options.timeoutSeconds = 200;
    return options;
  }());
}

}  // namespace
