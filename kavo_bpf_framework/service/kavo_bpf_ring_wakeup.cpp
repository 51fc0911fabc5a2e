// Mapping the consumer word and the ring positions, and the two steps of the
// wake-up protocol (see the header).

#include "service/kavo_bpf_ring_wakeup.h"

#include <android-base/unique_fd.h>
#include <sys/mman.h>
#include <time.h>
#include <unistd.h>

#include "utils/kavo_bpf_helper.h"

namespace Kavo::Bpf {

RingWakeup::~RingWakeup() {
  if (word_ != nullptr) {
    // Whoever consumes next is woken as usual.
    __atomic_store_n(word_, 0, __ATOMIC_SEQ_CST);
    munmap(const_cast<uint64_t*>(word_), pageSize_);
  }
  if (positions_ != nullptr) munmap(const_cast<uint64_t*>(positions_), 2 * pageSize_);
}

bool RingWakeup::map(const std::string& consumerPath, int ringFd) {
  pageSize_ = static_cast<size_t>(sysconf(_SC_PAGESIZE));
  // The ring's first page holds the consumer position, the second the
  // producer position; the kernel lets any consumer map them read-only.
  void* positions = mmap(nullptr, 2 * pageSize_, PROT_READ, MAP_SHARED, ringFd, 0);
  if (positions == MAP_FAILED) return false;
  android::base::unique_fd fd(OpenPinnedObject(consumerPath));
  void* word = fd.get() >= 0 ? mmap(nullptr, pageSize_, PROT_READ | PROT_WRITE, MAP_SHARED, fd.get(), 0)
                             : MAP_FAILED;
  if (word == MAP_FAILED) {
    munmap(positions, 2 * pageSize_);
    return false;
  }
  positions_ = static_cast<const volatile uint64_t*>(positions);
  word_ = static_cast<volatile uint64_t*>(word);
  __atomic_store_n(word_, 0, __ATOMIC_SEQ_CST);
  return true;
}

bool RingWakeup::beforeWait() {
  awake_ = false;
  sinceWait_ = true;
  if (word_ == nullptr) return false;
  __atomic_store_n(word_, 0, __ATOMIC_SEQ_CST);
  return recordsWaiting();
}

bool RingWakeup::recordsWaiting() const {
  if (positions_ == nullptr) return false;
  const uint64_t consumer = __atomic_load_n(&positions_[0], __ATOMIC_SEQ_CST);
  const uint64_t producer = __atomic_load_n(&positions_[pageSize_ / sizeof(uint64_t)], __ATOMIC_SEQ_CST);
  return producer != consumer;
}

void RingWakeup::markAwake() {
  awake_ = true;
  __atomic_store_n(word_, ClockNs(CLOCK_BOOTTIME) + kAwakeLeaseNs, __ATOMIC_RELAXED);
}

}  // namespace Kavo::Bpf
