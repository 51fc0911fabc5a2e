#pragma once

// FrameQueue: the storage behind a connection's outgoing package queue. Each
// queued package is kept as the frame it becomes on the wire, its u32 size
// followed by its bytes, back to back with the ones before it:
//
//   block  |.. sent ..|h| size | package | size | package |t|  free  |capacity
//           head (h): the oldest frame      tail (t): where the next one goes
//
// Frames never straddle two blocks; a frame bigger than a block gets a block
// of its own. A queue's first block is small (a few responses and events);
// once it needs more, its blocks are the standard size. A queue that runs empty keeps its block and starts it over, and
// keeps one drained block aside for the next one it needs, so a steady
// stream of packages costs no allocation and a package is copied once in and
// once out. Blocks are allocated without being cleared, so an idle queue's
// unused room is never made resident.
//
// Thread-compatible: IpcPackageManager guards it with its mutex.

#include <stddef.h>
#include <stdint.h>

#include <memory>
#include <vector>

class FrameQueue {
 public:
  // Room for one frame whose package is |size| bytes, at the back. The u32
  // size is written; the caller writes the |size| bytes at the result.
  char* push(uint32_t size);
  // The oldest frame's package size and bytes. Only when !empty().
  uint32_t frontSize() const;
  const char* frontBytes() const;
  // Drops the oldest frame. Only when !empty().
  void pop();

  // The frames of the front block from the oldest on, as stored (each its
  // u32 size, then its bytes): where they begin and how many bytes of whole
  // frames follow. Copying a run of them is copying their frames as they go
  // on the wire. Only when !empty().
  const char* frontRun(size_t* bytes) const;
  // Drops the oldest |frames| frames, which are the first |bytes| bytes of
  // frontRun(). Only with frames of the front block.
  void popRun(size_t frames, size_t bytes);

  size_t count() const { return count_; }
  bool empty() const { return count_ == 0; }

 private:
  struct Block {
    std::unique_ptr<char[]> bytes;
    size_t capacity = 0;
    size_t head = 0;
    size_t tail = 0;
  };
  // A block with room for |frameBytes|: the spare one when it fits.
  Block newBlock(size_t frameBytes);
  // Keeps a drained standard block as the spare, when there is none yet.
  void recycle(Block block);

  // Oldest first; rarely more than a few, so dropping the front is cheap.
  std::vector<Block> blocks_;
  Block spare_;  // a drained block of the standard size, or none
  size_t count_ = 0;
  bool grown_ = false;  // a block of the standard size was ever made
};
