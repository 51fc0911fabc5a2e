// Ring monitors, the dispatch of raw records, and the ring status check.
//
// Each producer thread ends in monitorRing() for its ring: it opens the
// pinned ring buffer and status map, switches the core producers on, seeds
// state from /proc, switches the normal producers on, and polls until the
// service stops. Records are dispatched on the polling thread, straight from
// ring memory.
//
// Waking a monitor on stop: the poll waits without a time limit, so stop()
// writes stopEventFd, which each monitor adds to its poller's epoll set. The
// wake-up is edge-triggered, so each monitor sees one wake-up per write and a
// restarted monitor is not kept spinning by a descriptor that stays readable.
// libbpf takes an epoll event's data as the index of the ring to consume, so
// the stop descriptor carries index 0, this poller's only ring: a wake-up
// just consumes whatever that ring holds (usually nothing) and the poll
// returns, after which the loop sees the cleared running flag. The ring-0
// monitor watches supervisionEventFd the same way.
//
// Waking: the ring wakes a monitor only while it may be waiting
// (RingWakeup): from the first record a poll call hands over until the
// monitor is about to wait again, producers submit without a wake-up. Under
// load that is one wake-up per burst of records instead of one per record
// that found the monitor caught up, and each wake-up is an interrupt on the
// producer's CPU. Before it waits the monitor looks whether records came
// meanwhile, and then consumes them instead of waiting.
//
// Forwarding: the monitor forwards the records and derived events of a poll
// call in batches (EventManager::BatchScope), and hands over what is left
// before it waits, so the clients' writer is woken once per batch.
//
// Lost records: ring 0 carries the fork and exit records the task table
// follows. When its watch (kavo_bpf_ring_loss.h) reports that records were
// lost and the loss is over, the monitor consumes what the ring still holds
// and repairs the table from /proc. With nothing lost the poll still waits
// without a time limit.

#include <android/log.h>
#include <bpf/bpf.h>
#include <bpf/libbpf.h>
#include <errno.h>
#include <poll.h>
#include <sched.h>
#include <string.h>
#include <sys/epoll.h>
#include <sys/prctl.h>
#include <time.h>

#include <memory>

#include "service/kavo_bpf_event_manager.h"
#include "service/kavo_bpf_ring_loss.h"
#include "service/kavo_bpf_ring_wakeup.h"
#include "service/kavo_bpf_service.h"
#include "service/kavo_bpf_signals.h"
#include "service/kavo_bpf_state.h"

namespace Kavo::Bpf {

namespace {

constexpr char kTag[] = "BpfService";
constexpr const char* kMonitorNames[KavoBpfService::kRingCount] = {"eventMonitor",
                                                                   "gpleventMonitor"};
constexpr const char* kStopMessages[KavoBpfService::kRingCount] = {
    "[KavoBpfService][eventMonitor] Stop Event Produce Thread...",
    "[KavoBpfService][gpleventMonitor] Stop GPL Event Produce Thread...",
};
// The sixth failed poll in a row ends a monitor.
constexpr int kMaxPollErrorsBeforeExit = 5;
constexpr int kPollErrorPauseMs = 1000;
constexpr time_t kStatusCheckPeriodSeconds = 30;

// libbpf hands the size as size_t; records are far below 4 GiB. |ctx| is the
// ring's RingWakeup.
int OnRingSample(void* ctx, void* data, size_t size) {
  static_cast<RingWakeup*>(ctx)->onRecord();
  return KavoBpfService::handleBpfRingBuffEvent(nullptr, data, static_cast<unsigned int>(size));
}

struct RingBufferFree {
  void operator()(struct ring_buffer* rb) const { ring_buffer__free(rb); }
};
using RingBufferPtr = std::unique_ptr<struct ring_buffer, RingBufferFree>;

// A status-map value, or 0 when it cannot be read.
uint64_t ReadStatus(int fd, uint32_t key) {
  uint64_t value = 0;
  if (bpf_map_lookup_elem(fd, &key, &value) != 0) return 0;
  return value;
}

// Waits |ms| milliseconds, or less once the service was asked to stop.
void PauseUnlessStopped(int stopFd, int ms) {
  struct pollfd wake = {stopFd, POLLIN, 0};
  poll(&wake, stopFd >= 0 ? 1 : 0, ms);
}

// A monitor's pause after a burst is short: without a small timer slack of
// its own the default (50 us) would make it several times longer.
constexpr unsigned long kLingerSlackNs = 5000;

void Linger() {
  struct timespec pause = {0, static_cast<long>(RingWakeup::kLingerNs)};
  nanosleep(&pause, nullptr);
}

}  // namespace

int KavoBpfService::eventMonitor() { return monitorRing(kRingDefineset); }
int KavoBpfService::gpleventMonitor() { return monitorRing(kRingGplDefineset); }

int KavoBpfService::monitorRing(int ring) {
  const char* name = kMonitorNames[ring];
  InstallDumpSignalHandlers();
  prctl(PR_SET_TIMERSLACK, kLingerSlackNs);

  android::base::unique_fd ringFd(OpenPinnedObject(RINGBUF_MAP_PATH[ring]));
  if (ringFd.get() < 0) {
    __android_log_print(ANDROID_LOG_ERROR, kTag,
                        "[KavoBpfService][%s] KAVOBPF: get ringbuf failed: %s, map fd: %d", name,
                        strerror(errno), ringFd.get());
    errno = 0;
    return -1;
  }
  int ringMapFd = ringFd.get();
  {
    std::lock_guard<std::mutex> guard(servicelock);
    ringBufferFds[ring] = std::move(ringFd);
  }
  android::base::unique_fd statusFd(OpenPinnedObject(RINGBUF_STATUS_PATH[ring]));
  if (statusFd.get() < 0) {
    __android_log_print(
        ANDROID_LOG_ERROR, kTag,
        "[KavoBpfService][%s] KAVOBPF: get ringbuf status map failed: %s, map fd: %d", name,
        strerror(errno), statusFd.get());
    errno = 0;
    return -1;
  }
  {
    std::lock_guard<std::mutex> guard(servicelock);
    ringStatusFds[ring] = std::move(statusFd);
  }

  // Declared before the poller: it must outlive the poller's callbacks.
  RingWakeup wakeup;
  if (!wakeup.map(RINGBUF_CONSUMER_PATH[ring], ringMapFd)) {
    __android_log_print(ANDROID_LOG_WARN, kTag,
                        "[KavoBpfService][%s] KAVOBPF: no consumer word (%s), every record may wake the monitor",
                        name, strerror(errno));
  }
  RingBufferPtr poller(ring_buffer__new(ringMapFd, OnRingSample, &wakeup, nullptr));
  if (!poller) {
    __android_log_print(
        ANDROID_LOG_ERROR, kTag,
        "[KavoBpfService][%s] KAVOBPF: Set up ringbuf failed: %s, ringbufMap fd: %d", name,
        strerror(errno), ringMapFd);
    errno = 0;
    return -1;
  }
  struct epoll_event wake = {};
  wake.events = EPOLLIN | EPOLLET;
  wake.data.fd = 0;  // the ring index libbpf will consume on this wake-up
  if (epoll_ctl(ring_buffer__epoll_fd(poller.get()), EPOLL_CTL_ADD, stopEventFd.get(), &wake) !=
      0) {
    __android_log_print(
        ANDROID_LOG_WARN, kTag,
        "[KavoBpfService][%s] KAVOBPF: stop wake-up not watched, a stop waits for the next record: %s",
        name, strerror(errno));
  }

  // Only ring 0 feeds the task table, so only its losses are repaired. The
  // watch starts before the producers: records lost while the scan below
  // runs count.
  const bool repairsTaskTable = ring == kRingDefineset;
  RingLossWatch lossWatch;
  if (repairsTaskTable) {
    setUpLossWatch(ring, &lossWatch);
    if (epoll_ctl(ring_buffer__epoll_fd(poller.get()), EPOLL_CTL_ADD, supervisionEventFd.get(),
                  &wake) != 0) {
      __android_log_print(ANDROID_LOG_WARN, kTag,
                          "[KavoBpfService][%s] KAVOBPF: supervision wake-up not watched: %s", name,
                          strerror(errno));
    }
  }

  EventManager::BatchScope forwarding;
  // Core producers first, so that no process born during the seeding is
  // missed; records they write meanwhile wait in the ring.
  enableCoreBpf(ring, true);
  if (ring == kRingDefineset) {
    initTaskInfo();
  } else {
    initDmabufBpfProg();
  }
  enableNormalBpf(ring, true);

  int consecutiveErrors = 0;
  int handled = 0;  // records the last poll call handed over
  while (true) {
    // Nothing waits in a batch while the monitor waits.
    forwarding.flush();
    if (!isRunning()) {
      __android_log_print(ANDROID_LOG_WARN, kTag, "%s", kStopMessages[ring]);
      return 0;
    }
    int result = 0;
    if (handled > 0) {
      // After a burst, whoever makes the next records (a forking process,
      // the client just sent to) gets the CPU first when it wants it; a
      // monitor that caught up pauses, still "awake", so that what they
      // make meanwhile comes without a wake-up.
      wakeup.renew();
      const bool paused = wakeup.lingerAfter(handled);
      if (paused) {
        Linger();
      } else {
        sched_yield();
      }
      // Still awake: what is there is taken without saying "waiting" first,
      // which would let the next record wake the monitor.
      if (paused || wakeup.recordsWaiting()) {
        result = ring_buffer__consume(poller.get());
        if (paused) wakeup.lingered(result);
      }
    }
    // Records that came without a wake-up are taken at once; the poll would
    // wait for the next wake-up.
    if (result == 0) {
      result = wakeup.beforeWait() ? ring_buffer__consume(poller.get())
                                   : ring_buffer__poll(poller.get(), lossWatch.pollTimeoutMs());
    }
    handled = result;
    if (result >= 0) {
      KavoBpfDataState::GetInstance()->RecordEvent(KavoBpfDataState::kPollCounter, 1);
      checkBpfRingBuffStatus(ring, false);
      consecutiveErrors = 0;
      uint64_t lost;
      if (lossWatch.afterPoll(result, &lost)) {
        // Every record the kernel placed before the repair reads /proc is
        // handled first, so that the repair and the records agree.
        ring_buffer__consume(poller.get());
        resyncTaskTable(lost);
      }
      if (repairsTaskTable && zombieCheckRequested.load(std::memory_order_relaxed) &&
          zombieCheckRequested.exchange(false)) {
        clearScanZombies();
      }
      continue;
    }
    int pollErrno = errno;
    checkBpfRingBuffStatus(ring, true);
    if (pollErrno == EINTR) continue;
    __android_log_print(ANDROID_LOG_ERROR, kTag,
                        "[KavoBpfService][%s] KAVOBPF: ret %d .Error ring buf poll. %s", name,
                        result, strerror(pollErrno));
    errno = 0;
    PauseUnlessStopped(stopEventFd.get(), kPollErrorPauseMs);
    if (consecutiveErrors >= kMaxPollErrorsBeforeExit) break;
    ++consecutiveErrors;
  }
  return -1;
}

int KavoBpfService::handleBpfRingBuffEvent(void*, void* data, unsigned int size) {
  if (data == nullptr || size < sizeof(uint32_t)) {
    __android_log_print(ANDROID_LOG_ERROR, kTag, "[KavoBpfService] handleEvent ERROR!!! Size: %u",
                        size);
    return -1;
  }
  char* record = static_cast<char*>(data);
  uint32_t type;
  memcpy(&type, record, sizeof(type));
  // Counted before the range check; the state record ignores what it does not know.
  KavoBpfDataState::GetInstance()->RecordEvent(static_cast<int>(type), 1);
  if (type > KAVO_EVENT_RAW_MAX) {
    __android_log_print(ANDROID_LOG_ERROR, kTag, "[KavoBpfService] handleEvent ERROR!!! Type: %u",
                        type);
    return -1;
  }
  EventManager::GetInstance()->AppendEvent(record, size);

  KavoBpfService* service = GetInstance();
  auto handler = service->eventHandlers.find(static_cast<int>(type));
  if (handler == service->eventHandlers.end()) return 0;
  return handler->second(record, static_cast<long long>(size));
}

int KavoBpfService::handleBpfPassthrough(char* data, long long size) {
  EventManager::GetInstance()->AppendEvent(data, static_cast<unsigned>(size));
  return 0;
}

bool KavoBpfService::checkBpfRingBuffStatus(int ring, bool force) {
  if (ring < 0 || ring >= kRingCount) return false;
  time_t now = time(nullptr);
  if (!force &&
      now - lastStatusCheckTime[ring].load(std::memory_order_relaxed) < kStatusCheckPeriodSeconds) {
    return true;
  }
  lastStatusCheckTime[ring].store(now, std::memory_order_relaxed);
  int statusFd;
  {
    std::lock_guard<std::mutex> guard(servicelock);
    statusFd = ringStatusFds[ring].get();
  }
  uint64_t avail = ReadStatus(statusFd, KAVO_RING_STATUS_AVAIL_DATA);
  uint64_t control = ReadStatus(statusFd, KAVO_RING_STATUS_CONTROL);
  // A monitor without a lost-record counter may have taken the bit already
  // (takeRingFullBit); it is still this check's to report.
  bool bitSet = (control & KAVO_RING_FULL_BIT) != 0;
  bool taken = fullBitTaken[ring].exchange(false);
  if (!bitSet && !taken) return true;
  if (bitSet) ++fullBitReports[ring];

  __android_log_print(ANDROID_LOG_WARN, kTag,
                      "[KavoBpfService][checkBpfRingBuffStatus] bpf ringbuff full!");
  __android_log_print(
      ANDROID_LOG_WARN, kTag,
      "[KavoBpfService][checkBpfRingBuffStatus] avail data: %llu, ringbuf size: %llu, cons pos: %llu, prod pos: %llu",
      static_cast<unsigned long long>(avail),
      static_cast<unsigned long long>(ReadStatus(statusFd, KAVO_RING_STATUS_RING_SIZE)),
      static_cast<unsigned long long>(ReadStatus(statusFd, KAVO_RING_STATUS_CONS_POS)),
      static_cast<unsigned long long>(ReadStatus(statusFd, KAVO_RING_STATUS_PROD_POS)));
  // Not under servicelock: a producer bit switched in this instant may be lost.
  uint32_t key = KAVO_RING_STATUS_CONTROL;
  uint64_t cleared = control & ~KAVO_RING_FULL_BIT;
  bpf_map_update_elem(statusFd, &key, &cleared, 0);
  return false;
}

}  // namespace Kavo::Bpf
