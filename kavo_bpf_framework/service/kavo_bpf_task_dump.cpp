// The task-table dumps: "DUMPTASK_INFO", written on request (signals 51 to
// 54), all tasks or only those with resident memory, in a full or a short
// column layout, largest total resident memory first.

#include <algorithm>
#include <android/log.h>
#include <errno.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "service/kavo_bpf_task_manager.h"
#include "utils/kavo_bpf_file.h"
#include "utils/kavo_bpf_helper.h"

namespace Kavo::Bpf {

namespace {

constexpr char kTag[] = "BpfUtils";
constexpr size_t kNameWidth = 16;

const char* const kFullTitles[] = {
    "comm               pid         ppid        threadNum   oldThreadNum mmId        rssAnonSize         rssAnonOldSize      ",
    "rssFileSize         rssFileOldSize      rssShmemSize        rssShmemOldSize     rssSwapSize         rssSwapOldSize      ",
    "initTimeStamp       \n",
};
const char* const kShortTitles[] = {
    "comm               pid         ppid        threadNum   mmId        rssAnonSize         ",
    "rssFileSize         rssShmemSize        rssSwapSize         ",
    "initTimeStamp       \n",
};

// Bytes to KiB, rounding toward zero like the signed division it is.
long Kb(int64_t bytes) { return static_cast<long>(bytes / 1024); }

bool HasResidentMemory(const KavoTask& task) {
  for (int64_t size : task.rssSize) {
    if (size != 0) return true;
  }
  return false;
}

std::string FormatRow(const KavoTask& t, bool fullColumns) {
  size_t nameLength = strnlen(t.comm, sizeof(t.comm));
  std::string row(t.comm, nameLength);
  if (nameLength < kNameWidth) row.append(kNameWidth - nameLength, ' ');
  if (fullColumns) {
    row += StringPrintf(
        "   %-12d%-12d%-12d%-13d%-12u%10ld KB%17ld KB%17ld KB%17ld KB%17ld KB%17ld KB%17ld KB%17ld KB%20ld\n",
        t.pid, t.ppid, t.threadNum, t.oldThreadNum, t.mmId, Kb(t.rssSize[KAVO_RSS_ANON]),
        Kb(t.rssOldSize[KAVO_RSS_ANON]), Kb(t.rssSize[KAVO_RSS_FILE]), Kb(t.rssOldSize[KAVO_RSS_FILE]),
        Kb(t.rssSize[KAVO_RSS_SHMEM]), Kb(t.rssOldSize[KAVO_RSS_SHMEM]), Kb(t.rssSize[KAVO_RSS_SWAP]),
        Kb(t.rssOldSize[KAVO_RSS_SWAP]), static_cast<long>(t.initTimeStamp));
  } else {
    row += StringPrintf("   %-12d%-12d%-12d%-12u%10ld KB%17ld KB%17ld KB%17ld KB%20ld\n", t.pid, t.ppid,
                        t.threadNum, t.mmId, Kb(t.rssSize[KAVO_RSS_ANON]), Kb(t.rssSize[KAVO_RSS_FILE]),
                        Kb(t.rssSize[KAVO_RSS_SHMEM]), Kb(t.rssSize[KAVO_RSS_SWAP]),
                        static_cast<long>(t.initTimeStamp));
  }
  return row;
}

}  // namespace

void KavoTaskManager::dump(bool skipKernelTasks, bool fullColumns, bool reportOpenFailure) {
  std::vector<KavoTask> rows;
  uint32_t count;
  {
    // Copy under the lock; format and write without holding it.
    std::lock_guard<std::mutex> guard(kavoTaskManagerLock);
    count = GetKavoTaskCount();
    rows.reserve(tasks.size());
    for (const auto& entry : tasks) {
      if (skipKernelTasks && !HasResidentMemory(entry.second)) continue;
      rows.push_back(entry.second);
    }
  }
  std::sort(rows.begin(), rows.end(), CompareKavoTask);

  MakeDirs(KAVOTASK_DUMP_PATH, 0775);
  unlink(KAVOTASK_DUMP_TEMPLATE.c_str());
  ScopedFile out(fopen(KAVOTASK_DUMP_TEMPLATE.c_str(), "we"));
  if (!out) {
    if (reportOpenFailure) {
      __android_log_print(ANDROID_LOG_ERROR, kTag, "failed to dump kavo task, error: %s", strerror(errno));
    }
    return;
  }
  auto put = [&out](const std::string& piece) { fwrite(piece.data(), 1, piece.size(), out.get()); };
  put(StringPrintf("============ DUMP ALL KAVO TASKS INFO (count: %u, time: %lu) ============\n", count,
                   static_cast<unsigned long>(time(nullptr))));
  for (const char* title : fullColumns ? kFullTitles : kShortTitles) put(title);
  for (const KavoTask& task : rows) put(FormatRow(task, fullColumns));
}

void KavoTaskManager::DumpKavoTaskInfo() { dump(false, true, true); }
void KavoTaskManager::DumpKavoTaskIgnoreKernelTaskInfo() { dump(true, true, false); }
void KavoTaskManager::DumpKavoTaskInfoNormal() { dump(false, false, true); }
void KavoTaskManager::DumpKavoTaskIgnoreKernelTaskInfoNormal() { dump(true, false, false); }

}  // namespace Kavo::Bpf
