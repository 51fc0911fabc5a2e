// kavobpfd's clients on the real kernel. libkavobpfclient: typed events
// whose fields are what the kernel saw, requests made early or from a
// callback, nothing handed out once closed, a client that follows the daemon
// through a kill and a restart. The
// installed package as a user meets it: `cmake --install` into a fresh
// prefix, the example built against it once with pkg-config and once with
// find_package, the installed loader and daemon started, and both builds of
// the example printing a process this test forks. Who is served on a
// multi-user host: peers of other users connect as they like, but only root,
// the members of the allowed group (primary or supplementary) and the allowed
// users are read from and answered; the others are closed before a byte of
// them is read, so they can neither watch processes nor end the service, and
// a crowd of them costs no descriptor, no memory and no log line past the
// first ten.

#include <grp.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <functional>
#include <mutex>

#include <gtest/gtest.h>

#include "kavobpf/kavobpf_client.h"
#include "support/harness.h"
#include "support/processes.h"
#include "support/system.h"
#include "support/wait_until.h"
#include "support/wire.h"

namespace {

using namespace std::chrono_literals;
using kavobpf::Client;
using kavobpf::Event;
using namespace kavo::test;

// The first event of |type| about |pid|, as its layout T.
template <typename T>
const T* First(const std::vector<Event>& events, int32_t type, pid_t pid) {
  const std::vector<size_t> found = EventsOf(events, type, pid);
  return found.empty() ? nullptr : events[found[0]].as<T>();
}

TEST(ClientLibrary, TypedEventsEveryRequestsResultAndARestartFollowed) {
  RunInNamespace([] {
    KavoSystem system;
    std::string why;
    if (!system.Start(&why)) KAVO_KERNEL_SKIP(why);
    // A request made before the connection goes out once it is there; a
    // blocking one from the client's own thread would wait for itself.
    std::atomic<int> early{1}, inCallback{1};
    Client client({}, {{}, [&](kavobpf::ConnectionChange) { inCallback = client.Subscribe(KAVO_EVENT_PROCESS_CREATED); }});
    client.SubscribeAsync(KAVO_EVENT_PROCESS_EXITED, [&early](int result) { early = result; });
    ASSERT_TRUE(client.Connect(5s));
    EXPECT_TRUE(WaitUntil([&] { return early == kavobpf::kAccepted; }));
    EXPECT_EQ(kavobpf::kInCallback, inCallback.load());
    ASSERT_TRUE(client.Subscribe(KAVO_EVENT_RSS_STAT) == kavobpf::kAccepted && client.Subscribe(KAVO_EVENT_PROCESS_CREATED) == kavobpf::kAccepted);
    // What the service refuses comes back as such (which requests it
    // refuses is the protocol's story).
    EXPECT_EQ(kavobpf::kRefused, client.Request(kavobpf::kRequestSubscribe, nullptr, 0));

    constexpr size_t kTouched = 8 << 20;
    const pid_t child = ForkAndReap("kavo-typed", kTouched);
    std::vector<Event> events;
    ASSERT_TRUE(CollectEvents(client, &events, [child](auto& e) { return !EventsOf(e, KAVO_EVENT_PROCESS_EXITED, child).empty(); }));
    auto* created = First<kavo_process_created_event>(events, KAVO_EVENT_PROCESS_CREATED, child);
    auto* exited = First<kavo_process_exited_event>(events, KAVO_EVENT_PROCESS_EXITED, child);
    ASSERT_TRUE(created && exited);
    // Created under this process's name, renamed before it ended (the raw
    // fork and exit records' fields are the kernel side's story).
    EXPECT_EQ(std::make_tuple(getpid(), int32_t(getuid()), std::string(program_invocation_short_name).substr(0, 15), std::string("kavo-typed")),
              std::make_tuple(created->ppid, created->uid, std::string(kavobpf::Text(created->comm)), std::string(kavobpf::Text(exited->comm))));
    // The largest anonymous size reported: the 8 MiB touched, in bytes, plus
    // what the child shares with this process.
    int64_t largestAnon = 0;
    for (const Event& event : events) {
      if (auto* rss = event.as<kavo_rss_event>(); rss && rss->pid == child && rss->member == KAVO_RSS_ANON) largestAnon = std::max<int64_t>(largestAnon, rss->size);
    }
    EXPECT_TRUE(largestAnon >= int64_t(kTouched) && largestAnon <= int64_t(kTouched) * 4) << largestAnon;

    // Once closed, the client hands out nothing more, not even what is still queued.
    const uint64_t received = client.stats().events;
    ForkAndReap("kavo-queued");
    ASSERT_TRUE(WaitUntil([&] { return client.stats().events > received; }));
    client.Close();
    EXPECT_FALSE(client.NextEvent(0ms));
    EXPECT_EQ(kavobpf::kClosed, client.Subscribe(KAVO_EVENT_PROCESS_EXITED));

    // A client on callbacks follows the service through a kill and a restart.
    std::mutex mutex;
    std::vector<kavobpf::ConnectionChange> changes;
    std::vector<int32_t> exits;
    auto onEvent = [&](const Event& e) { std::lock_guard<std::mutex> g(mutex); if (auto* x = e.as<kavo_process_exited_event>()) exits.push_back(x->pid); };
    Client follower({}, {onEvent, [&](kavobpf::ConnectionChange change) { std::lock_guard<std::mutex> g(mutex); changes.push_back(change); }});
    ASSERT_TRUE(follower.Connect(5s));
    ASSERT_EQ(kavobpf::kAccepted, follower.Subscribe(KAVO_EVENT_PROCESS_EXITED));
    // Children forked until the exit of one reaches the client.
    auto exitSeen = [&](pid_t pid) {
      return WaitUntil([&] { std::lock_guard<std::mutex> g(mutex); return std::count(exits.begin(), exits.end(), pid) == 1; }, 200ms);
    };
    auto exitsArrive = [&] { return WaitUntil([&] { return exitSeen(ForkAndReap("kavo-restart")); }, 10s); };
    EXPECT_TRUE(exitsArrive());
    system.Kill(SIGKILL);
    ASSERT_TRUE(system.StartDaemon(&why)) << why;
    // Back within the 5-second retry period and subscribed again by itself;
    // the reconnection is told once the service has answered, so the very
    // next child's exit arrives. A dying daemon's socket may still take a
    // connection for an instant; one lost before it was told is not told.
    ASSERT_TRUE(WaitUntil([&] { return follower.stats().reconnections > 0; }, 8s));
    const pid_t next = ForkAndReap("kavo-restart");
    EXPECT_TRUE(WaitUntil([&] { std::lock_guard<std::mutex> g(mutex); return std::count(exits.begin(), exits.end(), next) == 1; }, 5s))
        << "the first exit after the reconnection was told";
    follower.Close();
    using C = kavobpf::ConnectionChange;
    EXPECT_EQ((std::vector<C>{C::kConnected, C::kLost, C::kReconnected}), changes);
    EXPECT_EQ(1u, follower.stats().reconnections);
    EXPECT_EQ(0, system.Stop());
  });
}

void Shell(const std::string& command) {
  auto result = RunCommand({"/bin/sh", "-c", command}, 240);
  EXPECT_EQ(0, result.exitCode) << command << "\n" << result.output;
}

TEST(Install, TheExampleBuildsAgainstThePackageAndSeesProcesses) {
  RunInNamespace([] {
    char dir[] = "/tmp/kavo-install-XXXXXX";
    ASSERT_NE(nullptr, mkdtemp(dir));
    const std::string root = dir, prefix = root + "/prefix", example = KAVO_SOURCE_DIR "/examples";
    Shell("cmake --install " KAVO_BINARY_DIR " --prefix " + prefix + " > /dev/null");
    for (const char* installed : {"bin/kavobpfd", "bin/kavobpf_loader", "bin/kavobpf_client", "lib/libkavobpfservice.so",
                                  "lib/libkavobpfclient.so.1", "lib/libkavobpfclient.a", "include/kavobpf/kavobpf_client.h"})
      EXPECT_TRUE(PathExists(prefix + "/" + installed)) << installed;
    EXPECT_NE(std::string::npos, ReadFile(prefix + "/lib/systemd/system/kavobpfd.service").find("ExecStartPre=" + prefix + "/bin/kavobpf_loader"));
    // Built the way a user builds it, with the compiler (and sanitizers) of
    // this build, so that it links against what was installed.
    const std::string pkgConfig = "PKG_CONFIG_PATH=" + prefix + "/lib/pkgconfig ";
    Shell(pkgConfig + KAVO_CXX " " KAVO_CXX_FLAGS " -std=c++17 -Wall -Wextra -Werror " + example + "/watch_processes.cpp $(" +
          pkgConfig + "pkg-config --cflags --libs kavobpfclient) -Wl,-rpath," + prefix + "/lib -o " + root + "/watch_pkgconfig");
    Shell("cmake -S " + example + " -B " + root + "/build -G Ninja -DCMAKE_CXX_COMPILER=" KAVO_CXX " '-DCMAKE_CXX_FLAGS=" KAVO_CXX_FLAGS
          "' -DCMAKE_PREFIX_PATH=" + prefix + " > /dev/null && cmake --build " + root + "/build > /dev/null");
    ASSERT_FALSE(::testing::Test::HasFailure());

    KavoSystem system({{}, {}, prefix + "/bin"});
    std::string why;
    if (!system.Start(&why)) KAVO_KERNEL_SKIP(why);
    ChildProcess byPkgConfig({root + "/watch_pkgconfig", "30"}), byCMake({root + "/build/watch_processes", "30"});
    for (auto* watcher : {&byPkgConfig, &byCMake}) ASSERT_TRUE(watcher->WaitForOutput("watching\n")) << watcher->Output();
    const pid_t child = ForkAndReap("kavo-installed");
    for (auto* watcher : {&byPkgConfig, &byCMake}) {
      EXPECT_TRUE(watcher->WaitForOutput("created pid=" + std::to_string(child) + " ppid=" + std::to_string(getpid())));
      EXPECT_TRUE(watcher->WaitForOutput("exited pid=" + std::to_string(child) + " comm=kavo-installed\n")) << watcher->Output();
    }
    EXPECT_EQ(0, system.Stop());
    RunCommand({"rm", "-rf", root});
  }, NamespaceOptions{false, 280});
}

constexpr gid_t kAllowedGroup = 4242;  // "kavobpf" in the test's /etc/group
constexpr uid_t kNobody = 65534;

struct Identity { uid_t uid; gid_t gid; std::vector<gid_t> groups; };

// Runs |body| in a child of |who|'s identity; what it returned (0 to 254).
int As(const Identity& who, const std::function<int()>& body) {
  if (pid_t child = fork(); child != 0) {
    int status = 0;
    return waitpid(child, &status, 0) == child && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }
  const bool switched = setgroups(who.groups.size(), who.groups.data()) == 0 && setresgid(who.gid, who.gid, who.gid) == 0 &&
                        setresuid(who.uid, who.uid, who.uid) == 0;
  _exit(switched ? body() : 255);
}

// Whether |client| was closed unanswered: with a request unread, the
// connection reports a reset (once), then its end.
bool ClosedUnread(RawClient& client) {
  char byte;
  const ssize_t n = client.ReadFrame(3s) ? 1 : recv(client.fd(), &byte, 1, MSG_DONTWAIT);
  return n == 0 || (n < 0 && errno == ECONNRESET);
}

// What a peer meets.
enum Outcome { kIgnored = 0, kAnswered = 1, kSawItsChild = 3, kClosedUnread = 4 };

// A peer of |who|'s identity that subscribes to process exits (or sends
// |frame| instead), forks a child and reads for up to 3 s; what it met.
int Peer(const Identity& who, const std::string& frame = "") {
  return As(who, [&frame] {
    RawClient client;
    // A refused peer may find its connection closed before it sends.
    if (!client.Connect() || !client.Send(frame.empty() ? RequestFrame(1, 51, KAVO_EVENT_PROCESS_EXITED) : frame)) return int(kClosedUnread);
    auto response = client.ReadFrame(3s);
    if (!response || !AsResponse(*response) || AsResponse(*response)->result != 0) return int(!response && ClosedUnread(client) ? kClosedUnread : kIgnored);
    const pid_t child = ForkAndReap("kavo-peer");
    for (auto event = client.ReadEvent(3s); event; event = client.ReadEvent(3s)) {
      if (event->size() >= 8 && memcmp(event->data() + 4, &child, 4) == 0) return int(kSawItsChild);
    }
    return int(kAnswered);
  });
}

TEST(AccessControl, OnlyTrustedPeersAreServed) {
  RunInNamespace([] {
    // The test's own /etc/group, with the group kavobpfd lets in by default.
    WriteFile("/data/group", ReadFile("/etc/group") + "kavobpf:x:4242:\n");
    ASSERT_EQ(0, mount("/data/group", "/etc/group", nullptr, MS_BIND, nullptr));
    KavoSystem system({{}, {"--allow-uid", "12345"}, {}});
    std::string why;
    if (!system.Start(&why)) KAVO_KERNEL_SKIP(why);
    const pid_t daemon = system.daemon()->pid();
    // The readiness check's own client may still be open: at most this many afterwards.
    const size_t descriptors = OpenDescriptors(daemon);
    const std::string refused = "[UnixIpcManager] Refused peer: pid: ";

    // Another user, and one whose primary group id merely looks close: closed
    // at once and told nothing; the first ten are logged with their ids.
    for (size_t i = 1; i <= 11; ++i) {
      EXPECT_EQ(kClosedUnread, Peer(i % 2 ? Identity{kNobody, kNobody, {}} : Identity{23456, kAllowedGroup + 1, {}})) << i;
      EXPECT_EQ(std::min<size_t>(i, 10), Occurrences(system.Output(), refused)) << i;
    }
    EXPECT_NE(std::string::npos, system.Output().find(", uid: 65534, gid: 65534"));
    // A crowd of them, one connection after another, costs no descriptor, no
    // log line and no memory past 512 kB (other processes' records move it a
    // little; 256 bytes kept per connection would pass it).
    const long long anonKb = StatusKb(daemon, "RssAnon:");
    EXPECT_EQ(2000 / 10, As({kNobody, kNobody, {}}, [] {
      int closed = 0;
      for (RawClient client; closed < 2000 && client.Connect() && ClosedUnread(client); client.Close()) ++closed;
      return closed / 10;  // in tens: an exit status holds no more than 255
    }));
    EXPECT_TRUE(WaitUntil([&] { return OpenDescriptors(daemon) <= descriptors; }, 2s))
        << OpenDescriptors(daemon) << " descriptors, " << descriptors << " before";
    EXPECT_LE(StatusKb(daemon, "RssAnon:"), anonKb + 512) << anonKb << " kB before";
    EXPECT_EQ(10u, Occurrences(system.Output(), refused));

    // The allowed user, a member of the allowed group through a supplementary
    // group only, and root: each sees the exit of its own child.
    for (const Identity& trusted : {Identity{12345, 12345, {}}, Identity{23456, 23456, {kAllowedGroup}}, Identity{0, 0, {}}})
      EXPECT_EQ(kSawItsChild, Peer(trusted)) << trusted.uid;

    // The request whose sizes disagree, which ends the service when a trusted
    // peer sends it (ClientBadInput), is never read from another user.
    std::string inconsistent = RequestFrame(9, 51, KAVO_EVENT_PROCESS_EXITED);
    inconsistent[20] = 5;  // dataSize 5 in a body of 16 bytes
    EXPECT_EQ(kClosedUnread, Peer({kNobody, kNobody, {}}, inconsistent));
    EXPECT_EQ(kSawItsChild, Peer({0, 0, {}}));
    EXPECT_EQ(0, system.Stop());
  });
}

}  // namespace
