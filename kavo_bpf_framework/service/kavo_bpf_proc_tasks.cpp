// Reading one process, or all of them, from /proc the way the initial task
// scan does. Prefixes of the status file are matched anywhere in a line and
// the value is taken from the fixed column after the prefix; fields of the
// stat file are counted after the name's closing parenthesis, since a name
// may hold blanks.

#include "service/kavo_bpf_proc_tasks.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <limits>
#include <string_view>

#include "service/kavo_bpf_service.h"
#include "utils/kavo_bpf_file.h"

namespace Kavo::Bpf {

namespace {

// Fields of /proc/<pid>/stat, counting from 0 (0 is the pid, 1 the name).
constexpr size_t kStatStateField = 2;
constexpr size_t kStatThreadsField = 19;
constexpr size_t kStatStartTimeField = 21;
// A fork record is stamped within a tick of the kernel's start time.
constexpr long long kStartToleranceTicks = 1;

// The status prefixes the scan takes, in the order it tests them.
enum StatusField { kName, kPpid, kRssAnon, kRssFile, kRssShmem, kVmSwap, kUid, kStatusFields, kNoField = -1 };
const std::string* const kStatusPrefixes[kStatusFields] = {
    &KavoBpfService::TASK_COMM_PREFIX,     &KavoBpfService::TASK_PPID_PREFIX,
    &KavoBpfService::TASK_RSS_ANON_PREFIX, &KavoBpfService::TASK_RSS_FILE_PREFIX,
    &KavoBpfService::TASK_RSS_SHMEM_PREFIX, &KavoBpfService::TASK_VM_SWAP_PREFIX,
    &KavoBpfService::TASK_PROC_UID_PREFIX};

// Whether |text| ends with |suffix|. Compared in place: a call to memcmp for
// each of the seven prefixes on each of the status file's fifty-odd lines
// costs more than the mismatch at the first letter that settles nearly all.
bool EndsWith(std::string_view text, const std::string& suffix) {
  if (text.size() < suffix.size()) return false;
  const char* at = text.data() + (text.size() - suffix.size());
  for (size_t i = 0; i < suffix.size(); ++i) {
    if (at[i] != suffix[i]) return false;
  }
  return true;
}

// The first prefix, in test order, that occurs anywhere in |line|. Every
// prefix is a label ending in ":\t" with no other ':' or tab in it, so it
// occurs exactly where its label ends at an occurrence of ":\t": one look for
// the tab (a status line has one) instead of a search per prefix.
int FirstPrefixIn(std::string_view line) {
  int found = kNoField;
  for (size_t tab = line.find('\t'); tab != std::string_view::npos; tab = line.find('\t', tab + 1)) {
    if (tab == 0 || line[tab - 1] != ':') continue;
    const std::string_view through = line.substr(0, tab + 1);
    const int tested = found == kNoField ? kStatusFields : found;
    for (int field = 0; field < tested; ++field) {
      if (EndsWith(through, *kStatusPrefixes[field])) {
        found = field;
        break;
      }
    }
  }
  return found;
}

// "1234 kB" as bytes, the way the platform has always computed it: a 32-bit
// kB count multiplied in 32 bits, so 2 GiB and more wrap.
bool KbToBytes(std::string_view text, __s64* bytes) {
  long long kb;
  if (!ParseDecimal(text, &kb)) return false;
  uint32_t product = static_cast<uint32_t>(static_cast<int32_t>(kb)) * 1024u;
  *bytes = static_cast<int32_t>(product);
  return true;
}

// The process's file |name| ("status", "stat") into |text|, its path made
// from |pathTemplate| ("/proc/%s/status") without allocating.
bool ReadProcFile(const std::string& pathTemplate, const std::string& pidName, std::string* text) {
  char path[64];
  int length = snprintf(path, sizeof(path), pathTemplate.c_str(), pidName.c_str());
  if (length < 0 || static_cast<size_t>(length) >= sizeof(path)) {
    return ReadWholeFile(StringPrintf(pathTemplate.c_str(), pidName.c_str()).c_str(), text);
  }
  return ReadWholeFile(path, text);
}

bool ReadStatus(const std::string& pidName, kavo_task_init_event* event, std::string* text) {
  if (!ReadProcFile(KavoBpfService::TASK_STATUS_TEMPLATE, pidName, text)) return false;
  ForEachLine(std::string_view(*text), [event](std::string_view line) {
    const int field = FirstPrefixIn(line);
    if (field == kNoField) return LineAction::kContinue;
    // The value stands in the fixed column after the prefix.
    const std::string_view value = line.substr(std::min(kStatusPrefixes[field]->size(), line.size()));
    long long number;
    switch (field) {
      case kName:
        memcpy(event->comm, value.data(), std::min(value.size(), sizeof(event->comm)));
        break;
      case kPpid:
        if (ParseDecimal(value, &number)) event->ppid = static_cast<int32_t>(number);
        break;
      case kRssAnon:
        KbToBytes(value, &event->rss_anon);
        break;
      case kRssFile:
        KbToBytes(value, &event->rss_file);
        break;
      case kRssShmem:
        KbToBytes(value, &event->rss_shmem);
        break;
      case kVmSwap:
        KbToBytes(value, &event->rss_swap);
        break;
      case kUid:
        if (ParseDecimal(value, &number)) event->uid = static_cast<int32_t>(number);  // real uid
        break;
    }
    return LineAction::kContinue;
  });
  return true;
}

// Field |index| of a stat line, counting from 0 with blanks as separators
// (runs of blanks count as one, as Split takes them); empty when absent.
class StatFields {
 public:
  // After the name's closing parenthesis when there is one: a name may hold
  // blanks. Fields 0 and 1 (pid and name) are then not read.
  explicit StatFields(std::string_view line) {
    const size_t close = line.rfind(')');
    if (close != std::string_view::npos) {
      rest_ = line.substr(close + 1);
      first_ = 2;
    } else {
      rest_ = line;
      first_ = 0;
    }
  }
  // The fields from |index| on must be asked for in increasing order.
  std::string_view next(size_t index) {
    while (true) {
      const size_t start = rest_.find_first_not_of(' ');
      if (start == std::string_view::npos) return {};
      rest_.remove_prefix(start);
      const size_t end = std::min(rest_.find(' '), rest_.size());
      const std::string_view field = rest_.substr(0, end);
      rest_.remove_prefix(end);
      if (first_++ == index) return field;
    }
  }

 private:
  std::string_view rest_;
  size_t first_;
};

// State, thread count and start time from the stat file.
bool ReadStat(const std::string& pidName, ProcTask* task, std::string* text) {
  if (!ReadProcFile(KavoBpfService::TASK_STAT_TEMPLATE, pidName, text)) return false;
  std::string_view line(*text);
  line = line.substr(0, line.find('\n'));
  StatFields fields(line);
  const std::string_view state = fields.next(kStatStateField);
  if (state.size() == 1) task->state = state[0];
  const std::string_view threadsField = fields.next(kStatThreadsField);
  const std::string_view startField = fields.next(kStatStartTimeField);
  if (startField.empty()) return true;  // too few fields: neither is taken
  long long threads, startTicks;
  if (ParseDecimal(threadsField, &threads)) task->event.thread_count = static_cast<int32_t>(threads);
  if (ParseDecimal(startField, &startTicks)) {
    task->startTicks = startTicks;
    long ticksPerSecond = sysconf(_SC_CLK_TCK);
    task->event.start_time = GetBasetime() + (ticksPerSecond > 0 ? startTicks / ticksPerSecond : 0);
  }
  return true;
}

// ReadProcTask with the caller's scratch text, reused from one process to
// the next.
bool ReadProcTask(const std::string& pidName, ProcTask* task, std::string* text) {
  *task = ProcTask();
  task->event.header.type = KAVO_EVENT_TASK_INIT;
  task->event.header.time_ns = GetSystemBootNanosencondsTime();
  task->event.pid = atoi(pidName.c_str());
  // A process that ended since the listing has no files left.
  return ReadStatus(pidName, &task->event, text) && ReadStat(pidName, task, text);
}

}  // namespace

bool ReadProcTask(const std::string& pidName, ProcTask* task) {
  std::string text;
  return ReadProcTask(pidName, task, &text);
}

void ForEachProcTask(const std::function<void(const ProcTask&)>& visit) {
  ProcTask task;
  std::string text;
  std::string pidName;
  ForEachDirEntry(KavoBpfService::PROC_FS_PATH.c_str(), [&](const char* entry) {
    if (!IsDigits(entry)) return LineAction::kContinue;
    pidName.assign(entry);
    if (ReadProcTask(pidName, &task, &text)) visit(task);
    return LineAction::kContinue;
  });
}

int64_t ClockTicksToNs(long long ticks) {
  long ticksPerSecond = sysconf(_SC_CLK_TCK);
  if (ticks <= 0 || ticksPerSecond <= 0) return 0;
  const long long tickNs = 1000000000LL / ticksPerSecond;
  // A damaged stat file may claim any number; past 292 years it is unknown.
  if (ticks > std::numeric_limits<int64_t>::max() / tickNs) return 0;
  return static_cast<int64_t>(ticks) * tickNs;
}

bool StartedTogether(int64_t startTimeNs, long long startTicks) {
  long ticksPerSecond = sysconf(_SC_CLK_TCK);
  if (startTimeNs <= 0 || startTicks <= 0 || ticksPerSecond <= 0) return true;
  long long taskTicks = startTimeNs / (1000000000LL / ticksPerSecond);
  long long apart = taskTicks > startTicks ? taskTicks - startTicks : startTicks - taskTicks;
  return apart <= kStartToleranceTicks;
}

}  // namespace Kavo::Bpf
