// Process churn: 20,000 short-lived processes, one after another, as fast as
// the machine forks them. Every one of them enters the service's task table
// through its fork record and leaves it through its exit record; within a
// second of the last exit the table is back to the size it had before, less
// whatever else on the machine started or ended meanwhile.

#include <unistd.h>

#include <chrono>
#include <thread>

#include <gtest/gtest.h>

#include "support/kernel.h"
#include "support/log_capture.h"
#include "support/harness.h"
#include "service/kavo_bpf_service.h"
#include "service/kavo_bpf_state.h"
#include "support/stress.h"
#include "support/processes.h"

namespace {

using namespace std::chrono_literals;
using Kavo::Bpf::KavoBpfDataState;
using kavo::test::Figure;

constexpr int kProcesses = 20000;

// The table's entries beyond the processes alive now: a process the table
// never forgot would show here, whatever else starts or ends on the machine.
long long TableExcess() {
  return static_cast<long long>(kavo::test::TaskTableSize()) -
         static_cast<long long>(kavo::test::LiveProcesses());
}

long long Counted(int type) {
  KavoBpfDataState* state = KavoBpfDataState::GetInstance();
  long long n = 0;
  for (long long t = state->oldestSecond(); t <= state->newestSecond(); ++t) n += state->counterAt(t, type);
  return n;
}

TEST(ProcessChurn, TwentyThousandProcessesLeaveTheTableAsTheyFoundIt) {
  kavo::test::RunInNamespace([] {
    std::string why;
    if (!kavo::test::BpfAvailable(&why)) KAVO_KERNEL_SKIP(why);
    kavo::test::LogCapture log;
    ASSERT_NE(nullptr, kavo::test::StartServiceOnKernel(&why)) << why;

    // The scan and the first records are through once the excess holds still.
    long long baseline = TableExcess();
    for (int i = 0; i < 100; ++i) {
      std::this_thread::sleep_for(20ms);
      long long now = TableExcess();
      if (now == baseline) break;
      baseline = now;
    }
    const size_t tableBefore = kavo::test::TaskTableSize();
    const long long forksBefore = Counted(KAVO_EVENT_TASK_CREATE);
    const long long exitsBefore = Counted(KAVO_EVENT_TASK_EXIT);

    auto start = std::chrono::steady_clock::now();
    auto workload = kavo::test::RunCommand(
        {kavo::test::ToolPath("kavo_workload"), "forks", std::to_string(kProcesses)}, 180);
    // The workload reaped its last child and has been reaped itself.
    auto lastExit = std::chrono::steady_clock::now();
    ASSERT_EQ(0, workload.exitCode) << workload.output;

    bool back = kavo::test::WaitUntil([&] { return TableExcess() <= baseline; }, 1s);
    auto settled = std::chrono::steady_clock::now();
    Figure("forking_ms",
           std::chrono::duration_cast<std::chrono::milliseconds>(lastExit - start).count());
    Figure("table_back_after_ms",
           std::chrono::duration_cast<std::chrono::milliseconds>(settled - lastExit).count());
    Figure("table_before", static_cast<long long>(tableBefore));
    Figure("table_after", static_cast<long long>(kavo::test::TaskTableSize()));
    EXPECT_TRUE(back) << "the table holds " << TableExcess() - baseline
                      << " more processes than are alive, a second after the last exit";
    // Each of them was seen coming and going.
    EXPECT_GE(Counted(KAVO_EVENT_TASK_CREATE) - forksBefore, kProcesses + 1);
    EXPECT_GE(Counted(KAVO_EVENT_TASK_EXIT) - exitsBefore, kProcesses + 1);
    EXPECT_FALSE(log.Contains("bpf ringbuff full!"));
  }, [] {
    kavo::test::NamespaceOptions options;
    options.timeoutSeconds = 200;
    return options;
  }());
}

}  // namespace
