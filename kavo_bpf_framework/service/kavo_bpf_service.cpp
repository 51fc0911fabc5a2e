// Entry, construction, start, supervision and stop of the service, the two
// producer threads up to their ring monitors, and the producer switches.

#include "service/kavo_bpf_service.h"

#include <android-base/properties.h>
#include <android/log.h>
#include <bpf/bpf.h>
#include <errno.h>
#include <sched.h>
#include <string.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>

#include "service/kavo_bpf_client_policy.h"
#include "service/kavo_bpf_error_log.h"
#include "service/kavo_bpf_event_manager.h"
#include "service/kavo_bpf_signals.h"
#include "service/kavo_bpf_task_manager.h"

namespace Kavo::Bpf {

namespace {

constexpr char kTag[] = "BpfService";
constexpr char kDisableProperty[] = "persist.sys.stability.bpfframework.disable";
constexpr char kSocketName[] = "/mnt/bpfframework/kavobpfdispatcher";
constexpr int kIpcBufferSize = 32768;
constexpr int kEpollSizeHint = 10;
constexpr int kEpollEventsPerWait = 32;
constexpr auto kSupervisionPeriod = std::chrono::seconds(60);
constexpr auto kReadyPollPeriod = std::chrono::seconds(1);

// Wakes the ready wait and the supervision sleep when the service stops, and
// those waiting for the catalogue walks.
std::mutex gStopWaitLock;
std::condition_variable gStopWait;

}  // namespace

std::atomic<KavoBpfService*> KavoBpfService::instance{nullptr};
std::mutex KavoBpfService::servicelock;

bool BpfServiceMain() {
  std::string disable = android::base::GetProperty(kDisableProperty, "0");
  if (disable == "1") {
    __android_log_print(ANDROID_LOG_INFO, kTag, "[BpfServiceMain] Starting KAVO Bpf Service disabled!");
    return false;
  }
  __android_log_print(ANDROID_LOG_INFO, kTag, "[BpfServiceMain] Starting KAVO Bpf Service");
  InitBpfServiceErrorLog();
  KavoBpfService::GetInstance()->start();
  return true;
}

KavoBpfService* KavoBpfService::GetInstance() {
  KavoBpfService* built = instance.load(std::memory_order_acquire);
  if (built != nullptr) return built;
  std::lock_guard<std::mutex> guard(servicelock);
  if (instance.load(std::memory_order_relaxed) == nullptr) {
    instance.store(new KavoBpfService(), std::memory_order_release);
  }
  return instance.load(std::memory_order_relaxed);
}

KavoBpfService::KavoBpfService() {
  // What the IPC framework loses goes into the error log from the start.
  InstallErrorLogAsIpcRecorder();
  IpcHandlerState handlers;
  handlers.compactReadBuffer = true;
  handlers.closeOnError = true;
  handlers.extraFlag = true;
  handlers.readHandler = [this](int fd, BufferState* b) { return onClientLibReadable(fd, b); };
  handlers.writeHandler = [this](int fd, BufferState* b) { return onClientLibWriteable(fd, b); };
  handlers.connectionHandler = [this](int fd) { return onClientLibConnection(fd); };
  handlers.closeHandler = [this](int fd) { return onClientLibClose(fd); };
  const ClientPolicy policy = ClientPolicy::FromProperties();
  if (policy.restricted()) {
    __android_log_print(ANDROID_LOG_INFO, kTag, "[KavoBpfService] Clients served: %s",
                        policy.describe().c_str());
    handlers.peerFilter = [policy](const PeerCredentials& peer) { return policy.allows(peer); };
  }
  ipcManager = std::make_unique<UnixIpcManager>(true, kIpcBufferSize, kSocketName, handlers,
                                                "BpfServiceTr", ServiceCpuSet(), kEpollSizeHint,
                                                kEpollEventsPerWait);
  packageManager = std::make_unique<IpcPackageManager>();
  packageHandler = std::make_unique<IpcPackageHandler>(std::map<unsigned, IpcPackageHandlerFunc>{
      {KAVO_IPC_REQUEST,
       [this](int fd, char* body, unsigned size) { return onEventProvideReqCallBack(fd, body, size); }},
      {KAVO_IPC_RESPONSE, nullptr},
      {KAVO_IPC_RESERVED, nullptr},
      {KAVO_IPC_RAW_EVENT, nullptr},
  });
  provisionalCommNames = {"main", "re-initialized>"};
  eventHandlers = {
      {KAVO_EVENT_TASK_INIT, [this](char* d, long long s) { return handleKavoTaskInitEvent(d, s); }},
      {KAVO_EVENT_RSS_STAT, [this](char* d, long long s) { return handleKmem_RssStat(d, s); }},
      {KAVO_EVENT_TASK_CREATE,
       [this](char* d, long long s) { return handleSched_SchedProcessFork(d, s); }},
      {KAVO_EVENT_TASK_EXIT,
       [this](char* d, long long s) { return handleSched_SchedProcessExit(d, s); }},
  };
  EventManager::GetInstance()->setPackageManagers(&packageManagers);
  stopEventFd.reset(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
  supervisionEventFd.reset(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
  // What signals 51 to 54 write, once the monitors install their handlers.
  RegisterTaskDump(kSignalDumpTasks, [] { KavoTaskManager::GetInstance()->DumpKavoTaskInfo(); });
  RegisterTaskDump(kSignalDumpNonKernelTasks,
                   [] { KavoTaskManager::GetInstance()->DumpKavoTaskIgnoreKernelTaskInfo(); });
  RegisterTaskDump(kSignalDumpTasksNormal, [] { KavoTaskManager::GetInstance()->DumpKavoTaskInfoNormal(); });
  RegisterTaskDump(kSignalDumpNonKernelTasksNormal,
                   [] { KavoTaskManager::GetInstance()->DumpKavoTaskIgnoreKernelTaskInfoNormal(); });
}

// Only reached if a host destroys the instance after Wait() returned.
KavoBpfService::~KavoBpfService() = default;

bool KavoBpfService::start() {
  std::lock_guard<std::mutex> guard(servicelock);
  running = true;
  producerThread = std::thread(&KavoBpfService::eventProduceThread, this);
  return true;
}

int KavoBpfService::eventProduceThread() {
  if (!NameAndPinThread("BpfServicePoll", ServiceCpuSet())) {
    __android_log_print(ANDROID_LOG_ERROR, kTag,
                        "[KavoBpfService][eventProduceThread] set thread affinity failed. %s",
                        strerror(errno));
  }
  // Clients may connect before any program is attached.
  ipcManager->start();

  // Wait for the platform to report the kernel side ready; a stop ends the wait.
  while (android::base::GetProperty(KAVO_BPF_READY, "0") == "0") {
    std::unique_lock<std::mutex> lock(gStopWaitLock);
    if (gStopWait.wait_for(lock, kReadyPollPeriod, [this] { return !isRunning(); })) return 0;
  }

  if (!InitBasetime()) {
    __android_log_print(ANDROID_LOG_ERROR, kTag,
                        "[KavoBpfService][eventProduceThread] Init base time failed! errMsg: %s",
                        strerror(errno));
  }
  if (initBpfMap() != 0) {
    __android_log_print(ANDROID_LOG_ERROR, kTag,
                        "[KavoBpfService][eventProduceThread] Init bpf map failed");
  }
  gplProducerThread = std::thread(&KavoBpfService::gpleventProduceThread, this);

  int failed = AttachAllKavoBpfProgram(BPF_PROG_DIR, PROG_EVENT_MAP);
  if (failed != 0) {
    __android_log_print(ANDROID_LOG_ERROR, kTag,
                        "[KavoBpfService][eventProduceThread] Attach all kavo bpf error: %d", failed);
  }
  markSetAttached();
  eventMonitor();
  return failed;
}

int KavoBpfService::gpleventProduceThread() {
  if (!NameAndPinThread("BpfServicePGpl", ServiceCpuSet())) {
    __android_log_print(ANDROID_LOG_ERROR, kTag,
                        "[KavoBpfService][gpleventProduceThread] set thread affinity failed. %s",
                        strerror(errno));
  }
  int failed = AttachAllKavoBpfProgram(BPF_PROG_DIR, PROG_GPL_EVENT_MAP);
  if (failed != 0) {
    __android_log_print(ANDROID_LOG_ERROR, kTag,
                        "[KavoBpfService][gpleventProduceThread] Attach all kavo bpf error: %d",
                        failed);
  }
  markSetAttached();
  gpleventMonitor();
  return failed;
}

void KavoBpfService::markSetAttached() {
  std::lock_guard<std::mutex> lock(gStopWaitLock);
  ++attachedSets;
  gStopWait.notify_all();
}

bool KavoBpfService::waitProgramsAttached(std::chrono::milliseconds timeout) {
  std::unique_lock<std::mutex> lock(gStopWaitLock);
  return gStopWait.wait_for(lock, timeout, [this] { return attachedSets >= kRingCount || !isRunning(); }) &&
         attachedSets >= kRingCount;
}

int KavoBpfService::Wait() {
  auto joinAll = [this] {
    ipcManager->stop();
    if (producerThread.joinable()) producerThread.join();
    if (gplProducerThread.joinable()) gplProducerThread.join();
    return 0;
  };
  if (!isRunning()) return joinAll();
  while (true) {
    // Only a slot that was never filled is started; an ended thread keeps it.
    if (!producerThread.joinable()) {
      producerThread = std::thread(&KavoBpfService::eventProduceThread, this);
    }
    if (!gplProducerThread.joinable()) {
      gplProducerThread = std::thread(&KavoBpfService::gpleventProduceThread, this);
    }
    {
      std::unique_lock<std::mutex> lock(gStopWaitLock);
      gStopWait.wait_for(lock, kSupervisionPeriod, [this] { return !isRunning(); });
    }
    if (!isRunning()) return joinAll();
    // Zombies of the initial scan leave once reaped; no record says when.
    requestZombieCheck();
  }
}

int KavoBpfService::stop() {
  {
    std::lock_guard<std::mutex> guard(servicelock);
    ipcManager->stop();
    running = false;
  }
  {
    std::lock_guard<std::mutex> lock(gStopWaitLock);
    gStopWait.notify_all();
  }
  // Wake the monitors out of their unlimited poll.
  if (stopEventFd.get() >= 0) {
    uint64_t one = 1;
    (void)!write(stopEventFd.get(), &one, sizeof(one));
  }
  return 0;
}

void KavoBpfService::notifyClientEventReady(const std::vector<int>& fds) {
  for (int fd : fds) ipcManager->notifyNeedWriteData(fd);
}

bool KavoBpfService::updateControlWord(int ring, uint64_t bit, bool enable) {
  if (ring < 0 || ring >= kRingCount) return false;
  std::lock_guard<std::mutex> guard(servicelock);
  if (ringStatusFds[ring].get() < 0) {
    ringStatusFds[ring].reset(OpenPinnedObject(RINGBUF_STATUS_PATH[ring]));
  }
  uint32_t key = KAVO_RING_STATUS_CONTROL;
  uint64_t word = 0;
  // A failed lookup leaves the word 0; the update then writes the bit alone.
  if (bpf_map_lookup_elem(ringStatusFds[ring].get(), &key, &word) != 0) word = 0;
  word = enable ? (word | bit) : (word & ~bit);
  return bpf_map_update_elem(ringStatusFds[ring].get(), &key, &word, 0) == 0;
}

bool KavoBpfService::enableCoreBpf(int ring, bool enable) {
  return updateControlWord(ring, KAVO_RING_CORE_ENABLED_BIT, enable);
}

bool KavoBpfService::enableNormalBpf(int ring, bool enable) {
  return updateControlWord(ring, KAVO_RING_NORMAL_ENABLED_BIT, enable);
}

}  // namespace Kavo::Bpf
