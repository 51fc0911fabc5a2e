#include "service/kavo_bpf_task_manager.h"

#include <errno.h>

#include <mutex>

namespace Kavo::Bpf {

KavoTaskManager* KavoTaskManager::instance = nullptr;
std::mutex KavoTaskManager::kavoTaskManagerLock;
const std::string KavoTaskManager::KAVOTASK_DUMP_PATH = "/data/kavolog/stability/kavobpfframework";
const std::string KavoTaskManager::KAVOTASK_DUMP_TEMPLATE =
    "/data/kavolog/stability/kavobpfframework/DUMPTASK_INFO";

namespace {

template <typename Map, typename Key>
auto FindOrNull(Map& map, const Key& key) -> decltype(&map.begin()->second) {
  auto it = map.find(key);
  return it == map.end() ? nullptr : &it->second;
}

template <typename Map, typename Key>
int EraseOrEnoent(Map& map, const Key& key) {
  errno = 0;
  auto it = map.find(key);
  if (it == map.end()) {
    errno = ENOENT;
    return -1;
  }
  map.erase(it);
  return 0;
}

int64_t TotalRss(const KavoTask& task) {
  int64_t total = 0;
  for (int64_t size : task.rssSize) total += size;
  return total;
}

}  // namespace

bool CompareKavoTask(const KavoTask& a, const KavoTask& b) { return TotalRss(a) > TotalRss(b); }

KavoTaskManager* KavoTaskManager::GetInstance() {
  static std::once_flag once;
  std::call_once(once, [] { instance = new KavoTaskManager(); });
  return instance;
}

int KavoTaskManager::AddKavoTask(int pid, KavoTask task) {
  tasks.insert_or_assign(pid, task);
  return 0;
}

KavoTask* KavoTaskManager::GetKavoTask(int pid) { return FindOrNull(tasks, pid); }

int KavoTaskManager::DelKavoTask(int pid) { return EraseOrEnoent(tasks, pid); }

uint32_t KavoTaskManager::GetKavoTaskCount() { return static_cast<uint32_t>(tasks.size()); }

void KavoTaskManager::ForEachKavoTask(const std::function<void(const KavoTask&)>& visit) {
  for (const auto& entry : tasks) visit(entry.second);
}

int KavoTaskManager::AddMmidIndex(unsigned mmId, KavoTask* task) {
  mmIdIndex.insert_or_assign(mmId, task);
  return 0;
}

KavoTask* KavoTaskManager::GetKavoTaskByMmid(unsigned mmId) {
  KavoTask** task = FindOrNull(mmIdIndex, mmId);
  return task == nullptr ? nullptr : *task;
}

int KavoTaskManager::DelMmidIndex(unsigned mmId) { return EraseOrEnoent(mmIdIndex, mmId); }

int KavoTaskManager::AddRssTempTask(unsigned key, KavoTask task) {
  rssTempTasks.insert_or_assign(key, task);
  return 0;
}

KavoTask* KavoTaskManager::GetRssTempTask(unsigned key) { return FindOrNull(rssTempTasks, key); }

int KavoTaskManager::DelRssTempTask(unsigned key) { return EraseOrEnoent(rssTempTasks, key); }

}  // namespace Kavo::Bpf
