#pragma once

// EpollManager: one epoll instance and the one thread that waits on it and
// calls the callbacks registered per descriptor. Other threads ask for
// EPOLLOUT on a descriptor when they have something to send
// (notifyWriteEventReady); the loop drops it again when the descriptor's write
// callback reports -1 or -3 (nothing left). An eventfd wakes the loop for stop().
//
// Callback codes (also used by UnixIpcManager):
//    0  handled          read: write handling of the same event follows
//    1  new connection   read: no write handling for this event
//   -1  failure          read: no write handling; write: EPOLLOUT cleared
//   -2  closed           read: no write handling
//   -3  nothing more     read: no write handling; write: EPOLLOUT cleared
//
// Threading: callbacks run on the loop thread, except that writeEventNow()
// runs a write callback on the caller's thread (the callback locks per fd).
// Every public function may be called from any thread; the fd table is
// guarded by one mutex, and callbacks are called outside it, so a callback
// may add or remove fds. fds are normally added on the loop thread (the init
// function and the callbacks).
//
// Producers ask for EPOLLOUT once per queued event, and almost always find
// it already on. For fds below kWriteSlots that answer comes from a per-fd
// slot without the mutex: the asker counts its request, then reads "armed";
// the loop, about to clear EPOLLOUT, clears "armed", then looks at the count
// again and keeps EPOLLOUT if it moved. With both sides in that order (and
// sequentially consistent), a request is never left without EPOLLOUT.

#include <sched.h>
#include <stdint.h>
#include <sys/epoll.h>

#include <android-base/unique_fd.h>

#include <atomic>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "utils/kavo_bpf_export.h"

enum IpcCallbackResult : int {
  IPC_CB_HANDLED = 0,
  IPC_CB_NEW_CONNECTION = 1,
  IPC_CB_FAILED = -1,
  IPC_CB_CLOSED = -2,
  IPC_CB_NOTHING_MORE = -3,
};

using EpollEventCallback = std::function<int(epoll_event)>;

struct KAVO_EXPORT EpollCallback {
  EpollEventCallback readCallback;
  EpollEventCallback writeCallback;
  EpollEventCallback closeCallback;
  uint32_t events = 0;  // the mask currently registered, kept by the manager
};

class KAVO_EXPORT EpollManager {
 public:
  // size: epoll_create hint; maxEvents: events taken per wait; initFunc: run
  // once on the loop thread before the first wait (non-zero = success);
  // threadName: loop thread name and log tag ("BpfUtils" when null); cpus:
  // CPUs of the loop thread; timeout: epoll_wait timeout in ms (-1: none).
  EpollManager(int size, int maxEvents, std::function<int()> initFunc, const char* threadName,
               cpu_set_t cpus, int timeout);
  ~EpollManager();

  EpollManager(const EpollManager&) = delete;
  EpollManager& operator=(const EpollManager&) = delete;

  void start();
  void stop();

  bool addMonitorFd(int fd, EpollCallback callback);
  bool delMonitorFd(int fd);
  bool notifyWriteEventReady(int fd);
  // The same request, made only when EPOLLOUT is already on for fd (the loop
  // will call the write callback again): counted in the fd's slot, no mutex,
  // no system call; true. False when it is off, or the fd has no slot: then
  // the loop, asleep, learns of it from nothing but a later
  // notifyWriteEventReady(), which the caller owes.
  bool notifyWriteEventIfArmed(int fd);
  // Whether EPOLLOUT is on for fd: the loop has writing of its own to do
  // there. A hint, read without the mutex; false for an fd without a slot.
  bool writeInterestArmed(int fd) {
    WriteSlot* slot = slotOf(fd);
    return slot != nullptr && slot->armed.load();
  }
  bool markWriteEventFinish(int fd);
  bool writeEventNow(int fd);

 private:
  // One monitored fd. The callbacks are shared so that the loop and
  // writeEventNow() can call them outside the mutex while other threads
  // change the table; writeRequests counts notifyWriteEventReady() calls so
  // that the loop does not clear EPOLLOUT that was asked for again while the
  // write callback ran (fds with a write slot count there instead).
  struct Registration {
    std::shared_ptr<const EpollCallback> callbacks;
    uint32_t events = 0;
    uint64_t writeRequests = 0;
  };
  // Lock-free write state of a small fd (see the top of this file). armed
  // mirrors EPOLLOUT in the fd's registration and changes under the mutex.
  struct WriteSlot {
    std::atomic<uint64_t> requests{0};
    std::atomic<bool> armed{false};
  };
  static constexpr int kWriteSlots = 1024;
  // Slots come in chunks, made when the first fd of their range is added:
  // a few connections cost a chunk or two, not the whole table.
  static constexpr int kSlotsPerChunk = 64;
  WriteSlot* slotOf(int fd) {
    if (fd < 0 || fd >= kWriteSlots) return nullptr;
    WriteSlot* chunk = writeSlots_[fd / kSlotsPerChunk].load(std::memory_order_acquire);
    return chunk != nullptr ? &chunk[fd % kSlotsPerChunk] : nullptr;
  }
  // The fd's write requests so far; with the mutex held.
  uint64_t writeRequestsOf(int fd, const Registration& registration);

  void mainThread();
  void dispatch(const epoll_event& event);
  // The fd's callbacks (null when none) and its write-request count. With
  // |create| an unknown fd gets an empty entry, as the loop's lookups do.
  std::shared_ptr<const EpollCallback> lookup(int fd, bool create, uint64_t* writeRequests);
  // EPOLLOUT on (|want|) or off for fd; |op| names the caller in log lines.
  // With |seenRequests|, EPOLLOUT stays on when more writes were asked for.
  bool changeWriteInterest(int fd, bool want, const char* op, const uint64_t* seenRequests);

  cpu_set_t cpuSet_;
  const char* threadName_;
  int eventCount_ = 0;
  android::base::unique_fd controlFd_;
  std::atomic<bool> running_{false};
  std::mutex mutex_;
  std::thread thread_;
  android::base::unique_fd epollFd_;
  int size_;
  int timeout_;
  std::vector<epoll_event> events_;
  std::map<int, Registration> callbacks_;  // guarded by mutex_
  // Chunks of slots by fd / kSlotsPerChunk; set under mutex_, never cleared
  // while the manager lives.
  std::atomic<WriteSlot*> writeSlots_[kWriteSlots / kSlotsPerChunk] = {};
  std::function<int()> initFunc_;
};
