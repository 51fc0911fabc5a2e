#pragma once

// KavoBpfDataState: per-second counters of the raw events the service took
// from its ring buffers (types 0 to 7) and of its ring-buffer polls (8), for
// the last 1800 seconds, written as "bpfservice_state.csv" on request
// (signal 50).
//
//   slots[1800][9]    slot t % 1800 holds second t; newest is the current
//                     second, oldest at most 1799 behind it
//
//   EventCount, kavo_task_init, ..., dmabuf_update, PollCount, <newest>, <oldest> \r\n
//   <sum of 0-7>, <type 0>, ..., <type 7>, <polls>, \r\n      (newest first)
//
// Thread-safe: both ring monitors and the initial task scan record at once,
// and the dump runs on the "BpfServiceDump" thread. Counters are atomics; the
// slot advance at a second boundary (which clears the skipped slots) takes a
// small lock that no signal handler ever takes. An event counted while
// another thread moves to the next second may land in the previous second.
//
// The service's own instance reads its seconds clock once a second rather
// than once per record: after each read it knows how far off the next second
// is, and until then a coarse monotonic clock (a memory read) shows that the
// second cannot have changed. Only across a system suspend, when boot time
// jumps ahead of the monotonic clock, may records of up to a second after
// the resume still count in the second before it.

#include <stdint.h>

#include <array>
#include <atomic>
#include <functional>
#include <mutex>
#include <string>

#include "utils/kavo_bpf_export.h"

namespace Kavo::Bpf {

class KAVO_EXPORT KavoBpfDataState {
 public:
  static constexpr int kSlots = 1800;
  // Counters 0-7: raw event types; 8: ring-buffer polls.
  static constexpr int kCounters = 9;
  static constexpr int kPollCounter = 8;

  static const std::string KAVOTASK_DUMP_PATH;
  static const std::string KAVOTASK_DUMP_TEMPLATE;

  // The service's instance, on the service's seconds clock. Never destroyed.
  static KavoBpfDataState* GetInstance();

  // A state record on another seconds clock (tests).
  explicit KavoBpfDataState(std::function<long long()> secondsClock);
  KavoBpfDataState(const KavoBpfDataState&) = delete;
  KavoBpfDataState& operator=(const KavoBpfDataState&) = delete;

  // Adds |count| to counter |type| (0..8) of the current second; any other
  // type is ignored.
  void RecordEvent(int type, int count);
  // Writes KAVOTASK_DUMP_TEMPLATE. False when the file could not be written.
  bool DumpState();

  // Counter |type| of second |t|, for tests and diagnostics.
  uint32_t counterAt(long long t, int type) const;
  int newestSecond() const { return newest.load(std::memory_order_acquire); }
  int oldestSecond() const { return oldest.load(std::memory_order_acquire); }

 private:
  using Slot = std::array<std::atomic<uint32_t>, kCounters>;
  struct BootClock {};

  // The service's instance: the seconds clock is basetime + CLOCK_BOOTTIME,
  // read through the once-a-second gate described above.
  explicit KavoBpfDataState(BootClock);

  static int SlotOf(long long t);
  // For the gated instance: whether the seconds clock may have moved on
  // since it was last read; when it may, reads it and sets the next gate.
  bool secondMayHaveChanged();
  // Moves the current second to the clock's, clearing the skipped slots.
  void advance();

  std::function<long long()> clock;
  // Guards the advance; counters are added without it.
  std::mutex advanceLock;
  std::atomic<long long> lastTime;
  std::atomic<int> newest{0};
  std::atomic<int> oldest{0};
  std::array<Slot, kSlots> slots;
  // Coarse monotonic nanoseconds before which the second cannot change;
  // gated_ only (a test clock is read on every record).
  bool gated_ = false;
  std::atomic<int64_t> gateNs_{0};
  int64_t coarseResolutionNs_ = 0;
};

// Signal 50: asks the dump thread to write the state record (async-signal-safe).
KAVO_EXPORT void DumpState(int signalNumber);

}  // namespace Kavo::Bpf
