#pragma once

// EventManager: which client connection wants which event types, and the
// router that copies each event into the outgoing queue of every connection
// that wants it, then asks the IPC thread to write to those connections.
//
// Subscriptions change on the IPC thread (requests, closes); events arrive on
// the two ring monitor threads. kavoRawEventManagerLock guards the singleton
// and both maps and is held for the whole of forwarding. Lock order inside
// forwarding: kavoRawEventManagerLock, a queue's own mutex, then servicelock
// briefly, then the endpoint's epoll mutex.
//
// A monitor that drains many records at a time opens a BatchScope: its
// events then wait in an EventBatch and are forwarded together, the locks
// taken once per client per batch and each client woken once. Every client
// gets the same events in the same order as one by one; the scope's owner
// flushes before it waits for more. That flush sends on the monitor's own
// thread what the sockets take without waiting, since the monitor has
// nothing else to do then: a few events need not wake the IPC thread.

#include <atomic>
#include <map>
#include <memory>
#include <mutex>
#include <vector>

#include "service/kavo_bpf_event_batch.h"
#include "utils/kavo_bpf_export.h"
#include "utils/kavo_bpf_ipc_package.h"

namespace Kavo::Bpf {

class KAVO_EXPORT EventManager {
 public:
  static EventManager* GetInstance();

  // Subscribes fd to eventType; a repeated subscription is not counted twice.
  void AddObserverEvent(int fd, int eventType);
  // Unsubscribes; keys stay, possibly with empty lists.
  void DelObserverEvent(int fd, int eventType);
  // Forgets every subscription of a closing connection.
  void EraseObserver(int fd);
  // Queues one event record (u32 event type first) as a type-3 package for
  // every subscriber of its type, in subscription order, then wakes their
  // writers in the same order. In a BatchScope the record is kept and
  // forwarded with the batch. Always 0.
  int AppendEvent(char* data, unsigned size);

  // Batches the events the calling thread forwards until flush() or its end
  // (which flushes). One per thread at a time; scopes do not nest.
  class BatchScope {
   public:
    BatchScope();
    ~BatchScope();
    BatchScope(const BatchScope&) = delete;
    BatchScope& operator=(const BatchScope&) = delete;
    // Forwards what the batch holds now, and sends it as far as the
    // clients' sockets take it without waiting (see above).
    void flush();

   private:
    std::unique_ptr<EventBatch> batch_;
  };

  // The service's map of per-client queues (owned by the service).
  void setPackageManagers(std::map<int, IpcPackageManager>* managers);

  // Copies of the subscription state, for diagnostics and tests.
  std::vector<int> eventsOf(int fd);
  std::vector<int> observersOf(int eventType);
  bool hasObserverEntry(int fd);

  static std::mutex kavoRawEventManagerLock;

 private:
  EventManager() = default;
  // AppendEvent without a batch.
  int forwardOne(char* data, unsigned size);
  // Forwards and empties |batch|: per client, the batch's events of the types
  // it subscribed to, in batch order, in one append; then the wake-ups.
  // |sendNow|: send on this thread what goes without waiting, rather than
  // only waking the IPC thread.
  void forwardBatch(EventBatch* batch, bool sendNow);

  std::map<int, IpcPackageManager>* packageManagers = nullptr;
  std::map<int, std::vector<int>> fdEvents;
  std::map<int, std::vector<int>> eventObservers;

  // Published once built; read without the lock on every event.
  static std::atomic<EventManager*> instance;
};

}  // namespace Kavo::Bpf
