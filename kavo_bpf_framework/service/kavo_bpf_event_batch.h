#pragma once

// EventBatch: events one producer thread has made but not yet handed to the
// clients' queues, copied, in the order they were made: each raw record,
// then the derived events its handler published, then the next record.
// EventManager routes a whole batch under one lock (EventManager::BatchScope),
// so every client's queue gets exactly the events it would have got one by
// one, in the same order.
//
// Thread-compatible: a batch belongs to the thread that opened it.

#include <stddef.h>
#include <stdint.h>

#include <vector>

#include "utils/kavo_bpf_ipc_package.h"

namespace Kavo::Bpf {

class EventBatch {
 public:
  // Enough to take the locks once for many records, few enough that a burst
  // reaches its clients while the ring is still being drained.
  static constexpr size_t kMaxEvents = 64;
  static constexpr size_t kMaxBytes = 4096;

  // Copies one event (its u32 type first); false, with nothing added, when
  // it does not fit any more.
  bool add(const char* data, unsigned size);
  bool full() const { return count_ == kMaxEvents; }
  bool empty() const { return count_ == 0; }
  size_t size() const { return count_; }
  int32_t typeOf(size_t i) const { return events_[i].type; }
  KavoIpcBytes bytesOf(size_t i) const { return {bytes_ + events_[i].offset, events_[i].size}; }
  void clear() {
    count_ = 0;
    used_ = 0;
  }

  // Scratch for the router, kept so that routing a batch allocates nothing.
  std::vector<int>& clients() { return clients_; }

 private:
  struct Event {
    uint32_t offset;
    uint32_t size;
    int32_t type;
  };

  alignas(8) char bytes_[kMaxBytes];
  Event events_[kMaxEvents];
  size_t count_ = 0;
  size_t used_ = 0;
  std::vector<int> clients_;
};

}  // namespace Kavo::Bpf
