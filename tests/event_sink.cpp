#include "event_sink.h"

#include <string.h>

#include "service/kavo_bpf_event_manager.h"
#include "service/kavo_bpf_service.h"

namespace kavo::test {

using Kavo::Bpf::EventManager;
using Kavo::Bpf::KavoBpfService;

EventSink::EventSink(std::initializer_list<int> eventTypes, int fd) : fd_(fd) {
  KavoBpfService::GetInstance()->onClientLibConnection(fd_);
  for (int type : eventTypes) EventManager::GetInstance()->AddObserverEvent(fd_, type);
}

EventSink::~EventSink() { KavoBpfService::GetInstance()->onClientLibClose(fd_); }

std::vector<std::string> EventSink::Drain() {
  std::vector<std::string> records;
  BufferState buffer;
  buffer.buffer.resize(32768);
  while (true) {
    buffer.resetCursors();
    KavoBpfService::GetInstance()->onClientLibWriteable(fd_, &buffer);
    if (buffer.bufferDataCursor == 0) break;
    // frame: u32 size | u32 type | u32 body size | body
    size_t at = 0;
    while (at + 12 <= buffer.bufferDataCursor) {
      uint32_t frame, type, size;
      memcpy(&frame, buffer.data() + at, 4);
      memcpy(&type, buffer.data() + at + 4, 4);
      memcpy(&size, buffer.data() + at + 8, 4);
      if (type == 3) records.emplace_back(buffer.data() + at + 12, size);
      at += 4 + frame;
    }
  }
  return records;
}

int RecordType(const std::string& record) { return RecordAs<int32_t>(record); }

}  // namespace kavo::test
