// Fuzzes the dispatch of ring-buffer records: KavoBpfService's
// handleBpfRingBuffEvent fed records of every type (the eight valid ones
// most of the time, the poll counter's 8, and anything else) and every size
// (none, a few bytes, the exact size of the type's layout, a little more or
// less, up to 4 KiB), each in a heap block of exactly its size, as libbpf
// hands over ring memory; a read past a record shows under AddressSanitizer.
// The handlers run in full: the task table, the thread and memory reports,
// the name refresh from /proc.
//
// Two subscribers are registered through the service's own client
// callbacks, as connections would be (tests/event_sink): one takes every
// raw and derived type, one a few. After each input both queues are drained
// through the service's write callback, and the target checks what a client
// would see: every valid record forwarded unchanged and in order, nothing
// else raw, and derived events of their exact sizes. The task-table entries
// an input made are removed again, so that inputs do not pile up state.
//
// Input, repeated (at most 64 records): one selector byte, a 16-bit size,
// then the record's bytes. Bit 7 of the selector folds the pids of the record
// into 1..16, so that forks, exits and memory records meet the same task;
// bit 6 folds its time into the first ten seconds after boot, so that the
// three-second rules of the reports are crossed both ways.
//
// Times and sizes take any 64-bit value: the handlers compare and sum them
// without signed overflow, which UndefinedBehaviorSanitizer would report.
//
// Fatal checks excluded by construction: forwarding requires every
// subscriber to have a queue (EventManager::AppendEvent ends the process
// otherwise); the subscribers here get theirs from onClientLibConnection
// before they subscribe and lose both only together, in onClientLibClose.
// Records never exceed the 32768-byte send buffer, so the write path's
// assertions cannot fire either. /proc is an empty private tmpfs, so name
// refreshes fail the same way on every run.

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <map>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "fuzz_support.h"
#include "service/kavo_bpf_service.h"
#include "service/kavo_bpf_task_manager.h"
#include "support/event_sink.h"

namespace {

using kavo::test::RecordAs;

// The layout size of each raw type, 0 to 7.
constexpr size_t kLayoutSizes[] = {
    sizeof(kavo_task_init_event),    sizeof(kavo_rss_event),          sizeof(kavo_fork_event),
    sizeof(kavo_exit_event),         sizeof(kavo_dmabuf_size_event),  sizeof(kavo_cgroup_attach_event),
    sizeof(kavo_fd_update_event),    sizeof(kavo_dmabuf_update_event),
};

// Derived events and their sizes.
const std::map<uint32_t, size_t> kDerivedSizes = {
    {KAVO_EVENT_PROCESS_CREATED, sizeof(kavo_process_created_event)},
    {KAVO_EVENT_PROCESS_EXITED, sizeof(kavo_process_exited_event)},
    {KAVO_EVENT_THREAD_COUNT_CHANGED, sizeof(kavo_thread_count_event)},
    {KAVO_EVENT_MEMORY_CHANGED, sizeof(kavo_memory_changed_event)}};

kavo::test::EventSink* gEverything;
kavo::test::EventSink* gSome;

void Expect(bool holds, const char* what) {
  if (holds) return;
  fprintf(stderr, "ring_dispatch_fuzzer: %s\n", what);
  abort();
}

// The i32 at |at| of a record, 0 when it ends before.
int32_t I32At(const std::string& record, size_t at) { return record.size() >= at + 4 ? RecordAs<int32_t>(record.substr(at)) : 0; }

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  kavo::fuzz::QuietLog();
  kavo::fuzz::PrivateMounts(/*fakeProc=*/true, /*bpffs=*/false);
  gEverything = new kavo::test::EventSink({0, 1, 2, 3, 4, 5, 6, 7, 50001, 50002, 50003, 50004}, 1000);
  gSome = new kavo::test::EventSink({KAVO_EVENT_RSS_STAT, KAVO_EVENT_TASK_EXIT, 50002, 50004}, 1001);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  kavo::fuzz::Input input(data, size);
  std::vector<std::string> forwarded;  // what a subscriber to everything must see
  std::set<int32_t> pids;
  for (size_t n = 0; n < 64 && !input.empty(); ++n) {
    // The eight valid types most of the time, the poll counter's 8, 9, anything;
    // the layout's size, shorter than any header needs, around the layout, anything up to 4 KiB.
    const uint8_t selector = input.Byte(), pick = selector % 16;
    const uint32_t type = pick == 12 ? 8 : pick == 13 ? 9 : pick == 14 ? input.U32() : selector % 8;
    const uint16_t choice = static_cast<uint16_t>(input.U16());
    const size_t layout = type <= KAVO_EVENT_RAW_MAX ? kLayoutSizes[type] : 16, low = choice >> 2;
    const size_t sizes[] = {layout, low % 24, layout - 8 + low % 17, low % 4097}, length = sizes[choice % 4];
    std::string record = input.Bytes(length);
    if (length >= 4) memcpy(&record[0], &type, 4);
    if (length >= 16 && (selector & 0x40) != 0) {
      uint64_t time;
      memcpy(&time, &record[8], 8);
      time %= 10000000000ull;
      memcpy(&record[8], &time, 8);
    }
    for (size_t at : {16, 20}) {
      int32_t pid = 1 + static_cast<uint8_t>(length > at ? record[at] : 0) % 16;
      if (length >= 24 && (selector & 0x80) != 0) memcpy(&record[at], &pid, 4);
      pids.insert(I32At(record, at));
    }

    // Exactly as large as the record: nothing past it is addressable.
    char* block = static_cast<char*>(malloc(length == 0 ? 1 : length));
    memcpy(block, record.data(), length);
    const int result = Kavo::Bpf::KavoBpfService::handleBpfRingBuffEvent(nullptr, length == 0 ? nullptr : block, static_cast<unsigned>(length));
    free(block);
    const bool valid = length >= 4 && type <= KAVO_EVENT_RAW_MAX;
    Expect(valid || result == -1, "an invalid record was not refused");
    if (valid) forwarded.push_back(record);
  }

  // What the subscriber to everything received: the valid records, in order,
  // with derived events (of their exact sizes, naming a task the input spoke of) in between.
  size_t next = 0;
  for (const std::string& record : gEverything->Drain()) {
    const uint32_t type = static_cast<uint32_t>(kavo::test::RecordType(record));
    if (type <= KAVO_EVENT_RAW_MAX) {
      Expect(next < forwarded.size() && record == forwarded[next++], "a raw record arrived changed or out of turn");
    } else {
      Expect(kDerivedSizes.count(type) != 0 && record.size() == kDerivedSizes.at(type), "a derived event of an unknown type or size");
      pids.insert(I32At(record, 4));
    }
  }
  Expect(next == forwarded.size(), "a valid record was not forwarded");
  gSome->Drain();

  std::lock_guard<std::mutex> guard(Kavo::Bpf::KavoTaskManager::kavoTaskManagerLock);
  for (int32_t pid : pids) Kavo::Bpf::KavoTaskManager::GetInstance()->DelKavoTask(pid);
  return 0;
}
