#pragma once

// KavoBpfService: the one service object of the library. It owns the raw-event
// handler table, the two producer threads (each ends in the monitor of one
// BPF ring buffer), the ring and status-map descriptors, the maps the fd and
// dma-buf seeding keep, and the client IPC endpoint with one outgoing queue
// per client.
//
// Its implementation is split by concern:
//   kavo_bpf_service.cpp               entry, lifecycle, producer threads, switches
//   kavo_bpf_service_constants.cpp     program catalogue and path constants
//   kavo_bpf_service_monitor.cpp       ring monitors, dispatch, status check
//   kavo_bpf_service_proc.cpp          /proc readers
//   kavo_bpf_service_task_events.cpp   task init/fork/exit handlers
//   kavo_bpf_service_task_scan.cpp     initial scan of /proc
//   kavo_bpf_service_ring_loss.cpp     learning that ring 0 lost records
//   kavo_bpf_service_resync.cpp        task-table repair from /proc after a
//                                      loss, and of zombies left by the scan
//   kavo_bpf_service_rss_events.cpp    RSS handler
//   kavo_bpf_service_maps.cpp          fd and dma-buf map seeding
//   kavo_bpf_service_client.cpp        client callbacks and requests
//
// Threads: "BpfServicePoll" (ring 0), "BpfServicePGpl" (ring 1) and the IPC
// loop "BpfServiceTr", all on CPUs 0-2. servicelock guards the creation of
// the instance (published atomically, so that finding it takes no lock), the
// running flag in start()/stop() and every read-modify-write of a ring's
// control word. The task table changes only on "BpfServicePoll" (records of
// ring 0, the initial scan, and the repairs after a loss or at supervision).

#include <android-base/unique_fd.h>
#include <stdint.h>

#include <array>
#include <atomic>
#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "bpf/kavo_bpf_records.h"
#include "service/kavo_bpf_task_manager.h"
#include "utils/kavo_bpf_export.h"
#include "utils/kavo_bpf_helper.h"
#include "utils/kavo_bpf_ipc_helper.h"

namespace Kavo::Bpf {

class RingLossWatch;
struct ProcTask;

// Starts the service unless "persist.sys.stability.bpfframework.disable" is
// "1". True when it was started.
KAVO_EXPORT bool BpfServiceMain();

// Name and parent of a process as read from /proc/<pid>/status.
struct UpdateProcessExdata {
  int32_t pid;
  int32_t ppid;
  char comm[KAVO_COMM_LEN];
};

// Raw-event handler: (record, record size) -> result.
using KavoRawEventHandler = std::function<int(char*, long long)>;

class KAVO_EXPORT KavoBpfService {
 public:
  static constexpr int kRingCount = 2;
  static constexpr int kRingDefineset = 0;
  static constexpr int kRingGplDefineset = 1;

  // The singleton, created on first use under servicelock. Never null.
  static KavoBpfService* GetInstance();

  bool start();
  int Wait();
  int stop();
  bool isRunning() const { return running.load(std::memory_order_relaxed); }
  // Waits until both producer threads have walked their catalogue (whatever
  // the number of failures); false on timeout or when the service stopped.
  bool waitProgramsAttached(std::chrono::milliseconds timeout);

  // Switch a ring's core (bit 1) or normal (bit 2) producers on or off.
  bool enableCoreBpf(int ring, bool enable);
  bool enableNormalBpf(int ring, bool enable);

  // ---- Ring monitors and dispatch ----
  int eventMonitor();
  int gpleventMonitor();
  static int handleBpfRingBuffEvent(void* ctx, void* data, unsigned int size);
  int handleBpfPassthrough(char* data, long long size);
  bool checkBpfRingBuffStatus(int ring, bool force);

  // ---- Kernel event handlers ----
  int handleKavoTaskInitEvent(char* data, long long size);
  int handleKmem_RssStat(char* data, long long size);
  int handleSched_SchedProcessFork(char* data, long long size);
  int handleSched_SchedProcessExit(char* data, long long size);
  void initTaskInfo();

  // ---- Task-table repair ----
  // Brings the table back to what /proc shows after ring 0 lost records:
  // gone processes leave (50002), missing ones come in as the initial scan
  // brings them (a task-init record, then 50001), and a pid whose process
  // started at another time than its task is both. Logs what it changed.
  // Runs on the ring-0 monitor thread.
  void resyncTaskTable(uint64_t lostRecords);
  // Removes the tasks of processes that were zombies at the initial scan
  // once they have been reaped (or their pid taken by a new process). The
  // supervision step asks the ring-0 monitor to run it.
  void clearScanZombies();

  // ---- /proc readers ----
  int getProcessInfo(int pid, UpdateProcessExdata* info);
  long GetFdSize(const std::string& path);
  uint64_t GetFdInode(const std::string& path);

  // ---- fd and dma-buf maps ----
  int initBpfMap();
  void initFdBpfProg();
  void initDmabufBpfProg();

  // ---- Clients ----
  int onClientLibReadable(int fd, BufferState* readBuffer);
  int onClientLibWriteable(int fd, BufferState* writeBuffer);
  int onClientLibConnection(int fd);
  int onClientLibClose(int fd);
  int onEventProvideReqCallBack(int fd, char* data, unsigned int size);
  void notifyClientEventReady(const std::vector<int>& fds);
  UnixIpcManager* getIpcManager() { return ipcManager.get(); }
  // Queued packages per connected client descriptor, for diagnostics.
  std::map<int, size_t> getClientQueueLengths();

  // ---- Catalogue and constants ----
  static const KavoBpfProgTable PROG_EVENT_MAP;
  static const KavoBpfProgTable PROG_GPL_EVENT_MAP;
  static const std::string PROC_FS_PATH;
  static const std::string SUBTASK_PATH_TEMPLATE;
  static const std::string TASK_STATUS_TEMPLATE;
  static const std::string TASK_STATUS_PID_TEMPLATE;
  static const std::string TASK_STAT_TEMPLATE;
  static const std::string TASK_MAPS_TEMPLATE;
  static const std::string TASK_FD_TEMPLATE;
  static const std::string TASK_FDINFO_TEMPLATE;
  static const std::string TASK_COMM_PREFIX;
  static const std::string TASK_PPID_PREFIX;
  static const std::string TASK_PROC_UID_PREFIX;
  static const std::string TASK_RSS_ANON_PREFIX;
  static const std::string TASK_RSS_FILE_PREFIX;
  static const std::string TASK_RSS_SHMEM_PREFIX;
  static const std::string TASK_VM_SWAP_PREFIX;
  static const std::string TASK_DMABUF_PREFIX;
  static const std::string TASK_DMABUF_SIZE_PREFIX;
  static const std::string TASK_DMABUF_INO_PREFIX;
  static const std::string BPF_FS_PATH;
  static const std::string KAVO_BPF_READY;
  static const std::string DMABUF_BPF_PROCESS_INODE_MAP_PATH;
  static const std::string DMABUF_BPF_PROCESS_MMAP_INFOS_PATH;
  // Directory the producer threads attach from (note the trailing slash).
  static const std::string BPF_PROG_DIR;
  // Pinned ring buffer and status map of each ring.
  static const std::string RINGBUF_MAP_PATH[kRingCount];
  static const std::string RINGBUF_STATUS_PATH[kRingCount];
  // Each set's count of records it could not reserve (mmapable), and its
  // per-CPU record counters.
  static const std::string RINGBUF_LOST_PATH[kRingCount];
  static const std::string RING_STATS_PATH[kRingCount];
  // Each set's word through which the ring's consumer says it is awake
  // (mmapable; see kavo_bpf_ring_wakeup.h).
  static const std::string RINGBUF_CONSUMER_PATH[kRingCount];
  // Names of the raw event types 0..7, as the state record and clients use them.
  static const char* const EVENT_TYPE_NAMES[KAVO_EVENT_RAW_MAX + 1];

  static std::mutex servicelock;

 private:
  KavoBpfService();
  ~KavoBpfService();
  KavoBpfService(const KavoBpfService&) = delete;
  KavoBpfService& operator=(const KavoBpfService&) = delete;

  int eventProduceThread();
  int gpleventProduceThread();
  void markSetAttached();
  // Shared body of the two monitors.
  int monitorRing(int ring);
  // Sets or clears |bit| of a ring's control word under servicelock.
  bool updateControlWord(int ring, uint64_t bit, bool enable);
  // Chooses how the monitor of |ring| learns of lost records: the set's
  // mapped counter, or else the full bit. Before the ring's producers start.
  void setUpLossWatch(int ring, RingLossWatch* watch);
  // Clears the full bit if it is set (true), leaving it for the next status
  // check to report.
  bool takeRingFullBit(int ring);
  // Dispatches a process read from /proc as the initial scan does and keeps
  // its start time in its task.
  void dispatchProcTask(const ProcTask& process);
  // Drops the tasks of |gone| (50002 each, with the task's name), then brings
  // in |created| as the scan would (50001 each). Counts the task-init records
  // like the scan. With |walkedNs| (the boot time after /proc was read), an
  // exit record older than it for a pid of |gone| is taken as reported.
  // Returns the size of the table afterwards.
  uint32_t applyTaskRepair(const std::vector<KavoTask>& gone, const std::vector<ProcTask>& created,
                           uint64_t walkedNs);
  // The supervision step's request to the ring-0 monitor.
  void requestZombieCheck();
  void publishProcessCreated(const KavoTask& task);
  void publishProcessExited(int32_t pid, const char* comm);

  // 1. Raw-event handlers by type.
  std::map<int, KavoRawEventHandler> eventHandlers;
  // 2. Cleared by stop(); the monitors end when it is false.
  std::atomic<bool> running{false};
  // 3. Wall-clock time of the last status check, per ring.
  std::atomic<int64_t> lastStatusCheckTime[kRingCount] = {};
  // 4, 5. Ring buffer and status map of each ring.
  android::base::unique_fd ringBufferFds[kRingCount];
  android::base::unique_fd ringStatusFds[kRingCount];
  // 6. What the fd and dma-buf seeding keeps.
  std::map<uint64_t, kavo_dmabuf_buffer> dmabufBuffers;
  std::map<int, dmabuf_stat> dmabufProcesses;
  std::map<int, std::map<unsigned, int>> dmabufFdCounts;
  std::map<int, std::map<unsigned, int>> dmabufMappings;
  android::base::unique_fd processInodeMapFd;
  android::base::unique_fd processMmapInfosFd;
  // 7. Names a process carries while it is still being set up (looked up
  // by string_view, once per RSS record, without building a string).
  std::set<std::string, std::less<>> provisionalCommNames;
  // 8. Producer threads.
  std::thread producerThread;
  std::thread gplProducerThread;
  // 9-11. IPC endpoint, spare queue, request dispatcher.
  std::unique_ptr<UnixIpcManager> ipcManager;
  std::unique_ptr<IpcPackageManager> packageManager;
  std::unique_ptr<IpcPackageHandler> packageHandler;
  // 12. One outgoing queue per client descriptor.
  std::map<int, IpcPackageManager> packageManagers;

  // Catalogue walks finished, out of two.
  std::atomic<int> attachedSets{0};
  // Written by stop() so that monitors blocked in their poll wake up at once.
  android::base::unique_fd stopEventFd;
  // Written by the supervision step to wake the ring-0 monitor for
  // clearScanZombies(), which zombieCheckRequested asks for.
  android::base::unique_fd supervisionEventFd;
  std::atomic<bool> zombieCheckRequested{false};
  // Pids that were zombies at the initial scan, with their start time (boot
  // ns). Guarded by kavoTaskManagerLock.
  std::map<int32_t, int64_t> scanZombies;
  // Pids the last repair reported as exited, with the boot time after it read
  // /proc: an exit record older than that is one the repair already reported.
  // Ring-0 monitor thread only; empty while no record was lost.
  std::map<int32_t, uint64_t> reportedExits;
  // The full-bit fallback: the bit taken by the monitor and owed to the next
  // status check, and the number of times a status check found it set.
  std::atomic<bool> fullBitTaken[kRingCount] = {};
  std::atomic<uint64_t> fullBitReports[kRingCount] = {};

  // Published once built; read without servicelock on every record.
  static std::atomic<KavoBpfService*> instance;
};

}  // namespace Kavo::Bpf
