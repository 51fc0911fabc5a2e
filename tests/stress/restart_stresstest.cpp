// Restart after a crash: kavobpfd is killed with SIGKILL, three times over, and each
// daemon attaches the programs as before, seeds its task table and the
// descriptor map again from /proc, moves the killed run's error log to
// "error.old.log" and serves clients; the loader's pins outlive every daemon.

#include <android-base/unique_fd.h>
#include <bpf/bpf.h>
#include <signal.h>

#include <set>
#include <sstream>
#include <string>

#include <gtest/gtest.h>

#include "service/kavo_bpf_error_log.h"
#include "support/harness.h"
#include "support/kernel.h"
#include "support/system.h"
#include "support/wire.h"

namespace {

using namespace std::chrono_literals;
using kavo::test::ReadFile;

constexpr char kFdMap[] = "/sys/fs/bpf/kavo/map_KavoBpfDefineset_open_fd_caller_map";

long long SeededDescriptors(pid_t pid) {
  android::base::unique_fd map(bpf_obj_get(kFdMap));
  kavo_fd_info info = {};
  return map.get() >= 0 && bpf_map_lookup_elem(map.get(), &pid, &info) == 0 ? static_cast<long long>(info.fd_count) : -1;
}

TEST(Restart, AKilledDaemonComesBackWholeAndThePinsStay) {
  kavo::test::RunInNamespace([] {
    kavo::test::KavoSystem system({{}, {"--seed-fd"}, ""});
    std::string why;
    // A process that outlives every daemon: only a scan of /proc finds it.
    kavo::test::ChildProcess holder({"sleep", "600"});
    ASSERT_TRUE(kavo::test::WaitUntil([&] { return ReadFile("/proc/" + std::to_string(holder.pid()) + "/comm") == "sleep\n"; }));
    const long long holderFds = static_cast<long long>(kavo::test::OpenDescriptors(holder.pid()));
    std::set<std::string> firstSummary;
    for (int run = 1; run <= 3; ++run) {
      SCOPED_TRACE("run " + std::to_string(run));
      if (run == 1 && !system.Start(&why)) KAVO_KERNEL_SKIP(why);
      ASSERT_TRUE(run == 1 || system.StartDaemon(&why)) << why;
      if (run > 1) {  // the killed run's log moved aside, nothing new yet
        EXPECT_NE(std::string::npos,
                  ReadFile(Kavo::Bpf::KAVO_ERROR_OLD_LOG_PATH).find("packageSize: " + std::to_string(32768 + run - 1)));
        EXPECT_FALSE(kavo::test::PathExists(Kavo::Bpf::KAVO_ERROR_LOG_PATH));
      }
      // What the kernel refuses, it refuses each time.
      std::set<std::string> summary;
      std::istringstream output(system.Output());
      for (std::string line; std::getline(output, line);)
        if (line.find("Attach all kavo bpf error") != std::string::npos) summary.insert(line.substr(line.find('[')));
      if (run == 1) firstSummary = summary;
      EXPECT_EQ(firstSummary, summary);
      EXPECT_TRUE(kavo::test::WaitUntil([&] { return SeededDescriptors(holder.pid()) == holderFds; }, 10s));
      auto table = kavo::test::DumpTaskTable(*system.daemon());
      EXPECT_EQ(1u, table.count(holder.pid()));

      // This run loses a frame, which its error log records with a size that
      // names the run; then it dies without a word.
      kavo::test::RawClient damager;
      ASSERT_TRUE(damager.Connect());
      uint32_t size = 32768 + run - 4;
      ASSERT_TRUE(damager.Send(std::string(reinterpret_cast<const char*>(&size), 4)));
      EXPECT_TRUE(kavo::test::WaitUntil([&] {
        return ReadFile(Kavo::Bpf::KAVO_ERROR_LOG_PATH).find("packageSize: " + std::to_string(32768 + run)) != std::string::npos;
      }));
      system.Kill(SIGKILL);
      for (const std::string& pin : kavo::test::LoaderPins()) EXPECT_TRUE(kavo::test::PathExists(pin)) << pin;
      android::base::unique_fd map(bpf_obj_get(kFdMap));  // what the next run must seed again
      int32_t key = holder.pid();
      EXPECT_EQ(0, bpf_map_delete_elem(map.get(), &key));
    }
  });
}

}  // namespace
