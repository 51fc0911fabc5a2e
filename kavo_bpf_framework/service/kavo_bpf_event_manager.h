#pragma once

// EventManager: which client connection wants which event types, and the
// router that copies each event into the outgoing queue of every connection
// that wants it, then asks the IPC thread to write to those connections.
//
// Subscriptions change on the IPC thread (requests, closes); events arrive on
// the two ring monitor threads. kavoRawEventManagerLock guards the singleton
// and both maps and is held for the whole of forwarding. Lock order inside
// forwarding: kavoRawEventManagerLock, a connection's write lock, the
// delivery mutex, a queue's own mutex, then servicelock briefly, then the
// endpoint's epoll mutex; the hand-off mutex is a leaf.
//
// A monitor that drains many records at a time opens a BatchScope: its
// events then wait in an EventBatch and are forwarded together, the locks
// taken once per client per batch and each client woken once. Every client
// gets the same events in the same order as one by one; the scope's owner
// flushes before it waits for more. That flush sends on the monitor's own
// thread what the sockets take without waiting, since the monitor has
// nothing else to do then: a few events need not wake the IPC thread.
//
// A full batch in the middle of a drain is only routed by the monitor (which
// clients get which of its events, decided under the lock, as always) and,
// when it makes no more copies than one client taking all of it, handed
// over whole: the IPC thread copies it into the clients' queues when
// it next writes to them (deliverHandedOver), so the monitor neither copies
// each event into each queue nor waits on a queue the IPC thread is
// draining. What goes over is a copy of the batch, made in one sweep; the
// batch the monitor fills stays its own (see forwardBatch).
// Anything forwarded while handed batches are still undelivered goes behind
// them, so each client's order stays that of the ring. A client
// that unsubscribes or closes gets what was routed to it before, and nothing
// after; when the IPC thread falls kMaxHandedBatches behind, or a wider
// batch comes, the producer delivers them itself (so a slow client costs
// what it did: queue trims).
//
// A hand-over tells a writer that is still writing to the client at the
// price of a counter. One that caught up and went to sleep is woken only
// once kWakeAfterBatches batches wait, when a wider batch comes, or when the
// scope flushes: a wake-up is a system call that interrupts the other CPU,
// and a writer woken for each batch catches up and sleeps again at once.

#include <atomic>
#include <deque>
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
    // clients' sockets take it without waiting (see above); while batches
    // handed over earlier are undelivered, it is handed over behind them.
    void flush();

   private:
    friend class EventManager;
    // Wakes the writers of the clients that batches were handed to while
    // they slept.
    void wakeOwed();
    std::unique_ptr<EventBatch> batch_;
    std::vector<int> wake_;  // scratch: the clients of a batch handed over
    std::vector<int> owed_;  // clients whose sleeping writer was not woken yet
  };

  // The IPC thread may be this many batches behind before a producer
  // delivers for it.
  static constexpr size_t kMaxHandedBatches = 32;
  // While a drain goes on, a sleeping writer is woken once this many batches
  // wait for it.
  static constexpr size_t kWakeAfterBatches = 8;

  // Delivers the batches handed over so far into their clients' queues, in
  // order; the IPC thread's writes call it first. Any thread; serialised.
  void deliverHandedOver();
  // Batches handed over and not yet delivered (a hint for tests).
  size_t handedOver() const { return inFlight_.load(); }

  // The service's map of per-client queues (owned by the service).
  void setPackageManagers(std::map<int, IpcPackageManager>* managers);

  // Copies of the subscription state, for diagnostics and tests.
  std::vector<int> eventsOf(int fd);
  std::vector<int> observersOf(int eventType);
  bool hasObserverEntry(int fd);

  static std::mutex kavoRawEventManagerLock;

 private:
  EventManager() = default;
  static constexpr size_t kSpareBatches = 4;  // kept for reuse

  // AppendEvent without a batch.
  int forwardOne(char* data, unsigned size);
  // Forwards and empties the scope's batch: routes it, then delivers it (per
  // client, its events of the types it subscribed to, in batch order, in one
  // append) and wakes the clients' writers. |midDrain|: a batch that filled
  // up while the producer still has records to take; it is handed over to
  // the IPC thread rather than delivered, unless it makes more copies than a
  // batch holds events. Otherwise this thread delivers it and sends what
  // goes without waiting, unless batches handed over earlier are still
  // undelivered: then it goes behind them.
  void forwardBatch(BatchScope* scope, bool midDrain);
  // With kavoRawEventManagerLock: which clients get which of |batch|'s
  // events. Returns the copies that makes, summed over the clients.
  size_t routeLocked(EventBatch* batch);
  // Copies a routed batch into its clients' queues.
  static void deliver(const EventBatch& batch);
  // A spare batch, or a new one.
  std::unique_ptr<EventBatch> takeBatch();

  // Handed-over batches, oldest first, and spares; guarded by handoffMutex_,
  // a leaf lock held only to move a batch in or out.
  std::mutex handoffMutex_;
  std::deque<std::unique_ptr<EventBatch>> handed_;
  std::vector<std::unique_ptr<EventBatch>> spares_;
  // Handed over and not yet in the queues. Rises under
  // kavoRawEventManagerLock; falls once a batch is in its queues.
  std::atomic<size_t> inFlight_{0};
  // Held while delivering handed-over batches: one deliverer at a time, in order.
  std::mutex deliveryMutex_;

  std::map<int, IpcPackageManager>* packageManagers = nullptr;
  std::map<int, std::vector<int>> fdEvents;
  std::map<int, std::vector<int>> eventObservers;

  // Published once built; read without the lock on every event.
  static std::atomic<EventManager*> instance;
};

}  // namespace Kavo::Bpf
