// The task table from /proc, over a made-up process tree: the initial scan
// and the readers of the files the kernel writes (damaged, cut short, gone
// mid-walk included); and the repairs when the kernel's records cannot say:
// after ring 0 lost records (gone processes, missed ones, reused pids), for
// processes that were zombies at the initial scan, and when such a repair is
// due: once per burst of losses, learnt without a lost-record counter from
// the ring's full bit.

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

uint64_t BootNs() { return Kavo::Bpf::ClockNs(CLOCK_BOOTTIME); }

void WriteProcess(int pid, const char* name, long long startTicks, char state = 'S') {
  WriteFakeProcess({pid, name, 1, 10000 + pid, 1, 0, 0, 0, 0, startTicks, state});
}

// What a client saw, by pid: "exited:<comm>", "init:<comm>", "created:<comm>".
Seen ByPid(const std::vector<std::string>& records) {
  Seen seen;
  auto note = [&seen](const char* what, const auto& e) { seen[e.pid].push_back(what + std::string(e.comm)); };
  for (const std::string& r : records) {
    if (RecordType(r) == KAVO_EVENT_PROCESS_EXITED) note("exited:", RecordAs<kavo_process_exited_event>(r));
    if (RecordType(r) == KAVO_EVENT_TASK_INIT) note("init:", RecordAs<kavo_task_init_event>(r));
    if (RecordType(r) != KAVO_EVENT_PROCESS_CREATED) continue;
    note("created:", RecordAs<kavo_process_created_event>(r));
    EXPECT_EQ(10000 + RecordAs<kavo_process_created_event>(r).pid, RecordAs<kavo_process_created_event>(r).uid);
  }
  return seen;
}

std::map<int, std::string> Table() {
  std::map<int, std::string> table;
  KavoTaskManager::GetInstance()->ForEachKavoTask([&table](const KavoTask& t) { table[t.pid] = t.comm; });
  return table;
}

TEST(TaskScan, TheScanSeedsTableAndClientsAndTheReadersOfOneFile) {
  RunInNamespace([] {
    EXPECT_FALSE(InitBasetime());  // no /proc/stat: the base stays
    WriteFile("/proc/stat", "cpu 1\nbtime garbage\n");
    EXPECT_TRUE(InitBasetime() && GetBasetime() == 0);
    WriteFile("/proc/stat", "cpu  1 2 3 4\nbtime 1700000000\nprocesses 9\n");
    ASSERT_TRUE(InitBasetime());
    // pid, name, ppid, uid, threads, anon, file, shmem and swap kB, start ticks.
    WriteFakeProcess({1, "init", 0, 0, 3, 1000, 2000, 300, 40, 5 * sysconf(_SC_CLK_TCK)});
    // 2,097,152 kB and more wrap in the 32-bit kB arithmetic.
    WriteFakeProcess({4242, "com.example.app", 1, 10050, 1, 2097152, 3145728, 2097151, 2097153});
    WriteFakeProcess({4300, "Web Content", 1, 0, 7});  // a blank in the name shifts no stat field
    WriteFakeProcess({4400, "proc", 1, 0, 1, 0, 0, 0, 0, 0, 'S', false});  // status read, then gone before its stat
    for (const char* notAProcess : {"/proc/4500", "/proc/self", "/proc/12a"}) MakeDirs(notAProcess);
    // Damaged values are read as missing; a stat of too few fields gives no threads or start.
    WriteFile("/proc/77/status", "Name:\tdamaged\nPPid:\tnone\nUid:\t\nRssAnon:\tlots kB\nRssFile:\t  12 kB\n");
    WriteFile("/proc/77/stat", "77 (damaged) S 1 2 3\n");
    // Every prefix with nothing after it: an empty name and no memory.
    WriteFile("/proc/500/status", "Name:\t\nPPid:\t\nUid:\t\nRssAnon:\t\nRssFile:\t\nRssShmem:\t\nVmSwap:\t\n");
    WriteFile("/proc/500/stat", "500 () S");

    EventSink sink({KAVO_EVENT_TASK_INIT});
    const uint64_t countedBefore = Counted(KAVO_EVENT_TASK_INIT);
    Service()->initTaskInfo();
    EXPECT_EQ("init 1 ppid 0 uid 0 threads 3/3 mm 0 rss 2048000,1024000,40960,307200 old 2048000,1024000,40960,307200 start 1700000005", TaskLine(1));
    // Stamped with the 32-bit boot clock: small, so the first kernel event
    // already counts as 3 s later.
    EXPECT_EQ(int32_t(KavoTaskManager::GetInstance()->GetKavoTask(1)->firstSeenNs), KavoTaskManager::GetInstance()->GetKavoTask(1)->firstSeenNs);
    EXPECT_EQ("com.example.app 4242 ppid 1 uid 10050 threads 1/1 mm 0 rss -1073741824,-2147483648,-2147482624,"
              "2147482624 old -1073741824,-2147483648,-2147482624,2147482624 start 1700000000", TaskLine(4242));
    EXPECT_EQ("Web Content 4300 ppid 1 uid 0 threads 7/7 mm 0 rss 0,0,0,0 old 0,0,0,0 start 1700000000", TaskLine(4300));
    EXPECT_EQ("damaged 77 ppid 0 uid 0 threads 0/0 mm 0 rss 12288,0,0,0 old 12288,0,0,0 start 0", TaskLine(77));
    EXPECT_EQ(" 500 ppid 0 uid 0 threads 0/0 mm 0 rss 0,0,0,0 old 0,0,0,0 start 0", TaskLine(500));
    // Each scanned process reached the clients as a task-init record and was counted.
    auto records = sink.Drain();
    ASSERT_EQ(5u, records.size());
    for (const std::string& record : records) EXPECT_TRUE(record.size() == 88u && RecordType(record) == KAVO_EVENT_TASK_INIT);
    EXPECT_EQ(2 * 5u, Counted(KAVO_EVENT_TASK_INIT) - countedBefore);

    // Parent before name, a 16-character name (cut to 15), a damaged
    // parent line skipped; empty values. (A process that is gone: the
    // handlers show it.)
    WriteFile("/proc/87/status", "PPid:\t12\nName:\tabcdefghijklmnop\nPPid:\tgarbage\n");
    WriteFile("/proc/88/status", "Name:\t\nPPid:\t\n");
    for (UpdateProcessExdata expected : std::vector<UpdateProcessExdata>{{87, 12, "abcdefghijklmno"}, {88, 0, ""}}) {
      UpdateProcessExdata info = {};
      EXPECT_TRUE(Service()->getProcessInfo(expected.pid, &info) == 0 && memcmp(&expected, &info, sizeof(info)) == 0) << info.comm;
    }
    LogCapture log;
    AddFakeFd(300, 9, "/dmabuf:", 8192, 5000000000LL);
    EXPECT_TRUE(Service()->GetFdSize("/proc/300/fdinfo/9") == 8192 && Service()->GetFdInode("/proc/300/fdinfo/9") == 5000000000ull);  // above 2^32
    // No such line, damaged and empty values: 0, and no failure to log.
    WriteFile("/proc/300/fdinfo/10", "pos:\t0\nflags:\t02\n");
    WriteFile("/proc/300/fdinfo/11", "size:\tlots\nino:\t-4\n");
    WriteFile("/proc/300/fdinfo/12", "size:\t\nino:\t\n");
    for (std::string fd : {"10", "11", "12", "13"})
      EXPECT_TRUE(Service()->GetFdSize("/proc/300/fdinfo/" + fd) == 0 && Service()->GetFdInode("/proc/300/fdinfo/" + fd) == 0u) << fd;
    // A missing file is: once per reader.
    EXPECT_TRUE(log.Count("") == 2u && log.Count("Unable to open /proc/300/fdinfo/13", ANDROID_LOG_WARN) == 2u);
  }, FakeProc());
}

TEST(TaskResync, AfterLostRecordsTheTableIsWhatProcShows) {
  RunInNamespace([] {
    const int64_t tick = 1000000000LL / sysconf(_SC_CLK_TCK);
    // The scan saw five processes (one whose start does not fit in 64-bit
    // nanoseconds: not known, so kept); fork records brought four more,
    // stamped 0.5, 1, 2 and -1/tick ticks after the start in their stat files.
    for (auto [pid, name, ticks] : {std::tuple{1, "init", 5}, {100, "gone", 100}, {200, "old", 1000}, {300, "exiting", 1000}}) WriteProcess(pid, name, ticks);
    WriteFile("/proc/650/status", "Name:\tancient\nPPid:\t1\n");
    WriteFile("/proc/650/stat", "650 (ancient) S 1 650 650 0 -1 4194560 100 0 0 0 5 3 0 0 20 0 1 0 18446744073709551 12345678 300\n");
    Service()->initTaskInfo();
    EXPECT_EQ(0, KavoTaskManager::GetInstance()->GetKavoTask(650)->startTimeNs);
    for (int pid : {400, 401, 402, 403}) WriteProcess(pid, pid == 402 ? "reborn" : "kept", 7000);
    for (auto [pid, name, at] : {std::tuple{400, "kept", 7000 * tick + tick / 2}, {401, "kept", 7001 * tick}, {402, "far", 7002 * tick},
                                 {403, "kept", 7000 * tick - 1}}) Dispatch(ForkRecord(pid, 1, name, KAVO_TASK_PROCESS, at, 10000 + pid));
    // Records were lost meanwhile: 100 exited and was reaped, 200 was
    // reaped and its pid taken, 300 exited (a zombie), 500 started, 600
    // started and exited.
    RemoveFakeProcess(100);
    for (auto [pid, name, ticks, state] : {std::tuple{200, "new", 5000, 'S'}, {300, "exiting", 1000, 'Z'}, {500, "missed", 8000, 'S'},
                                           {600, "brief", 8100, 'Z'}}) WriteProcess(pid, name, ticks, state);

    EventSink client({KAVO_EVENT_TASK_INIT, KAVO_EVENT_PROCESS_CREATED, KAVO_EVENT_PROCESS_EXITED});
    const uint64_t countedBefore = Counted(KAVO_EVENT_TASK_INIT);
    LogCapture log;
    const uint64_t beforeResync = BootNs();
    Service()->resyncTaskTable(42);
    EXPECT_EQ((Seen{{100, {"exited:gone"}}, {200, {"exited:old", "init:new", "created:new"}}, {300, {"exited:exiting"}},
                    {402, {"exited:far", "init:reborn", "created:reborn"}}, {500, {"init:missed", "created:missed"}}}), ByPid(client.Drain()));
    EXPECT_EQ(1u, log.Count("[KavoBpfService][resyncTaskTable] lost records: 42, removed: 2, added: 1, replaced: 2, tasks: 8", ANDROID_LOG_INFO));
    EXPECT_EQ((std::map<int, std::string>{{1, "init"}, {200, "new"}, {400, "kept"}, {401, "kept"}, {402, "reborn"}, {403, "kept"}, {500, "missed"},
                                          {650, "ancient"}}), Table());
    // Counted as the scan counts: once each through the dispatch, then the number of them.
    EXPECT_EQ(2 * 3u, Counted(KAVO_EVENT_TASK_INIT) - countedBefore);
    EXPECT_EQ(5000 * tick, KavoTaskManager::GetInstance()->GetKavoTask(200)->startTimeNs);

    // A late exit record from before the repair looked was reported
    // already, and does not take a new process under the pid out; one
    // from a later process under the pid is reported.
    for (auto [pid, comm] : {std::pair{100, "gone"}, {200, "old"}}) Dispatch(ExitRecord(pid, comm, KAVO_TASK_PROCESS, beforeResync));
    EXPECT_TRUE(client.Drain().empty() && Table()[200] == "new");
    Dispatch(ExitRecord(100, "later", KAVO_TASK_PROCESS, BootNs()));
    EXPECT_EQ((Seen{{100, {"exited:later"}}}), ByPid(client.Drain()));

    log.Clear();
    Service()->resyncTaskTable(1);  // nothing changed since
    EXPECT_TRUE(client.Drain().empty() && log.Count("[KavoBpfService][resyncTaskTable] lost records: 1, removed: 0, added: 0, replaced: 0, tasks: 8") == 1u);
  }, FakeProc());
}

TEST(TaskResync, ZombiesOfTheScanLeaveOnceReaped) {
  RunInNamespace([] {
    for (auto [pid, name] : {std::pair{700, "zombie-a"}, {701, "zombie-b"}, {702, "zombie-c"}, {703, "worker"}}) WriteProcess(pid, name, pid - 650, pid == 703 ? 'S' : 'Z');
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
    EXPECT_EQ((Seen{{700, {"exited:zombie-a"}}, {701, {"exited:zombie-b", "init:taker", "created:taker"}}}), ByPid(client.Drain()));
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
  struct { std::vector<int64_t> losses; int64_t at; bool due; } cases[] = {{{}, 100000, false}, {{0, 200}, 499, false}, {{0, 200}, 500, true},
      {{0, 200}, 501, true}, {{0, 200, 400, 600, 800}, 999, false}, {{0, 200, 400, 600, 800}, 1000, true}};
  for (const auto& c : cases) {
    ResyncSchedule schedule;
    for (int64_t t : c.losses) schedule.noteLoss(3, t);
    uint64_t lost = 0;
    EXPECT_EQ(c.losses.empty() ? -1 : c.due ? 0 : 1, schedule.msUntilDue(c.at)) << c.at;
    EXPECT_TRUE(schedule.takeDue(c.at, &lost) == c.due && lost == (c.due ? 3 * c.losses.size() : 0)) << c.at;
    EXPECT_FALSE(schedule.takeDue(c.at, &lost));  // taken, or still not due
  }
}

// A monitor on hand-made rings without a lost-record counter: a full bit
// left from before is reported by the first status check but repairs
// nothing; a bit set later is taken by the monitor for a repair, once the
// ring stays quiet, and still reported. (The kernel story fills a real ring
// with the counter pinned; the repair it triggers is the same.)
TEST(RingLossWatch, WithoutACounterTheFullBitTellsOfLossesAndIsStillReported) {
  RunInNamespace([] {
    std::string why;
    if (!PinRingMaps(&why)) KAVO_KERNEL_SKIP(why);
    const std::string ring = KavoBpfService::RINGBUF_MAP_PATH[0], status = KavoBpfService::RINGBUF_STATUS_PATH[0];
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
    EXPECT_EQ(1u, log.Count("bpf ringbuff full!"));  // the status check is not due for 30 s, but a forced one reports the taken bit
    EXPECT_TRUE(!Service()->checkBpfRingBuffStatus(0, true) && log.Count("bpf ringbuff full!") == 2u);
    EXPECT_TRUE(Service()->checkBpfRingBuffStatus(0, true));
    Service()->stop();
    ASSERT_EQ(std::future_status::ready, monitor.wait_for(2s));
    EXPECT_EQ(0, monitor.get());
    Service()->Wait();
  });
}

}  // namespace
}  // namespace Kavo::Bpf
