// The task table put right from /proc when the kernel's records cannot say:
// after ring 0 lost records (gone processes, missed ones, reused pids), and
// for processes that were zombies at the initial scan. Also when the service
// decides that such a repair is due: once per burst of losses, learnt from the
// set's mapped lost-record counter or, without one, from the ring's full bit.
// Processes are made up in a tmpfs over /proc; records are built by hand.

#include <android/log.h>
#include <bpf/bpf.h>
#include <stdio.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <chrono>
#include <future>
#include <map>
#include <thread>
#include <utility>
#include <vector>

#include <android-base/properties.h>
#include <android-base/unique_fd.h>
#include <gtest/gtest.h>

#include "support/kernel_stand_ins.h"
#include "support/event_sink.h"
#include "support/fake_proc.h"
#include "support/log_capture.h"
#include "support/harness.h"
#include "service/kavo_bpf_ring_loss.h"
#include "service/kavo_bpf_service.h"
#include "service/kavo_bpf_state.h"
#include "service/kavo_bpf_task_manager.h"
#include "support/wait_until.h"

namespace Kavo::Bpf {
namespace {

using namespace std::chrono_literals;
using kavo::test::EventSink;
using kavo::test::FakeProcess;
using kavo::test::RecordAs;
using kavo::test::RecordType;

KavoBpfService* Service() { return KavoBpfService::GetInstance(); }

int64_t TickNs() { return 1000000000LL / sysconf(_SC_CLK_TCK); }

uint64_t BootNs() {
  struct timespec now;
  clock_gettime(CLOCK_BOOTTIME, &now);
  return static_cast<uint64_t>(now.tv_sec) * 1000000000ULL + static_cast<uint64_t>(now.tv_nsec);
}

void WriteProcess(int pid, const char* name, long long startTicks, char state = 'S') {
  FakeProcess p;
  p.pid = pid;
  p.name = name;
  p.ppid = 1;
  p.uid = 10000 + pid;
  p.startTicks = startTicks;
  p.state = state;
  kavo::test::WriteFakeProcess(p);
}

void RemoveProcess(int pid) {
  std::string dir = "/proc/" + std::to_string(pid);
  for (const char* file : {"/status", "/stat"}) unlink((dir + file).c_str());
  rmdir((dir + "/fd").c_str());
  ASSERT_EQ(0, rmdir(dir.c_str())) << dir;
}

void Fork(int pid, const char* comm, uint64_t timeNs) {
  kavo_fork_event e = {};
  e.header.type = KAVO_EVENT_TASK_CREATE;
  e.header.time_ns = timeNs;
  e.ppid = 1;
  e.pid = pid;
  e.uid = 10000 + pid;
  snprintf(e.comm, sizeof(e.comm), "%s", comm);
  e.kind = KAVO_TASK_PROCESS;
  Service()->handleSched_SchedProcessFork(reinterpret_cast<char*>(&e), sizeof(e));
}

void Exit(int pid, const char* comm, uint64_t timeNs) {
  kavo_exit_event e = {};
  e.header.type = KAVO_EVENT_TASK_EXIT;
  e.header.time_ns = timeNs;
  e.pid = pid;
  snprintf(e.comm, sizeof(e.comm), "%s", comm);
  e.kind = KAVO_TASK_PROCESS;
  Service()->handleSched_SchedProcessExit(reinterpret_cast<char*>(&e), sizeof(e));
}

// What a client saw, by pid: "exited:<comm>", "init:<comm>", "created:<comm>".
std::map<int, std::vector<std::string>> ByPid(const std::vector<std::string>& records) {
  std::map<int, std::vector<std::string>> seen;
  for (const std::string& record : records) {
    switch (RecordType(record)) {
      case KAVO_EVENT_PROCESS_EXITED: {
        auto e = RecordAs<kavo_process_exited_event>(record);
        seen[e.pid].push_back(std::string("exited:") + e.comm);
        break;
      }
      case KAVO_EVENT_TASK_INIT: {
        auto e = RecordAs<kavo_task_init_event>(record);
        seen[e.pid].push_back(std::string("init:") + e.comm);
        break;
      }
      case KAVO_EVENT_PROCESS_CREATED: {
        auto e = RecordAs<kavo_process_created_event>(record);
        EXPECT_EQ(10000 + e.pid, e.uid) << e.pid;
        EXPECT_EQ(1, e.ppid) << e.pid;
        seen[e.pid].push_back(std::string("created:") + e.comm);
        break;
      }
      default:
        ADD_FAILURE() << "unexpected record type " << RecordType(record);
    }
  }
  return seen;
}

std::map<int, std::string> Table() {
  std::map<int, std::string> table;
  std::lock_guard<std::mutex> guard(KavoTaskManager::kavoTaskManagerLock);
  KavoTaskManager::GetInstance()->ForEachKavoTask([&table](const KavoTask& t) { table[t.pid] = t.comm; });
  return table;
}

long long TaskInitCounted() {
  KavoBpfDataState* state = KavoBpfDataState::GetInstance();
  long long n = 0;
  for (long long t = state->oldestSecond(); t <= state->newestSecond(); ++t) {
    n += state->counterAt(t, KAVO_EVENT_TASK_INIT);
  }
  return n;
}

using Seen = std::map<int, std::vector<std::string>>;

TEST(TaskResync, AfterLostRecordsTheTableIsWhatProcShows) {
  kavo::test::RunInNamespace(
      [] {
        const int64_t tick = TickNs();
        // The scan saw four processes; fork records brought four more, whose
        // records were stamped 0, 1, 2 and -1 ticks off their stat files.
        WriteProcess(1, "init", 5);
        WriteProcess(100, "gone", 100);
        WriteProcess(200, "old", 1000);
        WriteProcess(300, "exiting", 1000);
        Service()->initTaskInfo();
        for (int pid : {400, 401, 402, 403}) WriteProcess(pid, pid == 402 ? "reborn" : "kept", 7000);
        Fork(400, "kept", 7000 * tick + tick / 2);
        Fork(401, "kept", 7001 * tick);
        Fork(402, "far", 7002 * tick);
        Fork(403, "kept", 7000 * tick - 1);

        // Records were lost meanwhile: 100 exited and was reaped, 200 was
        // reaped and its pid taken by a new process, 300 exited (a zombie),
        // 500 started, 600 started and exited.
        RemoveProcess(100);
        WriteProcess(200, "new", 5000);
        WriteProcess(300, "exiting", 1000, 'Z');
        WriteProcess(500, "missed", 8000);
        WriteProcess(600, "brief", 8100, 'Z');

        EventSink client({KAVO_EVENT_TASK_INIT, KAVO_EVENT_PROCESS_CREATED, KAVO_EVENT_PROCESS_EXITED});
        const long long countedBefore = TaskInitCounted();
        kavo::test::LogCapture log;
        const uint64_t beforeResync = BootNs();
        Service()->resyncTaskTable(42);

        Seen seen = ByPid(client.Drain());
        EXPECT_EQ((Seen{
                      {100, {"exited:gone"}},
                      {200, {"exited:old", "init:new", "created:new"}},
                      {300, {"exited:exiting"}},
                      {402, {"exited:far", "init:reborn", "created:reborn"}},
                      {500, {"init:missed", "created:missed"}},
                  }),
                  seen);
        EXPECT_EQ(1u, log.Count("[KavoBpfService][resyncTaskTable] lost records: 42, removed: 2, added: 1, "
                                "replaced: 2, tasks: 7",
                                ANDROID_LOG_INFO));
        EXPECT_EQ((std::map<int, std::string>{{1, "init"},
                                              {200, "new"},
                                              {400, "kept"},
                                              {401, "kept"},
                                              {402, "reborn"},
                                              {403, "kept"},
                                              {500, "missed"}}),
                  Table());
        // Counted as the scan counts its records: once each through the
        // dispatch, then the number of them.
        EXPECT_EQ(2 * 3, TaskInitCounted() - countedBefore);
        {
          std::lock_guard<std::mutex> guard(KavoTaskManager::kavoTaskManagerLock);
          EXPECT_EQ(5000 * tick, KavoTaskManager::GetInstance()->GetKavoTask(200)->startTimeNs);
        }

        // An exit record of 100 from before the repair looked comes late: it
        // was reported already. One from a later process under pid 100, as
        // any exit of an unknown pid, is.
        Exit(100, "gone", beforeResync);
        EXPECT_TRUE(client.Drain().empty());
        Exit(100, "later", BootNs());
        EXPECT_EQ((Seen{{100, {"exited:later"}}}), ByPid(client.Drain()));
        // The same for the replaced pid: the old process's exit record does
        // not take the new process out of the table.
        Exit(200, "old", beforeResync);
        EXPECT_TRUE(client.Drain().empty());
        EXPECT_EQ("new", Table()[200]);

        // Nothing changed since: nothing to report.
        log.Clear();
        Service()->resyncTaskTable(1);
        EXPECT_TRUE(client.Drain().empty());
        EXPECT_EQ(1u, log.Count("[KavoBpfService][resyncTaskTable] lost records: 1, removed: 0, added: 0, "
                                "replaced: 0, tasks: 7"));
      },
      kavo::test::FakeProc());
}

TEST(TaskResync, SupervisionClearsZombiesOfTheScanOnceReaped) {
  kavo::test::RunInNamespace(
      [] {
        WriteProcess(700, "zombie-a", 50, 'Z');
        WriteProcess(701, "zombie-b", 60, 'Z');
        WriteProcess(702, "zombie-c", 70, 'Z');
        WriteProcess(703, "worker", 80);
        Service()->initTaskInfo();
        EventSink client({KAVO_EVENT_TASK_INIT, KAVO_EVENT_PROCESS_CREATED, KAVO_EVENT_PROCESS_EXITED});
        kavo::test::LogCapture log;

        // Not reaped yet: they stay.
        Service()->clearScanZombies();
        EXPECT_TRUE(client.Drain().empty());
        EXPECT_EQ(4u, Table().size());

        // 700 reaped; 701 reaped and its pid taken; 703, no zombie, ended: its
        // own exit record says so, not the supervision.
        RemoveProcess(700);
        WriteProcess(701, "taker", 9000);
        RemoveProcess(703);
        Service()->clearScanZombies();
        EXPECT_EQ((Seen{{700, {"exited:zombie-a"}}, {701, {"exited:zombie-b", "init:taker", "created:taker"}}}),
                  ByPid(client.Drain()));
        EXPECT_EQ((std::map<int, std::string>{{701, "taker"}, {702, "zombie-c"}, {703, "worker"}}), Table());
        EXPECT_EQ(1u, log.Count("[KavoBpfService][clearScanZombies] removed: 1, replaced: 1, tasks: 3",
                                ANDROID_LOG_INFO));

        RemoveProcess(702);
        Service()->clearScanZombies();
        EXPECT_EQ((Seen{{702, {"exited:zombie-c"}}}), ByPid(client.Drain()));
        // Nothing left to watch: no event and no line.
        log.Clear();
        Service()->clearScanZombies();
        EXPECT_TRUE(client.Drain().empty());
        EXPECT_FALSE(log.Contains("clearScanZombies"));
        EXPECT_EQ((std::map<int, std::string>{{701, "taker"}, {703, "worker"}}), Table());
      },
      kavo::test::FakeProc());
}

TEST(ResyncSchedule, DueAfterAQuietPeriodOrAtTheLatestAfterTheLongestDeferral) {
  uint64_t lost = 0;
  ResyncSchedule schedule;
  EXPECT_EQ(-1, schedule.msUntilDue(0));
  EXPECT_FALSE(schedule.takeDue(1000000, &lost));

  // One burst: due 300 ms after its last loss.
  schedule.noteLoss(5, 1000);
  schedule.noteLoss(2, 1200);
  EXPECT_EQ(300, schedule.msUntilDue(1200));
  EXPECT_EQ(1, schedule.msUntilDue(1499));
  EXPECT_FALSE(schedule.takeDue(1499, &lost));
  EXPECT_TRUE(schedule.takeDue(1500, &lost));
  EXPECT_EQ(7u, lost);
  EXPECT_FALSE(schedule.pending());
  EXPECT_EQ(-1, schedule.msUntilDue(1501));

  // Losses that never pause: due a second after the first, not later.
  for (int64_t t = 10000; t <= 10800; t += 200) schedule.noteLoss(1, t);
  EXPECT_EQ(1, schedule.msUntilDue(10999));
  EXPECT_FALSE(schedule.takeDue(10999, &lost));
  EXPECT_TRUE(schedule.takeDue(11000, &lost));
  EXPECT_EQ(5u, lost);
  schedule.noteLoss(1, 15001);
  EXPECT_FALSE(schedule.takeDue(15001 + 299, &lost));
  EXPECT_TRUE(schedule.takeDue(15001 + 300, &lost));
  schedule.noteLoss(1, 20000);
  EXPECT_TRUE(schedule.takeDue(20000 + 301, &lost)) << "late is due as well";
}

// Until |watch| says the repair is due, polls as a monitor would (sleeping
// instead of waiting for records); false if it is not due within 3 s.
bool PollUntilDue(RingLossWatch* watch, uint64_t* lost) {
  auto deadline = std::chrono::steady_clock::now() + 3s;
  while (!watch->afterPoll(0, lost)) {
    int timeout = watch->pollTimeoutMs();
    if (timeout < 0 || std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(timeout));
  }
  return true;
}

TEST(RingLossWatch, TheMappedCounterTellsOfLossesAfterItsBaselineOnly) {
  kavo::test::RunInNamespace([] {
    struct bpf_map_create_opts opts = {};
    opts.sz = sizeof(opts);
    opts.map_flags = BPF_F_MMAPABLE;
    android::base::unique_fd counter(bpf_map_create(BPF_MAP_TYPE_ARRAY, "ringbuf_lost", 4, 8, 1, &opts));
    if (counter.get() < 0) KAVO_KERNEL_SKIP(std::string("mmapable array: ") + strerror(errno));
    const std::string path = KavoBpfService::RINGBUF_LOST_PATH[0];
    kavo::test::MakeDirs("/sys/fs/bpf/kavo");
    ASSERT_EQ(0, bpf_obj_pin(counter.get(), path.c_str())) << strerror(errno);
    auto setLost = [&counter](uint64_t value) {
      uint32_t key = KAVO_RING_LOST_KEY;
      ASSERT_EQ(0, bpf_map_update_elem(counter.get(), &key, &value, 0));
    };
    setLost(7);  // lost before the watch began: not this run's

    RingLossWatch missing;
    EXPECT_FALSE(missing.mapCounter(path + "_absent"));
    RingLossWatch watch;
    ASSERT_TRUE(watch.mapCounter(path)) << strerror(errno);
    uint64_t lost = 0;
    EXPECT_FALSE(watch.afterPoll(4096, &lost));
    EXPECT_EQ(-1, watch.pollTimeoutMs()) << "nothing lost: the poll waits without a time limit";

    setLost(10);
    EXPECT_FALSE(watch.afterPoll(100, &lost));
    int timeout = watch.pollTimeoutMs();
    EXPECT_GT(timeout, 0);
    EXPECT_LE(timeout, ResyncSchedule::kQuietMs);
    setLost(12);
    EXPECT_FALSE(watch.afterPoll(100, &lost));
    ASSERT_TRUE(PollUntilDue(&watch, &lost));
    EXPECT_EQ(5u, lost);
    EXPECT_EQ(-1, watch.pollTimeoutMs());
    EXPECT_FALSE(watch.afterPoll(0, &lost));
  });
}

TEST(RingLossWatch, WithoutACounterAProbeIsAskedAtABoundedRateWhileRecordsCome) {
  RingLossWatch watch;
  int probes = 0;
  uint64_t found = 0;
  watch.useProbe([&] {
    ++probes;
    return std::exchange(found, 0);
  });
  uint64_t lost = 0;
  // No record, nothing owed: no probe, no time limit.
  EXPECT_FALSE(watch.afterPoll(0, &lost));
  EXPECT_EQ(0, probes);
  EXPECT_EQ(-1, watch.pollTimeoutMs());

  EXPECT_FALSE(watch.afterPoll(3, &lost));
  EXPECT_EQ(1, probes);
  // Records again at once: the probe waits, and the poll is bounded so that
  // it is asked even if no record comes.
  EXPECT_FALSE(watch.afterPoll(3, &lost));
  EXPECT_EQ(1, probes);
  int timeout = watch.pollTimeoutMs();
  EXPECT_GE(timeout, 0);
  EXPECT_LE(timeout, RingLossWatch::kProbePeriodMs);
  std::this_thread::sleep_for(std::chrono::milliseconds(timeout + 1));
  EXPECT_FALSE(watch.afterPoll(0, &lost));
  EXPECT_EQ(2, probes);
  EXPECT_EQ(-1, watch.pollTimeoutMs()) << "nothing found, nothing owed";

  std::this_thread::sleep_for(std::chrono::milliseconds(RingLossWatch::kProbePeriodMs));
  found = 4;
  EXPECT_FALSE(watch.afterPoll(1, &lost));
  EXPECT_EQ(3, probes);
  ASSERT_TRUE(PollUntilDue(&watch, &lost));
  EXPECT_EQ(4u, lost);
}

TEST(RingLossWatch, AMonitorWithoutACounterRepairsFromTheFullBitAndStillReportsIt) {
  kavo::test::RunInNamespace([] {
    // Hand-made rings: a status map, and no lost-record counter.
    std::string why;
    if (!kavo::test::PinRingMaps(&why)) KAVO_KERNEL_SKIP(why);
    const std::string ring = KavoBpfService::RINGBUF_MAP_PATH[0];
    const std::string status = KavoBpfService::RINGBUF_STATUS_PATH[0];
    constexpr uint64_t kFull = KAVO_RING_FULL_BIT;
    // The producer thread holds in its ready wait; the test runs the monitor.
    android::base::SetProperty("sys.kavo_bpf_ready", "0");
    ASSERT_TRUE(BpfServiceMain());
    KavoBpfService* service = KavoBpfService::GetInstance();
    kavo::test::LogCapture log;

    // A full bit left from before: reported by the first status check, but
    // not a loss of this run.
    ASSERT_TRUE(kavo::test::WriteControlWord(status, kFull));
    auto monitor = std::async(std::launch::async, [service] { return service->eventMonitor(); });
    ASSERT_TRUE(log.WaitFor("[KavoBpfService][setUpLossWatch] no lost-record counter", 1, 5s));
    ASSERT_TRUE(kavo::test::WriteRingRecords(ring, KAVO_EVENT_CGROUP_ATTACH, 1, &why, 112)) << why;
    EXPECT_TRUE(log.WaitFor("[KavoBpfService][checkBpfRingBuffStatus] bpf ringbuff full!", 1, 5s));
    std::this_thread::sleep_for(std::chrono::milliseconds(2 * ResyncSchedule::kQuietMs));
    EXPECT_FALSE(log.Contains("resyncTaskTable"));

    // A loss now: the monitor finds the bit with the next records and repairs
    // once the ring stays quiet; the status check is not due for 30 s.
    const int64_t producers = kavo::test::ReadControlWord(status);
    ASSERT_TRUE(kavo::test::WriteControlWord(status, static_cast<uint64_t>(producers) | kFull));
    ASSERT_TRUE(kavo::test::WriteRingRecords(ring, KAVO_EVENT_CGROUP_ATTACH, 1, &why, 112)) << why;
    EXPECT_TRUE(log.WaitFor("[KavoBpfService][resyncTaskTable] lost records: 1, ", 1, 5s));
    EXPECT_EQ(producers, kavo::test::ReadControlWord(status)) << "the bit is taken, the producers stay";
    EXPECT_EQ(1u, log.Count("bpf ringbuff full!"));
    // ... but the next check still reports the full ring.
    EXPECT_FALSE(service->checkBpfRingBuffStatus(0, true));
    EXPECT_EQ(2u, log.Count("bpf ringbuff full!"));
    EXPECT_TRUE(service->checkBpfRingBuffStatus(0, true));

    service->stop();
    ASSERT_EQ(std::future_status::ready, monitor.wait_for(2s));
    EXPECT_EQ(0, monitor.get());
    service->Wait();
  });
}

}  // namespace
}  // namespace Kavo::Bpf
