#pragma once

// Learning that the kernel lost records of a ring, and when the loss is over,
// so that what the lost records would have said is repaired once per burst,
// never once per lost record and never while nothing is lost.
//
//   RingLossWatch watch;
//   if (!watch.mapCounter(lostCounterPath)) watch.useProbe(fullBitProbe);
//   while (running) {
//     int n = ring_buffer__poll(rb, watch.pollTimeoutMs());
//     uint64_t lost;
//     if (watch.afterPoll(n, &lost)) repair(lost);
//   }
//
// Learning of a loss: the object set counts the records it could not reserve
// in a one-entry array map made mmapable; the watch maps it read-only and
// reads it with one plain load after each poll call, so a poll call that
// delivered thousands of records costs no system call. Objects without that
// counter fall back to a probe (the ring's full bit), asked at most every
// kProbePeriodMs while records come; a probe that was due while none came is
// made once the period has passed.
//
// When to repair (ResyncSchedule): once no further loss was seen for kQuietMs,
// or kMaxDeferMs after the first unrepaired loss if losses never stop. Until
// then pollTimeoutMs() bounds the poll, so the repair comes even if no record
// arrives; with nothing pending it is -1 and an idle monitor never wakes.
//
// Single-threaded: each watch belongs to the monitor thread of its ring.

#include <stdint.h>
#include <stddef.h>

#include <functional>
#include <string>

namespace Kavo::Bpf {

class ResyncSchedule {
 public:
  static constexpr int64_t kQuietMs = 300;
  static constexpr int64_t kMaxDeferMs = 1000;

  // |records| more records were found lost at |nowMs| (monotonic ms).
  void noteLoss(uint64_t records, int64_t nowMs);
  bool pending() const { return pending_; }
  // Milliseconds until the repair is due (0 once it is), -1 with none pending.
  int64_t msUntilDue(int64_t nowMs) const;
  // True when the repair is due at |nowMs|: *lost gets the records lost since
  // the last repair and nothing is pending any more.
  bool takeDue(int64_t nowMs, uint64_t* lost);

 private:
  bool pending_ = false;
  uint64_t lost_ = 0;
  int64_t firstLossMs_ = 0;
  int64_t lastLossMs_ = 0;
};

class RingLossWatch {
 public:
  static constexpr int64_t kProbePeriodMs = 100;
  // Records lost since the probe was last asked; 0 when none were.
  using Probe = std::function<uint64_t()>;

  RingLossWatch() = default;
  ~RingLossWatch();
  RingLossWatch(const RingLossWatch&) = delete;
  RingLossWatch& operator=(const RingLossWatch&) = delete;

  // Maps the lost-record counter pinned at |path| read-only and takes its
  // value now as the baseline: only later losses count. False (errno set)
  // when there is no such map or it cannot be mapped.
  bool mapCounter(const std::string& path);
  bool counterMapped() const { return counter_ != nullptr; }
  // Without a counter: ask |probe| instead.
  void useProbe(Probe probe) { probe_ = std::move(probe); }

  // After each poll call, with its result (records delivered, or an error).
  // True when the repair is due now; *lost: records lost since the last one.
  bool afterPoll(int polled, uint64_t* lost);
  // Timeout for the next poll call: -1 (none) unless a repair or a deferred
  // probe is pending.
  int pollTimeoutMs() const;

 private:
  static int64_t NowMs();

  const volatile uint64_t* counter_ = nullptr;
  size_t mappedLength_ = 0;
  uint64_t seen_ = 0;
  Probe probe_;
  int64_t lastProbeMs_ = INT64_MIN / 2;
  bool probeDeferred_ = false;
  ResyncSchedule schedule_;
};

}  // namespace Kavo::Bpf
