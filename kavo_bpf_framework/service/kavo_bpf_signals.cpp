// Diagnostic signals: handlers that queue a request, and the dump thread that
// serves the requests.

#include "service/kavo_bpf_signals.h"

#include <android-base/unique_fd.h>
#include <android/log.h>
#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <sched.h>
#include <signal.h>
#include <string.h>
#include <unistd.h>

#include <atomic>
#include <map>
#include <mutex>
#include <thread>

#include "service/kavo_bpf_state.h"
#include "utils/kavo_bpf_helper.h"

namespace Kavo::Bpf {

namespace {

constexpr char kTag[] = "BpfUtils";
constexpr char kDumpThreadName[] = "BpfServiceDump";

// Lives as long as the process: the dump thread is never joined.
struct DumpChannel {
  android::base::unique_fd readEnd;
  android::base::unique_fd writeEnd;
  std::mutex dumpsLock;
  std::map<int, std::function<void()>> taskDumps;
};

DumpChannel* Channel() {
  static DumpChannel* channel = new DumpChannel();
  return channel;
}

// The write end as the handlers see it; -1 until the thread runs.
std::atomic<int> gRequestFd{-1};
std::atomic<uint64_t> gCompleted{0};
std::once_flag gStartOnce;

void BlockDumpSignals() {
  sigset_t dumps;
  sigemptyset(&dumps);
  for (int sig = kSignalDumpState; sig <= kSignalDumpNonKernelTasksNormal; ++sig)
    sigaddset(&dumps, sig);
  pthread_sigmask(SIG_BLOCK, &dumps, nullptr);
}

void Serve(int signalNumber) {
  if (signalNumber == kSignalDumpState) {
    KavoBpfDataState::GetInstance()->DumpState();
    return;
  }
  std::function<void()> dump;
  {
    std::lock_guard<std::mutex> guard(Channel()->dumpsLock);
    auto it = Channel()->taskDumps.find(signalNumber);
    if (it != Channel()->taskDumps.end()) dump = it->second;
  }
  if (dump) dump();
}

void DumpThread(int readFd) {
  if (!NameAndPinThread(kDumpThreadName, ServiceCpuSet())) {
    __android_log_print(ANDROID_LOG_ERROR, kTag, "[DumpThread] set thread affinity failed. %s",
                        strerror(errno));
  }
  while (true) {
    unsigned char request;
    ssize_t n = read(readFd, &request, 1);
    if (n < 0 && errno == EINTR) continue;
    if (n != 1) {
      __android_log_print(ANDROID_LOG_ERROR, kTag, "[DumpThread] request pipe failed: %s",
                          n == 0 ? "closed" : strerror(errno));
      return;
    }
    Serve(request);
    gCompleted.fetch_add(1, std::memory_order_release);
  }
}

void StartDumpThread() {
  int fds[2];
  if (pipe2(fds, O_CLOEXEC) != 0) {
    __android_log_print(ANDROID_LOG_ERROR, kTag, "[InstallDumpSignalHandlers] pipe failed: %s",
                        strerror(errno));
    return;
  }
  DumpChannel* channel = Channel();
  channel->readEnd.reset(fds[0]);
  channel->writeEnd.reset(fds[1]);
  // A handler must never block; a full pipe only loses a repeated request.
  fcntl(fds[1], F_SETFL, fcntl(fds[1], F_GETFL) | O_NONBLOCK);
  // The thread inherits the mask: the handlers run on other threads, never
  // in the middle of a dump.
  sigset_t saved;
  pthread_sigmask(SIG_SETMASK, nullptr, &saved);
  BlockDumpSignals();
  std::thread(DumpThread, fds[0]).detach();
  pthread_sigmask(SIG_SETMASK, &saved, nullptr);
  gRequestFd.store(fds[1], std::memory_order_release);
}

}  // namespace

void InstallDumpSignalHandlers() {
  std::call_once(gStartOnce, StartDumpThread);
  struct Entry {
    int signalNumber;
    void (*handler)(int);
  };
  for (const Entry& entry :
       {Entry{kSignalDumpState, DumpState}, Entry{kSignalDumpTasks, HandleDumpSignal},
        Entry{kSignalDumpNonKernelTasks, HandleNonKernelDumpSignal},
        Entry{kSignalDumpTasksNormal, HandleDumpSignalNormal},
        Entry{kSignalDumpNonKernelTasksNormal, HandleNonKernelDumpSignalNormal}}) {
    struct sigaction action = {};
    action.sa_handler = entry.handler;
    action.sa_flags = SA_RESTART;
    sigemptyset(&action.sa_mask);
    if (sigaction(entry.signalNumber, &action, nullptr) != 0) {
      __android_log_print(ANDROID_LOG_ERROR, kTag, "[InstallDumpSignalHandlers] signal %d: %s",
                          entry.signalNumber, strerror(errno));
    }
  }
}

bool RegisterTaskDump(int signalNumber, std::function<void()> dump) {
  if (signalNumber < kSignalDumpTasks || signalNumber > kSignalDumpNonKernelTasksNormal)
    return false;
  std::lock_guard<std::mutex> guard(Channel()->dumpsLock);
  Channel()->taskDumps[signalNumber] = std::move(dump);
  return true;
}

void RequestDump(int signalNumber) {
  int savedErrno = errno;
  int fd = gRequestFd.load(std::memory_order_acquire);
  if (fd >= 0) {
    unsigned char request = static_cast<unsigned char>(signalNumber);
    (void)!write(fd, &request, 1);
  }
  errno = savedErrno;
}

uint64_t CompletedDumps() { return gCompleted.load(std::memory_order_acquire); }

void HandleDumpSignal(int signalNumber) { RequestDump(signalNumber); }
void HandleNonKernelDumpSignal(int signalNumber) { RequestDump(signalNumber); }
void HandleDumpSignalNormal(int signalNumber) { RequestDump(signalNumber); }
void HandleNonKernelDumpSignalNormal(int signalNumber) { RequestDump(signalNumber); }

}  // namespace Kavo::Bpf
