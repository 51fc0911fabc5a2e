// The whole system on the real kernel, as a platform engineer runs it: the
// loader pins the programs, kavobpfd hosts the service, kavobpf_client
// subscribes and prints JSON, and real processes fork, grow threads and touch
// memory.

#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <map>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/daemon_system.h"
#include "support/harness.h"
#include "support/processes.h"

namespace {

using namespace std::chrono_literals;
using kavo::test::Spawn;
using kavo::test::ToolPath;
using Event = kavo::test::JsonEvent;
using System = kavo::test::DaemonSystem;

std::string OwnComm() {
  std::string comm = kavo::test::ReadFile("/proc/self/comm");
  if (!comm.empty() && comm.back() == '\n') comm.pop_back();
  return comm;
}

std::vector<pid_t> SpawnShortProcesses(int n) {
  std::vector<pid_t> pids;
  for (int i = 0; i < n; ++i) {
    pid_t pid = Spawn({"/bin/true"});
    if (pid > 0) pids.push_back(pid);
  }
  for (pid_t pid : pids) waitpid(pid, nullptr, 0);
  return pids;
}

// For each pid, the indexes of its records of |createType| and |exitType|.
void ExpectOneCreateThenOneExit(const std::vector<Event>& events, const std::vector<pid_t>& pids,
                                long long createType, long long exitType, bool kinds) {
  std::map<long long, std::vector<size_t>> creates, exits;
  for (size_t i = 0; i < events.size(); ++i) {
    const Event& e = events[i];
    if (e.type == createType && (!kinds || e.Str("kind") == "process")) creates[e.Num("pid")].push_back(i);
    if (e.type == exitType && (!kinds || e.Str("kind") == "process")) exits[e.Num("pid")].push_back(i);
  }
  for (pid_t pid : pids) {
    ASSERT_EQ(1u, creates[pid].size()) << "pid " << pid;
    ASSERT_EQ(1u, exits[pid].size()) << "pid " << pid;
    EXPECT_LT(creates[pid][0], exits[pid][0]) << "pid " << pid;
  }
}

TEST(EndToEnd, RawCreateAndExitOfEveryProcess) {
  kavo::test::RunInNamespace([] {
    System system;
    if (!system.Start("sched_task_exit")) KAVO_KERNEL_SKIP(system.why());
    std::vector<pid_t> pids = SpawnShortProcesses(100);
    ASSERT_EQ(100u, pids.size());
    std::set<long long> wanted(pids.begin(), pids.end());
    EXPECT_TRUE(system.WaitEvents([&](const std::vector<Event>& events) {
      size_t exits = 0;
      for (const Event& e : events) exits += e.type == 3 && wanted.count(e.Num("pid"));
      return exits >= pids.size();
    }));
    system.Stop();
    ExpectOneCreateThenOneExit(system.Events(), pids, 2, 3, true);
  });
}

TEST(EndToEnd, DerivedLifecycleEvents) {
  kavo::test::RunInNamespace([] {
    System system;
    if (!system.Start("process_created,process_exited")) KAVO_KERNEL_SKIP(system.why());
    std::vector<pid_t> pids = SpawnShortProcesses(100);
    std::set<long long> wanted(pids.begin(), pids.end());
    EXPECT_TRUE(system.WaitEvents([&](const std::vector<Event>& events) {
      size_t exits = 0;
      for (const Event& e : events) exits += e.type == 50002 && wanted.count(e.Num("pid"));
      return exits >= pids.size();
    }));
    system.Stop();
    std::vector<Event> events = system.Events();
    ExpectOneCreateThenOneExit(events, pids, 50001, 50002, false);
    // Forked from this test: its pid as parent, its name (exec comes later).
    for (const Event& e : events) {
      if (e.type != 50001 || !wanted.count(e.Num("pid"))) continue;
      EXPECT_EQ(getpid(), e.Num("ppid")) << e.Num("pid");
      EXPECT_EQ(OwnComm(), e.Str("comm")) << e.Num("pid");
      EXPECT_EQ(static_cast<long long>(getuid()), e.Num("uid"));
    }
  });
}

TEST(EndToEnd, ThreadsAndMemoryOfAnAgedProcess) {
  kavo::test::RunInNamespace([] {
    System system;
    if (!system.Start("thread_count_changed,memory_changed")) KAVO_KERNEL_SKIP(system.why());
    // Both wait 3.5 s, so they are past the service's 3-second settling time.
    pid_t threads = Spawn({ToolPath("kavo_workload"), "threads", "40", "3500"});
    pid_t touch = Spawn({ToolPath("kavo_workload"), "touch", "8", "3500"});
    waitpid(threads, nullptr, 0);
    waitpid(touch, nullptr, 0);
    // The peak anonymous size reported, against the lowest level it was
    // reported from (the memory is freed again before the process exits).
    auto grownBy = [touch](const std::vector<Event>& events) {
      long long baseline = -1, peak = -1;
      for (const Event& e : events) {
        if (e.type != 50004 || e.Num("pid") != touch) continue;
        if (baseline < 0 || e.Num("old_anon_kib") < baseline) baseline = e.Num("old_anon_kib");
        peak = std::max(peak, e.Num("anon_kib"));
      }
      return baseline < 0 ? -1 : peak - baseline;
    };
    EXPECT_TRUE(system.WaitEvents([&](const std::vector<Event>& events) { return grownBy(events) >= 8192; }, 5s));
    system.Stop();
    std::vector<Event> events = system.Events();
    bool reported = false;
    for (const Event& e : events) {
      if (e.type == 50003 && e.Num("pid") == threads && e.Num("old_threads") == 1) {
        EXPECT_EQ(12, e.Num("threads"));
        reported = true;
      }
    }
    EXPECT_TRUE(reported) << "no thread_count_changed 1 -> 12 for " << threads;
    EXPECT_GE(grownBy(events), 8192) << "anonymous memory of " << touch << " in KiB";
  });
}

}  // namespace
