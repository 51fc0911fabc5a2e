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

// The batch the calling thread forwards through, if it opened one.
thread_local EventBatch* tOpenBatch = nullptr;

}  // namespace

// Default-initialised: the batch's storage is touched only as events fill it.
EventManager::BatchScope::BatchScope() : batch_(new EventBatch) { tOpenBatch = batch_.get(); }

EventManager::BatchScope::~BatchScope() {
  flush();
  tOpenBatch = nullptr;
}

void EventManager::BatchScope::flush() {
  if (!batch_->empty()) GetInstance()->forwardBatch(batch_.get(), true);
}

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
  if (EventBatch* batch = tOpenBatch) {
    if (!batch->add(data, size)) {
      // Full: what came before goes first.
      forwardBatch(batch, false);
      if (!batch->add(data, size)) return forwardOne(data, size);  // bigger than any batch
    }
    if (batch->full()) forwardBatch(batch, false);
    return 0;
  }
  return forwardOne(data, size);
}

int EventManager::forwardOne(char* data, unsigned size) {
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

void EventManager::forwardBatch(EventBatch* batch, bool sendNow) {
  const size_t count = batch->size();
  // Per event, the index of its type among the batch's types, and those
  // types' subscriber lists, looked up once each.
  uint8_t typeIndex[EventBatch::kMaxEvents];
  int32_t types[EventBatch::kMaxEvents];
  const std::vector<int>* observers[EventBatch::kMaxEvents];
  size_t typeCount = 0;
  std::vector<int>& clients = batch->clients();
  clients.clear();

  std::lock_guard<std::mutex> guard(kavoRawEventManagerLock);
  for (size_t i = 0; i < count; ++i) {
    const int32_t type = batch->typeOf(i);
    size_t t = 0;
    while (t < typeCount && types[t] != type) ++t;
    if (t == typeCount) {
      auto it = eventObservers.find(type);
      types[t] = type;
      observers[t] = it == eventObservers.end() ? nullptr : &it->second;
      ++typeCount;
      // Clients in the order their first event's subscribers are listed.
      if (observers[t] != nullptr) {
        for (int fd : *observers[t]) {
          if (std::find(clients.begin(), clients.end(), fd) == clients.end()) clients.push_back(fd);
        }
      }
    }
    typeIndex[i] = static_cast<uint8_t>(t);
  }
  if (!clients.empty() && packageManagers != nullptr) {
    KavoIpcBytes bodies[EventBatch::kMaxEvents];
    bool wanted[EventBatch::kMaxEvents];
    for (int fd : clients) {
      for (size_t t = 0; t < typeCount; ++t) {
        wanted[t] = observers[t] != nullptr &&
                    std::find(observers[t]->begin(), observers[t]->end(), fd) != observers[t]->end();
      }
      size_t queued = 0;
      for (size_t i = 0; i < count; ++i) {
        if (wanted[typeIndex[i]]) bodies[queued++] = batch->bytesOf(i);
      }
      // A subscriber without a queue is a broken invariant: at() ends the process.
      packageManagers->at(fd).buildAndAppendSecondIpcPackages(KAVO_IPC_RAW_EVENT, bodies, queued);
    }
    UnixIpcManager* ipc = KavoBpfService::GetInstance()->getIpcManager();
    for (int fd : clients) sendNow ? ipc->tryWriteDataNow(fd) : ipc->notifyNeedWriteData(fd);
  }
  batch->clear();
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
