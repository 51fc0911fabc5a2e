// The state record as an operator reads it: per-second counters of what the
// rings delivered, kept for 30 minutes and written as a CSV on request. A
// made-up seconds clock stands in for the service's.

#include <gtest/gtest.h>

#include <atomic>
#include <sstream>
#include <string>
#include <thread>

#include "support/harness.h"
#include "service/kavo_bpf_error_log.h"
#include "service/kavo_bpf_state.h"

namespace {

using Kavo::Bpf::KavoBpfDataState;

constexpr char kHeaderNames[] =
    "EventCount, kavo_task_init, kmem_rss_info, sched_task_create, sched_task_exit, "
    "dmabuf_size_info, cgroup_attach_cpuset_info, fd_update_info, dmabuf_update, PollCount, ";

struct FakeClock {
  std::atomic<long long> now{1000};
  std::function<long long()> Function() {
    return [this] { return now.load(); };
  }
};

TEST(StateRecord, OneBusySecondIsOneRowOfTenNumbers) {
  FakeClock clock;
  KavoBpfDataState state(clock.Function());
  // A fresh record already has the current second, all zeros.
  kavo::test::RunInNamespace([&] {
    Kavo::Bpf::InitBpfServiceErrorLog();
    ASSERT_TRUE(state.DumpState());
    EXPECT_EQ(std::string(kHeaderNames) + "0, 0 \r\n0, 0, 0, 0, 0, 0, 0, 0, 0, 0, \r\n",
              kavo::test::ReadFile(KavoBpfDataState::KAVOTASK_DUMP_TEMPLATE));

    // One task init, two RSS records and one poll in the same second: the
    // poll is not an event.
    state.RecordEvent(0, 1);
    state.RecordEvent(1, 1);
    state.RecordEvent(1, 1);
    state.RecordEvent(KavoBpfDataState::kPollCounter, 1);
    ASSERT_TRUE(state.DumpState());
    EXPECT_EQ(std::string(kHeaderNames) + "0, 0 \r\n3, 1, 2, 0, 0, 0, 0, 0, 0, 1, \r\n",
              kavo::test::ReadFile(KavoBpfDataState::KAVOTASK_DUMP_TEMPLATE));
  });
}

TEST(StateRecord, UnknownTypesChangeNothing) {
  FakeClock clock;
  KavoBpfDataState state(clock.Function());
  for (int type : {9, 10, 100, -1, -9}) state.RecordEvent(type, 7);
  for (int type = 0; type < KavoBpfDataState::kCounters; ++type) {
    EXPECT_EQ(0u, state.counterAt(0, type)) << type;
  }
  state.RecordEvent(3, 2);
  EXPECT_EQ(2u, state.counterAt(0, 3));
}

TEST(StateRecord, ThirtyMinutesAreKeptAndAPauseClearsWhatItSkipped) {
  FakeClock clock;
  KavoBpfDataState state(clock.Function());
  // 1801 seconds of one exit record per second: the oldest second falls out.
  for (int second = 0; second <= 1800; ++second) {
    clock.now = 1000 + second;
    state.RecordEvent(3, 1);
  }
  EXPECT_EQ(1800, state.newestSecond());
  EXPECT_EQ(1, state.oldestSecond());

  kavo::test::RunInNamespace([&] {
    Kavo::Bpf::InitBpfServiceErrorLog();
    ASSERT_TRUE(state.DumpState());
    std::istringstream text(kavo::test::ReadFile(KavoBpfDataState::KAVOTASK_DUMP_TEMPLATE));
    std::string line;
    ASSERT_TRUE(std::getline(text, line));
    EXPECT_EQ(std::string(kHeaderNames) + "1800, 1 \r", line);
    int rows = 0;
    while (std::getline(text, line)) {
      ++rows;
      EXPECT_EQ("1, 0, 0, 0, 1, 0, 0, 0, 0, 0, \r", line) << "row " << rows;
    }
    EXPECT_EQ(1800, rows);
  });

  // Five quiet seconds, then a fork: the four skipped seconds and the new one
  // start from zero (their slots held records from half an hour ago).
  clock.now += 5;
  state.RecordEvent(2, 1);
  EXPECT_EQ(1805, state.newestSecond());
  EXPECT_EQ(6, state.oldestSecond());
  for (int second = 1801; second <= 1804; ++second) {
    EXPECT_EQ(0u, state.counterAt(second, 3)) << second;
  }
  EXPECT_EQ(0u, state.counterAt(1805, 3));
  EXPECT_EQ(1u, state.counterAt(1805, 2));
  EXPECT_EQ(1u, state.counterAt(1800, 3)) << "seconds before the pause are kept";
}

TEST(StateRecord, AClockSteppingBackLeavesNoRowsUntilItCatchesUp) {
  FakeClock clock;
  KavoBpfDataState state(clock.Function());
  state.RecordEvent(1, 1);
  clock.now -= 5;
  state.RecordEvent(1, 4);  // lands in second -5, without touching second 0
  EXPECT_EQ(-5, state.newestSecond());
  EXPECT_EQ(0, state.oldestSecond());
  EXPECT_EQ(4u, state.counterAt(-5, 1));
  EXPECT_EQ(1u, state.counterAt(0, 1));
  kavo::test::RunInNamespace([&] {
    Kavo::Bpf::InitBpfServiceErrorLog();
    ASSERT_TRUE(state.DumpState());
    EXPECT_EQ(std::string(kHeaderNames) + "-5, 0 \r\n",
              kavo::test::ReadFile(KavoBpfDataState::KAVOTASK_DUMP_TEMPLATE));
  });
}

// Both monitors record at once while the seconds move on: no count is lost.
TEST(StateRecord, ConcurrentRecordersLoseNothing) {
  FakeClock clock;
  KavoBpfDataState state(clock.Function());
  constexpr int kPerThread = 200000;
  std::atomic<bool> go{false};
  auto recorder = [&](int type) {
    while (!go) {
    }
    for (int i = 0; i < kPerThread; ++i) {
      state.RecordEvent(type, 1);
      if (i % 20000 == 0) clock.now += 1;
    }
  };
  std::thread ring0(recorder, 2), ring1(recorder, 7);
  go = true;
  ring0.join();
  ring1.join();
  uint64_t totals[KavoBpfDataState::kCounters] = {};
  for (long long t = state.oldestSecond(); t <= state.newestSecond(); ++t) {
    for (int type = 0; type < KavoBpfDataState::kCounters; ++type)
      totals[type] += state.counterAt(t, type);
  }
  EXPECT_EQ(static_cast<uint64_t>(kPerThread), totals[2]);
  EXPECT_EQ(static_cast<uint64_t>(kPerThread), totals[7]);
}

}  // namespace
