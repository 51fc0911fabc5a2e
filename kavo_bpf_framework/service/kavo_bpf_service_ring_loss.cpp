// How a ring monitor learns that its ring lost records: from the set's
// mapped lost-record counter, or, with objects that have none, from the full
// bit of the ring's control word.
//
// The full bit is also what the status check reports ("bpf ringbuff full!",
// at most every 30 seconds). Both must see every loss: the probe clears the
// bit it finds and leaves it owed to the status check (fullBitTaken), and
// the status check counts the bits it finds itself (fullBitReports), which
// the probe takes as losses too.

#include <android-base/unique_fd.h>
#include <android/log.h>
#include <bpf/bpf.h>
#include <bpf/libbpf.h>
#include <errno.h>
#include <string.h>

#include <memory>
#include <vector>

#include "service/kavo_bpf_ring_loss.h"
#include "service/kavo_bpf_service.h"

namespace Kavo::Bpf {

namespace {

constexpr char kTag[] = "BpfService";

// Records the set lost to a full ring, over all CPUs and types, from its
// per-CPU counters; false when they cannot be read.
bool SumLostRecords(int statsFd, uint64_t* lost) {
  int cpus = libbpf_num_possible_cpus();
  if (statsFd < 0 || cpus <= 0) return false;
  std::vector<uint64_t> perCpu(static_cast<size_t>(cpus));
  uint64_t sum = 0;
  for (uint32_t key = KAVO_RING_STATS_LOST_BASE; key < KAVO_RING_STATS_KEYS; ++key) {
    if (bpf_map_lookup_elem(statsFd, &key, perCpu.data()) != 0) return false;
    for (uint64_t value : perCpu) sum += value;
  }
  *lost = sum;
  return true;
}

}  // namespace

void KavoBpfService::setUpLossWatch(int ring, RingLossWatch* watch) {
  if (watch->mapCounter(RINGBUF_LOST_PATH[ring])) return;
  __android_log_print(ANDROID_LOG_WARN, kTag,
                      "[KavoBpfService][setUpLossWatch] no lost-record counter (%s), watching the full bit",
                      strerror(errno));
  // A bit left from before this monitor is not a loss of this run; the
  // status check still reports it.
  takeRingFullBit(ring);
  auto stats = std::make_shared<android::base::unique_fd>(OpenPinnedObject(RING_STATS_PATH[ring], true));
  uint64_t lostBefore = 0;
  SumLostRecords(stats->get(), &lostBefore);
  uint64_t reportsSeen = fullBitReports[ring].load();
  watch->useProbe([this, ring, stats, lostBefore, reportsSeen]() mutable -> uint64_t {
    bool full = takeRingFullBit(ring);
    uint64_t reports = fullBitReports[ring].load();
    if (reports != reportsSeen) {
      reportsSeen = reports;
      full = true;
    }
    if (!full) return 0;
    // How many, when the set counts them; else at least one.
    uint64_t lostNow;
    if (!SumLostRecords(stats->get(), &lostNow) || lostNow <= lostBefore) return 1;
    uint64_t found = lostNow - lostBefore;
    lostBefore = lostNow;
    return found;
  });
}

bool KavoBpfService::takeRingFullBit(int ring) {
  std::lock_guard<std::mutex> guard(servicelock);
  int statusFd = ringStatusFds[ring].get();
  uint32_t key = KAVO_RING_STATUS_CONTROL;
  uint64_t word = 0;
  if (bpf_map_lookup_elem(statusFd, &key, &word) != 0 || (word & KAVO_RING_FULL_BIT) == 0) return false;
  word &= ~KAVO_RING_FULL_BIT;
  bpf_map_update_elem(statusFd, &key, &word, 0);
  fullBitTaken[ring] = true;
  return true;
}

}  // namespace Kavo::Bpf
