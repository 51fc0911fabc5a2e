#include "service/kavo_bpf_node_pool.h"

#include <algorithm>

namespace Kavo::Bpf {

NodePool::NodePool(size_t nodeBytes, size_t nodesPerSlab)
    : nodeBytes_(std::max(nodeBytes, sizeof(FreeNode))), nodesPerSlab_(std::max<size_t>(nodesPerSlab, 1)) {}

void* NodePool::allocate() {
  std::lock_guard<std::mutex> guard(mutex_);
  if (free_ != nullptr) {
    FreeNode* node = free_;
    free_ = node->next;
    return node;
  }
  if (next_ == end_) {
    // Not value-initialised: a slab's pages are touched as nodes are handed out.
    slabs_.emplace_back(new char[nodeBytes_ * nodesPerSlab_]);
    next_ = slabs_.back().get();
    end_ = next_ + nodeBytes_ * nodesPerSlab_;
  }
  void* node = next_;
  next_ += nodeBytes_;
  return node;
}

void NodePool::deallocate(void* node) {
  std::lock_guard<std::mutex> guard(mutex_);
  free_ = new (node) FreeNode{free_};
}

}  // namespace Kavo::Bpf
