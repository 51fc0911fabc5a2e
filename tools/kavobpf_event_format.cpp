#include "kavobpf_event_format.h"

#include <stdio.h>
#include <string.h>

#include <type_traits>
#include <utility>
#include <vector>

namespace kavo::client {

namespace {

using kavobpf::Event;
using kavobpf::Text;

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
      char escaped[8];
      snprintf(escaped, sizeof(escaped), "\\u%04x", c);
      out += escaped;
    } else {
      out += static_cast<char>(c);
    }
  }
  return out + "\"";
}

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

// The fields of a decoded record; false when it was not decoded.
struct FieldsOf {
  std::vector<Field>* f;

  bool operator()(const std::monostate&) const { return false; }
  bool operator()(const kavo_task_init_event& e) const {
    *f = {Num("pid", e.pid), Num("ppid", e.ppid), Num("uid", e.uid), Num("threads", e.thread_count),
          Str("comm", std::string(Text(e.comm))), Kib("rss_file", e.rss_file), Kib("rss_anon", e.rss_anon),
          Kib("rss_shmem", e.rss_shmem), Kib("swap", e.rss_swap), Num("start_time", e.start_time)};
    return true;
  }
  bool operator()(const kavo_rss_event& e) const {
    const char* member = e.member >= 0 && e.member < KAVO_RSS_MEMBERS ? kMemberNames[e.member] : "?";
    *f = {Num("pid", e.pid), Str("member", member), Kib("size", e.size)};
    return true;
  }
  bool operator()(const kavo_fork_event& e) const {
    *f = {Num("pid", e.pid), Num("ppid", e.ppid), Num("uid", e.uid), Str("comm", std::string(Text(e.comm))),
          Str("kind", Kind(e.kind))};
    return true;
  }
  bool operator()(const kavo_exit_event& e) const {
    *f = {Num("pid", e.pid), Str("comm", std::string(Text(e.comm))), Str("kind", Kind(e.kind))};
    return true;
  }
  bool operator()(const kavo_dmabuf_size_event& e) const {
    *f = {Num("pid", e.pid), Unsigned("inode", e.inode), Kib("size", e.size), Kib("process_total", e.process_total),
          Str("comm", std::string(Text(e.comm)))};
    return true;
  }
  bool operator()(const kavo_cgroup_attach_event& e) const {
    *f = {Num("pid", e.pid), Num("level", e.dst_level), Unsigned("cgroup_id", e.dst_id),
          Str("comm", std::string(Text(e.comm))), Str("path", std::string(Text(e.dst_path)))};
    return true;
  }
  bool operator()(const kavo_fd_update_event& e) const {
    *f = {Num("pid", e.pid), Unsigned("fds", e.fd_count), Unsigned("reported_fds", e.reported_fd_count),
          Str("comm", std::string(Text(e.comm)))};
    return true;
  }
  bool operator()(const kavo_dmabuf_update_event& e) const {
    const char* action = e.action < sizeof(kDmabufActions) / sizeof(kDmabufActions[0]) ? kDmabufActions[e.action] : "?";
    *f = {Num("pid", e.pid), Str("action", action), Unsigned("inode", e.inode), Kib("size", e.size),
          Kib("process_total", e.process_total), Str("comm", std::string(Text(e.comm)))};
    return true;
  }
  bool operator()(const kavo_process_created_event& e) const {
    *f = {Num("pid", e.pid), Num("ppid", e.ppid), Num("uid", e.uid), Str("comm", std::string(Text(e.comm)))};
    return true;
  }
  bool operator()(const kavo_process_exited_event& e) const {
    *f = {Num("pid", e.pid), Str("comm", std::string(Text(e.comm)))};
    return true;
  }
  bool operator()(const kavo_thread_count_event& e) const {
    *f = {Num("pid", e.pid), Num("ppid", e.ppid), Num("uid", e.uid), Num("old_threads", e.old_thread_count),
          Num("threads", e.thread_count)};
    return true;
  }
  bool operator()(const kavo_memory_changed_event& e) const {
    *f = {Num("pid", e.pid), Num("ppid", e.ppid), Num("uid", e.uid), Str("comm", std::string(Text(e.comm)))};
    for (int m = 0; m < KAVO_RSS_MEMBERS; ++m) f->push_back(Kib(kMemberNames[m], e.size[m]));
    for (int m = 0; m < KAVO_RSS_MEMBERS; ++m) f->push_back(Kib(std::string("old_") + kMemberNames[m], e.old_size[m]));
    return true;
  }
};

// Raw records begin with the kernel's header; derived ones do not.
template <typename T, typename = void>
struct HasHeader : std::false_type {};
template <typename T>
struct HasHeader<T, std::void_t<decltype(std::declval<T>().header)>> : std::true_type {};

// The kernel's time stamp of a raw record; false for a derived one.
bool RawTime(const Event& event, unsigned long long* timeNs) {
  // A raw record too short for its layout may still hold the header.
  if (event.type >= 0 && event.type <= KAVO_EVENT_RAW_MAX &&
      event.undecoded.size() >= sizeof(kavo_event_header)) {
    kavo_event_header header;
    memcpy(&header, event.undecoded.data(), sizeof(header));
    *timeNs = header.time_ns;
    return true;
  }
  return std::visit(
      [timeNs](const auto& record) {
        using T = std::decay_t<decltype(record)>;
        if constexpr (HasHeader<T>::value) {
          *timeNs = record.header.time_ns;
          return true;
        }
        return false;
      },
      event.record);
}

std::string Hex(const std::vector<uint8_t>& bytes) {
  std::string out;
  char digits[4];
  for (uint8_t byte : bytes) {
    snprintf(digits, sizeof(digits), "%02x ", byte);
    out += digits;
  }
  return out;
}

std::string Name(const Event& event) {
  std::string_view name = kavobpf::EventTypeName(event.type);
  return std::string(name);
}

}  // namespace

std::string FormatEventText(const Event& event) {
  std::string name = Name(event);
  std::string line = name.empty() ? "type=" + std::to_string(event.type) : name;
  unsigned long long timeNs;
  if (RawTime(event, &timeNs)) line += " time_ns=" + std::to_string(timeNs);
  std::vector<Field> fields;
  if (!std::visit(FieldsOf{&fields}, event.record)) {
    return line + " size=" + std::to_string(event.size) + " hex=" + Hex(event.undecoded);
  }
  for (const Field& field : fields) line += " " + field.key + "=" + field.text;
  return line;
}

std::string FormatEventJson(const Event& event, uint64_t receivedBootNs) {
  std::string json = "{\"type\":" + std::to_string(event.type);
  std::string name = Name(event);
  if (!name.empty()) json += ",\"name\":" + JsonString(name);
  unsigned long long timeNs;
  if (RawTime(event, &timeNs)) json += ",\"time_ns\":" + std::to_string(timeNs);
  json += ",\"recv_ns\":" + std::to_string(static_cast<unsigned long long>(receivedBootNs));
  std::vector<Field> fields;
  if (!std::visit(FieldsOf{&fields}, event.record)) {
    std::string hex = Hex(event.undecoded);
    if (!hex.empty()) hex.pop_back();
    return json + ",\"size\":" + std::to_string(event.size) + ",\"hex\":" + JsonString(hex) + "}";
  }
  for (const Field& field : fields) json += ",\"" + field.key + "\":" + field.json;
  return json + "}";
}

}  // namespace kavo::client
