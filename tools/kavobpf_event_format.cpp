#include "kavobpf_event_format.h"

#include <string.h>

#include <vector>

#include "bpf/kavo_bpf_records.h"
#include "utils/kavo_bpf_helper.h"

namespace kavo::client {

namespace {

using Kavo::Bpf::ConvertToHexString;
using Kavo::Bpf::StringPrintf;

const char* const kRawNames[] = {
    "kavo_task_init",   "kmem_rss_info",             "sched_task_create", "sched_task_exit",
    "dmabuf_size_info", "cgroup_attach_cpuset_info", "fd_update_info",    "dmabuf_update",
};
const char* const kDerivedNames[] = {"process_created", "process_exited", "thread_count_changed",
                                     "memory_changed"};
const char* const kMemberNames[] = {"file", "anon", "swap", "shmem"};
const char* const kDmabufActions[] = {"?", "attach", "vmap", "mmap", "release", "process_exit"};

// One decoded field: its key, and its value as JSON text (numbers bare,
// strings quoted) and as plain text.
struct Field {
  std::string key;
  std::string json;
  std::string text;
};

std::string JsonString(const std::string& s) {
  std::string out = "\"";
  for (unsigned char c : s) {
    if (c == '"' || c == '\\') {
      out += '\\';
      out += static_cast<char>(c);
    } else if (c < 0x20 || c >= 0x7f) {
      out += StringPrintf("\\u%04x", c);
    } else {
      out += static_cast<char>(c);
    }
  }
  return out + "\"";
}

std::string Comm(const char* comm, size_t capacity) { return std::string(comm, strnlen(comm, capacity)); }

Field Num(const std::string& key, long long v) {
  std::string s = std::to_string(v);
  return {key, s, s};
}
Field Unsigned(const std::string& key, unsigned long long v) {
  std::string s = std::to_string(v);
  return {key, s, s};
}
Field Str(const std::string& key, const std::string& v) { return {key, JsonString(v), v}; }
// Bytes, shown in KiB.
Field Kib(const std::string& key, long long bytes) {
  std::string s = std::to_string(bytes / 1024);
  return {key + "_kib", s, s + "KiB"};
}
const char* Kind(uint32_t kind) {
  return kind == KAVO_TASK_PROCESS ? "process" : kind == KAVO_TASK_THREAD ? "thread" : "unknown";
}

template <typename T>
bool Read(const char* record, size_t size, T* out) {
  if (size < sizeof(T)) return false;
  memcpy(out, record, sizeof(T));
  return true;
}

// The fields of a record; false when the type is unknown or the record short.
bool Decode(const char* record, size_t size, int type, std::vector<Field>* f) {
  switch (type) {
    case KAVO_EVENT_TASK_INIT: {
      kavo_task_init_event e;
      if (!Read(record, size, &e)) return false;
      *f = {Num("pid", e.pid), Num("ppid", e.ppid), Num("uid", e.uid), Num("threads", e.thread_count),
            Str("comm", Comm(e.comm, sizeof(e.comm))), Kib("rss_file", e.rss_file), Kib("rss_anon", e.rss_anon),
            Kib("rss_shmem", e.rss_shmem), Kib("swap", e.rss_swap), Num("start_time", e.start_time)};
      return true;
    }
    case KAVO_EVENT_RSS_STAT: {
      kavo_rss_event e;
      if (!Read(record, size, &e)) return false;
      const char* member = e.member >= 0 && e.member < KAVO_RSS_MEMBERS ? kMemberNames[e.member] : "?";
      *f = {Num("pid", e.pid), Str("member", member), Kib("size", e.size)};
      return true;
    }
    case KAVO_EVENT_TASK_CREATE: {
      kavo_fork_event e;
      if (!Read(record, size, &e)) return false;
      *f = {Num("pid", e.pid), Num("ppid", e.ppid), Num("uid", e.uid), Str("comm", Comm(e.comm, sizeof(e.comm))),
            Str("kind", Kind(e.kind))};
      return true;
    }
    case KAVO_EVENT_TASK_EXIT: {
      kavo_exit_event e;
      if (!Read(record, size, &e)) return false;
      *f = {Num("pid", e.pid), Str("comm", Comm(e.comm, sizeof(e.comm))), Str("kind", Kind(e.kind))};
      return true;
    }
    case KAVO_EVENT_DMABUF_SIZE: {
      kavo_dmabuf_size_event e;
      if (!Read(record, size, &e)) return false;
      *f = {Num("pid", e.pid), Unsigned("inode", e.inode), Kib("size", e.size), Kib("process_total", e.process_total),
            Str("comm", Comm(e.comm, sizeof(e.comm)))};
      return true;
    }
    case KAVO_EVENT_CGROUP_ATTACH: {
      kavo_cgroup_attach_event e;
      if (!Read(record, size, &e)) return false;
      *f = {Num("pid", e.pid), Num("level", e.dst_level), Unsigned("cgroup_id", e.dst_id),
            Str("comm", Comm(e.comm, sizeof(e.comm))), Str("path", Comm(e.dst_path, sizeof(e.dst_path)))};
      return true;
    }
    case KAVO_EVENT_FD_UPDATE: {
      kavo_fd_update_event e;
      if (!Read(record, size, &e)) return false;
      *f = {Num("pid", e.pid), Unsigned("fds", e.fd_count), Unsigned("reported_fds", e.reported_fd_count),
            Str("comm", Comm(e.comm, sizeof(e.comm)))};
      return true;
    }
    case KAVO_EVENT_DMABUF_UPDATE: {
      kavo_dmabuf_update_event e;
      if (!Read(record, size, &e)) return false;
      const char* action = e.action < sizeof(kDmabufActions) / sizeof(kDmabufActions[0]) ? kDmabufActions[e.action] : "?";
      *f = {Num("pid", e.pid), Str("action", action), Unsigned("inode", e.inode), Kib("size", e.size),
            Kib("process_total", e.process_total), Str("comm", Comm(e.comm, sizeof(e.comm)))};
      return true;
    }
    case KAVO_EVENT_PROCESS_CREATED: {
      kavo_process_created_event e;
      if (!Read(record, size, &e)) return false;
      *f = {Num("pid", e.pid), Num("ppid", e.ppid), Num("uid", e.uid), Str("comm", Comm(e.comm, sizeof(e.comm)))};
      return true;
    }
    case KAVO_EVENT_PROCESS_EXITED: {
      kavo_process_exited_event e;
      if (!Read(record, size, &e)) return false;
      *f = {Num("pid", e.pid), Str("comm", Comm(e.comm, sizeof(e.comm)))};
      return true;
    }
    case KAVO_EVENT_THREAD_COUNT_CHANGED: {
      kavo_thread_count_event e;
      if (!Read(record, size, &e)) return false;
      *f = {Num("pid", e.pid), Num("ppid", e.ppid), Num("uid", e.uid), Num("old_threads", e.old_thread_count),
            Num("threads", e.thread_count)};
      return true;
    }
    case KAVO_EVENT_MEMORY_CHANGED: {
      kavo_memory_changed_event e;
      if (!Read(record, size, &e)) return false;
      *f = {Num("pid", e.pid), Num("ppid", e.ppid), Num("uid", e.uid), Str("comm", Comm(e.comm, sizeof(e.comm)))};
      for (int m = 0; m < KAVO_RSS_MEMBERS; ++m) f->push_back(Kib(kMemberNames[m], e.size[m]));
      for (int m = 0; m < KAVO_RSS_MEMBERS; ++m) f->push_back(Kib(std::string("old_") + kMemberNames[m], e.old_size[m]));
      return true;
    }
    default:
      return false;
  }
}

bool IsRaw(int type) { return type >= 0 && type <= KAVO_EVENT_RAW_MAX; }

int TypeOf(const char* record, size_t size) {
  int32_t type = -1;
  if (size >= sizeof(type)) memcpy(&type, record, sizeof(type));
  return type;
}

}  // namespace

std::string EventTypeName(int type) {
  if (IsRaw(type)) return kRawNames[type];
  if (type >= KAVO_EVENT_PROCESS_CREATED && type <= KAVO_EVENT_MEMORY_CHANGED) {
    return kDerivedNames[type - KAVO_EVENT_PROCESS_CREATED];
  }
  return "";
}

bool ParseEventType(const std::string& text, int* type) {
  if (Kavo::Bpf::IsDigits(text) && text.size() < 10) {
    *type = std::stoi(text);
    return true;
  }
  for (int t = 0; t <= KAVO_EVENT_RAW_MAX; ++t) {
    if (text == kRawNames[t]) return (*type = t), true;
  }
  for (int t = KAVO_EVENT_PROCESS_CREATED; t <= KAVO_EVENT_MEMORY_CHANGED; ++t) {
    if (text == EventTypeName(t)) return (*type = t), true;
  }
  return false;
}

std::string FormatEventText(const char* record, size_t size) {
  int type = TypeOf(record, size);
  std::string name = EventTypeName(type);
  std::string line = name.empty() ? StringPrintf("type=%d", type) : name;
  kavo_event_header header;
  if (IsRaw(type) && Read(record, size, &header)) line += StringPrintf(" time_ns=%llu", (unsigned long long)header.time_ns);
  std::vector<Field> fields;
  if (!Decode(record, size, type, &fields)) {
    return line + " size=" + std::to_string(size) + " hex=" + ConvertToHexString(record, static_cast<int>(size));
  }
  for (const Field& field : fields) line += " " + field.key + "=" + field.text;
  return line;
}

std::string FormatEventJson(const char* record, size_t size, uint64_t receivedBootNs) {
  int type = TypeOf(record, size);
  std::string json = StringPrintf("{\"type\":%d", type);
  std::string name = EventTypeName(type);
  if (!name.empty()) json += ",\"name\":" + JsonString(name);
  kavo_event_header header;
  if (IsRaw(type) && Read(record, size, &header)) {
    json += StringPrintf(",\"time_ns\":%llu", (unsigned long long)header.time_ns);
  }
  json += StringPrintf(",\"recv_ns\":%llu", (unsigned long long)receivedBootNs);
  std::vector<Field> fields;
  if (!Decode(record, size, type, &fields)) {
    std::string hex = ConvertToHexString(record, static_cast<int>(size));
    if (!hex.empty()) hex.pop_back();
    return json + ",\"size\":" + std::to_string(size) + ",\"hex\":" + JsonString(hex) + "}";
  }
  for (const Field& field : fields) json += ",\"" + field.key + "\":" + field.json;
  return json + "}";
}

}  // namespace kavo::client
