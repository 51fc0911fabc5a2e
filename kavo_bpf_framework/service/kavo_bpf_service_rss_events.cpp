// Memory figures of the task table, from the kernel's rss_stat records, and
// the memory-changed event (50004) once a process's memory moved by a notable
// amount since its last report. Small changes accumulate: the old sizes are
// those of the last report (or of the record's creation), not of the last event.

#include <stdint.h>
#include <string.h>

#include <optional>
#include <string_view>

#include "service/kavo_bpf_event_manager.h"
#include "service/kavo_bpf_service.h"
#include "service/kavo_bpf_task_manager.h"

namespace Kavo::Bpf {

namespace {

constexpr int64_t kReportAfterNs = 3000000000LL;
constexpr int64_t kReportStepBytes = 16384;
constexpr int64_t kNameRefreshSeconds = 3;
// Pids 2 to 300 belong to early system processes: their sizes are kept but
// never reported.
constexpr int32_t kFirstReportedPid = 301;
constexpr int32_t kKernelThreadParent = 2;

bool Reportable(const KavoTask& task) {
  if (task.pid != 1 && task.pid < kFirstReportedPid) return false;
  if (task.ppid == kKernelThreadParent) return false;
  return strncmp(task.comm, "dumpsys", 7) != 0 && strncmp(task.comm, "sh", 2) != 0;
}

}  // namespace

int KavoBpfService::handleKmem_RssStat(char* data, long long size) {
  kavo_rss_event event;
  if (data == nullptr || size < static_cast<long long>(sizeof(event))) return 0;
  memcpy(&event, data, sizeof(event));
  if (event.size < 0 || event.member < 0 || event.member >= KAVO_RSS_MEMBERS) return 0;

  std::optional<kavo_memory_changed_event> report;
  {
    std::unique_lock<std::mutex> guard(KavoTaskManager::kavoTaskManagerLock);
    KavoTaskManager* tasks = KavoTaskManager::GetInstance();
    KavoTask* task = tasks->GetKavoTask(event.pid);
    if (task == nullptr) return 0;

    // A process still carrying a provisional name gets its real one (and its
    // parent) from /proc, at most every few seconds. The file is read with
    // the table unlocked, so a dump never waits for it.
    if (provisionalCommNames.count(std::string_view(task->comm, strnlen(task->comm, sizeof(task->comm)))) != 0 &&
        static_cast<int64_t>(GetSystemSecondsTime()) - task->lastInfoTime >= kNameRefreshSeconds) {
      UpdateProcessExdata info = {};
      guard.unlock();
      const bool read = getProcessInfo(event.pid, &info) == 0;
      guard.lock();
      task = tasks->GetKavoTask(event.pid);
      if (task == nullptr) return 0;
      if (read) {
        task->ppid = info.ppid;
        memcpy(task->comm, info.comm, sizeof(task->comm));
      }
      task->lastInfoTime = static_cast<int64_t>(GetSystemSecondsTime());
    }

    task->mmId = 1000;
    task->rssSize[event.member] = event.size;
    // Magnitudes summed unsigned and saturated: damaged sizes cannot overflow.
    uint64_t changed = 0;
    for (int m = 0; m < KAVO_RSS_MEMBERS; ++m) {
      uint64_t diff = static_cast<uint64_t>(SubAbs(task->rssSize[m], task->rssOldSize[m]));
      changed = diff > UINT64_MAX - changed ? UINT64_MAX : changed + diff;
    }
    if (!Reportable(*task)) return 0;
    if (ElapsedNs(event.header.time_ns, task->firstSeenNs) < kReportAfterNs ||
        changed < static_cast<uint64_t>(kReportStepBytes)) {
      return 0;
    }
    kavo_memory_changed_event changedEvent = {};
    changedEvent.type = KAVO_EVENT_MEMORY_CHANGED;
    changedEvent.pid = task->pid;
    changedEvent.ppid = task->ppid;
    changedEvent.uid = task->uid;
    memcpy(changedEvent.comm, task->comm, sizeof(changedEvent.comm));
    memcpy(changedEvent.size, task->rssSize, sizeof(changedEvent.size));
    memcpy(changedEvent.old_size, task->rssOldSize, sizeof(changedEvent.old_size));
    memcpy(task->rssOldSize, task->rssSize, sizeof(task->rssOldSize));
    report = changedEvent;
  }
  EventManager::GetInstance()->AppendEvent(reinterpret_cast<char*>(&*report), sizeof(*report));
  return 0;
}

}  // namespace Kavo::Bpf
