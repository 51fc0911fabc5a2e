#pragma once

// What the service would send one client, without a socket: a pretend
// connection registered through the service's own client callbacks, subscribed
// to some event types, whose queue the test drains through the service's
// write callback. Tests of the event handlers read derived events with it.
//
//   kavo::test::EventSink sink({50001, 50002});
//   kavo::test::Dispatch(kavo::test::ForkRecord(4242, 1, "app", KAVO_TASK_PROCESS, timeNs));
//   auto records = sink.Drain();   // each: one event record, as sent

#include <string.h>

#include <initializer_list>
#include <string>
#include <vector>

#include "bpf/kavo_bpf_records.h"

namespace kavo::test {

class EventSink {
 public:
  EventSink(std::initializer_list<int> eventTypes, int fd = 1000);
  ~EventSink();
  EventSink(const EventSink&) = delete;
  EventSink& operator=(const EventSink&) = delete;

  // The event records queued since the last drain, oldest first.
  std::vector<std::string> Drain();

 private:
  int fd_;
};

// The record's u32 event type.
int RecordType(const std::string& record);

// Reads a field of |T| out of a drained record (which may be shorter).
template <typename T>
T RecordAs(const std::string& record) {
  T value = {};
  memcpy(&value, record.data(), record.size() < sizeof(T) ? record.size() : sizeof(T));
  return value;
}

// A record's bytes, as the kernel or a handler writes them.
template <typename Record>
std::string Bytes(const Record& record) { return std::string(reinterpret_cast<const char*>(&record), sizeof(record)); }

// Ring records built by hand in the layouts the kernel programs write.
kavo_fork_event ForkRecord(int pid, int ppid, const char* comm, uint32_t kind, uint64_t timeNs, int uid = 10001);
kavo_exit_event ExitRecord(int pid, const char* comm, uint32_t kind, uint64_t timeNs);
kavo_rss_event RssRecord(int pid, int member, int64_t size, uint64_t timeNs);

// Hands a record to the service as a ring monitor does: counted, forwarded to
// subscribers, then handled. Returns the dispatch's result.
int DispatchBytes(std::string record);
template <typename Record> int Dispatch(const Record& record) { return DispatchBytes(Bytes(record)); }

// The task of |pid| in the service's table in one line, for comparing whole:
// "<comm> <pid> ppid <ppid> uid <uid> threads <n>/<old> mm <mmId> rss <4 sizes> old <4 sizes> start <s>",
// sizes in member order (file, anon, swap, shmem); "none" when there is no such task.
std::string TaskLine(int pid);

// Records of |type| the service's state record counted, over all the seconds it holds.
uint64_t Counted(int type);

}  // namespace kavo::test
