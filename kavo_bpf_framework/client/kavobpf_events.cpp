// Event type names and the decoding of one record into its typed layout.

#include <string.h>

#include <array>
#include <charconv>

#include "kavobpf/kavobpf_client.h"

namespace kavobpf {

namespace {

struct TypeName {
  int32_t type;
  std::string_view name;
};

constexpr std::array<TypeName, 12> kTypeNames = {{
    {KAVO_EVENT_TASK_INIT, "kavo_task_init"},
    {KAVO_EVENT_RSS_STAT, "kmem_rss_info"},
    {KAVO_EVENT_TASK_CREATE, "sched_task_create"},
    {KAVO_EVENT_TASK_EXIT, "sched_task_exit"},
    {KAVO_EVENT_DMABUF_SIZE, "dmabuf_size_info"},
    {KAVO_EVENT_CGROUP_ATTACH, "cgroup_attach_cpuset_info"},
    {KAVO_EVENT_FD_UPDATE, "fd_update_info"},
    {KAVO_EVENT_DMABUF_UPDATE, "dmabuf_update"},
    {KAVO_EVENT_PROCESS_CREATED, "process_created"},
    {KAVO_EVENT_PROCESS_EXITED, "process_exited"},
    {KAVO_EVENT_THREAD_COUNT_CHANGED, "thread_count_changed"},
    {KAVO_EVENT_MEMORY_CHANGED, "memory_changed"},
}};

// The record as layout T when it is long enough; a longer record (a newer
// service that added fields at the end) decodes as far as T goes.
template <typename T>
bool DecodeAs(const void* data, size_t size, EventRecord* record) {
  if (size < sizeof(T)) return false;
  T value;
  memcpy(&value, data, sizeof(T));
  *record = value;
  return true;
}

bool DecodeKnown(int32_t type, const void* data, size_t size, EventRecord* record) {
  switch (type) {
    case KAVO_EVENT_TASK_INIT: return DecodeAs<kavo_task_init_event>(data, size, record);
    case KAVO_EVENT_RSS_STAT: return DecodeAs<kavo_rss_event>(data, size, record);
    case KAVO_EVENT_TASK_CREATE: return DecodeAs<kavo_fork_event>(data, size, record);
    case KAVO_EVENT_TASK_EXIT: return DecodeAs<kavo_exit_event>(data, size, record);
    case KAVO_EVENT_DMABUF_SIZE: return DecodeAs<kavo_dmabuf_size_event>(data, size, record);
    case KAVO_EVENT_CGROUP_ATTACH: return DecodeAs<kavo_cgroup_attach_event>(data, size, record);
    case KAVO_EVENT_FD_UPDATE: return DecodeAs<kavo_fd_update_event>(data, size, record);
    case KAVO_EVENT_DMABUF_UPDATE: return DecodeAs<kavo_dmabuf_update_event>(data, size, record);
    case KAVO_EVENT_PROCESS_CREATED: return DecodeAs<kavo_process_created_event>(data, size, record);
    case KAVO_EVENT_PROCESS_EXITED: return DecodeAs<kavo_process_exited_event>(data, size, record);
    case KAVO_EVENT_THREAD_COUNT_CHANGED: return DecodeAs<kavo_thread_count_event>(data, size, record);
    case KAVO_EVENT_MEMORY_CHANGED: return DecodeAs<kavo_memory_changed_event>(data, size, record);
    default: return false;
  }
}

}  // namespace

std::string_view EventTypeName(int32_t type) {
  for (const TypeName& entry : kTypeNames) {
    if (entry.type == type) return entry.name;
  }
  return {};
}

bool ParseEventType(std::string_view text, int32_t* type) {
  for (const TypeName& entry : kTypeNames) {
    if (entry.name == text) {
      *type = entry.type;
      return true;
    }
  }
  int32_t number = 0;
  const char* end = text.data() + text.size();
  auto [at, error] = std::from_chars(text.data(), end, number);
  if (text.empty() || error != std::errc() || at != end) return false;
  *type = number;
  return true;
}

const std::vector<int32_t>& KnownEventTypes() {
  static const std::vector<int32_t> types = [] {
    std::vector<int32_t> all;
    for (const TypeName& entry : kTypeNames) all.push_back(entry.type);
    return all;
  }();
  return types;
}

Event DecodeEvent(const void* data, size_t size) {
  Event event;
  event.size = size;
  if (size >= sizeof(int32_t)) memcpy(&event.type, data, sizeof(int32_t));
  if (size < sizeof(int32_t) || !DecodeKnown(event.type, data, size, &event.record)) {
    const uint8_t* bytes = static_cast<const uint8_t*>(data);
    event.undecoded.assign(bytes, bytes + size);
  }
  return event;
}

}  // namespace kavobpf
