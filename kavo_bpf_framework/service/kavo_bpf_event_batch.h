#pragma once

// EventBatch: events one producer thread has made but not yet handed to the
// clients' queues, copied, in the order they were made: each raw record,
// then the derived events its handler published, then the next record.
// EventManager routes a whole batch under one lock (EventManager::BatchScope),
// so every client's queue gets exactly the events it would have got one by
// one, in the same order. A routed batch says, per client, which of its
// events that client gets; it may be delivered by another thread.
//
// Thread-compatible: a batch belongs to one thread at a time (the one that
// fills it, then the one that delivers it).

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
    routes_.clear();
  }

  // Where a routed batch goes: a client, its queue, and the indexes (bits)
  // among typeSlot() values of the event types it subscribed to.
  struct Route {
    int fd;
    IpcPackageManager* queue;
    uint64_t wantedSlots;
  };
  std::vector<Route>& routes() { return routes_; }
  const std::vector<Route>& routes() const { return routes_; }
  // Becomes a copy of |other|: its events, their type slots and its routes.
  void copyFrom(const EventBatch& other);
  // Per event, the index of its type among the batch's distinct types.
  uint8_t typeSlot(size_t i) const { return slots_[i]; }
  void setTypeSlot(size_t i, uint8_t slot) { slots_[i] = slot; }

 private:
  struct Event {
    uint32_t offset;
    uint32_t size;
    int32_t type;
  };

  static_assert(kMaxEvents <= 64, "a route's wanted types are the bits of a u64");

  alignas(8) char bytes_[kMaxBytes];
  Event events_[kMaxEvents];
  size_t count_ = 0;
  size_t used_ = 0;
  uint8_t slots_[kMaxEvents];
  std::vector<Route> routes_;
};

}  // namespace Kavo::Bpf
