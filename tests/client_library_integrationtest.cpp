// libkavobpfclient against kavobpfd on the real kernel: typed events whose
// fields are what the kernel saw, what every kind of request comes back with,
// a client that follows the daemon through a kill and a restart, and the
// installed package as a user meets it: `cmake --install` into a fresh
// prefix, the example built against it once with pkg-config and once with
// find_package, the installed loader and daemon started, and both builds of
// the example printing a process this test forks.

#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <mutex>

#include <gtest/gtest.h>

#include "kavobpf/kavobpf_client.h"
#include "support/harness.h"
#include "support/processes.h"
#include "support/system.h"
#include "support/wait_until.h"

namespace {

using namespace std::chrono_literals;
using kavobpf::Client;
using kavobpf::Event;

// A child that takes |name|, touches |touched| bytes of anonymous memory and ends; reaped.
pid_t ForkAndReap(const char* name, size_t touched = 0) {
  pid_t child = fork();
  if (child == 0) {
    prctl(PR_SET_NAME, name);
    if (touched != 0) memset(mmap(nullptr, touched, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0), 1, touched);
    _exit(0);
  }
  waitpid(child, nullptr, 0);
  return child;
}

// Events of |pid| until one of layout T arrives, or 10 s passed.
template <typename T>
std::vector<Event> EventsOfUntil(Client& client, pid_t pid) {
  std::vector<Event> events;
  for (auto deadline = std::chrono::steady_clock::now() + 10s; std::chrono::steady_clock::now() < deadline;) {
    auto event = client.NextEvent(100ms);
    if (!event) continue;
    std::visit([&](const auto& r) { if constexpr (!std::is_same_v<std::decay_t<decltype(r)>, std::monostate>) if (r.pid == pid) events.push_back(*event); }, event->record);
    if (!events.empty() && events.back().as<T>() != nullptr) break;
  }
  return events;
}

template <typename T>
const T* First(const std::vector<Event>& events) {
  for (const Event& event : events) if (const T* record = event.as<T>()) return record;
  return nullptr;
}

TEST(ClientLibrary, TypedEventsCarryWhatTheKernelSawAndEveryRequestItsResult) {
  kavo::test::RunInNamespace([] {
    kavo::test::KavoSystem system;
    std::string why;
    if (!system.Start(&why)) KAVO_KERNEL_SKIP(why);
    // A request made before the connection goes out once it is there; a
    // blocking one from the client's own thread would wait for itself.
    std::atomic<int> early{1}, inCallback{1};
    Client* self = nullptr;
    kavobpf::ClientCallbacks callbacks;
    callbacks.onConnection = [&](kavobpf::ConnectionChange) { inCallback = self->Subscribe(KAVO_EVENT_PROCESS_CREATED); };
    Client client({}, callbacks);
    self = &client;
    client.SubscribeAsync(KAVO_EVENT_PROCESS_EXITED, [&early](int result) { early = result; });
    ASSERT_TRUE(client.Connect(5s));
    EXPECT_TRUE(kavo::test::WaitUntil([&] { return early == kavobpf::kAccepted; }));
    EXPECT_EQ(kavobpf::kInCallback, inCallback.load());
    for (int32_t type : std::initializer_list<int32_t>{KAVO_EVENT_RSS_STAT, KAVO_EVENT_TASK_CREATE, KAVO_EVENT_TASK_EXIT, KAVO_EVENT_PROCESS_CREATED}) {
      ASSERT_EQ(kavobpf::kAccepted, client.Subscribe(type)) << type;
    }
    // Refused: a subscription without its event type, a code the service
    // does not know. Accepted: a type no program produces.
    int32_t exitedType = KAVO_EVENT_PROCESS_EXITED;
    EXPECT_EQ(kavobpf::kRefused, client.Request(kavobpf::kRequestSubscribe, nullptr, 0));
    EXPECT_EQ(kavobpf::kRefused, client.Request(53, &exitedType, sizeof(exitedType)));
    EXPECT_EQ(kavobpf::kAccepted, client.Subscribe(12345));

    constexpr size_t kTouched = 8 << 20;
    const pid_t child = ForkAndReap("kavo-typed", kTouched);
    std::vector<Event> events = EventsOfUntil<kavo_process_exited_event>(client, child);
    std::string comm = kavo::test::ReadFile("/proc/self/comm");
    comm.pop_back();
    const auto* fork = First<kavo_fork_event>(events);
    const auto* created = First<kavo_process_created_event>(events);
    const auto* exit = First<kavo_exit_event>(events);
    const auto* exited = First<kavo_process_exited_event>(events);
    ASSERT_TRUE(fork && created && exit && exited);
    // Forked under this process's name, renamed before it ended.
    EXPECT_EQ(std::make_tuple(getpid(), int32_t(getuid()), uint32_t(KAVO_TASK_PROCESS), comm),
              std::make_tuple(fork->ppid, fork->uid, fork->kind, std::string(kavobpf::Text(fork->comm))));
    EXPECT_EQ(std::make_pair(getpid(), comm), std::make_pair(created->ppid, std::string(kavobpf::Text(created->comm))));
    EXPECT_EQ(std::make_pair(uint32_t(KAVO_TASK_PROCESS), std::string("kavo-typed")), std::make_pair(exit->kind, std::string(kavobpf::Text(exit->comm))));
    EXPECT_EQ("kavo-typed", kavobpf::Text(exited->comm));
    EXPECT_GT(exit->header.time_ns, fork->header.time_ns);
    // The largest anonymous size reported: the 8 MiB touched, in bytes, plus
    // what the child shares with this process.
    int64_t largestAnon = 0;
    for (const Event& event : events) {
      if (auto* rss = event.as<kavo_rss_event>(); rss && rss->member == KAVO_RSS_ANON) largestAnon = std::max<int64_t>(largestAnon, rss->size);
    }
    EXPECT_GE(largestAnon, int64_t(kTouched));
    EXPECT_LE(largestAnon, int64_t(kTouched) * 4);

    client.Close();
    EXPECT_EQ(kavobpf::kClosed, client.Subscribe(KAVO_EVENT_PROCESS_EXITED));
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
    callbacks.onConnection = [&](kavobpf::ConnectionChange change) { std::lock_guard<std::mutex> g(mutex); changes.push_back(change); };
    callbacks.onEvent = [&](const Event& event) {
      std::lock_guard<std::mutex> g(mutex);
      if (auto* exited = event.as<kavo_process_exited_event>()) exits.push_back(exited->pid);
    };
    Client client({}, callbacks);
    ASSERT_TRUE(client.Connect(5s));
    ASSERT_EQ(kavobpf::kAccepted, client.Subscribe(KAVO_EVENT_PROCESS_EXITED));
    auto exitSeen = [&](pid_t pid) {
      return kavo::test::WaitUntil([&] { std::lock_guard<std::mutex> g(mutex); return std::count(exits.begin(), exits.end(), pid) == 1; }, 10s);
    };
    EXPECT_TRUE(exitSeen(ForkAndReap("kavo-restart")));
    system.Kill(SIGKILL);
    ASSERT_TRUE(system.StartDaemon(&why)) << why;
    // Back within the 5-second retry period, subscribed again by itself. (A
    // dying daemon's socket may still take a connection for an instant; that
    // one is lost again at once and reported so.)
    ASSERT_TRUE(kavo::test::WaitUntil([&] { return client.connected() && client.stats().reconnections > 0; }, 8s));
    EXPECT_TRUE(exitSeen(ForkAndReap("kavo-restart")));
    client.Close();
    ASSERT_GE(changes.size(), 3u);
    for (size_t i = 0; i < changes.size(); ++i) {
      using C = kavobpf::ConnectionChange;
      EXPECT_EQ(i == 0 ? C::kConnected : i % 2 == 1 ? C::kLost : C::kReconnected, changes[i]) << i;
    }
    EXPECT_EQ(kavobpf::ConnectionChange::kReconnected, changes.back());
    EXPECT_EQ(changes.size() / 2, client.stats().reconnections);
    EXPECT_EQ(0, system.Stop());
  });
}

void Shell(const std::string& command) {
  auto result = kavo::test::RunCommand({"/bin/sh", "-c", command}, 240);
  EXPECT_EQ(0, result.exitCode) << command << "\n" << result.output;
}

TEST(Install, TheExampleBuildsAgainstThePackageAndSeesProcesses) {
  kavo::test::NamespaceOptions options;
  options.timeoutSeconds = 280;
  kavo::test::RunInNamespace([] {
    char dir[] = "/tmp/kavo-install-XXXXXX";
    ASSERT_NE(nullptr, mkdtemp(dir));
    const std::string root = dir, prefix = root + "/prefix", example = KAVO_SOURCE_DIR "/examples";
    Shell("cmake --install " KAVO_BINARY_DIR " --prefix " + prefix + " > /dev/null");
    for (const char* installed : {"bin/kavobpfd", "bin/kavobpf_loader", "bin/kavobpf_client", "lib/libkavobpfservice.so",
                                  "lib/libkavobpfclient.so.1", "lib/libkavobpfclient.a", "include/kavobpf/kavobpf_client.h"}) {
      EXPECT_TRUE(kavo::test::PathExists(prefix + "/" + installed)) << installed;
    }
    EXPECT_NE(std::string::npos, kavo::test::ReadFile(prefix + "/lib/systemd/system/kavobpfd.service")
                                     .find("ExecStartPre=" + prefix + "/bin/kavobpf_loader"));
    // Built the way a user builds it, with the compiler (and sanitizers) of
    // this build, so that it links against what was installed.
    const std::string pkgConfig = "PKG_CONFIG_PATH=" + prefix + "/lib/pkgconfig ";
    Shell(pkgConfig + KAVO_CXX " " KAVO_CXX_FLAGS " -std=c++17 -Wall -Wextra -Werror " + example + "/watch_processes.cpp $(" +
          pkgConfig + "pkg-config --cflags --libs kavobpfclient) -Wl,-rpath," + prefix + "/lib -o " + root + "/watch_pkgconfig");
    Shell("cmake -S " + example + " -B " + root + "/build -G Ninja -DCMAKE_CXX_COMPILER=" KAVO_CXX " '-DCMAKE_CXX_FLAGS=" KAVO_CXX_FLAGS
          "' -DCMAKE_PREFIX_PATH=" + prefix + " > /dev/null && cmake --build " + root + "/build > /dev/null");
    ASSERT_FALSE(::testing::Test::HasFailure());

    kavo::test::KavoSystem system({{}, {}, prefix + "/bin"});
    std::string why;
    if (!system.Start(&why)) KAVO_KERNEL_SKIP(why);
    kavo::test::ChildProcess byPkgConfig({root + "/watch_pkgconfig", "30"}), byCMake({root + "/build/watch_processes", "30"});
    for (auto* watcher : {&byPkgConfig, &byCMake}) ASSERT_TRUE(watcher->WaitForOutput("watching\n")) << watcher->Output();
    const pid_t child = ForkAndReap("kavo-installed");
    for (auto* watcher : {&byPkgConfig, &byCMake}) {
      EXPECT_TRUE(watcher->WaitForOutput("created pid=" + std::to_string(child) + " ppid=" + std::to_string(getpid())));
      EXPECT_TRUE(watcher->WaitForOutput("exited pid=" + std::to_string(child) + " comm=kavo-installed\n")) << watcher->Output();
    }
    EXPECT_EQ(0, system.Stop());
    kavo::test::RunCommand({"rm", "-rf", root});
  }, options);
}

}  // namespace
