// The epoll loop: registration of fds, the write-wanted state of each fd,
// and the loop thread that calls the callbacks.

#include "utils/kavo_bpf_epoll_manager.h"

#include <android/log.h>
#include <errno.h>
#include <signal.h>
#include <string.h>
#include <sys/eventfd.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <chrono>

#include "utils/kavo_bpf_ipc_buffer.h"

namespace {

constexpr char kDefaultName[] = "BpfUtils";
constexpr uint32_t kHangUpEvents = EPOLLRDHUP | EPOLLHUP;
// A broken epoll instance makes epoll_wait fail at once; this keeps such a
// loop from spinning while it waits for stop().
constexpr auto kWaitFailurePause = std::chrono::milliseconds(100);

}  // namespace

EpollManager::EpollManager(int size, int maxEvents, std::function<int()> initFunc,
                           const char* threadName, cpu_set_t cpus, int timeout)
    : cpuSet_(cpus),
      threadName_(threadName != nullptr ? threadName : kDefaultName) {
  if (CPU_COUNT(&cpuSet_) == 0) {
    __android_log_print(ANDROID_LOG_ERROR, threadName_, "[EpollManager] cpu affinity invalid!");
    CPU_SET(0, &cpuSet_);
  }
  initFunc_ = std::move(initFunc);
  size_ = size;
  timeout_ = timeout;

  epollFd_.reset(epoll_create(size_));
  if (epollFd_.get() == -1) {
    __android_log_print(ANDROID_LOG_ERROR, threadName_,
                        "[EpollManager] Create epoll failed: %d, message: %s", errno,
                        strerror(errno));
  }
  // epoll_wait refuses a zero-length array.
  events_.resize(maxEvents > 0 ? static_cast<size_t>(maxEvents) : 1);

  controlFd_.reset(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC));
  if (controlFd_.get() == -1) {
    __android_log_print(ANDROID_LOG_ERROR, threadName_,
                        "[EpollManager] Allocate control fd failed: %d, message: %s", errno,
                        strerror(errno));
  }
  if (!EpollCtlAdd(epollFd_.get(), controlFd_.get(), EPOLLIN)) {
    __android_log_print(ANDROID_LOG_ERROR, threadName_,
                        "[EpollManager] Setup control fd failed: %d, message: %s", errno,
                        strerror(errno));
  }
}

EpollManager::~EpollManager() {
  stop();
  if (thread_.joinable()) thread_.join();
  epollFd_.reset();
  controlFd_.reset();
  callbacks_.clear();
  initFunc_ = nullptr;
  for (std::atomic<WriteSlot*>& chunk : writeSlots_) delete[] chunk.load();
}

void EpollManager::start() {
  __android_log_print(ANDROID_LOG_INFO, threadName_, "[EpollManager] main thread starting...");
  std::lock_guard<std::mutex> guard(mutex_);
  if (thread_.joinable()) {
    __android_log_print(ANDROID_LOG_ERROR, threadName_, "[EpollManager] main thread already started");
    return;
  }
  running_ = true;
  thread_ = std::thread(&EpollManager::mainThread, this);
}

void EpollManager::stop() {
  std::lock_guard<std::mutex> guard(mutex_);
  running_ = false;
  if (controlFd_.get() != -1) {
    uint64_t one = 1;
    (void)!write(controlFd_.get(), &one, sizeof(one));
  }
}

bool EpollManager::addMonitorFd(int fd, EpollCallback callback) {
  uint32_t mask = 0;
  if (callback.closeCallback) mask |= kHangUpEvents;
  if (callback.readCallback) mask |= EPOLLIN;
  // EPOLLOUT only ever comes from notifyWriteEventReady().
  callback.events = mask;
  auto shared = std::make_shared<const EpollCallback>(std::move(callback));

  std::lock_guard<std::mutex> guard(mutex_);
  if (!EpollCtlAdd(epollFd_.get(), fd, mask)) {
    __android_log_print(ANDROID_LOG_ERROR, threadName_,
                        "[EpollManager] Epoll add monitor fd failed: %d, message: %s", errno,
                        strerror(errno));
    return false;
  }
  Registration& registration = callbacks_[fd];
  registration.callbacks = std::move(shared);
  registration.events = mask;
  if (fd >= 0 && fd < kWriteSlots && slotOf(fd) == nullptr) {
    writeSlots_[fd / kSlotsPerChunk].store(new WriteSlot[kSlotsPerChunk], std::memory_order_release);
  }
  if (WriteSlot* slot = slotOf(fd)) slot->armed.store(false);
  return true;
}

bool EpollManager::delMonitorFd(int fd) {
  std::lock_guard<std::mutex> guard(mutex_);
  if (epoll_ctl(epollFd_.get(), EPOLL_CTL_DEL, fd, nullptr) == -1) {
    __android_log_print(ANDROID_LOG_ERROR, threadName_,
                        "[EpollManager] Epoll del fd from epoll failed: %d, message: %s", errno,
                        strerror(errno));
    return false;
  }
  callbacks_.erase(fd);
  if (WriteSlot* slot = slotOf(fd)) slot->armed.store(false);
  return true;
}

bool EpollManager::notifyWriteEventReady(int fd) {
  // The common case, EPOLLOUT already on: count the request and go.
  if (notifyWriteEventIfArmed(fd)) return true;
  return changeWriteInterest(fd, true, "notifyWriteEventReady", nullptr);
}

bool EpollManager::notifyWriteEventIfArmed(int fd) {
  WriteSlot* slot = slotOf(fd);
  if (slot == nullptr) return false;
  // Counted first, then "armed" read: a loop clearing EPOLLOUT meanwhile
  // sees the request and keeps it on (see the header).
  slot->requests.fetch_add(1);
  return slot->armed.load();
}

uint64_t EpollManager::writeRequestsOf(int fd, const Registration& registration) {
  const WriteSlot* slot = slotOf(fd);
  return slot != nullptr ? slot->requests.load() : registration.writeRequests;
}

bool EpollManager::markWriteEventFinish(int fd) {
  return changeWriteInterest(fd, false, "markWriteEventFinish", nullptr);
}

bool EpollManager::changeWriteInterest(int fd, bool want, const char* op,
                                       const uint64_t* seenRequests) {
  std::lock_guard<std::mutex> guard(mutex_);
  auto it = callbacks_.find(fd);
  if (it == callbacks_.end()) {
    __android_log_print(ANDROID_LOG_ERROR, threadName_,
                        "[EpollManager][%s] the socket fd does not exist", op);
    return false;
  }
  Registration& registration = it->second;
  WriteSlot* slot = slotOf(fd);
  if (want) {
    // (A slot's request was counted before the mutex was taken.)
    if (slot == nullptr) ++registration.writeRequests;
    // Level-triggered: asking again for EPOLLOUT that is set changes nothing,
    // and producers ask once per queued event.
    if ((registration.events & EPOLLOUT) != 0) return true;
  } else {
    // Someone queued data after the write callback looked: keep EPOLLOUT so
    // the callback runs again instead of leaving that data waiting.
    if (seenRequests != nullptr && *seenRequests != writeRequestsOf(fd, registration)) return true;
    if (slot != nullptr) {
      // Askers that still see "armed" skip the mutex: take it away first,
      // then look once more for a request that came in meanwhile.
      slot->armed.store(false);
      if (seenRequests != nullptr && *seenRequests != slot->requests.load()) {
        slot->armed.store((registration.events & EPOLLOUT) != 0);
        return true;
      }
    }
  }
  const uint32_t mask = want ? registration.events | EPOLLOUT : registration.events & ~EPOLLOUT;
  if (!EpollCtlMod(epollFd_.get(), fd, mask)) {
    __android_log_print(ANDROID_LOG_ERROR, threadName_,
                        "[EpollManager][%s] Epoll mod monitor failed, fd: %d, message: %s", op, fd,
                        strerror(errno));
    // Still as it was: armed again when EPOLLOUT stayed on.
    if (slot != nullptr) slot->armed.store((registration.events & EPOLLOUT) != 0);
    return false;
  }
  registration.events = mask;
  if (slot != nullptr) slot->armed.store(want);
  return true;
}

std::shared_ptr<const EpollCallback> EpollManager::lookup(int fd, bool create,
                                                          uint64_t* writeRequests) {
  std::lock_guard<std::mutex> guard(mutex_);
  auto it = callbacks_.find(fd);
  if (it == callbacks_.end()) {
    if (!create) return nullptr;
    it = callbacks_.emplace(fd, Registration{}).first;
  }
  if (writeRequests != nullptr) *writeRequests = writeRequestsOf(fd, it->second);
  return it->second.callbacks;
}

bool EpollManager::writeEventNow(int fd) {
  std::shared_ptr<const EpollCallback> callbacks;
  {
    std::lock_guard<std::mutex> guard(mutex_);
    auto it = callbacks_.find(fd);
    if (it == callbacks_.end()) {
      // The other operation's name, as callers have always matched on it.
      __android_log_print(ANDROID_LOG_ERROR, threadName_,
                          "[EpollManager][notifyWriteEventReady] the socket fd does not exist");
      return false;
    }
    callbacks = it->second.callbacks;
  }
  if (callbacks == nullptr || !callbacks->writeCallback) return false;

  epoll_event event = {};
  event.data.fd = fd;
  while (true) {
    int result = callbacks->writeCallback(event);
    if (result == IPC_CB_FAILED) return false;
    if (result == IPC_CB_NOTHING_MORE) return true;
  }
}

void EpollManager::mainThread() {
  // A send to a closed socket must fail with EPIPE, not end the host.
  signal(SIGPIPE, SIG_IGN);
  signal(SIGQUIT, SIG_IGN);
  prctl(PR_SET_NAME, threadName_, 0, 0, 0);
  if (sched_setaffinity(gettid(), sizeof(cpuSet_), &cpuSet_) != 0) {
    __android_log_print(ANDROID_LOG_ERROR, threadName_,
                        "[EpollManager][mainThread] init epoll manager thread affinity failed! %s",
                        strerror(errno));
  }
  if (initFunc_ && initFunc_() == 0) {
    __android_log_print(ANDROID_LOG_ERROR, threadName_, "[EpollManager][mainThread] initFunc failed");
  }
  if (!running_) return;

  while (running_) {
    int count = epoll_wait(epollFd_.get(), events_.data(), static_cast<int>(events_.size()),
                           timeout_);
    eventCount_ = count;
    if (count < 1) {
      if (count < 0 && errno != EINTR) {
        __android_log_print(ANDROID_LOG_ERROR, threadName_,
                            "[EpollManager][mainThread] epoll wait failed: %d, message: %s", errno,
                            strerror(errno));
        std::this_thread::sleep_for(kWaitFailurePause);
      }
      continue;
    }
    for (int i = 0; i < count; ++i) {
      const epoll_event& event = events_[static_cast<size_t>(i)];
      if (event.data.fd == controlFd_.get()) {
        uint64_t value;
        (void)!read(controlFd_.get(), &value, sizeof(value));
        return;
      }
      dispatch(event);
    }
  }
}

void EpollManager::dispatch(const epoll_event& event) {
  const int fd = event.data.fd;
  uint64_t writeRequests = 0;
  // A copy of the shared pointer: no allocation, and the callbacks stay
  // alive if a callback removes its own fd.
  std::shared_ptr<const EpollCallback> callbacks = lookup(fd, true, &writeRequests);
  if (callbacks == nullptr) return;

  if ((event.events & kHangUpEvents) != 0 && callbacks->closeCallback) {
    callbacks->closeCallback(event);
    return;
  }
  if ((event.events & EPOLLIN) != 0 && callbacks->readCallback) {
    int result = callbacks->readCallback(event);
    if (result == IPC_CB_NOTHING_MORE || result == IPC_CB_CLOSED || result == IPC_CB_FAILED ||
        result == IPC_CB_NEW_CONNECTION) {
      return;
    }
  }
  if ((event.events & EPOLLOUT) != 0 && callbacks->writeCallback) {
    int result = callbacks->writeCallback(event);
    if (result == IPC_CB_FAILED || result == IPC_CB_NOTHING_MORE) {
      if (!changeWriteInterest(fd, false, "markWriteEventFinish", &writeRequests)) {
        __android_log_print(ANDROID_LOG_ERROR, threadName_,
                            "[EpollManager][mainThread] mark write event finish failed!");
      }
    }
  }
}
