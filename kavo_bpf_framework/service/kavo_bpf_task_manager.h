#pragma once

// KavoTaskManager: the service's table of user processes, one KavoTask per
// process the kernel side reported, keyed by pid, with an index by mm id and a
// map of RSS temp tasks keyed by mm id. The raw-event handlers fill and update
// it; the task dumps (signals 51 to 54) write it to a text file.
//
// Threading: the manager's operations take no lock themselves. Whoever reads
// or changes the table holds kavoTaskManagerLock around the whole sequence of
// calls and while it uses a returned pointer: the event handlers on the ring
// monitor threads and the dumps on the dump thread do. It is never taken in a
// signal handler (the dumps run on an ordinary thread).

#include <stdint.h>

#include <functional>
#include <map>
#include <mutex>
#include <string>

#include "bpf/kavo_bpf_records.h"
#include "service/kavo_bpf_node_pool.h"
#include "utils/kavo_bpf_export.h"

namespace Kavo::Bpf {

// One process. Trivially copyable; copied by value into and out of the table.
struct KavoTask {
  int32_t pid;
  int32_t ppid;  // 2 marks a kernel thread
  int32_t uid;
  int32_t threadNum;
  int32_t oldThreadNum;  // thread count at the last report to clients
  char comm[KAVO_COMM_LEN];
  uint32_t mmId;  // 0 at creation, 1000 once an RSS event was taken
  // Bytes by kernel member: file, anonymous, swap, shared memory.
  int64_t rssSize[KAVO_RSS_MEMBERS];
  int64_t rssOldSize[KAVO_RSS_MEMBERS];  // at the last report to clients
  int64_t initTimeStamp;  // start, on the service's seconds clock
  int64_t lastInfoTime;   // seconds clock of the last refresh from /proc
  int64_t firstSeenNs;    // kernel boot time of the event that made the record
  // Boot time in ns at which the process started, 0 when not known: from the
  // stat file for scanned processes, the fork record's time (within a clock
  // tick of the kernel's) for forked ones. Tells a reused pid from its owner.
  int64_t startTimeNs;
};

// Largest total resident memory first.
KAVO_EXPORT bool CompareKavoTask(const KavoTask& a, const KavoTask& b);

class KAVO_EXPORT KavoTaskManager {
 public:
  static KavoTaskManager* GetInstance();

  // Insert or replace; always 0.
  int AddKavoTask(int pid, KavoTask task);
  // The stored record, or null; never inserts.
  KavoTask* GetKavoTask(int pid);
  // 0, or -1 with errno ENOENT when absent. errno is 0 after a success.
  int DelKavoTask(int pid);
  uint32_t GetKavoTaskCount();
  // Calls |visit| with every task, in pid order; |visit| must not change the table.
  void ForEachKavoTask(const std::function<void(const KavoTask&)>& visit);

  int AddMmidIndex(unsigned mmId, KavoTask* task);
  KavoTask* GetKavoTaskByMmid(unsigned mmId);
  int DelMmidIndex(unsigned mmId);

  int AddRssTempTask(unsigned key, KavoTask task);
  KavoTask* GetRssTempTask(unsigned key);
  int DelRssTempTask(unsigned key);

  // Write "DUMPTASK_INFO": all tasks or only those with resident memory, in
  // the full or the short column layout. Each takes kavoTaskManagerLock.
  void DumpKavoTaskInfo();
  void DumpKavoTaskIgnoreKernelTaskInfo();
  void DumpKavoTaskInfoNormal();
  void DumpKavoTaskIgnoreKernelTaskInfoNormal();

  static std::mutex kavoTaskManagerLock;
  static const std::string KAVOTASK_DUMP_PATH;
  static const std::string KAVOTASK_DUMP_TEMPLATE;

 private:
  KavoTaskManager() = default;
  void dump(bool skipKernelTasks, bool fullColumns, bool reportOpenFailure);

  // Its nodes come from a pool: a busy device holds thousands of tasks.
  std::map<int32_t, KavoTask, std::less<int32_t>, NodePoolAllocator<std::pair<const int32_t, KavoTask>>> tasks;
  std::map<uint32_t, KavoTask*> mmIdIndex;
  std::map<uint32_t, KavoTask> rssTempTasks;

  static KavoTaskManager* instance;
};

}  // namespace Kavo::Bpf
