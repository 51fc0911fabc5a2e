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

#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <map>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "support/event_sink.h"
#include "fuzz_support.h"
#include "service/kavo_bpf_service.h"
#include "service/kavo_bpf_task_manager.h"

namespace {

using Kavo::Bpf::KavoBpfService;
using Kavo::Bpf::KavoTaskManager;
using kavo::fuzz::Input;

constexpr size_t kMaxRecords = 64;
constexpr size_t kMaxRecordSize = 4096;

// The layout size of each raw type, 0 to 7.
constexpr size_t kLayoutSizes[] = {
    sizeof(kavo_task_init_event),    sizeof(kavo_rss_event),          sizeof(kavo_fork_event),
    sizeof(kavo_exit_event),         sizeof(kavo_dmabuf_size_event),  sizeof(kavo_cgroup_attach_event),
    sizeof(kavo_fd_update_event),    sizeof(kavo_dmabuf_update_event),
};

kavo::test::EventSink* gEverything;
kavo::test::EventSink* gSome;

[[noreturn]] void Broken(const char* what) {
  fprintf(stderr, "ring_dispatch_fuzzer: %s\n", what);
  abort();
}

// The eight valid types most of the time, the poll counter's 8, 9, anything.
uint32_t PickType(uint8_t selector, Input* input) {
  const uint8_t pick = selector % 16;
  return pick == 12 ? 8 : pick == 13 ? 9 : pick == 14 ? input->U32() : selector % 8;
}

// The layout's size, shorter than any header needs, around the layout, anything.
size_t PickSize(uint32_t type, uint16_t choice) {
  const size_t layout = type <= KAVO_EVENT_RAW_MAX ? kLayoutSizes[type] : 16;
  const size_t low = choice >> 2;
  const size_t sizes[] = {layout, low % 24, layout - 8 + low % 17, low % (kMaxRecordSize + 1)};
  return sizes[choice % 4];
}

int32_t ReadI32(const std::string& record, size_t at) {
  int32_t value = 0;
  if (record.size() >= at + 4) memcpy(&value, record.data() + at, 4);
  return value;
}

// Derived events and their sizes.
const std::map<uint32_t, size_t> kDerivedSizes = {
    {KAVO_EVENT_PROCESS_CREATED, sizeof(kavo_process_created_event)},
    {KAVO_EVENT_PROCESS_EXITED, sizeof(kavo_process_exited_event)},
    {KAVO_EVENT_THREAD_COUNT_CHANGED, sizeof(kavo_thread_count_event)},
    {KAVO_EVENT_MEMORY_CHANGED, sizeof(kavo_memory_changed_event)}};

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  kavo::fuzz::QuietLog();
  kavo::fuzz::PrivateMounts(/*fakeProc=*/true, /*bpffs=*/false);
  gEverything = new kavo::test::EventSink({0, 1, 2, 3, 4, 5, 6, 7, 50001, 50002, 50003, 50004}, 1000);
  gSome = new kavo::test::EventSink({KAVO_EVENT_RSS_STAT, KAVO_EVENT_TASK_EXIT, 50002, 50004}, 1001);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Input input(data, size);
  std::vector<std::string> forwarded;  // what a subscriber to everything must see
  std::set<int32_t> pids;
  for (size_t n = 0; n < kMaxRecords && !input.empty(); ++n) {
    uint8_t selector = input.Byte();
    uint32_t type = PickType(selector, &input);
    size_t length = PickSize(type, static_cast<uint16_t>(input.U16()));
    std::string record = input.Bytes(length);
    if (length >= 4) memcpy(&record[0], &type, 4);
    if (length >= 16) {
      uint64_t time;
      memcpy(&time, &record[8], 8);
      if ((selector & 0x40) != 0) time %= 10000000000ull;
      memcpy(&record[8], &time, 8);
    }
    if (length >= 24 && (selector & 0x80) != 0) {
      for (size_t at : {16, 20}) {
        int32_t pid = 1 + static_cast<uint8_t>(record[at]) % 16;
        memcpy(&record[at], &pid, 4);
      }
    }
    pids.insert(ReadI32(record, 16));
    pids.insert(ReadI32(record, 20));

    // Exactly as large as the record: nothing past it is addressable.
    char* block = static_cast<char*>(malloc(length == 0 ? 1 : length));
    if (length != 0) memcpy(block, record.data(), length);
    int result = KavoBpfService::handleBpfRingBuffEvent(nullptr, length == 0 ? nullptr : block,
                                                        static_cast<unsigned>(length));
    free(block);
    bool valid = length >= 4 && type <= KAVO_EVENT_RAW_MAX;
    if (!valid && result != -1) Broken("an invalid record was not refused");
    if (valid) forwarded.push_back(record);
  }

  // What the subscriber to everything received: the valid records, in order,
  // with derived events in between.
  size_t next = 0;
  for (const std::string& record : gEverything->Drain()) {
    uint32_t type = static_cast<uint32_t>(kavo::test::RecordType(record));
    if (type <= KAVO_EVENT_RAW_MAX) {
      if (next >= forwarded.size() || record != forwarded[next]) Broken("a raw record arrived changed or out of turn");
      ++next;
    } else if (kDerivedSizes.count(type) == 0 || record.size() != kDerivedSizes.at(type)) {
      Broken("a derived event of an unknown type or size");
    } else {
      // A derived event names a task the input spoke of.
      pids.insert(ReadI32(record, 4));
    }
  }
  if (next != forwarded.size()) Broken("a valid record was not forwarded");
  gSome->Drain();

  std::lock_guard<std::mutex> guard(KavoTaskManager::kavoTaskManagerLock);
  for (int32_t pid : pids) KavoTaskManager::GetInstance()->DelKavoTask(pid);
  return 0;
}
