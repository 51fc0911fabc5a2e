// kavobpfd as an operator runs it, and the whole system on the real kernel
// as a client of the library sees it: options, a stop within 2 s in any
// state, every process's creation and exit, and the threads and memory of
// processes old enough to be reported.

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "service/kavo_bpf_service.h"
#include "support/harness.h"
#include "support/kernel.h"
#include "support/kernel_stand_ins.h"
#include "support/processes.h"
#include "support/system.h"

namespace {

using namespace std::chrono_literals;
using Kavo::Bpf::KavoBpfService;
using namespace kavo::test;

// Starts kavobpfd with |args|, waits for |line|, stops it with |sig|: it
// must exit 0 within 2 seconds.
void ExpectCleanStop(int sig, const std::vector<std::string>& args, const std::string& line) {
  std::vector<std::string> argv = {ToolPath("kavobpfd")};
  argv.insert(argv.end(), args.begin(), args.end());
  ChildProcess daemon(argv);
  ASSERT_TRUE(daemon.WaitForOutput(line)) << daemon.Output();
  ASSERT_TRUE(daemon.Signal(sig));
  int status = 0;
  ASSERT_TRUE(daemon.WaitExit(2s, &status)) << "still running 2 s after signal " << sig;
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << daemon.Output();
}

TEST(Kavobpfd, OptionsAndAStopWithin2sWhateverTheServiceIsDoing) {
  auto help = RunCommand({ToolPath("kavobpfd"), "--help"});
  EXPECT_EQ(0, help.exitCode);
  for (const char* documented : {"--prop NAME=VALUE", "--seed-fd", "ro.kernel.version", "sys.kavo_bpf_ready",
                                 "persist.sys.stability.bpfframework.disable"}) {
    EXPECT_NE(std::string::npos, help.output.find(documented)) << documented;
  }
  for (const std::vector<std::string>& bad : {std::vector<std::string>{"--bogus"}, {"--prop"}, {"--prop", "novalue"},
                                              {"--prop", "=x"}, {"stray"}, {"--allow-uid", "no-such-user"}}) {
    std::vector<std::string> argv = {ToolPath("kavobpfd")};
    argv.insert(argv.end(), bad.begin(), bad.end());
    auto result = RunCommand(argv, 5);
    EXPECT_EQ(2, result.exitCode) << bad[0] << ": " << result.output;
    EXPECT_EQ(1u, kavo::test::Occurrences(result.output, "\n")) << result.output;
    EXPECT_EQ(0u, result.output.rfind("kavobpfd: ", 0)) << result.output;
  }
  kavo::test::RunInNamespace([] {
    auto disabled = RunCommand({ToolPath("kavobpfd"), "--prop", "persist.sys.stability.bpfframework.disable=1"}, 5);
    EXPECT_EQ(0, disabled.exitCode);
    EXPECT_NE(std::string::npos, disabled.output.find("kavobpfd: the service is disabled by property"));
    // Nothing pinned: the service waits for the kernel side to be ready.
    ExpectCleanStop(SIGTERM, {}, "Starting KAVO Bpf Service");
    std::string why;
    if (!kavo::test::PinRingMaps(&why)) KAVO_KERNEL_SKIP(why);
    // Rings pinned: the daemon says the kernel side is ready, the service
    // attaches (nothing here) and monitors; on 5.15 it skips the 6.1+ probes.
    ExpectCleanStop(SIGTERM, {}, "Attach all kavo bpf error");
    ExpectCleanStop(SIGINT, {"--prop", "ro.kernel.version=5.15"}, "Skip bpf prog");
  });
}

TEST(EndToEnd, EveryProcessIsCreatedAndExitsAndAgedOnesReportThreadsAndMemory) {
  kavo::test::RunInNamespace([] {
    // Running before the daemon: its memory comes from the initial scan.
    ChildProcess scanned({ToolPath("kavo_workload"), "sleep", "30000"});
    ASSERT_TRUE(kavo::test::WaitUntil(
        [&] { return kavo::test::ReadFile("/proc/" + std::to_string(scanned.pid()) + "/comm") == "kavo_workload\n"; }));
    // 16-MiB rings: the programs see the forks of the whole machine, and this
    // test is about what reaches a client, not about a full ring.
    kavo::test::KavoSystem system({{"--ring-size", "16777216"}, {}, ""});
    std::string why;
    if (!system.Start(&why)) KAVO_KERNEL_SKIP(why);
    // The scan took /proc's kB as 1024 bytes: the table shows what /proc shows.
    auto table = kavo::test::DumpTaskTable(*system.daemon());
    ASSERT_EQ(1u, table.count(scanned.pid()));
    EXPECT_EQ(std::to_string(StatusKb(scanned.pid(), "RssAnon:")), table[scanned.pid()][4]);
    EXPECT_EQ(std::to_string(StatusKb(scanned.pid(), "RssFile:")), table[scanned.pid()][6]);

    kavobpf::Client client({kavobpf::kDefaultSocket, 1000000});  // every fork of the machine, while the test waits
    ASSERT_TRUE(client.Connect(5s));
    for (int32_t type : std::vector<int32_t>{KAVO_EVENT_TASK_CREATE, KAVO_EVENT_TASK_EXIT, KAVO_EVENT_PROCESS_CREATED,
                                             KAVO_EVENT_PROCESS_EXITED, KAVO_EVENT_THREAD_COUNT_CHANGED, KAVO_EVENT_MEMORY_CHANGED})
      ASSERT_EQ(kavobpf::kAccepted, client.Subscribe(type));
    // Both wait 3.5 s, past the settling time before threads and memory count.
    ChildProcess threads({ToolPath("kavo_workload"), "threads", "40", "3500"});
    ChildProcess touch({ToolPath("kavo_workload"), "touch", "8", "3500"});
    std::vector<pid_t> children(100);
    for (pid_t& child : children) child = kavo::test::ForkAndReap();
    std::vector<kavobpf::Event> events;
    auto grown = [&](const std::vector<kavobpf::Event>& all) {
      int64_t baseline = -1, peak = -1;  // the memory is freed before it exits
      for (size_t i : EventsOf(all, KAVO_EVENT_MEMORY_CHANGED, touch.pid())) {
        auto* m = all[i].as<kavo_memory_changed_event>();
        if (baseline < 0 || m->old_size[KAVO_RSS_ANON] < baseline) baseline = m->old_size[KAVO_RSS_ANON];
        peak = std::max<int64_t>(peak, m->size[KAVO_RSS_ANON]);
      }
      return baseline < 0 ? -1 : peak - baseline;
    };
    EXPECT_TRUE(kavo::test::CollectEvents(
        client, &events,
        [&](const std::vector<kavobpf::Event>& all) {
          for (pid_t child : children) if (EventsOf(all, KAVO_EVENT_PROCESS_EXITED, child).empty()) return false;
          return !EventsOf(all, KAVO_EVENT_PROCESS_EXITED, touch.pid()).empty() &&
                 !EventsOf(all, KAVO_EVENT_PROCESS_EXITED, threads.pid()).empty() && grown(all) >= (8 << 20);
        },
        20s));
    // Each process once and its end once, in that order, raw and derived
    // (what their records carry is the client library's story).
    for (pid_t child : children) {
      SCOPED_TRACE(child);
      for (int32_t type : std::vector<int32_t>{KAVO_EVENT_TASK_CREATE, KAVO_EVENT_TASK_EXIT})
        EXPECT_EQ(1u, EventsOf(events, type, child).size());
      auto created = EventsOf(events, KAVO_EVENT_PROCESS_CREATED, child);
      auto exited = EventsOf(events, KAVO_EVENT_PROCESS_EXITED, child);
      ASSERT_EQ(std::make_pair(size_t{1}, size_t{1}), std::make_pair(created.size(), exited.size()));
      EXPECT_LT(created[0], exited[0]);
    }
    bool reported = false;
    for (size_t i : EventsOf(events, KAVO_EVENT_THREAD_COUNT_CHANGED, threads.pid())) {
      auto* t = events[i].as<kavo_thread_count_event>();
      reported = reported || (t->old_thread_count == 1 && t->thread_count == 12);
    }
    EXPECT_TRUE(reported) << "no thread count change 1 -> 12";
    EXPECT_GE(grown(events), 8 << 20) << "anonymous memory grown, in bytes";
    // With this ring nothing is lost, and so nothing repaired.
    ASSERT_EQ(0, kavo::test::ReadControlWord(KavoBpfService::RINGBUF_LOST_PATH[0])) << "the large ring lost records: the machine is too busy";
    EXPECT_EQ(0u, kavo::test::Occurrences(system.Output(), "[KavoBpfService][resyncTaskTable] lost records: ")) << system.Output();
    EXPECT_EQ(0, system.Stop()) << system.Output();
  });
}

}  // namespace
