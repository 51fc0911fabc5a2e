// The task table put right from /proc when the kernel's records cannot say:
// after ring 0 lost records (gone processes, missed ones, reused pids), and
// for processes that were zombies at the initial scan; and when such a repair
// is due: once per burst of losses, learnt from the set's mapped lost-record
// counter or, without one, from the ring's full bit.

#include <time.h>
#include <unistd.h>

#include <future>
#include <map>

#include <android-base/properties.h>
#include <gtest/gtest.h>

#include "support/event_sink.h"
#include "support/fake_proc.h"
#include "support/harness.h"
#include "support/kernel_stand_ins.h"
#include "support/log_capture.h"
#include "service/kavo_bpf_ring_loss.h"
#include "service/kavo_bpf_service.h"

namespace Kavo::Bpf {
namespace {

using namespace std::chrono_literals;
using namespace kavo::test;
using Seen = std::map<int, std::vector<std::string>>;

KavoBpfService* Service() { return KavoBpfService::GetInstance(); }

uint64_t BootNs() {
  struct timespec now;
  clock_gettime(CLOCK_BOOTTIME, &now);
  return static_cast<uint64_t>(now.tv_sec) * 1000000000ULL + static_cast<uint64_t>(now.tv_nsec);
}

void WriteProcess(int pid, const char* name, long long startTicks, char state = 'S') {
  FakeProcess p;
  p.pid = pid, p.name = name, p.ppid = 1, p.uid = 10000 + pid, p.startTicks = startTicks, p.state = state;
  WriteFakeProcess(p);
}

// What a client saw, by pid: "exited:<comm>", "init:<comm>", "created:<comm>".
Seen ByPid(const std::vector<std::string>& records) {
  Seen seen;
  for (const std::string& r : records) {
    if (RecordType(r) == KAVO_EVENT_PROCESS_EXITED) {
      auto e = RecordAs<kavo_process_exited_event>(r);
      seen[e.pid].push_back(std::string("exited:") + e.comm);
    } else if (RecordType(r) == KAVO_EVENT_TASK_INIT) {
      auto e = RecordAs<kavo_task_init_event>(r);
      seen[e.pid].push_back(std::string("init:") + e.comm);
    } else {
      auto e = RecordAs<kavo_process_created_event>(r);
      EXPECT_EQ(10000 + e.pid, e.uid) << e.pid;
      seen[e.pid].push_back(std::string("created:") + e.comm);
    }
  }
  return seen;
}

std::map<int, std::string> Table() {
  std::map<int, std::string> table;
  KavoTaskManager::GetInstance()->ForEachKavoTask([&table](const KavoTask& t) { table[t.pid] = t.comm; });
  return table;
}

TEST(TaskResync, AfterLostRecordsTheTableIsWhatProcShows) {
  RunInNamespace([] {
    const int64_t tick = 1000000000LL / sysconf(_SC_CLK_TCK);
    // The scan saw five processes (one whose start does not fit in 64-bit
    // nanoseconds: not known, so kept); fork records brought four more,
    // stamped 0.5, 1, 2 and -1/tick ticks after the start in their stat files.
    for (auto [pid, name, ticks] : {std::tuple{1, "init", 5}, {100, "gone", 100}, {200, "old", 1000}, {300, "exiting", 1000}}) {
      WriteProcess(pid, name, ticks);
    }
    WriteFile("/proc/650/status", "Name:\tancient\nPPid:\t1\n");
    WriteFile("/proc/650/stat", "650 (ancient) S 1 650 650 0 -1 4194560 100 0 0 0 5 3 0 0 20 0 1 0 "
                                "18446744073709551 12345678 300\n");
    Service()->initTaskInfo();
    EXPECT_EQ(0, KavoTaskManager::GetInstance()->GetKavoTask(650)->startTimeNs);
    for (int pid : {400, 401, 402, 403}) WriteProcess(pid, pid == 402 ? "reborn" : "kept", 7000);
    Dispatch(ForkRecord(400, 1, "kept", KAVO_TASK_PROCESS, 7000 * tick + tick / 2, 10400));
    Dispatch(ForkRecord(401, 1, "kept", KAVO_TASK_PROCESS, 7001 * tick, 10401));
    Dispatch(ForkRecord(402, 1, "far", KAVO_TASK_PROCESS, 7002 * tick, 10402));
    Dispatch(ForkRecord(403, 1, "kept", KAVO_TASK_PROCESS, 7000 * tick - 1, 10403));
    // Records were lost meanwhile: 100 exited and was reaped, 200 was
    // reaped and its pid taken, 300 exited (a zombie), 500 started, 600
    // started and exited.
    RemoveFakeProcess(100);
    WriteProcess(200, "new", 5000);
    WriteProcess(300, "exiting", 1000, 'Z');
    WriteProcess(500, "missed", 8000);
    WriteProcess(600, "brief", 8100, 'Z');

    EventSink client({KAVO_EVENT_TASK_INIT, KAVO_EVENT_PROCESS_CREATED, KAVO_EVENT_PROCESS_EXITED});
    const uint64_t countedBefore = Counted(KAVO_EVENT_TASK_INIT);
    LogCapture log;
    const uint64_t beforeResync = BootNs();
    Service()->resyncTaskTable(42);
    EXPECT_EQ((Seen{{100, {"exited:gone"}},
                    {200, {"exited:old", "init:new", "created:new"}},
                    {300, {"exited:exiting"}},
                    {402, {"exited:far", "init:reborn", "created:reborn"}},
                    {500, {"init:missed", "created:missed"}}}),
              ByPid(client.Drain()));
    EXPECT_EQ(1u, log.Count("[KavoBpfService][resyncTaskTable] lost records: 42, removed: 2, added: 1, "
                            "replaced: 2, tasks: 8", ANDROID_LOG_INFO));
    EXPECT_EQ((std::map<int, std::string>{{1, "init"}, {200, "new"}, {400, "kept"}, {401, "kept"},
                                          {402, "reborn"}, {403, "kept"}, {500, "missed"}, {650, "ancient"}}),
              Table());
    // Counted as the scan counts: once each through the dispatch, then the number of them.
    EXPECT_EQ(2 * 3u, Counted(KAVO_EVENT_TASK_INIT) - countedBefore);
    EXPECT_EQ(5000 * tick, KavoTaskManager::GetInstance()->GetKavoTask(200)->startTimeNs);

    // A late exit record from before the repair looked was reported
    // already, and does not take a new process under the pid out; one
    // from a later process under the pid is reported.
    Dispatch(ExitRecord(100, "gone", KAVO_TASK_PROCESS, beforeResync));
    Dispatch(ExitRecord(200, "old", KAVO_TASK_PROCESS, beforeResync));
    EXPECT_TRUE(client.Drain().empty());
    EXPECT_EQ("new", Table()[200]);
    Dispatch(ExitRecord(100, "later", KAVO_TASK_PROCESS, BootNs()));
    EXPECT_EQ((Seen{{100, {"exited:later"}}}), ByPid(client.Drain()));

    log.Clear();
    Service()->resyncTaskTable(1);  // nothing changed since
    EXPECT_TRUE(client.Drain().empty());
    EXPECT_EQ(1u, log.Count("[KavoBpfService][resyncTaskTable] lost records: 1, removed: 0, added: 0, "
                            "replaced: 0, tasks: 8"));
  }, FakeProc());
}

TEST(TaskResync, ZombiesOfTheScanLeaveOnceReaped) {
  RunInNamespace([] {
    for (auto [pid, name, state] : {std::tuple{700, "zombie-a", 'Z'}, {701, "zombie-b", 'Z'}, {702, "zombie-c", 'Z'},
                                    {703, "worker", 'S'}}) {
      WriteProcess(pid, name, pid - 650, state);
    }
    Service()->initTaskInfo();
    EventSink client({KAVO_EVENT_TASK_INIT, KAVO_EVENT_PROCESS_CREATED, KAVO_EVENT_PROCESS_EXITED});
    LogCapture log;
    Service()->clearScanZombies();  // not reaped yet: they stay
    EXPECT_TRUE(client.Drain().empty());
    // 700 reaped; 701 reaped and its pid taken; 703, no zombie, ended: its
    // own exit record says so, not this check.
    RemoveFakeProcess(700);
    WriteProcess(701, "taker", 9000);
    RemoveFakeProcess(703);
    Service()->clearScanZombies();
    EXPECT_EQ((Seen{{700, {"exited:zombie-a"}}, {701, {"exited:zombie-b", "init:taker", "created:taker"}}}),
              ByPid(client.Drain()));
    EXPECT_EQ((std::map<int, std::string>{{701, "taker"}, {702, "zombie-c"}, {703, "worker"}}), Table());
    EXPECT_EQ(1u, log.Count("[KavoBpfService][clearScanZombies] removed: 1, replaced: 1, tasks: 3", ANDROID_LOG_INFO));
    RemoveFakeProcess(702);
    Service()->clearScanZombies();
    EXPECT_EQ((Seen{{702, {"exited:zombie-c"}}}), ByPid(client.Drain()));
    log.Clear();
    Service()->clearScanZombies();  // nothing left to watch: no event, no line
    EXPECT_TRUE(client.Drain().empty() && !log.Contains("clearScanZombies"));
  }, FakeProc());
}

// When a repair is due: 300 ms after the last loss of a burst (299, 300,
// 301), or, for losses that never pause, a second after the first (999, 1000).
TEST(ResyncSchedule, DueAfterAQuietPeriodOrAtTheLatestAfterTheLongestDeferral) {
  struct {
    std::vector<int64_t> losses;
    int64_t at;
    bool due;
  } cases[] = {{{}, 100000, false},      {{0, 200}, 499, false},           {{0, 200}, 500, true},
               {{0, 200}, 501, true},     {{0, 200, 400, 600, 800}, 999, false}, {{0, 200, 400, 600, 800}, 1000, true}};
  for (const auto& c : cases) {
    ResyncSchedule schedule;
    for (int64_t t : c.losses) schedule.noteLoss(3, t);
    uint64_t lost = 0;
    EXPECT_EQ(c.losses.empty() ? -1 : c.due ? 0 : 1, schedule.msUntilDue(c.at)) << c.at;
    EXPECT_EQ(c.due, schedule.takeDue(c.at, &lost)) << c.at;
    EXPECT_EQ(c.due ? 3 * c.losses.size() : 0, lost);
    EXPECT_FALSE(schedule.takeDue(c.at, &lost));  // taken, or still not due
  }
}

// A monitor on hand-made rings without a lost-record counter: a full bit
// left from before is reported by the first status check but repairs
// nothing; a bit set later is taken by the monitor for a repair, once the
// ring stays quiet, and still reported.
TEST(RingLossWatch, WithoutACounterTheFullBitTellsOfLossesAndIsStillReported) {
  RunInNamespace([] {
    std::string why;
    if (!PinRingMaps(&why)) KAVO_KERNEL_SKIP(why);
    const std::string ring = KavoBpfService::RINGBUF_MAP_PATH[0];
    const std::string status = KavoBpfService::RINGBUF_STATUS_PATH[0];
    android::base::SetProperty("sys.kavo_bpf_ready", "0");  // the producer thread holds
    ASSERT_TRUE(BpfServiceMain());
    LogCapture log;
    ASSERT_TRUE(WriteControlWord(status, KAVO_RING_FULL_BIT));
    auto monitor = std::async(std::launch::async, [] { return Service()->eventMonitor(); });
    ASSERT_TRUE(log.WaitFor("[KavoBpfService][setUpLossWatch] no lost-record counter"));
    ASSERT_TRUE(WriteRingRecords(ring, KAVO_EVENT_CGROUP_ATTACH, 1, &why, 112)) << why;
    EXPECT_TRUE(log.WaitFor("[KavoBpfService][checkBpfRingBuffStatus] bpf ringbuff full!"));
    std::this_thread::sleep_for(std::chrono::milliseconds(2 * ResyncSchedule::kQuietMs));
    EXPECT_FALSE(log.Contains("resyncTaskTable"));

    const int64_t producers = ReadControlWord(status);
    ASSERT_TRUE(WriteControlWord(status, static_cast<uint64_t>(producers) | KAVO_RING_FULL_BIT));
    ASSERT_TRUE(WriteRingRecords(ring, KAVO_EVENT_CGROUP_ATTACH, 1, &why, 112)) << why;
    EXPECT_TRUE(log.WaitFor("[KavoBpfService][resyncTaskTable] lost records: 1, "));
    EXPECT_EQ(producers, ReadControlWord(status)) << "the bit is taken, the producers stay";
    EXPECT_EQ(1u, log.Count("bpf ringbuff full!"));  // the status check is not due for 30 s ...
    EXPECT_FALSE(Service()->checkBpfRingBuffStatus(0, true));  // ... but reports the taken bit
    EXPECT_EQ(2u, log.Count("bpf ringbuff full!"));
    EXPECT_TRUE(Service()->checkBpfRingBuffStatus(0, true));
    Service()->stop();
    ASSERT_EQ(std::future_status::ready, monitor.wait_for(2s));
    EXPECT_EQ(0, monitor.get());
    Service()->Wait();
  });
}

}  // namespace
}  // namespace Kavo::Bpf
