// Client churn: 200 clients at a time connect, subscribe, read a little and
// leave, over and over for 20 seconds, while a loop forks processes, so that
// fork, exit and memory records flow through the rings to them. Some leave at once with
// their responses unread, some read and unsubscribe first, some leave in the
// middle of a frame, some leave with events still queued for them. After the
// last one is gone the service holds nothing for any of them (no queue, no
// subscription, no descriptor, no buffer) and still serves a new client.

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "support/event_sink.h"
#include "support/kernel.h"
#include "support/log_capture.h"
#include "support/harness.h"
#include "support/wire.h"
#include "service/kavo_bpf_event_manager.h"
#include "service/kavo_bpf_service.h"
#include "service/kavo_bpf_state.h"
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
using kavo::test::WaitUntil;

constexpr int kThreads = 4;
constexpr int kClientsPerThread = 50;  // 200 connected at the peak of each round
constexpr auto kChurnTime = 20s;
// What the clients subscribe to: raw fork and rss records, derived
// process_created (everyone) and process_exited events. RSS records come by
// the hundred thousand a second: only clients that never wait for an answer
// take them, since a queue that overflows drops its oldest packages, an
// unsent answer among them.
constexpr int kForks = KAVO_EVENT_TASK_CREATE;
constexpr int kRss = KAVO_EVENT_RSS_STAT;
constexpr int kCreated = KAVO_EVENT_PROCESS_CREATED;
constexpr int kExited = KAVO_EVENT_PROCESS_EXITED;
const int kNoWaitTypes[] = {kForks, kRss, kExited};
const int kWaitTypes[] = {kForks, kExited};

// How a client leaves.
enum Leaving {
  kAtOnce,         // responses unread
  kUnsubscribing,  // reads its answers and a few events, unsubscribes first
  kMidFrame,       // in the middle of its next request
  kWithQueue,      // reads its first answer, leaves with events queued
};

struct Tally {
  std::atomic<long long> connections{0};
  std::atomic<long long> refusedConnections{0};
  std::atomic<long long> answered{0};
  std::atomic<long long> unanswered{0};
  std::atomic<long long> events{0};
  std::atomic<long long> slowestAnswerMs{0};
};

// Raw records the monitors took from both rings so far (the state record).
long long RingRecords() {
  Kavo::Bpf::KavoBpfDataState* state = Kavo::Bpf::KavoBpfDataState::GetInstance();
  long long records = 0;
  for (long long t = state->oldestSecond(); t <= state->newestSecond(); ++t) {
    for (int type = 0; type <= KAVO_EVENT_RAW_MAX; ++type) records += state->counterAt(t, type);
  }
  return records;
}

// Reads frames until the response to |reqId| arrives; counts events met on the way.
bool AwaitResponse(RawClient& client, uint32_t reqId, Tally& tally) {
  auto start = std::chrono::steady_clock::now();
  auto deadline = start + 3s;
  while (std::chrono::steady_clock::now() < deadline) {
    auto frame = client.ReadFrame(std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now()));
    if (!frame) return false;
    if (frame->type == 3) {
      ++tally.events;
      continue;
    }
    auto response = AsResponse(*frame);
    if (response && response->reqId == reqId) {
      long long ms =
          std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start).count();
      long long slowest = tally.slowestAnswerMs;
      while (ms > slowest && !tally.slowestAnswerMs.compare_exchange_weak(slowest, ms)) {
      }
      return response->result == 0;
    }
  }
  return false;
}

// One thread's share: rounds of 50 clients that all connect and subscribe,
// then each leave in its own way.
void Churn(int thread, std::chrono::steady_clock::time_point end, Tally& tally) {
  for (uint32_t round = 0; std::chrono::steady_clock::now() < end; ++round) {
    std::vector<std::pair<std::unique_ptr<RawClient>, Leaving>> clients;
    for (int slot = 0; slot < kClientsPerThread; ++slot) {
      auto client = std::make_unique<RawClient>();
      if (!client->Connect(kavo::test::kServiceSocket, 3s)) {
        ++tally.refusedConnections;
        continue;
      }
      ++tally.connections;
      Leaving leaving = static_cast<Leaving>((slot + round + thread) % 4);
      bool waits = leaving == kUnsubscribing || leaving == kWithQueue;
      int type = waits ? kWaitTypes[(slot + round) % 2] : kNoWaitTypes[(slot + round) % 3];
      client->Send(RequestFrame(1, 51, type) + RequestFrame(2, 51, kCreated));
      clients.emplace_back(std::move(client), leaving);
    }
    for (auto& [client, leaving] : clients) {
      switch (leaving) {
        case kAtOnce:
          break;
        case kUnsubscribing: {
          bool ok = AwaitResponse(*client, 1, tally) && AwaitResponse(*client, 2, tally);
          ++(ok ? tally.answered : tally.unanswered);
          for (int i = 0; i < 3 && client->ReadEvent(20ms); ++i) ++tally.events;
          client->Send(RequestFrame(3, 52, kCreated));
          break;
        }
        case kMidFrame:
          client->Send(RequestFrame(3, 52, kCreated).substr(0, 13));
          break;
        case kWithQueue:
          ++(AwaitResponse(*client, 1, tally) ? tally.answered : tally.unanswered);
          break;
      }
    }
    clients.clear();
  }
}

TEST(ClientChurn, TwoHundredClientsComeAndGoAndLeaveNothingBehind) {
  kavo::test::RunInNamespace([] {
    std::string why;
    if (!kavo::test::BpfAvailable(&why)) KAVO_KERNEL_SKIP(why);
    kavo::test::LogCapture log;
    KavoBpfService* service = kavo::test::StartServiceOnKernel(&why);
    ASSERT_NE(nullptr, service) << why;
    // Records flow for the whole run: forks, exits and the memory they touch.
    const std::string workload = kavo::test::ToolPath("kavo_workload");
    kavo::test::ChildProcess forks(
        {"bash", "-c", "while :; do " + workload + " forks 20; sleep 0.02; done"});

    // Wait for the service to settle with the load on (threads started, first
    // records forwarded), then take its baseline.
    std::this_thread::sleep_for(1s);
    log.Clear();
    const size_t descriptors = kavo::test::OpenDescriptors(getpid());
    const size_t heap = kavo::test::HeapInUse();

    Tally tally;
    auto end = std::chrono::steady_clock::now() + kChurnTime;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) threads.emplace_back(Churn, t, end, std::ref(tally));
    for (std::thread& t : threads) t.join();

    Figure("connections", tally.connections);
    Figure("answered_clients", tally.answered);
    Figure("events_read", tally.events);
    Figure("slowest_answer_ms", tally.slowestAnswerMs);
    Figure("ring_records", RingRecords());
    EXPECT_GE(tally.connections, 2000) << "churned too slowly to mean anything";
    EXPECT_EQ(0, tally.refusedConnections);
    EXPECT_EQ(0, tally.unanswered) << "a waiting client got no answer within 3 s";
    EXPECT_GT(tally.events, 0) << "no record flowed";

    // Everything the service kept for a client goes with it.
    EXPECT_TRUE(WaitUntil([&] { return service->getClientQueueLengths().empty(); }, 5s))
        << service->getClientQueueLengths().size() << " queues left";
    for (int type : {kForks, kRss, kCreated, kExited}) {
      EXPECT_TRUE(EventManager::GetInstance()->observersOf(type).empty()) << "type " << type;
    }
    EXPECT_TRUE(WaitUntil([&] { return kavo::test::OpenDescriptors(getpid()) == descriptors; }, 5s))
        << kavo::test::OpenDescriptors(getpid()) << " descriptors open, " << descriptors << " before";
    EXPECT_FALSE(log.Contains("Accept client failed"));
    // Each connection had 64 KiB of buffers; a few leaked ones would show.
    log.Clear();
    long long grown = static_cast<long long>(kavo::test::HeapInUse()) - static_cast<long long>(heap);
    Figure("heap_growth_bytes", grown);
    EXPECT_LT(grown, 2 << 20);

    // A new client is served as the first one was.
    forks.Signal(SIGKILL);
    RawClient fresh;
    ASSERT_TRUE(fresh.Connect());
    ASSERT_TRUE(fresh.Send(RequestFrame(77, 51, kCreated)));
    Tally last;
    ASSERT_TRUE(AwaitResponse(fresh, 77, last));
    pid_t child = fork();
    if (child == 0) _exit(0);
    waitpid(child, nullptr, 0);
    bool seen = false;
    while (!seen) {
      auto event = fresh.ReadEvent(5s);
      ASSERT_TRUE(event) << "no process_created for " << child;
      seen = kavo::test::RecordAs<kavo_process_created_event>(*event).pid == child;
    }
  }, [] {
    kavo::test::NamespaceOptions options;
    options.timeoutSeconds = 200;
    return options;
  }());
}

}  // namespace
