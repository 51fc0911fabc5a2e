// Client churn: 200 clients at a time connect, subscribe and leave, round
// after round for 4 seconds, while processes fork so that records flow to a
// client that stays and reads throughout. Some leave at once with their
// answers unread, some read and unsubscribe first, some leave in the middle
// of a frame, some with events still queued. After the last one the service
// holds nothing for any of them (no queue, no subscription, no descriptor, no
// buffer) and serves a new client.

#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "service/kavo_bpf_event_manager.h"
#include "service/kavo_bpf_service.h"
#include "support/event_sink.h"
#include "support/harness.h"
#include "support/kernel.h"
#include "support/log_capture.h"
#include "support/stress.h"
#include "support/wire.h"

namespace {

using namespace std::chrono_literals;
using kavo::test::RawClient;
using kavo::test::RequestFrame;

// RSS records come by the hundred thousand a second: only clients that never
// wait for an answer take them, since a full queue drops its oldest package,
// an unsent answer among them.
const int kTypes[] = {KAVO_EVENT_TASK_CREATE, KAVO_EVENT_PROCESS_EXITED, KAVO_EVENT_RSS_STAT};

struct Tally {
  std::atomic<long long> connections{0}, refused{0}, unanswered{0};
};

// Reads frames until the answer to |reqId|.
bool Answered(RawClient& client, uint32_t reqId) {
  for (auto deadline = std::chrono::steady_clock::now() + 3s; std::chrono::steady_clock::now() < deadline;) {
    auto frame = client.ReadFrame(100ms);
    auto response = frame ? kavo::test::AsResponse(*frame) : std::nullopt;
    if (response && response->reqId == reqId) return response->result == 0;
  }
  return false;
}

void Churn(int thread, std::chrono::steady_clock::time_point end, Tally& tally) {
  for (int round = 0; std::chrono::steady_clock::now() < end; ++round) {
    std::vector<std::unique_ptr<RawClient>> clients;
    for (int slot = 0; slot < 50; ++slot) {
      auto client = std::make_unique<RawClient>();
      if (!client->Connect(kavo::test::kServiceSocket, 3s)) { ++tally.refused; continue; }
      ++tally.connections;
      const int leaving = (slot + round + thread) % 4;  // at once, unsubscribing, mid-frame, with a queue
      client->Send(RequestFrame(1, 51, kTypes[(slot + round) % (leaving % 2 ? 2 : 3)]) +
                   RequestFrame(2, 51, KAVO_EVENT_PROCESS_CREATED));
      if (leaving == 1) {
        if (!Answered(*client, 1) || !Answered(*client, 2)) ++tally.unanswered;
        client->Send(RequestFrame(3, 52, KAVO_EVENT_PROCESS_CREATED));
      } else if (leaving == 2) {
        client->Send(RequestFrame(3, 52, KAVO_EVENT_PROCESS_CREATED).substr(0, 13));
      } else if (leaving == 3 && !Answered(*client, 1)) {
        ++tally.unanswered;
      }
      clients.push_back(std::move(client));
    }
  }
}

TEST(ClientChurn, TwoHundredClientsComeAndGoAndLeaveNothingBehind) {
  kavo::test::RunInNamespace([] {
    std::string why;
    if (!kavo::test::BpfAvailable(&why)) KAVO_KERNEL_SKIP(why);
    kavo::test::LogCapture log;
    Kavo::Bpf::KavoBpfService* service = kavo::test::StartServiceOnKernel(&why);
    ASSERT_NE(nullptr, service) << why;
    kavo::test::ChildProcess forks(
        {"bash", "-c", "while :; do " + kavo::test::ToolPath("kavo_workload") + " forks 20; sleep 0.02; done"});
    ASSERT_TRUE(kavo::test::WaitUntil([&] { return service->getClientQueueLengths().empty(); }));
    const size_t descriptors = kavo::test::OpenDescriptors(getpid());
    const size_t heap = kavo::test::HeapInUse();

    Tally tally;
    {
      // One client stays through the churn and reads what it subscribed to:
      // records must keep flowing to it while the others come and go.
      RawClient steady;
      ASSERT_TRUE(steady.Connect());
      ASSERT_TRUE(steady.Send(RequestFrame(9, 51, KAVO_EVENT_PROCESS_CREATED)));
      ASSERT_TRUE(Answered(steady, 9));
      const auto end = std::chrono::steady_clock::now() + 4s;
      std::atomic<long long> steadyEvents{0};
      std::thread reader([&] {
        while (std::chrono::steady_clock::now() < end) {
          if (steady.ReadEvent(100ms)) ++steadyEvents;
        }
      });
      std::vector<std::thread> threads;
      for (int t = 0; t < 4; ++t) threads.emplace_back(Churn, t, end, std::ref(tally));
      for (std::thread& t : threads) t.join();
      reader.join();
      kavo::test::Figure("connections", tally.connections);
      kavo::test::Figure("events_read_by_the_steady_client", steadyEvents);
      EXPECT_GE(tally.connections, 2000) << "churned too slowly to mean anything";
      EXPECT_EQ(0, tally.refused);
      EXPECT_EQ(0, tally.unanswered) << "a waiting client got no answer within 3 s";
      EXPECT_GT(steadyEvents, 0) << "no record flowed";
    }

    EXPECT_TRUE(kavo::test::WaitUntil([&] { return service->getClientQueueLengths().empty(); }))
        << service->getClientQueueLengths().size() << " queues left";
    for (int type : std::vector<int>{KAVO_EVENT_TASK_CREATE, KAVO_EVENT_RSS_STAT, KAVO_EVENT_PROCESS_CREATED, KAVO_EVENT_PROCESS_EXITED})
      EXPECT_TRUE(Kavo::Bpf::EventManager::GetInstance()->observersOf(type).empty()) << "type " << type;
    EXPECT_TRUE(kavo::test::WaitUntil([&] { return kavo::test::OpenDescriptors(getpid()) == descriptors; }));
    EXPECT_FALSE(log.Contains("Accept client failed"));
    log.Clear();
    // Each connection had 64 KiB of buffers; a few leaked ones would show.
    long long grown = static_cast<long long>(kavo::test::HeapInUse()) - static_cast<long long>(heap);
    kavo::test::Figure("heap_growth_bytes", grown);
    EXPECT_LT(grown, 2 << 20);

    forks.Signal(SIGKILL);
    RawClient fresh;
    ASSERT_TRUE(fresh.Connect());
    ASSERT_TRUE(fresh.Send(RequestFrame(77, 51, KAVO_EVENT_PROCESS_CREATED)));
    ASSERT_TRUE(Answered(fresh, 77));
    // A record may still be lost to a ring that other load keeps full (the
    // sanitizers' own page faults do), so one of a few children will do.
    bool served = false;
    for (int attempt = 0; attempt < 5 && !served; ++attempt) {
      const pid_t child = kavo::test::ForkAndReap();
      for (auto event = fresh.ReadEvent(2s); event && !served; event = fresh.ReadEvent(2s)) {
        served = kavo::test::RecordAs<kavo_process_created_event>(*event).pid == child;
      }
    }
    EXPECT_TRUE(served) << "no process_created for any of 5 children";
  });
}

}  // namespace
