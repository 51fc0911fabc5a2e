// Who kavobpfd serves on a multi-user host: peers of other users connect as
// they like, but only root, the members of the allowed group (primary or
// supplementary) and the allowed users are read from and answered; the
// others are closed before a byte of them is read, so they can neither watch
// processes nor end the service, and a crowd of them costs neither
// descriptors nor log lines past the first ten.

#include <grp.h>
#include <string.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "bpf/kavo_bpf_records.h"
#include "support/harness.h"
#include "support/processes.h"
#include "support/system.h"
#include "support/wait_until.h"
#include "support/wire.h"

namespace {

using namespace std::chrono_literals;

constexpr gid_t kAllowedGroup = 4242;  // "kavobpf" in the test's /etc/group
constexpr uid_t kNobody = 65534;

struct Identity {
  uid_t uid;
  gid_t gid;
  std::vector<gid_t> groups;
};

// What a peer met: answered, the exit of a child of its own seen, or closed unread.
struct Outcome {
  bool answered = false, sawItsChild = false, closedUnread = false;
};

// A peer of |who|'s identity that subscribes to process exits (or sends
// |frame| instead), forks a child and reads for up to 3 s; what it met.
Outcome Peer(const Identity& who, const std::string& frame = "") {
  Outcome outcome;
  int report[2];
  if (pipe(report) != 0) return outcome;
  if (pid_t peer = fork(); peer != 0) {
    close(report[1]);
    EXPECT_EQ(ssize_t(sizeof(outcome)), read(report[0], &outcome, sizeof(outcome)));
    close(report[0]);
    waitpid(peer, nullptr, 0);
    return outcome;
  }
  if (setgroups(who.groups.size(), who.groups.data()) != 0 || setresgid(who.gid, who.gid, who.gid) != 0 ||
      setresuid(who.uid, who.uid, who.uid) != 0) {
    _exit(1);
  }
  kavo::test::RawClient client;
  // A refused peer may find its connection closed before it sends.
  const bool sent = client.Connect() && client.Send(frame.empty() ? kavo::test::RequestFrame(1, 51, KAVO_EVENT_PROCESS_EXITED) : frame);
  auto response = sent ? client.ReadFrame(3s) : std::nullopt;
  outcome.answered = response && kavo::test::AsResponse(*response) && kavo::test::AsResponse(*response)->result == 0;
  if (outcome.answered) {
    const pid_t child = fork();
    if (child == 0) _exit(0);
    waitpid(child, nullptr, 0);
    for (auto event = client.ReadEvent(3s); event && !outcome.sawItsChild; event = client.ReadEvent(3s)) {
      outcome.sawItsChild = event->size() >= 8 && memcmp(event->data() + 4, &child, 4) == 0;
    }
  } else {
    // Closed with the request unread, the connection reports a reset (once), then its end.
    char byte;
    ssize_t n = recv(client.fd(), &byte, 1, MSG_DONTWAIT);
    outcome.closedUnread = !sent || n == 0 || (n < 0 && errno == ECONNRESET);
  }
  (void)!write(report[1], &outcome, sizeof(outcome));
  _exit(0);
}

size_t Occurrences(const std::string& text, const std::string& needle) {
  size_t n = 0;
  for (size_t at = text.find(needle); at != std::string::npos; at = text.find(needle, at + 1)) ++n;
  return n;
}

TEST(AccessControl, OnlyTrustedPeersAreServed) {
  kavo::test::RunInNamespace([] {
    // The test's own /etc/group, with the group kavobpfd lets in by default.
    kavo::test::WriteFile("/data/group", kavo::test::ReadFile("/etc/group") + "kavobpf:x:4242:\n");
    ASSERT_EQ(0, mount("/data/group", "/etc/group", nullptr, MS_BIND, nullptr));
    kavo::test::KavoSystem system({{}, {"--allow-uid", "12345"}, {}});
    std::string why;
    if (!system.Start(&why)) KAVO_KERNEL_SKIP(why);
    const size_t descriptors = kavo::test::OpenDescriptors(system.daemon()->pid());

    // Another user, and one whose primary group id merely looks close: closed
    // at once and told nothing; the first ten are logged with their ids.
    for (size_t i = 1; i <= 12; ++i) {
      EXPECT_TRUE(Peer(i % 2 ? Identity{kNobody, kNobody, {}} : Identity{23456, kAllowedGroup + 1, {}}).closedUnread) << i;
      EXPECT_EQ(std::min<size_t>(i, 10), Occurrences(system.Output(), "[UnixIpcManager] Refused peer: pid: ")) << i;
    }
    EXPECT_NE(std::string::npos, system.Output().find(", uid: 65534, gid: 65534"));
    // The allowed user, a member of the allowed group through a supplementary
    // group only, and root: each sees the exit of its own child.
    for (const Identity& trusted : {Identity{12345, 12345, {}}, Identity{23456, 23456, {kAllowedGroup}}, Identity{0, 0, {}}}) {
      EXPECT_TRUE(Peer(trusted).sawItsChild) << trusted.uid;
    }
    EXPECT_TRUE(kavo::test::WaitUntil([&] { return kavo::test::OpenDescriptors(system.daemon()->pid()) == descriptors; }, 2s));

    // The request whose sizes disagree ends the service when a trusted peer
    // sends it; from another user it is never read.
    std::string inconsistent = kavo::test::RequestFrame(9, 51, KAVO_EVENT_PROCESS_EXITED);
    inconsistent[20] = 5;  // dataSize 5 in a body of 16 bytes
    Peer({kNobody, kNobody, {}}, inconsistent);
    EXPECT_TRUE(Peer({0, 0, {}}).sawItsChild);
    Peer({0, 0, {}}, inconsistent);
    int status = 0;
    ASSERT_TRUE(system.daemon()->WaitExit(5s, &status));
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGABRT) << status;
    EXPECT_NE(std::string::npos, system.Output().find("Check failed: ((KavoReqIpcPackageHeader*)data)->dataSize"));
  });
}

}  // namespace
