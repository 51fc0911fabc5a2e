// The initial scan: one synthetic task-init record per process in /proc, fed
// through the normal dispatch so that clients and the task table both see
// every process that existed before the programs ran.

#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <vector>

#include "service/kavo_bpf_service.h"
#include "service/kavo_bpf_state.h"
#include "utils/kavo_bpf_file.h"

namespace Kavo::Bpf {

namespace {

// Fields of /proc/<pid>/stat, counting from 0 (0 is the pid, 1 the name).
constexpr size_t kStatThreadsField = 19;
constexpr size_t kStatStartTimeField = 21;

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

void ReadStatus(const std::string& pidName, kavo_task_init_event* event, bool* opened) {
  std::string path = StringPrintf(KavoBpfService::TASK_STATUS_TEMPLATE.c_str(), pidName.c_str());
  *opened = ForEachLine(path.c_str(), [event](std::string_view line) {
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

// Thread count and start time from the stat file. The name in parentheses may
// hold blanks, so fields are counted after its closing parenthesis.
bool ReadStat(const std::string& pidName, kavo_task_init_event* event) {
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
  if (fields.size() <= kStatStartTimeField) return true;
  long long threads, startTicks;
  if (ParseDecimal(fields[kStatThreadsField], &threads)) event->thread_count = static_cast<int32_t>(threads);
  if (ParseDecimal(fields[kStatStartTimeField], &startTicks)) {
    long ticksPerSecond = sysconf(_SC_CLK_TCK);
    event->start_time = GetBasetime() + (ticksPerSecond > 0 ? startTicks / ticksPerSecond : 0);
  }
  return true;
}

}  // namespace

void KavoBpfService::initTaskInfo() {
  int dispatched = 0;
  ForEachDirEntry(PROC_FS_PATH.c_str(), [&dispatched](const char* entry) {
    std::string pidName(entry);
    if (!IsDigits(pidName)) return LineAction::kContinue;
    kavo_task_init_event event = {};
    event.header.type = KAVO_EVENT_TASK_INIT;
    event.header.time_ns = GetSystemBootNanosencondsTime();
    event.pid = atoi(pidName.c_str());
    bool opened;
    ReadStatus(pidName, &event, &opened);
    // A process that ended since the listing has no files left: skip it.
    if (!opened || !ReadStat(pidName, &event)) return LineAction::kContinue;
    handleBpfRingBuffEvent(nullptr, &event, sizeof(event));
    ++dispatched;
    return LineAction::kContinue;
  });
  KavoBpfDataState::GetInstance()->RecordEvent(KAVO_EVENT_TASK_INIT, dispatched);
}

}  // namespace Kavo::Bpf
