// Process churn: 8,000 short-lived processes, one after another, as fast as
// the machine forks them. Each enters the service's task table through its
// fork record and leaves through its exit record: within a second of the last
// exit the table holds no more beyond the processes alive than before.

#include <chrono>
#include <thread>

#include <gtest/gtest.h>

#include "support/event_sink.h"
#include "support/harness.h"
#include "support/kernel.h"
#include "support/log_capture.h"
#include "support/stress.h"

namespace {

constexpr int kProcesses = 8000;

long long TableExcess() {
  return static_cast<long long>(kavo::test::TaskTableSize()) - static_cast<long long>(kavo::test::LivePids().size());
}

long long Counted(int type) { return static_cast<long long>(kavo::test::Counted(type)); }

TEST(ProcessChurn, EightThousandProcessesLeaveTheTableAsTheyFoundIt) {
  kavo::test::RunInNamespace([] {
    std::string why;
    if (!kavo::test::BpfAvailable(&why)) KAVO_KERNEL_SKIP(why);
    kavo::test::LogCapture log;
    ASSERT_NE(nullptr, kavo::test::StartServiceOnKernel(&why)) << why;
    // The scan and the first records are through once the excess holds still.
    long long baseline = TableExcess();
    for (int i = 0; i < 100; ++i) {
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
      long long now = TableExcess();
      if (now == baseline) break;
      baseline = now;
    }
    const long long forksBefore = Counted(KAVO_EVENT_TASK_CREATE);
    const long long exitsBefore = Counted(KAVO_EVENT_TASK_EXIT);
    auto start = std::chrono::steady_clock::now();
    auto workload = kavo::test::RunCommand({kavo::test::ToolPath("kavo_workload"), "forks", std::to_string(kProcesses)}, 180);
    ASSERT_EQ(0, workload.exitCode) << workload.output;
    kavo::test::Figure("forking_ms", std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start).count());
    EXPECT_TRUE(kavo::test::WaitUntil([&] { return TableExcess() <= baseline; }, std::chrono::seconds(1)))
        << "the table holds " << TableExcess() - baseline << " more processes than are alive";
    EXPECT_GE(Counted(KAVO_EVENT_TASK_CREATE) - forksBefore, kProcesses + 1) << "each seen coming";
    EXPECT_GE(Counted(KAVO_EVENT_TASK_EXIT) - exitsBefore, kProcesses + 1) << "and going";
    EXPECT_FALSE(log.Contains("bpf ringbuff full!"));
  });
}

}  // namespace
