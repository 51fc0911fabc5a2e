// Restart after a crash: kavobpfd is killed with SIGKILL, three times over,
// and each new daemon attaches the programs again, seeds its task table and
// the descriptor map again from /proc, moves the killed run's error log to
// "error.old.log" and serves clients; the loader's pins outlive every daemon.

#include <android-base/unique_fd.h>
#include <bpf/bpf.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "support/event_sink.h"
#include "support/kernel.h"
#include "support/harness.h"
#include "support/wire.h"
#include "service/kavo_bpf_error_log.h"
#include "service/kavo_bpf_service.h"
#include "service/kavo_bpf_signals.h"
#include "service/kavo_bpf_task_manager.h"
#include "support/stress.h"
#include "support/processes.h"

namespace {

using namespace std::chrono_literals;
using Kavo::Bpf::KavoTaskManager;
using kavo::test::AsResponse;
using kavo::test::ChildProcess;
using kavo::test::PathExists;
using kavo::test::RawClient;
using kavo::test::ReadFile;
using kavo::test::RequestFrame;
using kavo::test::WaitUntil;

constexpr int kRuns = 3;
constexpr char kFdMap[] = "/sys/fs/bpf/kavo/map_KavoBpfDefineset_open_fd_caller_map";

std::string U32(uint32_t value) { return std::string(reinterpret_cast<const char*>(&value), 4); }

// The descriptor count the fd map holds for |pid|, or -1.
long long SeededDescriptors(pid_t pid) {
  android::base::unique_fd map(bpf_obj_get(kFdMap));
  kavo_fd_info info = {};
  int32_t key = pid;
  if (map.get() < 0 || bpf_map_lookup_elem(map.get(), &key, &info) != 0) return -1;
  return static_cast<long long>(info.fd_count);
}

// Whether the daemon's task dump lists |pid| under |name|.
bool DumpLists(pid_t pid, const std::string& name) {
  std::istringstream dump(ReadFile(KavoTaskManager::KAVOTASK_DUMP_TEMPLATE));
  for (std::string line; std::getline(dump, line);) {
    std::istringstream fields(line);
    std::string comm, number;
    if (fields >> comm >> number && comm == name && number == std::to_string(pid)) return true;
  }
  return false;
}

// Subscribes to forks and waits for the record of a process forked for it:
// the programs are attached and the monitor polls.
void ExpectServed(RawClient& client, uint32_t reqId) {
  ASSERT_TRUE(client.Connect(kavo::test::kServiceSocket, 10s));
  ASSERT_TRUE(client.Send(RequestFrame(reqId, 51, KAVO_EVENT_TASK_CREATE)));
  for (int probe = 0; probe < 50; ++probe) {
    pid_t child = fork();
    if (child == 0) _exit(0);
    waitpid(child, nullptr, 0);
    auto deadline = std::chrono::steady_clock::now() + 200ms;
    while (std::chrono::steady_clock::now() < deadline) {
      auto frame = client.ReadFrame(50ms);
      if (!frame) continue;
      if (auto response = AsResponse(*frame)) {
        EXPECT_EQ(reqId, response->reqId);
        EXPECT_EQ(0, response->result);
      } else if (frame->type == 3 && kavo::test::RecordAs<kavo_fork_event>(frame->body).pid == child) {
        return;
      }
    }
  }
  FAIL() << "no fork record reached the client";
}

TEST(Restart, AKilledDaemonComesBackWholeAndThePinsStay) {
  kavo::test::RunInNamespace([] {
    std::string why;
    if (!kavo::test::BpfAvailable(&why)) KAVO_KERNEL_SKIP(why);
    ASSERT_TRUE(kavo::test::LoadKernelSide(&why)) << why;
    // A process that outlives every daemon: only a scan of /proc finds it.
    ChildProcess holder({"sleep", "600"});
    ASSERT_TRUE(WaitUntil([&] { return ReadFile("/proc/" + std::to_string(holder.pid()) + "/comm") == "sleep\n"; }, 5s));
    const long long holderFds = static_cast<long long>(kavo::test::OpenDescriptors(holder.pid()));

    std::set<std::string> attachSummary;
    for (int run = 1; run <= kRuns; ++run) {
      SCOPED_TRACE("run " + std::to_string(run));
      ChildProcess daemon({kavo::test::ToolPath("kavobpfd"), "--seed-fd"});
      RawClient client;
      ExpectServed(client, static_cast<uint32_t>(run));
      if (::testing::Test::HasFatalFailure()) return;
      // The killed run's log was moved aside at start; nothing new yet.
      if (run > 1) {
        std::string old = ReadFile(Kavo::Bpf::KAVO_ERROR_OLD_LOG_PATH);
        EXPECT_NE(std::string::npos, old.find("packageSize: " + std::to_string(32768 + run - 1)))
            << old;
        EXPECT_FALSE(PathExists(Kavo::Bpf::KAVO_ERROR_LOG_PATH));
      }
      // Every run attaches the same: what the kernel refuses, it refuses each time.
      std::set<std::string> summary;
      std::istringstream output(daemon.Output());
      for (std::string line; std::getline(output, line);) {
        if (line.find("Attach all kavo bpf error") != std::string::npos) summary.insert(line.substr(line.find('[')));
      }
      if (run == 1) attachSummary = summary;
      EXPECT_EQ(attachSummary, summary);

      // Seeded from /proc again: the descriptor map and the task table.
      EXPECT_TRUE(WaitUntil([&] { return SeededDescriptors(holder.pid()) == holderFds; }, 10s))
          << SeededDescriptors(holder.pid()) << " seeded, " << holderFds << " open";
      ASSERT_TRUE(daemon.Signal(Kavo::Bpf::kSignalDumpTasks));
      EXPECT_TRUE(WaitUntil([&] { return DumpLists(holder.pid(), "sleep"); }, 5s));

      // This run loses a frame, which its error log records with a size that
      // names the run; then it dies without a word.
      RawClient damager;
      ASSERT_TRUE(damager.Connect());
      ASSERT_TRUE(damager.Send(U32(32768 + run - 4)));
      EXPECT_TRUE(WaitUntil([&] {
        return ReadFile(Kavo::Bpf::KAVO_ERROR_LOG_PATH).find("packageSize: " + std::to_string(32768 + run)) !=
               std::string::npos;
      }, 5s));
      ASSERT_TRUE(daemon.Signal(SIGKILL));
      int status = 0;
      ASSERT_TRUE(daemon.WaitExit(5s, &status));
      EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL);

      for (const std::string& pin : kavo::test::LoaderPins()) EXPECT_TRUE(PathExists(pin)) << pin;
      // Take away what the next run must seed again.
      android::base::unique_fd map(bpf_obj_get(kFdMap));
      int32_t key = holder.pid();
      EXPECT_EQ(0, bpf_map_delete_elem(map.get(), &key));
      unlink(KavoTaskManager::KAVOTASK_DUMP_TEMPLATE.c_str());
    }
  }, [] {
    kavo::test::NamespaceOptions options;
    options.timeoutSeconds = 200;
    return options;
  }());
}

}  // namespace
