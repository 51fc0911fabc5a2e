// The service's own state record on the real boot-time clock: it reads that
// clock about once a second rather than for every record, and still puts
// every record into the second it came in.

#include <time.h>

#include <chrono>
#include <thread>

#include <gtest/gtest.h>

#include "service/kavo_bpf_state.h"
#include "utils/kavo_bpf_helper.h"

namespace {

using Kavo::Bpf::KavoBpfDataState;

// Waits for the service's seconds clock to tick; returns the new second, a
// few milliseconds in.
long long NextSecond() {
  const long long now = static_cast<long long>(Kavo::Bpf::GetSystemSecondsTime());
  while (static_cast<long long>(Kavo::Bpf::GetSystemSecondsTime()) == now) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  std::this_thread::sleep_for(std::chrono::milliseconds(5));
  return now + 1;
}

TEST(StateClock, RecordsLandInTheSecondTheyCameInAcrossTicks) {
  KavoBpfDataState* state = KavoBpfDataState::GetInstance();
  // A steady stream through three ticks of the clock: each second's row gets
  // exactly its own records, however rarely the clock itself is read.
  for (int tick = 0; tick < 3; ++tick) {
    const long long second = NextSecond();
    const int newestBefore = state->newestSecond();
    for (int i = 0; i < 1000; ++i) state->RecordEvent(1, 1);
    state->RecordEvent(KavoBpfDataState::kPollCounter, 1);
    const int newest = state->newestSecond();
    // The first tick may follow a long pause since construction.
    if (tick > 0) {
      EXPECT_EQ(newestBefore + 1, newest) << "tick " << tick;
    }
    EXPECT_EQ(1000u, state->counterAt(newest, 1)) << "second " << second;
    EXPECT_EQ(1u, state->counterAt(newest, KavoBpfDataState::kPollCounter));
    EXPECT_EQ(static_cast<long long>(Kavo::Bpf::GetSystemSecondsTime()), second) << "too slow a machine";
  }
  // Up to the tick and just after it: the record after the tick is in the
  // new row, those before it in the old one (but for the one that may have
  // been counted in the instant the clock ticked).
  const long long second = NextSecond();
  uint32_t before = 0;
  while (static_cast<long long>(Kavo::Bpf::GetSystemSecondsTime()) == second) {
    state->RecordEvent(2, 1);
    ++before;
  }
  state->RecordEvent(3, 1);
  const int newest = state->newestSecond();
  EXPECT_EQ(1u, state->counterAt(newest, 3));
  EXPECT_EQ(0u, state->counterAt(newest - 1, 3));
  EXPECT_LE(state->counterAt(newest, 2), 1u);
  EXPECT_EQ(before, state->counterAt(newest - 1, 2) + state->counterAt(newest, 2));
}

}  // namespace
