// The task table following the kernel's fork, exit, task-init and rss_stat
// records, as the clients subscribed to the raw and derived events see it.
// Records are built by hand and handed over as a ring monitor does.

#include <android/log.h>

#include <gtest/gtest.h>

#include "support/event_sink.h"
#include "support/fake_proc.h"
#include "support/harness.h"
#include "support/log_capture.h"
#include "service/kavo_bpf_event_manager.h"
#include "service/kavo_bpf_service.h"

namespace Kavo::Bpf {
namespace {

using namespace kavo::test;
using Records = std::vector<std::string>;

constexpr uint64_t kMs = 1000000ull;
constexpr uint64_t kT0 = 5000000 * kMs;  // boot time of the first fork

// A copy of |pid|'s record, or an empty one.
KavoTask Task(int pid) { return KavoTaskManager::GetInstance()->GetKavoTask(pid) ? *KavoTaskManager::GetInstance()->GetKavoTask(pid) : KavoTask{}; }

// |n| threads of |pid| start (or end, n < 0) at |time|.
void Threads(int pid, int n, uint64_t time) {
  for (int i = 0; i < std::abs(n); ++i) n > 0 ? Dispatch(ForkRecord(pid, pid, "app", KAVO_TASK_THREAD, time)) : Dispatch(ExitRecord(pid, "app", KAVO_TASK_THREAD, time));
}

std::string ThreadReport(int oldCount, int count) {
  return Bytes(kavo_thread_count_event{KAVO_EVENT_THREAD_COUNT_CHANGED, 5000, 4000, 10001, oldCount, count});
}

std::string MemoryReport(std::vector<int64_t> sizes, std::vector<int64_t> oldSizes) {
  kavo_memory_changed_event e = {KAVO_EVENT_MEMORY_CHANGED, 5000, 4000, 10001, "app_process", {}, {}};
  std::copy(sizes.begin(), sizes.end(), e.size);
  std::copy(oldSizes.begin(), oldSizes.end(), e.old_size);
  return Bytes(e);
}

TEST(TaskEvents, AProcessLifeThroughTheHandlers) {
  RunInNamespace([] {
    EventSink sink({KAVO_EVENT_PROCESS_CREATED, KAVO_EVENT_PROCESS_EXITED, KAVO_EVENT_THREAD_COUNT_CHANGED, KAVO_EVENT_MEMORY_CHANGED});
    // A new process; a second fork record for the pid changes nothing.
    Dispatch(ForkRecord(5000, 4000, "app_process", KAVO_TASK_PROCESS, kT0));
    Dispatch(ForkRecord(5000, 4001, "again", KAVO_TASK_PROCESS, kT0));
    EXPECT_EQ(Records{Bytes(kavo_process_created_event{KAVO_EVENT_PROCESS_CREATED, 5000, 4000, 10001, "app_process"})}, sink.Drain());
    EXPECT_TRUE(Task(5000).firstSeenNs == static_cast<int64_t>(kT0) && Task(5000).initTimeStamp > 0);
    EXPECT_EQ(0u, TaskLine(5000).find("app_process 5000 ppid 4000 uid 10001 threads 1/1 mm 0 rss 0,0,0,0 old 0,0,0,0"));

    // Threads: nothing before 3 s however many; then only a change of more than 10.
    // Threads started or ended, with what a client then sees.
    // (At 3000 ms: a change of 10, then of 11.)
    for (auto [n, ms, seen] : {std::tuple{11, 2999, Records{}}, {-1, 3000, Records{}}, {1, 3000, Records{ThreadReport(1, 12)}},
                               {-10, 3001, Records{}}, {-1, 3001, Records{ThreadReport(12, 1)}}}) {
      Threads(5000, n, kT0 + ms * kMs);
      EXPECT_EQ(seen, sink.Drain()) << n << " at " << ms << " ms";
    }
    // Threads no later than the record's first sight, or of unknown pids, do not count.
    Dispatch(ForkRecord(5000, 5000, "app", KAVO_TASK_THREAD, kT0));
    Dispatch(ForkRecord(5999, 5999, "nobody", KAVO_TASK_THREAD, kT0 + 9000 * kMs));
    EXPECT_TRUE(Task(5000).threadNum == 1 && KavoTaskManager::GetInstance()->GetKavoTask(5999) == nullptr);

    // Memory: too young at 2.999 s but kept; at 3 s the whole change since creation.
    Dispatch(RssRecord(5000, KAVO_RSS_ANON, 1 << 20, kT0 + 2999 * kMs));
    EXPECT_TRUE(sink.Drain().empty() && Task(5000).mmId == 1000u);
    Dispatch(RssRecord(5000, KAVO_RSS_FILE, 8192, kT0 + 3000 * kMs));
    EXPECT_EQ(Records{MemoryReport({8192, 1 << 20, 0, 0}, {0, 0, 0, 0})}, sink.Drain());
    // Small changes add up from the reported level: 16383 bytes are not enough, 16384 are.
    for (auto [member, size] : {std::pair{int(KAVO_RSS_ANON), (1 << 20) + 8192}, {KAVO_RSS_SHMEM, 8191}}) Dispatch(RssRecord(5000, member, size, kT0 + 4000 * kMs));
    EXPECT_TRUE(sink.Drain().empty());
    Dispatch(RssRecord(5000, KAVO_RSS_SHMEM, 8192, kT0 + 4000 * kMs));
    EXPECT_EQ(Records{MemoryReport({8192, (1 << 20) + 8192, 0, 8192}, {8192, 1 << 20, 0, 0})}, sink.Drain());
    // Damaged records are dropped: a negative size, members out of range, a short record.
    for (auto [member, size] : {std::pair{int(KAVO_RSS_ANON), -1}, {4, 1 << 30}, {-1, 1 << 30}}) Dispatch(RssRecord(5000, member, size, kT0 + 5000 * kMs));
    DispatchBytes(Bytes(RssRecord(5000, KAVO_RSS_FILE, 1 << 30, kT0 + 5000 * kMs)).substr(0, 31));
    EXPECT_TRUE(sink.Drain().empty());
    EXPECT_EQ(0u, TaskLine(5000).find("app_process 5000 ppid 4000 uid 10001 threads 1/1 mm 1000 rss 8192,1056768,0,8192 old 8192,1056768,0,8192 start "));

    // A task-init record replaces the record whole; swap and shared memory trade places.
    Dispatch(kavo_task_init_event{{KAVO_EVENT_TASK_INIT, 0, 123}, 5000, 1, 1000, 4, "init_seeded", 1 << 20, 2 << 20, 3 << 20, 4 << 20, 1700000000});
    EXPECT_EQ("init_seeded 5000 ppid 1 uid 1000 threads 4/4 mm 0 rss 1048576,2097152,4194304,3145728 "
              "old 1048576,2097152,4194304,3145728 start 1700000000", TaskLine(5000));
    EXPECT_EQ(123, Task(5000).firstSeenNs);

    // Exits: with the exit record's name; an unknown pid is reported too.
    for (auto [pid, comm] : {std::pair{5000, "renamed"}, {5998, "stranger"}}) Dispatch(ExitRecord(pid, comm, KAVO_TASK_PROCESS, kT0 + 6000 * kMs));
    EXPECT_EQ((Records{Bytes(kavo_process_exited_event{KAVO_EVENT_PROCESS_EXITED, 5000, "renamed"}),
                       Bytes(kavo_process_exited_event{KAVO_EVENT_PROCESS_EXITED, 5998, "stranger"})}), sink.Drain());
    EXPECT_EQ(0u, KavoTaskManager::GetInstance()->GetKavoTaskCount());

    // Records of no known kind are errors and change nothing.
    LogCapture log;
    Dispatch(ForkRecord(5001, 1, "odd", 3, kT0)), Dispatch(ExitRecord(5001, "odd", 0, kT0));
    EXPECT_TRUE(log.Contains("[KavoBpfService] Task Create raw event (SCHED__TASK_CREATE) error!", ANDROID_LOG_ERROR) &&
                log.Contains("[KavoBpfService] Task Exit raw event (SCHED__TASK_EXIT) error!", ANDROID_LOG_ERROR));
    EXPECT_TRUE(sink.Drain().empty() && KavoTaskManager::GetInstance()->GetKavoTaskCount() == 0u);

    // Parent unknown to the kernel: asked of /proc; a process gone meanwhile keeps the record's.
    WriteFakeProcess({6000, "realname", 33});
    for (auto [pid, comm] : {std::pair{6000, "forkname"}, {6001, "gone"}}) Dispatch(ForkRecord(pid, 0, comm, KAVO_TASK_PROCESS, kT0));
    EXPECT_EQ((Records{Bytes(kavo_process_created_event{KAVO_EVENT_PROCESS_CREATED, 6000, 33, 10001, "realname"}),
                       Bytes(kavo_process_created_event{KAVO_EVENT_PROCESS_CREATED, 6001, 0, 10001, "gone"})}), sink.Drain());
  }, FakeProc());
}

TEST(TaskEvents, WhoseMemoryIsReportedAndProvisionalNames) {
  RunInNamespace([] {
    EventSink sink({KAVO_EVENT_THREAD_COUNT_CHANGED, KAVO_EVENT_MEMORY_CHANGED});
    struct { int pid, ppid; const char* comm; bool reported; } cases[] = {
        {0, 1, "idle", false},       {1, 0, "init", true},           {300, 1, "early", false},     {301, 1, "app", true},
        {9100, 1, "sh", false},      {9101, 1, "shell_daemon", false}, {9102, 2, "kthreadish", false}, {9103, 1, "dumpsys", false},
        {9104, 1, "dumpsysx", false}, {9105, 1, "bash", true},        {9106, 1, "dumpsy", true}};
    for (const auto& c : cases) {
      Dispatch(ForkRecord(c.pid, c.ppid, c.comm, KAVO_TASK_PROCESS, kT0));
      Dispatch(RssRecord(c.pid, KAVO_RSS_ANON, 1 << 20, kT0 + 5000 * kMs));
      // Kept either way.
      EXPECT_TRUE(sink.Drain().size() == (c.reported ? 1u : 0u) && Task(c.pid).rssSize[KAVO_RSS_ANON] == 1 << 20) << c.pid << " " << c.comm;
    }

    // Times and sizes as far apart as 64 bits allow (no kernel writes them,
    // but records are read as they come): too young to report, no overflow.
    Dispatch(ForkRecord(4242, 1, "far", KAVO_TASK_PROCESS, 1ull << 63)), Dispatch(RssRecord(4242, KAVO_RSS_ANON, 1 << 20, (1ull << 63) - 1));
    Threads(4242, 12, (1ull << 63) - 1);
    Dispatch(kavo_task_init_event{{KAVO_EVENT_TASK_INIT, 0, 0}, 4343, 1, 0, 1, "far", 0, INT64_MIN, 0, 0, 0}), Dispatch(RssRecord(4343, KAVO_RSS_ANON, 0, 0));
    EXPECT_TRUE(sink.Drain().empty());

    // A process still called "main" takes its name and parent from /proc
    // at its first record, then again only once 3 s have passed on the
    // seconds clock (moved here by its base).
    WriteFakeProcess({9500, "main", 700});
    Dispatch(ForkRecord(9500, 600, "main", KAVO_TASK_PROCESS, kT0)), Dispatch(RssRecord(9500, KAVO_RSS_ANON, 4096, kT0 + kMs));
    EXPECT_EQ(700, Task(9500).ppid);
    const int64_t refreshed = Task(9500).lastInfoTime;
    WriteFakeProcess({9500, "main", 701});
    for (int elapsed : {2, 3}) {
      __basetime = refreshed + elapsed - static_cast<int64_t>(GetSystemSecondsTime() - __basetime);
      Dispatch(RssRecord(9500, KAVO_RSS_ANON, 8192, kT0 + kMs));
      EXPECT_EQ(elapsed < 3 ? 700 : 701, Task(9500).ppid) << elapsed << " s";
    }
    // "re-initialized>" is provisional too; a process that is gone keeps
    // its name and is not asked again within 3 s.
    Dispatch(ForkRecord(9501, 600, "re-initialized>", KAVO_TASK_PROCESS, kT0));
    LogCapture log;
    for (int size : {4096, 8192}) Dispatch(RssRecord(9501, KAVO_RSS_ANON, size, kT0 + kMs));
    EXPECT_TRUE(log.Count("[KavoBpfService][GPI] Task not exists", ANDROID_LOG_WARN) == 1u && Task(9501).comm == std::string("re-initialized>"));
  }, FakeProc());
}

// One ring monitor forwarding in batches: each client gets exactly its
// events in the order they were made (each raw record, then what its handler
// derived), batch after batch, a record bigger than any batch included.
TEST(TaskEvents, ShortLivedProcessesReachEachClientInOrderAcrossBatches) {
  RunInNamespace([] {
    EventSink processes({KAVO_EVENT_TASK_CREATE, KAVO_EVENT_TASK_EXIT, KAVO_EVENT_PROCESS_CREATED, KAVO_EVENT_PROCESS_EXITED}, 1000);
    EventSink memory({KAVO_EVENT_RSS_STAT}, 1002);
    Records toProcesses, toMemory;
    kavo_process_exited_event late = {KAVO_EVENT_PROCESS_EXITED, 9999, "late"};
    {
      EventManager::BatchScope batch;
      for (int i = 0; i < 100; ++i) {
        const std::string comm = "proc" + std::to_string(i);
        auto fork = ForkRecord(7000 + i, 1, comm.c_str(), KAVO_TASK_PROCESS, 1000 + i, 10000 + i);
        auto rss = RssRecord(7000 + i, KAVO_RSS_ANON, 4096 * i, 2000 + i);
        auto exit = ExitRecord(7000 + i, comm.c_str(), KAVO_TASK_PROCESS, 3000 + i);
        kavo_process_created_event created = {KAVO_EVENT_PROCESS_CREATED, 7000 + i, 1, 10000 + i, {}};
        kavo_process_exited_event exited = {KAVO_EVENT_PROCESS_EXITED, 7000 + i, {}};
        strcpy(created.comm, comm.c_str()), strcpy(exited.comm, comm.c_str());
        for (const std::string& record : {Bytes(fork), Bytes(rss), Bytes(exit)}) DispatchBytes(record);
        toProcesses.insert(toProcesses.end(), {Bytes(fork), Bytes(created), Bytes(exit), Bytes(exited)});
        toMemory.push_back(Bytes(rss));
        if (i == 50) {
          std::string huge(EventBatch::kMaxBytes + 1, 'h');
          huge[0] = KAVO_EVENT_RSS_STAT, huge[1] = huge[2] = huge[3] = 0;
          EventManager::GetInstance()->AppendEvent(&huge[0], static_cast<unsigned>(huge.size()));
          toMemory.push_back(huge);
        }
      }
      batch.flush();  // everything made so far is queued, nothing waits
      EXPECT_TRUE(toProcesses == processes.Drain() && toMemory == memory.Drain());
      EventManager::GetInstance()->AppendEvent(reinterpret_cast<char*>(&late), sizeof(late));
    }
    EXPECT_TRUE(processes.Drain() == Records{Bytes(late)} && memory.Drain().empty());
  });
}

// A batch that fills up in the middle of a drain goes to the clients' writer
// whole (here the sinks' drains play the IPC thread) when it makes no more
// copies than it holds events. What the writer has not taken yet still
// reaches each client in order and before anything forwarded later; a
// client that unsubscribes gets what was routed to it before and nothing
// after; a closed client's events never reach the next connection on its
// descriptor; a writer too far behind, or a batch that fans out wider, makes
// the producer deliver.
TEST(TaskEvents, BatchesHandedToTheWriterKeepTheirOrderAndTheirSubscribers) {
  RunInNamespace([] {
    EventManager* events = EventManager::GetInstance();
    constexpr size_t kBatch = EventBatch::kMaxEvents;
    // a takes the memory records, b the one fork record that ends each
    // batch: a batch makes kBatch copies, as many as it holds.
    EventSink a({KAVO_EVENT_RSS_STAT}, 1000), b({KAVO_EVENT_TASK_CREATE}, 1001);
    Records made;
    size_t inBatch = 0;
    auto publish = [&](size_t count) {
      for (size_t i = 0; i < count; ++i, inBatch = (inBatch + 1) % kBatch) {
        const uint64_t n = made.size();
        std::string record = inBatch == kBatch - 1 ? Bytes(ForkRecord(static_cast<int>(9000 + n), 1, "fork", KAVO_TASK_PROCESS, n))
                                                   : Bytes(RssRecord(8000, KAVO_RSS_ANON, 4096 * static_cast<int64_t>(n), n));
        events->AppendEvent(record.data(), static_cast<unsigned>(record.size()));
        made.push_back(record);
      }
    };
    auto madeBetween = [&](size_t from, size_t to, int type) {
      Records of;
      std::copy_if(made.begin() + from, made.begin() + to, std::back_inserter(of), [type](const std::string& r) { return RecordType(r) == type; });
      return of;
    };
    EventManager::BatchScope scope;
    publish(kBatch - 1);
    EXPECT_EQ(0u, events->handedOver());
    publish(1);
    EXPECT_EQ(1u, events->handedOver());
    publish(kBatch + 1);
    EXPECT_EQ(2u, events->handedOver());

    // b leaves the type with two batches undelivered: it gets their forks,
    // not anything after.
    events->DelObserverEvent(1001, KAVO_EVENT_TASK_CREATE);
    EXPECT_EQ(0u, events->handedOver());
    EXPECT_TRUE(madeBetween(0, 2 * kBatch, KAVO_EVENT_TASK_CREATE) == b.Drain());

    // A batch a takes one less of is handed over too; a flush while batches
    // wait goes behind them.
    publish(kBatch - 1 + 5);
    EXPECT_EQ(1u, events->handedOver());
    scope.flush();
    inBatch = 0;
    EXPECT_EQ(2u, events->handedOver());
    EXPECT_TRUE(madeBetween(0, made.size(), KAVO_EVENT_RSS_STAT) == a.Drain() && b.Drain().empty());

    // c closes with a batch routed to it undelivered; the next connection on
    // its descriptor subscribed to something else and gets none of it.
    {
      EventSink c({KAVO_EVENT_TASK_CREATE}, 1002);
      publish(kBatch);
      EXPECT_EQ(1u, events->handedOver());
    }
    EXPECT_EQ(0u, events->handedOver());
    EXPECT_TRUE(EventSink({KAVO_EVENT_RSS_STAT}, 1002).Drain().empty());
    EXPECT_TRUE(madeBetween(made.size() - kBatch, made.size(), KAVO_EVENT_RSS_STAT) == a.Drain());

    // The writer may fall this far behind and no further: the next full
    // batch makes the producer deliver them all, then its own.
    events->AddObserverEvent(1001, KAVO_EVENT_TASK_CREATE);
    size_t from = made.size();
    publish(kBatch * EventManager::kMaxHandedBatches);
    EXPECT_EQ(EventManager::kMaxHandedBatches, events->handedOver());
    publish(kBatch);
    EXPECT_EQ(0u, events->handedOver());
    EXPECT_EQ(kBatch - 1 + (kBatch - 1) * EventManager::kMaxHandedBatches, KavoBpfService::GetInstance()->getClientQueueLengths()[1000]);
    EXPECT_TRUE(madeBetween(from, made.size(), KAVO_EVENT_RSS_STAT) == a.Drain());
    EXPECT_TRUE(madeBetween(from, made.size(), KAVO_EVENT_TASK_CREATE) == b.Drain());

    // With a taking the forks too, a batch makes one copy more than it
    // holds: the producer delivers it, after the batch still waiting.
    from = made.size();
    publish(kBatch);
    EXPECT_EQ(1u, events->handedOver());
    events->AddObserverEvent(1000, KAVO_EVENT_TASK_CREATE);
    publish(kBatch);
    EXPECT_EQ(0u, events->handedOver());
    EXPECT_EQ(2 * kBatch - 1, KavoBpfService::GetInstance()->getClientQueueLengths()[1000]);
    Records expected = madeBetween(from, from + kBatch, KAVO_EVENT_RSS_STAT);
    expected.insert(expected.end(), made.begin() + from + kBatch, made.end());
    EXPECT_TRUE(expected == a.Drain());
    EXPECT_TRUE(madeBetween(from, made.size(), KAVO_EVENT_TASK_CREATE) == b.Drain());
    publish(kBatch);
    EXPECT_EQ(0u, events->handedOver());
    EXPECT_EQ(kBatch, a.Drain().size());
  });
}

// A writer that went to sleep is woken for batches handed over mid-drain
// only once kWakeAfterBatches of them wait, when a wider batch comes, or when
// the scope flushes, and a flush with nothing of its own still pays what it
// owes. Pretend connections have no writer, so each wake-up shows as the
// loop's line for a descriptor it does not know.
TEST(TaskEvents, ASleepingWriterIsWokenOnceEnoughBatchesWaitOrTheDrainEnds) {
  RunInNamespace([] {
    LogCapture log;
    EventManager* events = EventManager::GetInstance();
    constexpr size_t kBatch = EventBatch::kMaxEvents;
    constexpr size_t kWake = EventManager::kWakeAfterBatches;
    const std::string kWakeUp = "[EpollManager][notifyWriteEventReady] the socket fd does not exist";
    EventSink a({KAVO_EVENT_RSS_STAT}, 1000);
    std::string record = Bytes(RssRecord(8000, KAVO_RSS_ANON, 4096, 1));
    auto publish = [&](size_t batches) {
      for (size_t i = 0; i < batches * kBatch; ++i) events->AppendEvent(&record[0], static_cast<unsigned>(record.size()));
    };
    EventManager::BatchScope scope;
    publish(kWake - 1);
    EXPECT_EQ(kWake - 1, events->handedOver());
    EXPECT_EQ(0u, log.Count(kWakeUp));
    publish(1);
    EXPECT_EQ(kWake, events->handedOver());
    EXPECT_EQ(1u, log.Count(kWakeUp));
    // Past it, each hand-over asks (a real writer, woken, is writing by then,
    // and asking it costs a counter).
    publish(1);
    EXPECT_EQ(2u, log.Count(kWakeUp));
    events->deliverHandedOver();
    EXPECT_EQ((kWake + 1) * kBatch, a.Drain().size());

    // The drain's last record fills a batch: the flush has none of its own
    // and still wakes the writer for the two waiting, once.
    publish(2);
    EXPECT_EQ(2u, log.Count(kWakeUp));
    scope.flush();
    EXPECT_EQ(3u, log.Count(kWakeUp));
    scope.flush();
    EXPECT_EQ(3u, log.Count(kWakeUp));
    events->deliverHandedOver();
    EXPECT_EQ(2 * kBatch, a.Drain().size());

    // A batch b takes too fans out wider than it holds: this thread delivers
    // it behind the one waiting, and each writer is woken once.
    publish(1);
    EXPECT_EQ(3u, log.Count(kWakeUp));
    EventSink b({KAVO_EVENT_RSS_STAT}, 1001);
    publish(1);
    EXPECT_EQ(0u, events->handedOver());
    EXPECT_EQ(5u, log.Count(kWakeUp));
    EXPECT_EQ(2 * kBatch, a.Drain().size());
    EXPECT_EQ(kBatch, b.Drain().size());
  });
}

}  // namespace
}  // namespace Kavo::Bpf
