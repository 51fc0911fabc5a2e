// Repairing the task table from /proc, for what the kernel's records could
// not tell:
//
//   resyncTaskTable   after ring 0 lost records (fork and exit records share
//                     it with the RSS records, so a burst of those takes
//                     some with it): every task is checked against /proc.
//   clearScanZombies  processes that were zombies at the initial scan exited
//                     before the programs ran, so no exit record ever removes
//                     them; the supervision step has them checked.
//
// A task still matches its process when /proc shows the pid running and
// started when the task did (StartedTogether). A pid that is gone, or only a
// zombie, has exited: its task leaves with a process-exited event (50002,
// with the task's name). A pid that started at another time was reused: the
// old task leaves as above and the new process comes in, like a process that
// is running and missing from the table: as the initial scan brings it (a
// task-init record through the dispatch) and, since its creation was never
// reported, with a process-created event (50001).
//
// Both run on the ring-0 monitor thread, between two poll calls, so no
// record is handled meanwhile; /proc is read before the table is looked at,
// and a process that starts or ends while it is read is put right by its own
// record afterwards (an exit already reported is not reported again, see
// kavo_bpf_service_task_events.cpp).

#include <android/log.h>
#include <time.h>
#include <unistd.h>

#include <map>
#include <string>
#include <vector>

#include "service/kavo_bpf_proc_tasks.h"
#include "service/kavo_bpf_service.h"
#include "service/kavo_bpf_state.h"
#include "service/kavo_bpf_task_manager.h"

namespace Kavo::Bpf {

namespace {

constexpr char kTag[] = "BpfService";

bool Matches(const KavoTask& task, const ProcTask& process) {
  return process.Alive() && StartedTogether(task.startTimeNs, process.startTicks);
}

}  // namespace

void KavoBpfService::resyncTaskTable(uint64_t lostRecords) {
  std::map<int32_t, ProcTask> processes;
  ForEachProcTask([&processes](const ProcTask& process) { processes.emplace(process.event.pid, process); });
  const uint64_t walkedNs = ClockNs(CLOCK_BOOTTIME);
  // Exit records from before the last repair have all been handled by now.
  reportedExits.clear();

  std::vector<KavoTask> gone;
  std::vector<ProcTask> created;
  int added = 0;
  int replaced = 0;
  {
    std::lock_guard<std::mutex> guard(KavoTaskManager::kavoTaskManagerLock);
    KavoTaskManager* manager = KavoTaskManager::GetInstance();
    manager->ForEachKavoTask([&](const KavoTask& task) {
      auto found = processes.find(task.pid);
      if (found != processes.end() && Matches(task, found->second)) return;
      gone.push_back(task);
      if (found != processes.end() && found->second.Alive()) {
        created.push_back(found->second);
        ++replaced;
      }
    });
    for (const auto& [pid, process] : processes) {
      if (process.Alive() && manager->GetKavoTask(pid) == nullptr) {
        created.push_back(process);
        ++added;
      }
    }
  }
  uint32_t tasks = applyTaskRepair(gone, created, walkedNs);
  __android_log_print(ANDROID_LOG_INFO, kTag,
                      "[KavoBpfService][resyncTaskTable] lost records: %llu, removed: %d, added: %d, "
                      "replaced: %d, tasks: %u",
                      static_cast<unsigned long long>(lostRecords),
                      static_cast<int>(gone.size()) - replaced, added, replaced, tasks);
}

void KavoBpfService::clearScanZombies() {
  std::map<int32_t, int64_t> zombies;
  {
    std::lock_guard<std::mutex> guard(KavoTaskManager::kavoTaskManagerLock);
    zombies = scanZombies;
  }
  std::vector<KavoTask> gone;
  std::vector<ProcTask> created;
  for (const auto& [pid, startTimeNs] : zombies) {
    ProcTask process;
    bool present = ReadProcTask(std::to_string(pid), &process);
    std::lock_guard<std::mutex> guard(KavoTaskManager::kavoTaskManagerLock);
    KavoTask* task = KavoTaskManager::GetInstance()->GetKavoTask(pid);
    bool stillTheZombie = present && !process.Alive() && StartedTogether(startTimeNs, process.startTicks);
    if (task != nullptr && task->startTimeNs == startTimeNs && stillTheZombie) continue;  // not reaped yet
    scanZombies.erase(pid);
    // Gone already, or replaced by a repair: not the zombie's task any more.
    if (task == nullptr || task->startTimeNs != startTimeNs) continue;
    gone.push_back(*task);
    if (present && process.Alive()) created.push_back(process);  // its pid was taken
  }
  if (gone.empty()) return;
  // Their exits came before the programs ran: no record of them is on its way.
  uint32_t tasks = applyTaskRepair(gone, created, 0);
  __android_log_print(ANDROID_LOG_INFO, kTag,
                      "[KavoBpfService][clearScanZombies] removed: %zu, replaced: %zu, tasks: %u",
                      gone.size() - created.size(), created.size(), tasks);
}

uint32_t KavoBpfService::applyTaskRepair(const std::vector<KavoTask>& gone,
                                         const std::vector<ProcTask>& created, uint64_t walkedNs) {
  {
    std::lock_guard<std::mutex> guard(KavoTaskManager::kavoTaskManagerLock);
    for (const KavoTask& task : gone) {
      KavoTaskManager::GetInstance()->DelKavoTask(task.pid);
      if (walkedNs != 0) reportedExits[task.pid] = walkedNs;
    }
  }
  // Every exit first: a reused pid is reported gone before it is new.
  for (const KavoTask& task : gone) publishProcessExited(task.pid, task.comm);
  for (const ProcTask& process : created) {
    dispatchProcTask(process);
    KavoTask task;
    {
      std::lock_guard<std::mutex> guard(KavoTaskManager::kavoTaskManagerLock);
      KavoTask* stored = KavoTaskManager::GetInstance()->GetKavoTask(process.event.pid);
      if (stored == nullptr) continue;
      task = *stored;
    }
    publishProcessCreated(task);
  }
  if (!created.empty()) {
    KavoBpfDataState::GetInstance()->RecordEvent(KAVO_EVENT_TASK_INIT, static_cast<int>(created.size()));
  }
  std::lock_guard<std::mutex> guard(KavoTaskManager::kavoTaskManagerLock);
  return KavoTaskManager::GetInstance()->GetKavoTaskCount();
}

void KavoBpfService::requestZombieCheck() {
  {
    std::lock_guard<std::mutex> guard(KavoTaskManager::kavoTaskManagerLock);
    if (scanZombies.empty()) return;
  }
  zombieCheckRequested = true;
  if (supervisionEventFd.get() >= 0) {
    uint64_t one = 1;
    (void)!write(supervisionEventFd.get(), &one, sizeof(one));
  }
}

}  // namespace Kavo::Bpf
