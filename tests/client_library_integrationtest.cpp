// libkavobpfclient against the real service on the real kernel: typed
// events whose fields are what the kernel saw, the result of every request,
// and a client that follows the daemon through a kill and a restart.

#include <signal.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <mutex>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/system.h"
#include "kavobpf/kavobpf_client.h"
#include "support/harness.h"
#include "support/wait_until.h"

namespace {

using namespace std::chrono_literals;
using kavobpf::Client;
using kavobpf::Event;

std::string OwnComm() {
  std::string comm = kavo::test::ReadFile("/proc/self/comm");
  if (!comm.empty() && comm.back() == '\n') comm.pop_back();
  return comm;
}

// Events of |pid| until |done| says so, or the timeout.
std::vector<Event> EventsOf(Client& client, pid_t pid, const std::function<bool(const std::vector<Event>&)>& done,
                            std::chrono::milliseconds timeout = 10s) {
  std::vector<Event> events;
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  while (!done(events) && std::chrono::steady_clock::now() < deadline) {
    auto event = client.NextEvent(100ms);
    if (!event) continue;
    int32_t of = -1;
    std::visit(
        [&of](const auto& record) {
          if constexpr (!std::is_same_v<std::decay_t<decltype(record)>, std::monostate>) of = record.pid;
        },
        event->record);
    if (of == pid) events.push_back(std::move(*event));
  }
  return events;
}

template <typename T>
const T* First(const std::vector<Event>& events) {
  for (const Event& event : events) {
    if (const T* record = event.as<T>()) return record;
  }
  return nullptr;
}

TEST(ClientLibrary, TypedEventsCarryWhatTheKernelSaw) {
  kavo::test::RunInNamespace([] {
    kavo::test::KavoSystem system;
    std::string why;
    if (!system.Start(&why)) KAVO_KERNEL_SKIP(why);
    Client client;
    ASSERT_TRUE(client.Connect(5s));
    for (int32_t type : std::initializer_list<int32_t>{KAVO_EVENT_RSS_STAT, KAVO_EVENT_TASK_CREATE,
                                                       KAVO_EVENT_TASK_EXIT, KAVO_EVENT_PROCESS_CREATED,
                                                       KAVO_EVENT_PROCESS_EXITED}) {
      ASSERT_EQ(kavobpf::kAccepted, client.Subscribe(type)) << type;
    }

    // A child that renames itself, touches 8 MiB and tells what /proc says
    // its anonymous memory is, then waits to be told to end.
    constexpr size_t kTouched = 8 << 20;
    int report[2], go[2];
    ASSERT_EQ(0, pipe(report));
    ASSERT_EQ(0, pipe(go));
    pid_t child = fork();
    if (child == 0) {
      prctl(PR_SET_NAME, "kavo-typed");
      char* memory = static_cast<char*>(
          mmap(nullptr, kTouched, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
      memset(memory, 1, kTouched);
      std::string status = kavo::test::ReadFile("/proc/self/status");
      long long anonKb = atoll(status.c_str() + status.find("RssAnon:") + 8);
      (void)!write(report[1], &anonKb, sizeof(anonKb));
      char byte;
      (void)!read(go[0], &byte, 1);
      _exit(0);
    }
    long long anonKb = 0;
    ASSERT_EQ(static_cast<ssize_t>(sizeof(anonKb)), read(report[0], &anonKb, sizeof(anonKb)));
    ASSERT_GE(anonKb * 1024, static_cast<long long>(kTouched));
    (void)!write(go[1], "x", 1);
    waitpid(child, nullptr, 0);

    std::vector<Event> events = EventsOf(client, child, [](const std::vector<Event>& seen) {
      return First<kavo_process_exited_event>(seen) != nullptr;
    });

    const auto* fork = First<kavo_fork_event>(events);
    ASSERT_NE(nullptr, fork);
    EXPECT_EQ(getpid(), fork->ppid);
    EXPECT_EQ(static_cast<int32_t>(getuid()), fork->uid);
    EXPECT_EQ(static_cast<uint32_t>(KAVO_TASK_PROCESS), fork->kind);
    EXPECT_EQ(OwnComm(), kavobpf::Text(fork->comm));  // the name before the rename
    const auto* created = First<kavo_process_created_event>(events);
    ASSERT_NE(nullptr, created);
    EXPECT_EQ(getpid(), created->ppid);
    EXPECT_EQ(OwnComm(), kavobpf::Text(created->comm));

    // The largest anonymous size the kernel reported is the 8 MiB touched,
    // as /proc counted it then (the kernel's counters are batched per CPU,
    // so allow for one batch).
    int64_t largestAnon = 0;
    for (const Event& event : events) {
      const auto* rss = event.as<kavo_rss_event>();
      if (rss != nullptr && rss->member == KAVO_RSS_ANON) largestAnon = std::max<int64_t>(largestAnon, rss->size);
    }
    EXPECT_GE(largestAnon, static_cast<int64_t>(kTouched));
    EXPECT_LE(largestAnon, anonKb * 1024 + (1 << 20));

    const auto* exit = First<kavo_exit_event>(events);
    ASSERT_NE(nullptr, exit);
    EXPECT_EQ(static_cast<uint32_t>(KAVO_TASK_PROCESS), exit->kind);
    EXPECT_EQ("kavo-typed", kavobpf::Text(exit->comm));
    EXPECT_GT(exit->header.time_ns, fork->header.time_ns);
    const auto* exited = First<kavo_process_exited_event>(events);
    ASSERT_NE(nullptr, exited);
    EXPECT_EQ("kavo-typed", kavobpf::Text(exited->comm));
    EXPECT_EQ(0, system.Stop());
  });
}

TEST(ClientLibrary, EveryRequestReportsItsResult) {
  kavo::test::RunInNamespace([] {
    kavo::test::KavoSystem system;
    std::string why;
    if (!system.Start(&why)) KAVO_KERNEL_SKIP(why);

    // Requests made before the connection go out once it is there.
    std::atomic<int> early{1};
    kavobpf::ClientCallbacks callbacks;
    std::atomic<int> inCallback{0};
    Client* self = nullptr;
    callbacks.onConnection = [&](kavobpf::ConnectionChange) {
      inCallback = self->Subscribe(KAVO_EVENT_PROCESS_CREATED);
    };
    Client client({}, callbacks);
    self = &client;
    client.SubscribeAsync(KAVO_EVENT_PROCESS_EXITED, [&early](int result) { early = result; });
    ASSERT_TRUE(client.Connect(5s));
    EXPECT_TRUE(kavo::test::WaitUntil([&] { return early == kavobpf::kAccepted; }));
    // Blocking from its own thread would wait for itself.
    EXPECT_EQ(kavobpf::kInCallback, inCallback.load());

    // The service refuses a subscription without its event type, and a code
    // it does not know; a type no program produces is accepted.
    EXPECT_EQ(kavobpf::kRefused, client.Request(kavobpf::kRequestSubscribe, nullptr, 0));
    int32_t type = KAVO_EVENT_PROCESS_EXITED;
    EXPECT_EQ(kavobpf::kRefused, client.Request(53, &type, sizeof(type)));
    EXPECT_EQ(kavobpf::kAccepted, client.Subscribe(12345));

    // Unsubscribed, the exits stop; the subscription of 50002 had made them flow.
    ASSERT_EQ(kavobpf::kAccepted, client.Unsubscribe(KAVO_EVENT_PROCESS_EXITED));
    while (client.NextEvent(200ms)) {
    }
    pid_t child = fork();
    if (child == 0) _exit(0);
    waitpid(child, nullptr, 0);
    EXPECT_FALSE(client.NextEvent(1s).has_value());

    // Closed, a request ends at once.
    client.Close();
    EXPECT_EQ(kavobpf::kClosed, client.Subscribe(KAVO_EVENT_PROCESS_EXITED));
    EXPECT_FALSE(client.NextEvent(10ms).has_value());
    EXPECT_EQ(0, system.Stop());
  });
}

TEST(ClientLibrary, FollowsTheServiceThroughARestart) {
  kavo::test::RunInNamespace([] {
    kavo::test::KavoSystem system;
    std::string why;
    if (!system.Start(&why)) KAVO_KERNEL_SKIP(why);

    std::mutex mutex;
    std::vector<kavobpf::ConnectionChange> changes;
    std::vector<int32_t> exits;
    kavobpf::ClientCallbacks callbacks;
    callbacks.onConnection = [&](kavobpf::ConnectionChange change) {
      std::lock_guard<std::mutex> guard(mutex);
      changes.push_back(change);
    };
    callbacks.onEvent = [&](const Event& event) {
      std::lock_guard<std::mutex> guard(mutex);
      if (auto* exited = event.as<kavo_process_exited_event>()) exits.push_back(exited->pid);
    };
    Client client({}, callbacks);
    ASSERT_TRUE(client.Connect(5s));
    ASSERT_EQ(kavobpf::kAccepted, client.Subscribe(KAVO_EVENT_PROCESS_EXITED));
    auto exitSeen = [&](pid_t pid) {
      return kavo::test::WaitUntil(
          [&] {
            std::lock_guard<std::mutex> guard(mutex);
            return std::find(exits.begin(), exits.end(), pid) != exits.end();
          },
          10s);
    };
    auto forkAndReap = [] {
      pid_t child = fork();
      if (child == 0) _exit(0);
      waitpid(child, nullptr, 0);
      return child;
    };
    EXPECT_TRUE(exitSeen(forkAndReap()));

    system.Kill(SIGKILL);
    ASSERT_TRUE(system.StartDaemon(&why)) << why;
    // The client reconnects within its 5-second retry period and subscribes
    // again by itself. (A dying daemon's socket may still take a connection
    // for an instant; that one is lost again at once and reported so.)
    ASSERT_TRUE(kavo::test::WaitUntil([&] { return client.connected() && client.stats().reconnections > 0; }, 8s));
    EXPECT_TRUE(exitSeen(forkAndReap()));
    {
      std::lock_guard<std::mutex> guard(mutex);
      ASSERT_GE(changes.size(), 3u);
      EXPECT_EQ(kavobpf::ConnectionChange::kConnected, changes[0]);
      for (size_t i = 1; i < changes.size(); ++i) {
        EXPECT_EQ(i % 2 == 1 ? kavobpf::ConnectionChange::kLost : kavobpf::ConnectionChange::kReconnected,
                  changes[i]) << i;
      }
      EXPECT_EQ(kavobpf::ConnectionChange::kReconnected, changes.back());
      EXPECT_EQ(changes.size() / 2, client.stats().reconnections);
    }
    client.Close();
    EXPECT_EQ(0, system.Stop());
  });
}

}  // namespace
