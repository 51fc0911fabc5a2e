// The initial scan: one synthetic task-init record per process in /proc, fed
// through the normal dispatch so that clients and the task table both see
// every process that existed before the programs ran.

#include "service/kavo_bpf_proc_tasks.h"
#include "service/kavo_bpf_service.h"
#include "service/kavo_bpf_state.h"
#include "service/kavo_bpf_task_manager.h"

namespace Kavo::Bpf {

void KavoBpfService::initTaskInfo() {
  int dispatched = 0;
  ForEachProcTask([this, &dispatched](const ProcTask& process) {
    dispatchProcTask(process);
    // Its exit came before the programs ran: no record will ever remove it.
    if (!process.Alive()) {
      std::lock_guard<std::mutex> guard(KavoTaskManager::kavoTaskManagerLock);
      scanZombies[process.event.pid] = ClockTicksToNs(process.startTicks);
    }
    ++dispatched;
  });
  KavoBpfDataState::GetInstance()->RecordEvent(KAVO_EVENT_TASK_INIT, dispatched);
}

void KavoBpfService::dispatchProcTask(const ProcTask& process) {
  kavo_task_init_event event = process.event;
  handleBpfRingBuffEvent(nullptr, &event, sizeof(event));
  // The record has no room for the start time in ticks; the table keeps it.
  std::lock_guard<std::mutex> guard(KavoTaskManager::kavoTaskManagerLock);
  if (KavoTask* task = KavoTaskManager::GetInstance()->GetKavoTask(event.pid)) {
    task->startTimeNs = ClockTicksToNs(process.startTicks);
  }
}

}  // namespace Kavo::Bpf
