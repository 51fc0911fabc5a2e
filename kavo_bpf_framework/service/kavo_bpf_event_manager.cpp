#include "service/kavo_bpf_event_manager.h"

#include <string.h>

#include <algorithm>

#include "service/kavo_bpf_service.h"

namespace Kavo::Bpf {

std::atomic<EventManager*> EventManager::instance{nullptr};
std::mutex EventManager::kavoRawEventManagerLock;

namespace {

void RemoveAll(std::vector<int>& list, int value) {
  list.erase(std::remove(list.begin(), list.end(), value), list.end());
}

}  // namespace

EventManager* EventManager::GetInstance() {
  // Every record asks for the instance: once it exists, no lock is needed.
  EventManager* built = instance.load(std::memory_order_acquire);
  if (built != nullptr) return built;
  std::lock_guard<std::mutex> guard(kavoRawEventManagerLock);
  if (instance.load(std::memory_order_relaxed) == nullptr) {
    instance.store(new EventManager(), std::memory_order_release);
  }
  return instance.load(std::memory_order_relaxed);
}

void EventManager::setPackageManagers(std::map<int, IpcPackageManager>* managers) {
  std::lock_guard<std::mutex> guard(kavoRawEventManagerLock);
  packageManagers = managers;
}

void EventManager::AddObserverEvent(int fd, int eventType) {
  std::lock_guard<std::mutex> guard(kavoRawEventManagerLock);
  std::vector<int>& events = fdEvents[fd];
  if (std::find(events.begin(), events.end(), eventType) != events.end()) return;
  events.push_back(eventType);
  eventObservers[eventType].push_back(fd);
}

void EventManager::DelObserverEvent(int fd, int eventType) {
  std::lock_guard<std::mutex> guard(kavoRawEventManagerLock);
  RemoveAll(eventObservers[eventType], fd);
  RemoveAll(fdEvents[fd], eventType);
}

void EventManager::EraseObserver(int fd) {
  std::lock_guard<std::mutex> guard(kavoRawEventManagerLock);
  auto it = fdEvents.find(fd);
  if (it == fdEvents.end()) return;
  for (int eventType : it->second) {
    auto observers = eventObservers.find(eventType);
    if (observers != eventObservers.end()) RemoveAll(observers->second, fd);
  }
  fdEvents.erase(it);
}

int EventManager::AppendEvent(char* data, unsigned size) {
  if (size < sizeof(int32_t)) return 0;  // no type to route by
  int32_t eventType;
  memcpy(&eventType, data, sizeof(eventType));

  std::lock_guard<std::mutex> guard(kavoRawEventManagerLock);
  auto it = eventObservers.find(eventType);
  if (it == eventObservers.end() || it->second.empty() || packageManagers == nullptr) return 0;
  const std::vector<int>& observers = it->second;
  // A subscriber without a queue is a broken invariant: at() ends the process.
  for (int fd : observers) packageManagers->at(fd).buildAndAppendSecondIpcPackage(KAVO_IPC_RAW_EVENT, data, size);
  UnixIpcManager* ipc = KavoBpfService::GetInstance()->getIpcManager();
  for (int fd : observers) ipc->notifyNeedWriteData(fd);
  return 0;
}

std::vector<int> EventManager::eventsOf(int fd) {
  std::lock_guard<std::mutex> guard(kavoRawEventManagerLock);
  auto it = fdEvents.find(fd);
  return it == fdEvents.end() ? std::vector<int>() : it->second;
}

std::vector<int> EventManager::observersOf(int eventType) {
  std::lock_guard<std::mutex> guard(kavoRawEventManagerLock);
  auto it = eventObservers.find(eventType);
  return it == eventObservers.end() ? std::vector<int>() : it->second;
}

bool EventManager::hasObserverEntry(int fd) {
  std::lock_guard<std::mutex> guard(kavoRawEventManagerLock);
  return fdEvents.count(fd) != 0;
}

}  // namespace Kavo::Bpf
