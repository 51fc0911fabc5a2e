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

// The batch scope the calling thread forwards through, if it opened one.
thread_local EventManager::BatchScope* tOpenScope = nullptr;

}  // namespace

// Default-initialised: the batch's storage is touched only as events fill it.
EventManager::BatchScope::BatchScope() : batch_(new EventBatch) { tOpenScope = this; }

EventManager::BatchScope::~BatchScope() {
  flush();
  tOpenScope = nullptr;
}

void EventManager::BatchScope::flush() {
  if (!batch_->empty()) GetInstance()->forwardBatch(this, false);
  wakeOwed();
}

void EventManager::BatchScope::wakeOwed() {
  if (owed_.empty()) return;
  UnixIpcManager* ipc = KavoBpfService::GetInstance()->getIpcManager();
  for (int fd : owed_) ipc->notifyNeedWriteData(fd);
  owed_.clear();
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
  {
    std::lock_guard<std::mutex> guard(kavoRawEventManagerLock);
    RemoveAll(eventObservers[eventType], fd);
    RemoveAll(fdEvents[fd], eventType);
  }
  // What was routed before goes first: nothing of the type follows the answer.
  deliverHandedOver();
}

void EventManager::EraseObserver(int fd) {
  {
    std::lock_guard<std::mutex> guard(kavoRawEventManagerLock);
    auto it = fdEvents.find(fd);
    if (it == fdEvents.end()) return;
    for (int eventType : it->second) {
      auto observers = eventObservers.find(eventType);
      if (observers != eventObservers.end()) RemoveAll(observers->second, fd);
    }
    fdEvents.erase(it);
  }
  // Nothing routed to the connection stays behind once its queue may go.
  deliverHandedOver();
}

int EventManager::AppendEvent(char* data, unsigned size) {
  if (size < sizeof(int32_t)) return 0;  // no type to route by
  if (BatchScope* scope = tOpenScope) {
    if (!scope->batch_->add(data, size)) {
      // Full: what came before goes first.
      forwardBatch(scope, true);
      if (!scope->batch_->add(data, size)) return forwardOne(data, size);  // bigger than any batch
    }
    if (scope->batch_->full()) forwardBatch(scope, true);
    return 0;
  }
  return forwardOne(data, size);
}

int EventManager::forwardOne(char* data, unsigned size) {
  int32_t eventType;
  memcpy(&eventType, data, sizeof(eventType));
  // This thread's batches handed over earlier go first.
  deliverHandedOver();

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

size_t EventManager::routeLocked(EventBatch* batch) {
  const size_t count = batch->size();
  // The batch's distinct types, their subscribers looked up once each.
  int32_t types[EventBatch::kMaxEvents];
  uint8_t ofType[EventBatch::kMaxEvents];  // events per type slot
  size_t typeCount = 0;
  std::vector<EventBatch::Route>& routes = batch->routes();
  routes.clear();
  for (size_t i = 0; i < count; ++i) {
    const int32_t type = batch->typeOf(i);
    size_t t = 0;
    while (t < typeCount && types[t] != type) ++t;
    if (t == typeCount) {
      types[typeCount++] = type;
      ofType[t] = 0;
      auto it = eventObservers.find(type);
      if (it != eventObservers.end() && packageManagers != nullptr) {
        // Clients in the order their first event's subscribers are listed.
        for (int fd : it->second) {
          auto route = std::find_if(routes.begin(), routes.end(),
                                    [fd](const EventBatch::Route& known) { return known.fd == fd; });
          if (route == routes.end()) {
            // A subscriber without a queue is a broken invariant: at() ends the process.
            routes.push_back({fd, &packageManagers->at(fd), 0});
            route = routes.end() - 1;
          }
          route->wantedSlots |= uint64_t{1} << t;
        }
      }
    }
    batch->setTypeSlot(i, static_cast<uint8_t>(t));
    ++ofType[t];
  }
  size_t copies = 0;
  for (const EventBatch::Route& route : routes) {
    for (uint64_t wanted = route.wantedSlots; wanted != 0; wanted &= wanted - 1) copies += ofType[__builtin_ctzll(wanted)];
  }
  return copies;
}

void EventManager::deliver(const EventBatch& batch) {
  KavoIpcBytes bodies[EventBatch::kMaxEvents];
  for (const EventBatch::Route& route : batch.routes()) {
    size_t queued = 0;
    for (size_t i = 0; i < batch.size(); ++i) {
      if ((route.wantedSlots >> batch.typeSlot(i)) & 1) bodies[queued++] = batch.bytesOf(i);
    }
    route.queue->buildAndAppendSecondIpcPackages(KAVO_IPC_RAW_EVENT, bodies, queued);
  }
}

std::unique_ptr<EventBatch> EventManager::takeBatch() {
  {
    std::lock_guard<std::mutex> guard(handoffMutex_);
    if (!spares_.empty()) {
      std::unique_ptr<EventBatch> batch = std::move(spares_.back());
      spares_.pop_back();
      return batch;
    }
  }
  return std::unique_ptr<EventBatch>(new EventBatch);
}

void EventManager::forwardBatch(BatchScope* scope, bool midDrain) {
  EventBatch* batch = scope->batch_.get();
  UnixIpcManager* ipc = KavoBpfService::GetInstance()->getIpcManager();
  bool catchUp = false;
  {
    std::lock_guard<std::mutex> guard(kavoRawEventManagerLock);
    const size_t copies = routeLocked(batch);
    if (batch->routes().empty()) {
      batch->clear();
      return;
    }
    const size_t behind = inFlight_.load();
    // The IPC thread takes over at most the copying of one client's whole
    // batch: copying a batch that fans out wider would hold up its answers
    // and writes to every client.
    const bool narrow = copies <= EventBatch::kMaxEvents;
    if (behind == 0 && !(midDrain && narrow)) {
      // Nothing waits before it: this thread delivers. The drain's last
      // events are sent as far as the sockets take them without waiting.
      deliver(*batch);
      for (const EventBatch::Route& route : batch->routes()) {
        midDrain ? ipc->notifyNeedWriteData(route.fd) : ipc->tryWriteDataNow(route.fd);
      }
      // What was handed over before is in the queues now, perhaps put there
      // by another thread than the writer: its wake-up is due.
      if (midDrain) scope->wakeOwed();
      batch->clear();
      return;
    }
    // The clients, noted before the batch leaves this thread.
    std::vector<int>& wake = scope->wake_;
    wake.clear();
    for (const EventBatch::Route& route : batch->routes()) wake.push_back(route.fd);
    // Counted before it is visible, so that the count is never below the
    // batches waiting.
    inFlight_.fetch_add(1);
    // A copy goes over, and the batch this thread fills stays its own, in
    // its CPU's cache. Refilled in place, a batch the IPC thread on the other
    // CPU had read last made the stores of each event wait for those cache
    // lines, exposed at the next lock the handlers took; copied whole, the
    // lines are fetched together, once per batch.
    std::unique_ptr<EventBatch> copy = takeBatch();
    copy->copyFrom(*batch);
    batch->clear();
    {
      std::lock_guard<std::mutex> handoff(handoffMutex_);
      handed_.push_back(std::move(copy));
    }
    // Mid-drain, a writer that is still writing takes it with the batches
    // before it; a sleeping one is woken once kWakeAfterBatches wait (see
    // the header): each wake-up costs this thread an interrupt of the other
    // CPU, several microseconds here, and as many as a hundred came in one
    // drain of 190,000 records, the writer sleeping again after each.
    const bool wakeLater = midDrain && narrow && behind + 1 < kWakeAfterBatches;
    std::vector<int>& owed = scope->owed_;
    for (int fd : wake) {
      if (wakeLater && ipc->notifyNeedWriteDataIfArmed(fd)) continue;
      if (std::find(owed.begin(), owed.end(), fd) == owed.end()) owed.push_back(fd);
    }
    if (!wakeLater) scope->wakeOwed();
    catchUp = behind >= kMaxHandedBatches || !narrow;
  }
  // Too far behind to wait for the IPC thread, or too wide for it: this
  // thread delivers what waits, its own batch last. Outside the lock, so
  // that the IPC thread can still take requests meanwhile.
  if (catchUp) deliverHandedOver();
}

void EventManager::deliverHandedOver() {
  if (inFlight_.load() == 0) return;
  std::lock_guard<std::mutex> delivering(deliveryMutex_);
  while (true) {
    std::unique_ptr<EventBatch> batch;
    {
      std::lock_guard<std::mutex> handoff(handoffMutex_);
      if (handed_.empty()) return;
      batch = std::move(handed_.front());
      handed_.pop_front();
    }
    deliver(*batch);
    inFlight_.fetch_sub(1);
    batch->clear();
    std::lock_guard<std::mutex> handoff(handoffMutex_);
    if (spares_.size() < kSpareBatches) spares_.push_back(std::move(batch));
  }
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
