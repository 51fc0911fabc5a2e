#include "support/event_sink.h"

#include "support/wire.h"

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
    std::string bytes(buffer.data(), buffer.bufferDataCursor);
    for (Frame& frame : ParseFrames(&bytes)) {
      if (frame.type == KAVO_IPC_RAW_EVENT) records.push_back(std::move(frame.body));
    }
  }
  return records;
}

int RecordType(const std::string& record) { return RecordAs<int32_t>(record); }

}  // namespace kavo::test
