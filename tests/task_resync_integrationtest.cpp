// Records lost for real, on the real kernel: kavobpfd is stopped (SIGSTOP)
// while a short burst fills its 4-KiB ring 0, and then processes it knew
// exit, a pid is taken by a new process, and a new process starts, all
// behind the full ring. Once the daemon runs again, its task table is what
// /proc shows (read back with a task dump, signal 53) and a subscribed client
// has seen every exit and every new process. With a large ring (16 MiB) the
// same processes come and go without a loss, and nothing is repaired: the
// client sees what it always saw.

#include <signal.h>
#include <stdint.h>
#include <string.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <android-base/unique_fd.h>
#include <bpf/bpf.h>
#include <gtest/gtest.h>

#include "bpf/kavo_bpf_records.h"
#include "support/kernel_stand_ins.h"
#include "support/daemon_system.h"
#include "support/harness.h"
#include "service/kavo_bpf_ring_loss.h"
#include "service/kavo_bpf_service.h"
#include "service/kavo_bpf_signals.h"
#include "service/kavo_bpf_task_manager.h"
#include "support/processes.h"
#include "utils/kavo_bpf_file.h"
#include "support/wait_until.h"

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using Kavo::Bpf::KavoBpfService;
using kavo::test::DaemonSystem;
using kavo::test::JsonEvent;
using kavo::test::ToolPath;
using kavo::test::WaitUntil;

constexpr int kSleepers = 8;
// How soon after the burst the daemon must have put everything right; an
// instrumented daemon drains its ring and reads /proc several times slower.
#if defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define KAVO_SANITIZED 1
#endif
#endif
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define KAVO_SANITIZED 1
#endif
#ifdef KAVO_SANITIZED
constexpr auto kRepairDeadline = std::chrono::seconds(6);
#else
constexpr auto kRepairDeadline = std::chrono::seconds(2);
#endif
// Enough fork and exit records (and the RSS records of the children) to fill
// a 4-KiB ring several times over, and no more: every program on the machine
// sees them, including those of tests running beside this one.
constexpr char kBurstForks[] = "200";
constexpr char kResyncLine[] = "[KavoBpfService][resyncTaskTable] lost records: ";

// The processes of one run: sleepers the daemon knows when the burst starts
// (they exit behind the full ring), the one whose pid is taken, and the
// processes started behind the full ring.
struct Cast {
  std::vector<pid_t> sleepers;
  pid_t victim = -1;
  pid_t reused = -1;  // the victim's pid, taken by /bin/sleep
  pid_t late = -1;
  pid_t burst = -1;  // kavo_workload forks
  std::set<pid_t> unreaped;

  pid_t Add(pid_t pid) {
    if (pid > 0) unreaped.insert(pid);
    return pid;
  }
  void KillAndReap(pid_t pid) {
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
    unreaped.erase(pid);
  }
  ~Cast() {
    std::set<pid_t> left = unreaped;
    for (pid_t pid : left) KillAndReap(pid);
  }
};

// Long enough for the test, short enough not to outlive a test that crashed.
pid_t SpawnSleeper() { return kavo::test::Spawn({ToolPath("kavo_workload"), "sleep", "20000"}); }

// Forks and execs |argv| as the process |pid| (clone3 with set_tid; root).
pid_t SpawnAtPid(pid_t pid, const std::vector<std::string>& argv) {
  struct {
    uint64_t flags, pidfd, child_tid, parent_tid, exit_signal, stack, stack_size, tls, set_tid,
        set_tid_size, cgroup;
  } args = {};
  args.exit_signal = SIGCHLD;
  args.set_tid = reinterpret_cast<uintptr_t>(&pid);
  args.set_tid_size = 1;
  std::vector<char*> exec;
  for (const std::string& a : argv) exec.push_back(const_cast<char*>(a.c_str()));
  exec.push_back(nullptr);
  long child = syscall(SYS_clone3, &args, sizeof(args));
  if (child == 0) {
    execv(exec[0], exec.data());
    _exit(127);
  }
  return static_cast<pid_t>(child);
}

// Every thread of |pid| has stopped.
bool Stopped(pid_t pid) {
  bool all = true;
  std::string tasks = "/proc/" + std::to_string(pid) + "/task";
  Kavo::Bpf::ForEachDirEntry(tasks.c_str(), [&](const char* tid) {
    if (tid[0] == '.') return Kavo::Bpf::LineAction::kContinue;
    std::string stat = kavo::test::ReadFile(tasks + "/" + tid + "/stat");
    size_t close = stat.rfind(')');
    all = all && close != std::string::npos && close + 2 < stat.size() && stat[close + 2] == 'T';
    return all ? Kavo::Bpf::LineAction::kContinue : Kavo::Bpf::LineAction::kStop;
  });
  return all;
}

bool RingFull() {
  int64_t word = kavo::test::ReadControlWord(KavoBpfService::RINGBUF_STATUS_PATH[0]);
  return word >= 0 && (word & static_cast<int64_t>(KAVO_RING_FULL_BIT)) != 0;
}

// Records ring 0's programs could not place, so far.
uint64_t LostRecords() {
  android::base::unique_fd fd(bpf_obj_get(KavoBpfService::RINGBUF_LOST_PATH[0].c_str()));
  uint32_t key = KAVO_RING_LOST_KEY;
  uint64_t lost = 0;
  if (fd.get() >= 0) bpf_map_lookup_elem(fd.get(), &key, &lost);
  return lost;
}

// The pids of the daemon's task table, from a dump (signal 53); empty when
// none was written in time.
std::set<pid_t> DumpedTable(kavo::test::ChildProcess& daemon) {
  const std::string file = Kavo::Bpf::KavoTaskManager::KAVOTASK_DUMP_TEMPLATE;
  unlink(file.c_str());
  daemon.Signal(Kavo::Bpf::kSignalDumpTasksNormal);
  std::set<pid_t> pids;
  // Written in place: whole once it holds as many rows as its header counts.
  WaitUntil([&] {
    pids.clear();
    std::istringstream text(kavo::test::ReadFile(file));
    std::string header, titles, row;
    if (!std::getline(text, header) || !std::getline(text, titles)) return false;
    size_t count = 0;
    if (sscanf(header.c_str(), "============ DUMP ALL KAVO TASKS INFO (count: %zu,", &count) != 1) return false;
    while (std::getline(text, row)) {
      // "<comm>   pid ppid threadNum mmId 4 x '<n> KB' initTimeStamp": the
      // name may hold blanks, so the pid is counted from the end.
      std::vector<std::string> words;
      std::istringstream fields(row);
      for (std::string word; fields >> word;) words.push_back(word);
      if (words.size() < 14) return false;
      pids.insert(std::stoi(words[words.size() - 13]));
    }
    return pids.size() == count && count > 0;
  }, 2s);
  return pids;
}

// Whether the table holds exactly the processes alive, but for those that
// started or ended while it was read; *why lists the others.
bool TableIsAlive(kavo::test::ChildProcess& daemon, std::string* why) {
  std::set<pid_t> before = kavo::test::LivePids();
  std::set<pid_t> table = DumpedTable(daemon);
  std::set<pid_t> after = kavo::test::LivePids();
  std::ostringstream out;
  for (pid_t pid : table) {
    if (!before.count(pid) && !after.count(pid)) out << " stale:" << pid;
  }
  for (pid_t pid : before) {
    if (after.count(pid) && !table.count(pid)) out << " missing:" << pid;
  }
  *why = out.str();
  return !table.empty() && why->empty();
}

// Indexes, in the client's output, of the events of |type| for |pid|.
std::vector<size_t> Find(const std::vector<JsonEvent>& events, long long type, pid_t pid) {
  std::vector<size_t> found;
  for (size_t i = 0; i < events.size(); ++i) {
    if (events[i].type == type && events[i].Num("pid") == pid) found.push_back(i);
  }
  return found;
}

// Starts the sleepers and the victim and waits until the daemon has them.
void StartKnownProcesses(const DaemonSystem& system, Cast* cast) {
  for (int i = 0; i < kSleepers; ++i) cast->sleepers.push_back(cast->Add(SpawnSleeper()));
  cast->victim = cast->Add(SpawnSleeper());
  ASSERT_TRUE(system.WaitEvents([cast](const std::vector<JsonEvent>& events) {
    for (pid_t pid : cast->sleepers) {
      if (Find(events, 50001, pid).empty()) return false;
    }
    return !Find(events, 50001, cast->victim).empty();
  })) << "the daemon never reported the sleepers";
}

// The sleepers and the victim exit, the victim's pid is taken by /bin/sleep,
// and one more process starts.
void ComeAndGo(Cast* cast) {
  for (pid_t pid : cast->sleepers) cast->KillAndReap(pid);
  pid_t victim = cast->victim;
  cast->KillAndReap(victim);
  cast->reused = cast->Add(SpawnAtPid(victim, {"/bin/sleep", "20"}));
  ASSERT_EQ(victim, cast->reused) << "clone3 set_tid: " << strerror(errno);
  cast->late = cast->Add(SpawnSleeper());
}

// Every known process exited once, the reused pid is a new "sleep", and the
// late process was created.
bool EveryChangeSeen(const std::vector<JsonEvent>& events, const Cast& cast, std::string* why) {
  std::ostringstream out;
  for (pid_t pid : cast.sleepers) {
    if (Find(events, 50002, pid).size() != 1) out << " exits of " << pid << ": " << Find(events, 50002, pid).size();
  }
  std::vector<size_t> victimExits = Find(events, 50002, cast.victim);
  std::vector<size_t> reusedCreates = Find(events, 50001, cast.reused);
  if (victimExits.size() != 1) out << " exits of the victim: " << victimExits.size();
  // The victim's own 50001 came before the burst; the new process's after its exit.
  if (reusedCreates.size() != 2 || victimExits.empty() || reusedCreates[1] < victimExits[0]) {
    out << " the reused pid was not created anew";
  }
  if (Find(events, 50001, cast.late).size() != 1) out << " the late process was not created";
  *why = out.str();
  return why->empty();
}

// The daemon's resynchronisation lines so far.
std::vector<std::string> ResyncLines(const kavo::test::ChildProcess& daemon) {
  std::vector<std::string> lines;
  std::istringstream in(daemon.Output());
  for (std::string line; std::getline(in, line);) {
    if (line.find(kResyncLine) != std::string::npos) lines.push_back(line);
  }
  return lines;
}

// The daemon is stopped, the burst fills the ring, the processes come and go
// behind it, and the daemon runs again: within kRepairDeadline it has put
// everything right.
void LoseAndRepair(DaemonSystem& system, Cast* cast, bool counter) {
  StartKnownProcesses(system, cast);
  if (testing::Test::HasFatalFailure()) return;
  const uint64_t lostBefore = LostRecords();
  const size_t resyncsBefore = ResyncLines(system.daemon()).size();

  ASSERT_TRUE(system.daemon().Signal(SIGSTOP));
  ASSERT_TRUE(WaitUntil([&] { return Stopped(system.daemon().pid()); }));
  auto burst = kavo::test::RunCommand({ToolPath("kavo_workload"), "forks", kBurstForks});
  ASSERT_EQ(0, burst.exitCode) << burst.output;
  ASSERT_TRUE(WaitUntil(RingFull)) << "the ring never ran full";
  ComeAndGo(cast);
  if (testing::Test::HasFatalFailure()) return;
  if (counter) {
    EXPECT_GT(LostRecords(), lostBefore);
  }

  const auto resumed = Clock::now();
  ASSERT_TRUE(system.daemon().Signal(SIGCONT));
  auto left = [resumed] {
    return std::max(0ms, std::chrono::duration_cast<std::chrono::milliseconds>(resumed + kRepairDeadline -
                                                                                Clock::now()));
  };
  std::string why;
  EXPECT_TRUE(system.WaitEvents([&](const std::vector<JsonEvent>& events) { return EveryChangeSeen(events, *cast, &why); },
                                left()))
      << why;
  const auto events = system.Events();
  std::vector<size_t> creates = Find(events, 50001, cast->victim);
  std::vector<size_t> exits = Find(events, 50002, cast->victim);
  if (creates.size() == 2 && exits.size() == 1) {
    EXPECT_EQ("sleep", events[creates[1]].Str("comm")) << "the new process under the reused pid";
    // The old process leaves with the name the table knew it by.
    EXPECT_EQ(events[creates[0]].Str("comm"), events[exits[0]].Str("comm"));
  }
  EXPECT_TRUE(WaitUntil([&] { return TableIsAlive(system.daemon(), &why); }, left())) << why;
  printf("figure repaired_after_ms: %lld\n",
         static_cast<long long>(std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - resumed).count()));

  std::vector<std::string> resyncs = ResyncLines(system.daemon());
  ASSERT_GT(resyncs.size(), resyncsBefore) << system.daemon().Output();
  std::smatch lost;
  std::string last = resyncs.back();
  ASSERT_TRUE(std::regex_search(last, lost, std::regex("lost records: ([0-9]+), "))) << last;
  EXPECT_GT(std::stoull(lost[1]), 0u) << last;
  printf("%s\n", last.c_str());
}

TEST(TaskResyncOnKernel, RecordsLostBehindAFullRingAreRepairedOnceTheDaemonRunsAgain) {
  kavo::test::RunInNamespace([] {
    DaemonSystem system;
    if (!system.Start("process_created,process_exited", {"--ring-size", "4096"})) {
      KAVO_KERNEL_SKIP(system.why());
    }
    Cast cast;
    LoseAndRepair(system, &cast, true);
    system.Stop();
  });
}

TEST(TaskResyncOnKernel, WithoutALostRecordCounterTheFullBitServes) {
  kavo::test::RunInNamespace([] {
    DaemonSystem system;
    // The platform's objects may lack the counter.
    system.beforeDaemon = [] { unlink(KavoBpfService::RINGBUF_LOST_PATH[0].c_str()); };
    if (!system.Start("process_created,process_exited", {"--ring-size", "4096"})) {
      KAVO_KERNEL_SKIP(system.why());
    }
    EXPECT_NE(std::string::npos, system.daemon().Output().find("no lost-record counter"));
    Cast cast;
    LoseAndRepair(system, &cast, false);
    system.Stop();
  });
}

TEST(TaskResyncOnKernel, ALargeRingLosesNothingAndRepairsNothing) {
  kavo::test::RunInNamespace([] {
    DaemonSystem system;
    // 16 MiB: room for the whole burst even when a sanitizer slows the
    // daemon down (its children's exits unmap a lot, one RSS record a batch).
    if (!system.Start("process_created,process_exited", {"--ring-size", "16777216"})) {
      KAVO_KERNEL_SKIP(system.why());
    }
    Cast cast;
    StartKnownProcesses(system, &cast);
    if (testing::Test::HasFatalFailure()) return;
    const uint64_t lostBefore = LostRecords();
    const size_t resyncsBefore = ResyncLines(system.daemon()).size();

    // The same burst and the same comings and goings, the daemon running.
    cast.burst = kavo::test::Spawn({ToolPath("kavo_workload"), "forks", kBurstForks});
    waitpid(cast.burst, nullptr, 0);
    ComeAndGo(&cast);
    if (testing::Test::HasFatalFailure()) return;
    auto children = [&cast](const std::vector<JsonEvent>& events) {
      std::set<long long> pids;
      for (const JsonEvent& e : events) {
        if (e.type == 50001 && e.Num("ppid") == cast.burst) pids.insert(e.Num("pid"));
      }
      return pids;
    };
    std::string why;
    EXPECT_TRUE(system.WaitEvents([&](const std::vector<JsonEvent>& events) {
      if (!EveryChangeSeen(events, cast, &why)) return false;
      std::set<long long> born = children(events);
      size_t ended = 0;
      for (long long pid : born) ended += !Find(events, 50002, static_cast<pid_t>(pid)).empty();
      why = std::to_string(born.size()) + " children created, " + std::to_string(ended) + " exited";
      // At least the 200 (LeakSanitizer's checker at exit is one more).
      return born.size() >= 200u && ended == born.size();
    })) << why;
    // A repair would have come by now.
    std::this_thread::sleep_for(std::chrono::milliseconds(2 * Kavo::Bpf::ResyncSchedule::kQuietMs));

    ASSERT_EQ(lostBefore, LostRecords()) << "the large ring lost records: the machine is too busy";
    EXPECT_EQ(resyncsBefore, ResyncLines(system.daemon()).size()) << system.daemon().Output();
    // As ever without a loss: the new process under the reused pid comes
    // from its fork record, with the name of the process that forked it.
    const auto events = system.Events();
    std::string ownComm = kavo::test::ReadFile("/proc/self/comm");
    ownComm.erase(ownComm.find_last_not_of('\n') + 1);
    std::vector<size_t> reusedCreates = Find(events, 50001, cast.reused);
    ASSERT_FALSE(reusedCreates.empty());
    EXPECT_EQ(ownComm, events[reusedCreates.back()].Str("comm"));
    for (long long pid : children(events)) {
      std::vector<size_t> creates = Find(events, 50001, static_cast<pid_t>(pid));
      std::vector<size_t> exits = Find(events, 50002, static_cast<pid_t>(pid));
      ASSERT_EQ(1u, creates.size()) << pid;
      ASSERT_EQ(1u, exits.size()) << pid;
      EXPECT_LT(creates[0], exits[0]) << pid;
    }
    system.Stop();
  });
}

}  // namespace
