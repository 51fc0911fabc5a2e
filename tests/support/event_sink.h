#pragma once

// What the service would send one client, without a socket: a pretend
// connection registered through the service's own client callbacks, subscribed
// to some event types, whose queue the test drains through the service's
// write callback. Tests of the event handlers read derived events with it.
//
//   kavo::test::EventSink sink({50001, 50002});
//   service->handleSched_SchedProcessFork(...);
//   auto records = sink.Drain();   // each: one event record, as sent

#include <string.h>

#include <initializer_list>
#include <string>
#include <vector>

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

}  // namespace kavo::test
