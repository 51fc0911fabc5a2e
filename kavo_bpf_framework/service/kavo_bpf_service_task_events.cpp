// Keeping the task table in step with the kernel: the task-init, fork and
// exit handlers, the initial scan of /proc, and the derived events they
// publish (process created 50001, exited 50002, thread count changed 50003).
//
// Records are read with memcpy into their layouts from the shared record
// header; a record shorter than its layout is dropped. The table is changed
// under kavoTaskManagerLock; derived events are published after it is
// released, so no lock of the task table is ever held while forwarding.
//
// After ring 0 lost records, the repair (kavo_bpf_service_resync.cpp) may
// already have reported a process as exited whose exit record was still on
// its way: such a record (older than the repair's look at /proc) changes
// nothing and is not reported twice. A new process under that pid, whose fork
// record comes first, ends that.

#include <android/log.h>
#include <string.h>

#include <optional>

#include "service/kavo_bpf_event_manager.h"
#include "service/kavo_bpf_service.h"
#include "service/kavo_bpf_task_manager.h"

namespace Kavo::Bpf {

namespace {

constexpr char kTag[] = "BpfService";
// Thread-count changes are reported only once a process is this old.
constexpr int64_t kReportAfterNs = 3000000000LL;
// ... and only when the count moved by more than this since the last report.
constexpr int kThreadReportStep = 10;

template <typename Record>
bool ReadRecord(const char* data, long long size, Record* record) {
  if (data == nullptr || size < static_cast<long long>(sizeof(Record))) return false;
  memcpy(record, data, sizeof(Record));
  return true;
}

void CopyComm(char (&to)[KAVO_COMM_LEN], const char* from) {
  memcpy(to, from, KAVO_COMM_LEN);
  to[KAVO_COMM_LEN - 1] = '\0';
}

template <typename Event>
void Publish(Event event) {
  EventManager::GetInstance()->AppendEvent(reinterpret_cast<char*>(&event), sizeof(event));
}

// Counts one thread more or less; a thread-count event when it is worth one.
std::optional<kavo_thread_count_event> ChangeThreadCount(int32_t pid, uint64_t eventTime, int delta) {
  std::lock_guard<std::mutex> guard(KavoTaskManager::kavoTaskManagerLock);
  KavoTask* task = KavoTaskManager::GetInstance()->GetKavoTask(pid);
  // Threads that came or went before the table saw the process do not count.
  if (task == nullptr || !(task->firstSeenNs < static_cast<int64_t>(eventTime))) return std::nullopt;
  task->threadNum += delta;
  if (ElapsedNs(eventTime, task->firstSeenNs) < kReportAfterNs ||
      SubAbs(task->threadNum, task->oldThreadNum) <= kThreadReportStep) {
    return std::nullopt;
  }
  kavo_thread_count_event event = {KAVO_EVENT_THREAD_COUNT_CHANGED, task->pid, task->ppid,
                                   task->uid, task->oldThreadNum, task->threadNum};
  task->oldThreadNum = task->threadNum;
  return event;
}

}  // namespace

int KavoBpfService::handleKavoTaskInitEvent(char* data, long long size) {
  kavo_task_init_event event;
  if (!ReadRecord(data, size, &event)) return 0;
  KavoTask task = {};
  task.pid = event.pid;
  task.ppid = event.ppid;
  task.uid = event.uid;
  task.threadNum = event.thread_count;
  task.oldThreadNum = event.thread_count;
  CopyComm(task.comm, event.comm);
  // The record lists shared memory before swap; the table keeps member order.
  task.rssSize[KAVO_RSS_FILE] = event.rss_file;
  task.rssSize[KAVO_RSS_ANON] = event.rss_anon;
  task.rssSize[KAVO_RSS_SWAP] = event.rss_swap;
  task.rssSize[KAVO_RSS_SHMEM] = event.rss_shmem;
  memcpy(task.rssOldSize, task.rssSize, sizeof(task.rssSize));
  task.initTimeStamp = event.start_time;
  task.firstSeenNs = static_cast<int64_t>(event.header.time_ns);
  std::lock_guard<std::mutex> guard(KavoTaskManager::kavoTaskManagerLock);
  KavoTaskManager::GetInstance()->AddKavoTask(task.pid, task);
  return 0;
}

int KavoBpfService::handleSched_SchedProcessFork(char* data, long long size) {
  kavo_fork_event event;
  if (!ReadRecord(data, size, &event)) return 0;
  if (event.kind == KAVO_TASK_THREAD) {
    if (auto report = ChangeThreadCount(event.pid, event.header.time_ns, +1)) Publish(*report);
    return 0;
  }
  if (event.kind != KAVO_TASK_PROCESS) {
    __android_log_print(ANDROID_LOG_ERROR, kTag,
                        "[KavoBpfService] Task Create raw event (SCHED__TASK_CREATE) error!");
    return 0;
  }
  if (!reportedExits.empty()) reportedExits.erase(event.pid);
  {
    std::lock_guard<std::mutex> guard(KavoTaskManager::kavoTaskManagerLock);
    if (KavoTaskManager::GetInstance()->GetKavoTask(event.pid) != nullptr) return 0;
  }
  KavoTask task = {};
  task.initTimeStamp = static_cast<int64_t>(GetSystemSecondsTime());
  task.pid = event.pid;
  task.ppid = event.ppid;
  task.uid = event.uid;
  CopyComm(task.comm, event.comm);
  if (event.ppid == 0) {
    // The kernel side could not tell the parent: ask /proc, which also has the
    // name the process may have taken meanwhile.
    UpdateProcessExdata info = {};
    if (getProcessInfo(event.pid, &info) == 0) {
      task.ppid = info.ppid;
      CopyComm(task.comm, info.comm);
    }
  }
  task.threadNum = 1;
  task.oldThreadNum = 1;
  task.firstSeenNs = static_cast<int64_t>(event.header.time_ns);
  task.startTimeNs = static_cast<int64_t>(event.header.time_ns);
  {
    std::lock_guard<std::mutex> guard(KavoTaskManager::kavoTaskManagerLock);
    KavoTaskManager::GetInstance()->AddKavoTask(task.pid, task);
  }
  publishProcessCreated(task);
  return 0;
}

int KavoBpfService::handleSched_SchedProcessExit(char* data, long long size) {
  kavo_exit_event event;
  if (!ReadRecord(data, size, &event)) return 0;
  if (event.kind == KAVO_TASK_THREAD) {
    if (auto report = ChangeThreadCount(event.pid, event.header.time_ns, -1)) Publish(*report);
    return 0;
  }
  if (event.kind != KAVO_TASK_PROCESS) {
    __android_log_print(ANDROID_LOG_ERROR, kTag,
                        "[KavoBpfService] Task Exit raw event (SCHED__TASK_EXIT) error!");
    return 0;
  }
  if (!reportedExits.empty()) {
    auto reported = reportedExits.find(event.pid);
    if (reported != reportedExits.end()) {
      bool alreadyReported = event.header.time_ns <= reported->second;
      reportedExits.erase(reported);
      if (alreadyReported) return 0;
    }
  }
  {
    std::lock_guard<std::mutex> guard(KavoTaskManager::kavoTaskManagerLock);
    KavoTaskManager::GetInstance()->DelKavoTask(event.pid);  // unknown pids are fine
  }
  publishProcessExited(event.pid, event.comm);
  return 0;
}

void KavoBpfService::publishProcessCreated(const KavoTask& task) {
  kavo_process_created_event created = {KAVO_EVENT_PROCESS_CREATED, task.pid, task.ppid, task.uid, {}};
  memcpy(created.comm, task.comm, sizeof(created.comm));
  Publish(created);
}

void KavoBpfService::publishProcessExited(int32_t pid, const char* comm) {
  kavo_process_exited_event exited = {KAVO_EVENT_PROCESS_EXITED, pid, {}};
  CopyComm(exited.comm, comm);
  Publish(exited);
}

}  // namespace Kavo::Bpf
