#pragma once

// NodePoolAllocator: an allocator for the nodes of a node-based container
// (std::map) that holds many small records for a long time, such as the task
// table. Single nodes come from slabs, back to back, without malloc's
// per-allocation header and rounding (16 of the 192 bytes a task node costs
// through malloc); a freed node is reused by the next one. Slabs are kept for
// the life of the process: the memory follows the table's high-water mark,
// as malloc's would. Anything but a single node goes to operator new.
//
// Thread-safe: each node size has one pool, guarded by its own mutex.

#include <stddef.h>

#include <cstddef>
#include <memory>
#include <mutex>
#include <new>
#include <vector>

namespace Kavo::Bpf {

class NodePool {
 public:
  NodePool(size_t nodeBytes, size_t nodesPerSlab);
  NodePool(const NodePool&) = delete;
  NodePool& operator=(const NodePool&) = delete;

  void* allocate();
  void deallocate(void* node);

 private:
  struct FreeNode {
    FreeNode* next;
  };

  std::mutex mutex_;
  const size_t nodeBytes_;
  const size_t nodesPerSlab_;
  FreeNode* free_ = nullptr;
  // The newest slab's next unused node, and its end.
  char* next_ = nullptr;
  char* end_ = nullptr;
  std::vector<std::unique_ptr<char[]>> slabs_;
};

// The pool of nodes of |Bytes| bytes aligned to |Align|.
template <size_t Bytes, size_t Align>
NodePool& NodePoolFor() {
  constexpr size_t kNodeBytes = (Bytes + Align - 1) / Align * Align;
  // About 32 KiB a slab: few slabs, and the last one's unused part untouched.
  static NodePool* pool = new NodePool(kNodeBytes, (32768 + kNodeBytes - 1) / kNodeBytes);
  return *pool;
}

template <typename T>
struct NodePoolAllocator {
  using value_type = T;

  NodePoolAllocator() = default;
  template <typename U>
  NodePoolAllocator(const NodePoolAllocator<U>&) noexcept {}

  T* allocate(size_t n) {
    static_assert(alignof(T) <= alignof(std::max_align_t), "slabs align to max_align_t");
    if (n != 1) return static_cast<T*>(::operator new(n * sizeof(T)));
    return static_cast<T*>(NodePoolFor<sizeof(T), alignof(T)>().allocate());
  }
  void deallocate(T* p, size_t n) noexcept {
    if (n != 1) {
      ::operator delete(p);
      return;
    }
    NodePoolFor<sizeof(T), alignof(T)>().deallocate(p);
  }

  template <typename U>
  bool operator==(const NodePoolAllocator<U>&) const noexcept {
    return true;
  }
  template <typename U>
  bool operator!=(const NodePoolAllocator<U>&) const noexcept {
    return false;
  }
};

}  // namespace Kavo::Bpf
