// The whole system on the real kernel, as a platform engineer runs it: the
// loader pins the programs, kavobpfd hosts the service, kavobpf_client
// subscribes and prints JSON, and real processes fork, grow threads and touch
// memory.

#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <map>
#include <memory>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "ns_harness.h"
#include "test_process.h"

extern char** environ;

namespace {

using namespace std::chrono_literals;
using kavo::test::ChildProcess;
using kavo::test::ToolPath;

// Long enough for the kernel to detach every program of an exiting daemon.
constexpr auto kDaemonExitTimeout = 15s;

// One JSON line of kavobpf_client, with the fields the tests look at.
struct Event {
  long long type = -1;
  std::map<std::string, std::string> fields;
  long long Num(const std::string& key) const {
    auto it = fields.find(key);
    return it == fields.end() ? -1 : std::stoll(it->second);
  }
  std::string Str(const std::string& key) const {
    auto it = fields.find(key);
    return it == fields.end() ? "" : it->second;
  }
};

std::vector<Event> ParseEvents(const std::string& output) {
  static const std::regex kField("\"([a-z_]+)\":(-?[0-9]+|\"[^\"]*\")");
  std::vector<Event> events;
  std::istringstream in(output);
  for (std::string line; std::getline(in, line);) {
    if (line.empty() || line[0] != '{') continue;
    Event event;
    for (auto it = std::sregex_iterator(line.begin(), line.end(), kField); it != std::sregex_iterator(); ++it) {
      std::string value = (*it)[2];
      if (value.size() >= 2 && value.front() == '"') value = value.substr(1, value.size() - 2);
      event.fields[(*it)[1]] = value;
    }
    event.type = event.Num("type");
    events.push_back(event);
  }
  return events;
}

pid_t Spawn(const std::vector<std::string>& argv) {
  std::vector<char*> args;
  for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
  args.push_back(nullptr);
  pid_t pid = -1;
  posix_spawn(&pid, args[0], nullptr, nullptr, args.data(), environ);
  return pid;
}

std::string OwnComm() {
  std::string comm = kavo::test::ReadFile("/proc/self/comm");
  if (!comm.empty() && comm.back() == '\n') comm.pop_back();
  return comm;
}

// Loader, daemon and a subscribed client, in the current namespaces.
class System {
 public:
  bool Start(const std::string& events) {
    auto loader = kavo::test::RunCommand({ToolPath("kavobpf_loader")});
    if (loader.exitCode != 0) {
      why_ = "kavobpf_loader: " + loader.output;
      return false;
    }
    daemon_ = std::make_unique<ChildProcess>(std::vector<std::string>{ToolPath("kavobpfd")});
    client_ = std::make_unique<ChildProcess>(std::vector<std::string>{
        ToolPath("kavobpf_client"), "--events", events + ",sched_task_create", "--json"});
    if (!client_->WaitForOutput("kavobpf_client: subscribed", 10s)) {
      why_ = "client never subscribed: " + client_->Output() + daemon_->Output();
      return false;
    }
    // Probe until the monitors deliver: the programs are attached and polled.
    for (int i = 0; i < 100; ++i) {
      pid_t probe = Spawn({"/bin/true"});
      waitpid(probe, nullptr, 0);
      std::this_thread::sleep_for(100ms);
      for (const Event& e : ParseEvents(client_->Output())) {
        if (e.type == 2 && e.Num("pid") == probe) return true;
      }
    }
    why_ = "no kernel event reached the client: " + daemon_->Output();
    return false;
  }
  const std::string& why() const { return why_; }
  std::vector<Event> Events() const { return ParseEvents(client_->Output()); }
  // Waits until |done| holds for the events so far.
  bool WaitEvents(const std::function<bool(const std::vector<Event>&)>& done,
                  std::chrono::milliseconds timeout = 10s) const {
    auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!done(Events())) {
      if (std::chrono::steady_clock::now() > deadline) return false;
      std::this_thread::sleep_for(100ms);
    }
    return true;
  }
  // Stops the client, then the daemon, which must exit 0. How soon is
  // kavobpfd's own test; here the daemon has attached programs, and its
  // process is gone only once the kernel has detached each of them as its
  // descriptors close at exit, every detach waiting out an RCU grace period:
  // on a busy machine that alone takes seconds.
  void Stop() {
    int status = -1;
    client_->Signal(SIGINT);
    client_->WaitExit(2s, &status);
    status = -1;
    daemon_->Signal(SIGTERM);
    EXPECT_TRUE(daemon_->WaitExit(kDaemonExitTimeout, &status));
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << daemon_->Output();
  }

 private:
  std::string why_;
  std::unique_ptr<ChildProcess> daemon_;
  std::unique_ptr<ChildProcess> client_;
};

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
