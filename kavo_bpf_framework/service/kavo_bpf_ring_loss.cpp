// The lost-record watch of a ring monitor: the mapped counter or the probe,
// and the schedule of the repair (see the header).

#include "service/kavo_bpf_ring_loss.h"

#include <android-base/unique_fd.h>
#include <errno.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <limits>

#include "utils/kavo_bpf_helper.h"

namespace Kavo::Bpf {

void ResyncSchedule::noteLoss(uint64_t records, int64_t nowMs) {
  if (!pending_) firstLossMs_ = nowMs;
  pending_ = true;
  lost_ += records;
  lastLossMs_ = nowMs;
}

int64_t ResyncSchedule::msUntilDue(int64_t nowMs) const {
  if (!pending_) return -1;
  int64_t dueMs = std::min(lastLossMs_ + kQuietMs, firstLossMs_ + kMaxDeferMs);
  return std::max<int64_t>(0, dueMs - nowMs);
}

bool ResyncSchedule::takeDue(int64_t nowMs, uint64_t* lost) {
  if (msUntilDue(nowMs) != 0) return false;
  *lost = lost_;
  lost_ = 0;
  pending_ = false;
  return true;
}

RingLossWatch::~RingLossWatch() {
  if (counter_ != nullptr) munmap(const_cast<uint64_t*>(counter_), mappedLength_);
}

bool RingLossWatch::mapCounter(const std::string& path) {
  // Opened for writing only because the kernel refuses a shared mapping of a
  // read-only map descriptor; the mapping itself is read-only, and the kernel
  // then refuses to make it writable.
  android::base::unique_fd fd(OpenPinnedObject(path));
  if (fd.get() < 0) return false;
  size_t length = static_cast<size_t>(sysconf(_SC_PAGESIZE));
  void* mapped = mmap(nullptr, length, PROT_READ, MAP_SHARED, fd.get(), 0);
  if (mapped == MAP_FAILED) return false;
  // The mapping keeps the map alive; the descriptor is not needed any more.
  counter_ = static_cast<const volatile uint64_t*>(mapped);
  mappedLength_ = length;
  seen_ = *counter_;
  return true;
}

bool RingLossWatch::afterPoll(int polled, uint64_t* lost) {
  if (counter_ != nullptr) {
    // A plain load: the programs add to the counter atomically, so a stale
    // value is only late, and the next poll call sees the rest.
    uint64_t now = *counter_;
    if (now != seen_) {
      schedule_.noteLoss(now - seen_, NowMs());
      seen_ = now;
    }
  } else if (probe_ && (polled > 0 || probeDeferred_)) {
    int64_t nowMs = NowMs();
    probeDeferred_ = nowMs - lastProbeMs_ < kProbePeriodMs;
    if (!probeDeferred_) {
      lastProbeMs_ = nowMs;
      if (uint64_t found = probe_()) schedule_.noteLoss(found, nowMs);
    }
  }
  return schedule_.pending() && schedule_.takeDue(NowMs(), lost);
}

int RingLossWatch::pollTimeoutMs() const {
  if (!schedule_.pending() && !probeDeferred_) return -1;
  int64_t nowMs = NowMs();
  int64_t timeout = std::numeric_limits<int>::max();
  if (schedule_.pending()) timeout = schedule_.msUntilDue(nowMs);
  if (probeDeferred_) timeout = std::min(timeout, std::max<int64_t>(0, lastProbeMs_ + kProbePeriodMs - nowMs));
  return static_cast<int>(timeout);
}

int64_t RingLossWatch::NowMs() { return static_cast<int64_t>(ClockNs(CLOCK_MONOTONIC) / 1000000); }

}  // namespace Kavo::Bpf
