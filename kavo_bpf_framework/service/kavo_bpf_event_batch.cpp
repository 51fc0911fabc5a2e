#include "service/kavo_bpf_event_batch.h"

#include <string.h>

namespace Kavo::Bpf {

bool EventBatch::add(const char* data, unsigned size) {
  if (count_ == kMaxEvents || size < sizeof(int32_t) || size > kMaxBytes - used_) return false;
  Event& event = events_[count_++];
  event.offset = static_cast<uint32_t>(used_);
  event.size = size;
  memcpy(&event.type, data, sizeof(event.type));
  memcpy(bytes_ + used_, data, size);
  // Each copy starts aligned, as the records do in the ring.
  used_ += (static_cast<size_t>(size) + 7) & ~static_cast<size_t>(7);
  if (used_ > kMaxBytes) used_ = kMaxBytes;
  return true;
}

void EventBatch::copyFrom(const EventBatch& other) {
  memcpy(bytes_, other.bytes_, other.used_);
  memcpy(events_, other.events_, other.count_ * sizeof(Event));
  memcpy(slots_, other.slots_, other.count_);
  count_ = other.count_;
  used_ = other.used_;
  routes_ = other.routes_;
}

}  // namespace Kavo::Bpf
