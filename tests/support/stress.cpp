#include "support/stress.h"

#include <malloc.h>
#include <stdio.h>

#include <mutex>

#include "service/kavo_bpf_task_manager.h"

#if defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define KAVO_SANITIZER_ALLOCATOR 1
#endif
#endif
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define KAVO_SANITIZER_ALLOCATOR 1
#endif
#ifdef KAVO_SANITIZER_ALLOCATOR
#include <sanitizer/allocator_interface.h>
#endif

namespace kavo::test {

size_t HeapInUse() {
#ifdef KAVO_SANITIZER_ALLOCATOR
  return __sanitizer_get_current_allocated_bytes();
#else
  return mallinfo2().uordblks;
#endif
}

size_t TaskTableSize() {
  std::lock_guard<std::mutex> guard(Kavo::Bpf::KavoTaskManager::kavoTaskManagerLock);
  return Kavo::Bpf::KavoTaskManager::GetInstance()->GetKavoTaskCount();
}

void Figure(const std::string& key, long long value) {
  printf("figure %s: %lld\n", key.c_str(), value);
  fflush(stdout);
}

}  // namespace kavo::test
