// The host daemon as an operator runs it: options, and a clean exit on
// SIGTERM or SIGINT whatever state the service is in.

#include <signal.h>
#include <sys/wait.h>

#include <chrono>
#include <thread>

#include <gtest/gtest.h>

#include "support/kernel_stand_ins.h"
#include "support/harness.h"
#include "support/processes.h"

namespace {

using namespace std::chrono_literals;
using kavo::test::ChildProcess;
using kavo::test::RunCommand;
using kavo::test::ToolPath;

TEST(Kavobpfd, HelpAndBadOptions) {
  auto help = RunCommand({ToolPath("kavobpfd"), "--help"});
  EXPECT_EQ(0, help.exitCode);
  for (const char* documented : {"--prop NAME=VALUE", "--help", "ro.kernel.version",
                                 "sys.kavo_bpf_ready", "persist.sys.stability.bpfframework.disable"}) {
    EXPECT_NE(std::string::npos, help.output.find(documented)) << documented;
  }
  for (const std::vector<std::string>& bad :
       {std::vector<std::string>{"--bogus"}, {"--prop"}, {"--prop", "novalue"}, {"--prop", "=x"},
        {"stray"}}) {
    std::vector<std::string> argv = {ToolPath("kavobpfd")};
    argv.insert(argv.end(), bad.begin(), bad.end());
    auto result = RunCommand(argv, 5);
    EXPECT_EQ(2, result.exitCode) << bad[0] << ": " << result.output;
    // One line, saying what was wrong.
    EXPECT_EQ(1, std::count(result.output.begin(), result.output.end(), '\n')) << result.output;
    EXPECT_EQ(0u, result.output.rfind("kavobpfd: ", 0)) << result.output;
  }
}

// Starts the daemon, lets it run, stops it with |sig| and checks it exits 0
// within 2 seconds.
void ExpectCleanStop(int sig, const std::vector<std::string>& extraArgs,
                     const std::string& waitForLine) {
  std::vector<std::string> argv = {ToolPath("kavobpfd")};
  argv.insert(argv.end(), extraArgs.begin(), extraArgs.end());
  ChildProcess daemon(argv);
  ASSERT_TRUE(daemon.WaitForOutput(waitForLine, 10s)) << daemon.Output();
  std::this_thread::sleep_for(300ms);
  auto before = std::chrono::steady_clock::now();
  ASSERT_TRUE(daemon.Signal(sig));
  int status = 0;
  ASSERT_TRUE(daemon.WaitExit(2s, &status)) << "still running 2 s after the signal\n"
                                             << daemon.Output();
  EXPECT_LT(std::chrono::steady_clock::now() - before, 2s);
  EXPECT_TRUE(WIFEXITED(status)) << daemon.Output();
  EXPECT_EQ(0, WEXITSTATUS(status)) << daemon.Output();
}

TEST(Kavobpfd, StopsWithoutPinnedMaps) {
  kavo::test::RunInNamespace([] {
    // Nothing pinned: the service stays in its ready wait.
    ExpectCleanStop(SIGTERM, {}, "Starting KAVO Bpf Service");
    ExpectCleanStop(SIGINT, {}, "Starting KAVO Bpf Service");
    // Disabled: nothing starts, and the daemon says so.
    auto disabled =
        RunCommand({ToolPath("kavobpfd"), "--prop", "persist.sys.stability.bpfframework.disable=1"}, 5);
    EXPECT_EQ(0, disabled.exitCode);
    EXPECT_NE(std::string::npos, disabled.output.find("disabled")) << disabled.output;
  });
}

TEST(Kavobpfd, StopsWithPinnedMaps) {
  kavo::test::RunInNamespace([] {
    std::string why;
    if (!kavo::test::PinRingMaps(&why)) KAVO_KERNEL_SKIP(why);
    // With the rings pinned the daemon reports the kernel side ready and the
    // service goes on to attach (nothing to attach here) and monitor.
    ExpectCleanStop(SIGTERM, {}, "Attach all kavo bpf error");
    ExpectCleanStop(SIGINT, {"--prop", "ro.kernel.version=5.15"}, "Skip bpf prog");
  });
}

}  // namespace
