#include "support/event_sink.h"

#include "support/wire.h"

#include <inttypes.h>
#include <stdio.h>

#include "service/kavo_bpf_event_manager.h"
#include "service/kavo_bpf_service.h"
#include "service/kavo_bpf_state.h"
#include "service/kavo_bpf_task_manager.h"

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
  buffer.setSize(32768);
  while (true) {
    buffer.resetCursors();
    KavoBpfService::GetInstance()->onClientLibWriteable(fd_, &buffer);
    if (buffer.bufferDataCursor == 0) break;
    std::string bytes(buffer.data(), buffer.bufferDataCursor);
    for (Frame& frame : ParseFrames(&bytes)) if (frame.type == KAVO_IPC_RAW_EVENT) records.push_back(std::move(frame.body));
  }
  return records;
}

int RecordType(const std::string& record) { return RecordAs<int32_t>(record); }

kavo_fork_event ForkRecord(int pid, int ppid, const char* comm, uint32_t kind, uint64_t timeNs, int uid) {
  kavo_fork_event e = {{KAVO_EVENT_TASK_CREATE, 0, timeNs}, ppid, pid, uid, {}, kind};
  snprintf(e.comm, sizeof(e.comm), "%s", comm);
  return e;
}

kavo_exit_event ExitRecord(int pid, const char* comm, uint32_t kind, uint64_t timeNs) {
  kavo_exit_event e = {{KAVO_EVENT_TASK_EXIT, 0, timeNs}, pid, {}, kind};
  snprintf(e.comm, sizeof(e.comm), "%s", comm);
  return e;
}

kavo_rss_event RssRecord(int pid, int member, int64_t size, uint64_t timeNs) {
  return {{KAVO_EVENT_RSS_STAT, 0, timeNs}, pid, member, size};
}

std::string TaskLine(int pid) {
  const Kavo::Bpf::KavoTask* t = Kavo::Bpf::KavoTaskManager::GetInstance()->GetKavoTask(pid);
  if (t == nullptr) return "none";
  char line[512];
  snprintf(line, sizeof(line),
           "%.16s %d ppid %d uid %d threads %d/%d mm %u rss %" PRId64 ",%" PRId64 ",%" PRId64 ",%" PRId64
           " old %" PRId64 ",%" PRId64 ",%" PRId64 ",%" PRId64 " start %" PRId64,
           t->comm, t->pid, t->ppid, t->uid, t->threadNum, t->oldThreadNum, t->mmId, t->rssSize[0], t->rssSize[1],
           t->rssSize[2], t->rssSize[3], t->rssOldSize[0], t->rssOldSize[1], t->rssOldSize[2], t->rssOldSize[3],
           t->initTimeStamp);
  return line;
}

uint64_t Counted(int type) {
  Kavo::Bpf::KavoBpfDataState* state = Kavo::Bpf::KavoBpfDataState::GetInstance();
  uint64_t count = 0;
  for (long long t = state->oldestSecond(); t <= state->newestSecond(); ++t) count += state->counterAt(t, type);
  return count;
}

int DispatchBytes(std::string record) {
  return KavoBpfService::handleBpfRingBuffEvent(nullptr, &record[0], static_cast<unsigned>(record.size()));
}

}  // namespace kavo::test
