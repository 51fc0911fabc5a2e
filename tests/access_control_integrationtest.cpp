// Who kavobpfd serves on a multi-user host: peers of other users connect as
// they like, but only root, the members of the allowed group and the allowed
// users are read from and answered; the others are closed before a byte of
// them is read, so they can neither watch processes nor end the service.

#include <fcntl.h>
#include <grp.h>
#include <poll.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "bpf/kavo_bpf_records.h"
#include "support/system.h"
#include "support/harness.h"
#include "support/processes.h"
#include "support/wire.h"
#include "support/wait_until.h"

namespace {

using namespace std::chrono_literals;
using kavo::test::RawClient;

constexpr gid_t kAllowedGroup = 4242;  // "kavobpf" in the test's /etc/group
constexpr uid_t kNobody = 65534;

struct Identity {
  uid_t uid;
  gid_t gid;
  std::vector<gid_t> groups;
};

// What a peer met: whether it was answered, whether the exit of a process it
// forked reached it, and whether the service closed it without a word.
struct Outcome {
  bool answered = false;
  bool sawItsChild = false;
  bool closedUnread = false;
};

// Forks a peer that takes |who|'s identity, subscribes to process exits,
// forks a child of its own and reads for up to |wait|.
Outcome Peer(const Identity& who, std::chrono::milliseconds wait = 3s) {
  int report[2];
  if (pipe(report) != 0) return {};
  pid_t peer = fork();
  if (peer == 0) {
    Outcome outcome;
    if (setgroups(who.groups.size(), who.groups.data()) != 0 || setresgid(who.gid, who.gid, who.gid) != 0 ||
        setresuid(who.uid, who.uid, who.uid) != 0) {
      _exit(1);
    }
    RawClient client;
    if (client.Connect()) {
      // A refused peer may find its connection closed before it sends.
      const bool sent = client.Send(kavo::test::RequestFrame(1, 51, KAVO_EVENT_PROCESS_EXITED));
      auto response = sent ? client.ReadFrame(wait) : std::nullopt;
      outcome.answered = response && kavo::test::AsResponse(*response) &&
                         kavo::test::AsResponse(*response)->result == 0;
      if (outcome.answered) {
        pid_t child = fork();
        if (child == 0) _exit(0);
        waitpid(child, nullptr, 0);
        const auto deadline = std::chrono::steady_clock::now() + wait;
        while (!outcome.sawItsChild && std::chrono::steady_clock::now() < deadline) {
          auto event = client.ReadEvent(100ms);
          int32_t pid = 0;
          if (event && event->size() >= 8) memcpy(&pid, event->data() + 4, sizeof(pid));
          outcome.sawItsChild = event && pid == child;
        }
      } else {
        // Closed with the request unread, the connection reports a reset
        // (once), then its end.
        char byte;
        ssize_t n = recv(client.fd(), &byte, 1, MSG_DONTWAIT);
        outcome.closedUnread = !sent || n == 0 || (n < 0 && errno == ECONNRESET);
      }
    }
    (void)!write(report[1], &outcome, sizeof(outcome));
    _exit(0);
  }
  close(report[1]);
  Outcome outcome;
  bool reported = read(report[0], &outcome, sizeof(outcome)) == sizeof(outcome);
  close(report[0]);
  waitpid(peer, nullptr, 0);
  EXPECT_TRUE(reported);
  return outcome;
}

// Sends, as |who|, a request whose data size disagrees with its package.
void SendInconsistentRequest(const Identity& who) {
  pid_t peer = fork();
  if (peer == 0) {
    if (setgroups(0, nullptr) != 0 || setresgid(who.gid, who.gid, who.gid) != 0 ||
        setresuid(who.uid, who.uid, who.uid) != 0) {
      _exit(1);
    }
    RawClient client;
    std::string frame = kavo::test::RequestFrame(9, 51, KAVO_EVENT_PROCESS_EXITED);
    frame[20] = 5;  // dataSize 5 in a body of 16 bytes
    if (!client.Connect() || !client.Send(frame)) _exit(1);
    // Open until the service is done with it: a peer that hangs up at once
    // may be closed before its bytes are read.
    client.ReadFrame(3s);
    _exit(0);
  }
  waitpid(peer, nullptr, 0);
}

// The test's own /etc/group, with the group kavobpfd lets in by default.
void AddKavobpfGroup() {
  std::string groups = kavo::test::ReadFile("/etc/group");
  kavo::test::WriteFile("/data/group", groups + "kavobpf:x:" + std::to_string(kAllowedGroup) + ":\n");
  ASSERT_EQ(0, mount("/data/group", "/etc/group", nullptr, MS_BIND, nullptr));
}

long VmRssKb(pid_t pid) {
  std::string status = kavo::test::ReadFile("/proc/" + std::to_string(pid) + "/status");
  size_t at = status.find("VmRSS:");
  return at == std::string::npos ? -1 : atol(status.c_str() + at + 6);
}

size_t Occurrences(const std::string& text, const std::string& needle) {
  size_t n = 0;
  for (size_t at = text.find(needle); at != std::string::npos; at = text.find(needle, at + 1)) ++n;
  return n;
}

TEST(AccessControl, OnlyTrustedPeersAreServed) {
  kavo::test::RunInNamespace([] {
    AddKavobpfGroup();
    kavo::test::KavoSystem system({{}, {"--allow-uid", "12345"}, {}});
    std::string why;
    if (!system.Start(&why)) KAVO_KERNEL_SKIP(why);

    // Another user: closed at once, told nothing, its pid and ids logged.
    Outcome nobody = Peer({kNobody, kNobody, {}});
    EXPECT_FALSE(nobody.answered);
    EXPECT_TRUE(nobody.closedUnread);
    EXPECT_TRUE(system.daemon()->WaitForOutput("[UnixIpcManager] Refused peer: pid: "));
    EXPECT_NE(std::string::npos, system.Output().find(", uid: 65534, gid: 65534"));
    // A user outside the group, whose primary group id merely looks close.
    EXPECT_TRUE(Peer({23456, kAllowedGroup + 1, {}}).closedUnread);

    // The allowed user, a member of the allowed group, and root: served as
    // ever, each sees the exit of its own child.
    for (const Identity& trusted : {Identity{12345, 12345, {}}, Identity{23456, 23456, {kAllowedGroup}},
                                    Identity{0, 0, {}}}) {
      Outcome served = Peer(trusted);
      EXPECT_TRUE(served.answered) << trusted.uid;
      EXPECT_TRUE(served.sawItsChild) << trusted.uid;
    }

    // The request whose sizes disagree ends the service when a trusted peer
    // sends it; from another user it is never read.
    SendInconsistentRequest({kNobody, kNobody, {}});
    EXPECT_TRUE(Peer({0, 0, {}}).sawItsChild);
    SendInconsistentRequest({0, 0, {}});
    int status = 0;
    ASSERT_TRUE(system.daemon()->WaitExit(5s, &status));
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGABRT) << status;
    EXPECT_NE(std::string::npos, system.Output().find("Check failed: ((KavoReqIpcPackageHeader*)data)->dataSize"));
  });
}

TEST(AccessControl, AFloodOfRefusedPeersCostsNothing) {
  kavo::test::RunInNamespace([] {
    kavo::test::KavoSystem system;
    std::string why;
    if (!system.Start(&why)) KAVO_KERNEL_SKIP(why);
    const pid_t daemon = system.daemon()->pid();
    // One refusal first, so that whatever a refusal allocates once is there.
    EXPECT_TRUE(Peer({kNobody, kNobody, {}}).closedUnread);
    const size_t descriptors = kavo::test::OpenDescriptors(daemon);
    const long rss = VmRssKb(daemon);

    pid_t flood = fork();
    if (flood == 0) {
      if (setresgid(kNobody, kNobody, kNobody) != 0 || setresuid(kNobody, kNobody, kNobody) != 0) _exit(1);
      int refused = 0;
      while (refused < 2000) {
        RawClient client;
        if (!client.Connect(kavo::test::kServiceSocket, 1s)) continue;
        struct pollfd closed = {client.fd(), POLLIN, 0};
        char byte;
        if (poll(&closed, 1, 2000) == 1 && recv(client.fd(), &byte, 1, 0) == 0) ++refused;
      }
      _exit(0);
    }
    int status = 0;
    ASSERT_EQ(flood, waitpid(flood, &status, 0));
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);

    EXPECT_TRUE(kavo::test::WaitUntil([&] { return kavo::test::OpenDescriptors(daemon) == descriptors; }, 2s))
        << kavo::test::OpenDescriptors(daemon) << " descriptors, " << descriptors << " before";
    EXPECT_LE(VmRssKb(daemon), rss + 256) << "KiB resident";
    // Ten refusals are logged one by one per minute; the rest are counted.
    EXPECT_EQ(10u, Occurrences(system.Output(), "[UnixIpcManager] Refused peer: pid: "));
    // Root is served still.
    EXPECT_TRUE(Peer({0, 0, {}}).sawItsChild);
    EXPECT_EQ(0, system.Stop());
  });
}

TEST(AccessControl, WithoutAPolicyEveryPeerIsServed) {
  kavo::test::RunInNamespace([] {
    kavo::test::KavoSystem system({{}, {"--allow-all"}, {}});
    std::string why;
    if (!system.Start(&why)) KAVO_KERNEL_SKIP(why);
    Outcome nobody = Peer({kNobody, kNobody, {}});
    EXPECT_TRUE(nobody.answered);
    EXPECT_TRUE(nobody.sawItsChild);
    EXPECT_EQ(0, system.Stop());
  });
}

}  // namespace
