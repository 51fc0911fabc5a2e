#include "utils/kavo_bpf_ipc_frame_queue.h"

#include <string.h>

#include <algorithm>

namespace {

// A page-friendly size that holds a few hundred event frames.
constexpr size_t kBlockBytes = 16384;
// A queue's first block: room for a few responses and events. Most clients
// never need more, and a block this small shares its page with other small
// allocations instead of taking a page of its own per connection.
constexpr size_t kFirstBlockBytes = 512;
constexpr size_t kSizeBytes = sizeof(uint32_t);

}  // namespace

FrameQueue::Block FrameQueue::newBlock(size_t frameBytes) {
  if (frameBytes <= kBlockBytes && spare_.bytes != nullptr) {
    Block block = std::move(spare_);
    spare_ = Block();
    block.head = block.tail = 0;
    return block;
  }
  Block block;
  // The first block a queue ever makes (nothing held, nothing spare) is small.
  const bool first = blocks_.empty() && !grown_;
  block.capacity = std::max(first ? kFirstBlockBytes : kBlockBytes, frameBytes);
  if (!first) grown_ = true;
  // Not value-initialised: pages are touched only when frames are written.
  block.bytes.reset(new char[block.capacity]);
  return block;
}

char* FrameQueue::push(uint32_t size) {
  const size_t frameBytes = kSizeBytes + size;
  if (blocks_.empty() || blocks_.back().capacity - blocks_.back().tail < frameBytes) {
    // An empty queue keeps one empty block; it makes way for a bigger one.
    if (count_ == 0 && !blocks_.empty()) {
      recycle(std::move(blocks_.back()));
      blocks_.pop_back();
    }
    blocks_.push_back(newBlock(frameBytes));
  }
  Block& block = blocks_.back();
  char* frame = block.bytes.get() + block.tail;
  memcpy(frame, &size, kSizeBytes);
  block.tail += frameBytes;
  ++count_;
  return frame + kSizeBytes;
}

uint32_t FrameQueue::frontSize() const {
  uint32_t size;
  memcpy(&size, blocks_.front().bytes.get() + blocks_.front().head, kSizeBytes);
  return size;
}

const char* FrameQueue::frontBytes() const {
  return blocks_.front().bytes.get() + blocks_.front().head + kSizeBytes;
}

void FrameQueue::pop() { popRun(1, kSizeBytes + frontSize()); }

const char* FrameQueue::frontRun(size_t* bytes) const {
  const Block& block = blocks_.front();
  *bytes = block.tail - block.head;
  return block.bytes.get() + block.head;
}

void FrameQueue::popRun(size_t frames, size_t bytes) {
  Block& block = blocks_.front();
  block.head += bytes;
  count_ -= frames;
  if (block.head != block.tail) return;
  if (blocks_.size() == 1) {
    // The only block, now empty: the next frame starts it over.
    block.head = block.tail = 0;
    return;
  }
  recycle(std::move(block));
  blocks_.erase(blocks_.begin());
}

void FrameQueue::recycle(Block block) {
  if (block.capacity == kBlockBytes && spare_.bytes == nullptr) spare_ = std::move(block);
}
