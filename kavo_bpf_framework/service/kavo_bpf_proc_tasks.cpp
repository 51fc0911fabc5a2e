// Reading one process, or all of them, from /proc the way the initial task
// scan does. Prefixes of the status file are matched anywhere in a line and
// the value is taken from the fixed column after the prefix; fields of the
// stat file are counted after the name's closing parenthesis, since a name
// may hold blanks.

#include "service/kavo_bpf_proc_tasks.h"

#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <limits>
#include <string_view>
#include <vector>

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

bool StartsWithPrefixAnywhere(std::string_view line, const std::string& prefix, std::string_view* value) {
  if (line.find(prefix) == std::string_view::npos) return false;
  *value = line.substr(std::min(prefix.size(), line.size()));
  return true;
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

bool ReadStatus(const std::string& pidName, kavo_task_init_event* event) {
  std::string path = StringPrintf(KavoBpfService::TASK_STATUS_TEMPLATE.c_str(), pidName.c_str());
  return ForEachLine(path.c_str(), [event](std::string_view line) {
    std::string_view value;
    long long number;
    if (StartsWithPrefixAnywhere(line, KavoBpfService::TASK_COMM_PREFIX, &value)) {
      memcpy(event->comm, value.data(), std::min(value.size(), sizeof(event->comm)));
    } else if (StartsWithPrefixAnywhere(line, KavoBpfService::TASK_PPID_PREFIX, &value)) {
      if (ParseDecimal(value, &number)) event->ppid = static_cast<int32_t>(number);
    } else if (StartsWithPrefixAnywhere(line, KavoBpfService::TASK_RSS_ANON_PREFIX, &value)) {
      KbToBytes(value, &event->rss_anon);
    } else if (StartsWithPrefixAnywhere(line, KavoBpfService::TASK_RSS_FILE_PREFIX, &value)) {
      KbToBytes(value, &event->rss_file);
    } else if (StartsWithPrefixAnywhere(line, KavoBpfService::TASK_RSS_SHMEM_PREFIX, &value)) {
      KbToBytes(value, &event->rss_shmem);
    } else if (StartsWithPrefixAnywhere(line, KavoBpfService::TASK_VM_SWAP_PREFIX, &value)) {
      KbToBytes(value, &event->rss_swap);
    } else if (StartsWithPrefixAnywhere(line, KavoBpfService::TASK_PROC_UID_PREFIX, &value)) {
      if (ParseDecimal(value, &number)) event->uid = static_cast<int32_t>(number);  // real uid
    }
    return LineAction::kContinue;
  });
}

// State, thread count and start time from the stat file.
bool ReadStat(const std::string& pidName, ProcTask* task) {
  std::string path = StringPrintf(KavoBpfService::TASK_STAT_TEMPLATE.c_str(), pidName.c_str());
  ScopedFile stat = OpenForRead(path.c_str());
  if (!stat) return false;
  std::string firstLine;
  ForEachLine(stat.get(), [&firstLine](std::string_view line) {
    firstLine.assign(line);
    return LineAction::kStop;
  });
  std::vector<std::string> fields;
  size_t close = firstLine.rfind(')');
  if (close != std::string::npos) {
    fields = {"", ""};  // pid and name, not read here
    for (std::string& field : Split(firstLine.substr(close + 1), " ")) fields.push_back(std::move(field));
  } else {
    fields = Split(firstLine, " ");
  }
  if (fields.size() > kStatStateField && fields[kStatStateField].size() == 1) {
    task->state = fields[kStatStateField][0];
  }
  if (fields.size() <= kStatStartTimeField) return true;
  long long threads, startTicks;
  if (ParseDecimal(fields[kStatThreadsField], &threads)) {
    task->event.thread_count = static_cast<int32_t>(threads);
  }
  if (ParseDecimal(fields[kStatStartTimeField], &startTicks)) {
    task->startTicks = startTicks;
    long ticksPerSecond = sysconf(_SC_CLK_TCK);
    task->event.start_time = GetBasetime() + (ticksPerSecond > 0 ? startTicks / ticksPerSecond : 0);
  }
  return true;
}

}  // namespace

bool ReadProcTask(const std::string& pidName, ProcTask* task) {
  *task = ProcTask();
  task->event.header.type = KAVO_EVENT_TASK_INIT;
  task->event.header.time_ns = GetSystemBootNanosencondsTime();
  task->event.pid = atoi(pidName.c_str());
  // A process that ended since the listing has no files left.
  return ReadStatus(pidName, &task->event) && ReadStat(pidName, task);
}

void ForEachProcTask(const std::function<void(const ProcTask&)>& visit) {
  ProcTask task;
  ForEachDirEntry(KavoBpfService::PROC_FS_PATH.c_str(), [&task, &visit](const char* entry) {
    std::string pidName(entry);
    if (IsDigits(pidName) && ReadProcTask(pidName, &task)) visit(task);
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
