// Records lost for real: kavobpfd is stopped (SIGSTOP) while a burst of forks
// fills its 4-KiB ring 0, and behind the full ring processes it knew exit, a
// pid is taken by a new process and another starts. Once the daemon runs
// again its task table is what /proc shows and a client has seen every exit
// and every new process, within 2 s. The same holds with the lost-record
// counter's pin gone, from the ring's full bit alone. (With a 16-MiB ring
// nothing is lost and nothing is repaired: EndToEnd.)

#include <signal.h>
#include <stdint.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "service/kavo_bpf_service.h"
#include "support/harness.h"
#include "support/kernel.h"
#include "support/kernel_stand_ins.h"
#include "support/system.h"

namespace {

using namespace std::chrono_literals;
using Events = std::vector<kavobpf::Event>;
using Kavo::Bpf::KavoBpfService;
using namespace kavo::test;

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr auto kRepairDeadline = 6s;  // an instrumented daemon reads /proc several times slower
#else
constexpr auto kRepairDeadline = 2s;
#endif
constexpr char kResyncLine[] = "[KavoBpfService][resyncTaskTable] lost records: ";

// Forks and execs "/bin/sleep 20" as process |pid| (clone3 with set_tid; root).
pid_t SleepAtPid(pid_t pid) {
  struct {
    uint64_t flags, pidfd, child_tid, parent_tid, exit_signal, stack, stack_size, tls, set_tid, set_tid_size, cgroup;
  } args = {};
  args.exit_signal = SIGCHLD, args.set_tid = reinterpret_cast<uintptr_t>(&pid), args.set_tid_size = 1;
  long child = syscall(SYS_clone3, &args, sizeof(args));
  if (child == 0) execl("/bin/sleep", "sleep", "20", nullptr), _exit(127);
  return static_cast<pid_t>(child);
}

// Ring 0's lost-record counter (key 0 of its array); -1 without one.
int64_t LostRecords() { return kavo::test::ReadControlWord(KavoBpfService::RINGBUF_LOST_PATH[0]); }

size_t Resyncs(const kavo::test::KavoSystem& system) { return kavo::test::Occurrences(system.Output(), kResyncLine); }

std::unique_ptr<ChildProcess> Sleeper() {
  return std::make_unique<ChildProcess>(std::vector<std::string>{ToolPath("kavo_workload"), "sleep", "20000"});
}

// A client of process creations and exits, and the processes of one run:
// sleepers the daemon knows before the burst, the one whose pid is taken
// anew, and one started after it.
struct Cast {
  kavobpf::Client client{{kavobpf::kDefaultSocket, 1000000}};
  Events events;
  std::vector<std::unique_ptr<ChildProcess>> sleepers;
  std::unique_ptr<ChildProcess> lateProcess;
  pid_t victim = -1, reused = -1, late = -1;

  ~Cast() {
    if (reused > 0) kill(reused, SIGKILL), waitpid(reused, nullptr, 0);
  }
  // Subscribes and starts the sleepers; true once the client saw each one created.
  bool Start() {
    if (!client.Connect(5s) || client.Subscribe(KAVO_EVENT_PROCESS_CREATED) != kavobpf::kAccepted ||
        client.Subscribe(KAVO_EVENT_PROCESS_EXITED) != kavobpf::kAccepted) return false;
    for (int i = 0; i < 9; ++i) sleepers.push_back(Sleeper());
    victim = sleepers.back()->pid();
    return kavo::test::CollectEvents(client, &events, [this](const Events& all) {
      for (auto& s : sleepers) if (EventsOf(all, KAVO_EVENT_PROCESS_CREATED, s->pid()).empty()) return false;
      return true;
    });
  }
  // All of them end, the victim's pid is taken by /bin/sleep, one more starts.
  void ComeAndGo() {
    int status;
    for (auto& s : sleepers) s->Signal(SIGKILL), s->WaitExit(5s, &status);
    reused = SleepAtPid(victim);
    late = (lateProcess = Sleeper())->pid();
  }
  // Every sleeper ended once, the reused pid was created anew after the
  // victim's end, the late one was created.
  bool AllSeen(const Events& all) const {
    for (auto& s : sleepers) if (EventsOf(all, KAVO_EVENT_PROCESS_EXITED, s->pid()).size() != 1) return false;
    auto ended = EventsOf(all, KAVO_EVENT_PROCESS_EXITED, victim);
    auto created = EventsOf(all, KAVO_EVENT_PROCESS_CREATED, reused);
    return ended.size() == 1 && created.size() == 2 && created[1] > ended[0] &&
           EventsOf(all, KAVO_EVENT_PROCESS_CREATED, late).size() == 1;
  }
};

// The table holds exactly the processes alive, but for those that came or
// went while it was read.
bool TableIsAlive(kavo::test::KavoSystem& system, std::string* why) {
  std::set<pid_t> before = kavo::test::LivePids();
  auto table = kavo::test::DumpTaskTable(*system.daemon());
  std::set<pid_t> after = kavo::test::LivePids();
  *why = "";
  for (auto& [pid, row] : table) if (!before.count(pid) && !after.count(pid)) *why += " stale:" + std::to_string(pid);
  for (pid_t pid : before) if (after.count(pid) && !table.count(pid)) *why += " missing:" + std::to_string(pid);
  return !table.empty() && why->empty();
}

void LoseAndRepair(bool withCounter) {
  std::string why;
  if (!kavo::test::LoadKernelSide(&why, {"--ring-size", "4096"})) KAVO_KERNEL_SKIP(why);
  // Objects built without the counter: the daemon has only the full bit.
  if (!withCounter) { ASSERT_EQ(0, unlink(KavoBpfService::RINGBUF_LOST_PATH[0].c_str())) << KavoBpfService::RINGBUF_LOST_PATH[0]; }
  kavo::test::KavoSystem system;
  ASSERT_TRUE(system.StartDaemon(&why)) << why;
  Cast cast;
  ASSERT_TRUE(cast.Start());
  Events& events = cast.events;
  const int64_t lostBefore = LostRecords();
  const size_t resyncsBefore = Resyncs(system);

  system.Kill(SIGSTOP);
  ASSERT_TRUE(WaitUntil([&] {
    std::string stat = kavo::test::ReadFile("/proc/" + std::to_string(system.daemon()->pid()) + "/stat");
    return stat.find(") T ") != std::string::npos;
  }));
  ASSERT_EQ(0, kavo::test::RunCommand({ToolPath("kavo_workload"), "forks", "200"}).exitCode);
  ASSERT_TRUE(WaitUntil([] {
    return (kavo::test::ReadControlWord(KavoBpfService::RINGBUF_STATUS_PATH[0]) & KAVO_RING_FULL_BIT) != 0;
  })) << "the ring never ran full";
  cast.ComeAndGo();
  ASSERT_EQ(cast.victim, cast.reused) << "clone3 set_tid";
  if (withCounter) { EXPECT_GT(LostRecords(), lostBefore); }

  const auto resumed = std::chrono::steady_clock::now();
  system.Kill(SIGCONT);
  EXPECT_TRUE(kavo::test::CollectEvents(cast.client, &events, [&](const Events& all) { return cast.AllSeen(all); }, kRepairDeadline));
  // The new process under the victim's pid is read from /proc (that the old
  // one leaves under the name the table knew it by is TaskResync's).
  auto created = EventsOf(events, KAVO_EVENT_PROCESS_CREATED, cast.victim);
  if (created.size() == 2) { EXPECT_EQ("sleep", kavobpf::Text(events[created[1]].as<kavo_process_created_event>()->comm)); }
  EXPECT_TRUE(WaitUntil([&] { return TableIsAlive(system, &why); },
                        std::max(100ms, std::chrono::duration_cast<std::chrono::milliseconds>(
                                            resumed + kRepairDeadline - std::chrono::steady_clock::now())))) << why;
  EXPECT_GT(Resyncs(system), resyncsBefore) << system.Output();
  EXPECT_EQ(0, system.Stop());
}

TEST(TaskResyncOnKernel, RecordsLostBehindAFullRingAreRepairedOnceTheDaemonRunsAgain) {
  kavo::test::RunInNamespace([] { LoseAndRepair(true); });
  kavo::test::RunInNamespace([] { LoseAndRepair(false); });
}

}  // namespace
