#pragma once

// The consumer's half of waking a ring only when its consumer may be waiting
// (the producers' half and why: kavo_bpf_ring.bpf.h, "Waking the consumer").
// The set's ringbuf_consumer word is mapped writable, the ring's two
// position pages read-only.
//
//   RingWakeup wakeup;
//   wakeup.map(consumerWordPath, ringFd);          // false: old objects, no word
//   while (running) {
//     bool waiting = wakeup.beforeWait();          // records already there?
//     n = waiting ? ring_buffer__consume(rb) : ring_buffer__poll(rb, timeout);
//   }
//   // in the sample callback, for every record: wakeup.onRecord();
//
// Lingering: a wake-up costs the producer that makes it an interrupt on its
// own CPU (and, on a virtual machine, an exit for each interrupt sent), far
// more than its program's own work. So after a burst the consumer, still
// "awake", pauses for kLingerNs without the CPU and takes what came meanwhile
// before it says "waiting": a fork storm's records then come without
// wake-ups. It pauses only once it has caught up: at high rates, where the
// records are there already, a pause would only add a timer interrupt. It
// keeps pausing while each pause finds records. Whether it pauses at all
// after a wake-up depends on what the first pause after the last one found:
// a burst that brings more records soon after its first (a fork, then the
// child's page faults and exit) keeps being followed, one wake-up a burst;
// records that come one at a time find every first pause empty, so only one
// wake-up in kProbeEvery tries a pause again, and an idle consumer pays none:
//
//   wakeup.renew();
//   if (wakeup.lingerAfter(n)) { pause; m = consume; wakeup.lingered(m); }
//   else if (wakeup.recordsWaiting()) m = consume;
//
// After beforeWait() has said the ring is empty, the consumer must not take
// a record without first waiting in the poll: a producer that saw the word
// at 0 wakes it. While it works (from its first record until the next
// beforeWait()), records come without wake-ups. Without a mapped word every
// call is a no-op and beforeWait() says false: the ring wakes its consumer
// as it always did.
//
// Single-threaded: belongs to the monitor thread of its ring.

#include <stddef.h>
#include <stdint.h>

#include <string>

namespace Kavo::Bpf {

class RingWakeup {
 public:
  // How long a consumer's "awake" holds if it stops without saying so: after
  // that the producers wake it again for every record that finds it caught up.
  static constexpr uint64_t kAwakeLeaseNs = 100000000;  // 100 ms
  // The pause after a burst. Of 20, 30 and 50 us (one run each), 20 kept a
  // watched fork storm fastest, and it adds little to a record's way to its
  // reader.
  static constexpr uint64_t kLingerNs = 20000;  // 20 us
  // After a wake-up whose first pause found nothing, one wake-up in this
  // many pauses again.
  static constexpr int kProbeEvery = 4;

  RingWakeup() = default;
  ~RingWakeup();
  RingWakeup(const RingWakeup&) = delete;
  RingWakeup& operator=(const RingWakeup&) = delete;

  // Maps the word pinned at |consumerPath| and the positions of the ring
  // |ringFd|; the word starts at 0. False (errno set) when either is missing.
  bool map(const std::string& consumerPath, int ringFd);
  bool mapped() const { return word_ != nullptr; }

  // Before each poll: says "waiting" (0, with a full barrier) and returns
  // whether records were reserved that the consumer has not taken yet; then
  // it must consume rather than wait.
  bool beforeWait();
  // Whether records were reserved that the consumer has not taken yet.
  bool recordsWaiting() const;
  // Says "awake" again with a fresh lease, for a consumer that keeps
  // looking at the ring without waiting in between.
  void renew() {
    if (awake_ && word_ != nullptr) markAwake();
  }
  // Whether to pause and look again after a poll call that took |handled|
  // records, instead of saying "waiting": only when the consumer has caught
  // up (records already there are taken at once), never after an empty
  // call, never without a word; after a pause that found records always,
  // and as the first pause after a wake-up only when the last such pause
  // found records, or on every kProbeEvery-th wake-up after it did not.
  bool lingerAfter(int handled) {
    if (handled <= 0 || word_ == nullptr || recordsWaiting()) return false;
    if (!sinceWait_) return true;
    if (!firstPauseFound_ && ++unpausedWakeups_ < kProbeEvery) return false;
    unpausedWakeups_ = 0;
    return true;
  }
  // What the look after a pause took.
  void lingered(int found) {
    if (sinceWait_) firstPauseFound_ = found > 0;  // it was the first since the wait
    sinceWait_ = false;
  }
  // For each record taken: the first after beforeWait() says "awake".
  void onRecord() {
    if (!awake_ && word_ != nullptr) markAwake();
  }

 private:
  void markAwake();

  volatile uint64_t* word_ = nullptr;
  const volatile uint64_t* positions_ = nullptr;  // consumer page, then producer page
  size_t pageSize_ = 0;
  bool awake_ = false;
  bool sinceWait_ = true;        // no pause since the last beforeWait()
  bool firstPauseFound_ = true;  // what the last first pause after a wait found
  int unpausedWakeups_ = 0;      // wake-ups since then that did not pause
};

}  // namespace Kavo::Bpf
