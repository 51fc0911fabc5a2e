// The task table following the kernel's fork, exit, task-init and rss_stat
// records, and the derived events clients see from it. Records are built by
// hand in the layouts the kernel programs write.

#include <android/log.h>
#include <string.h>

#include <chrono>
#include <thread>

#include <gtest/gtest.h>

#include "support/event_sink.h"
#include "support/fake_proc.h"
#include "support/log_capture.h"
#include "support/harness.h"
#include "service/kavo_bpf_service.h"
#include "service/kavo_bpf_task_manager.h"

namespace Kavo::Bpf {
namespace {

using kavo::test::EventSink;
using kavo::test::RecordAs;
using kavo::test::RecordType;

constexpr uint64_t kSecond = 1000000000ull;
constexpr uint64_t kT0 = 5000 * kSecond;  // boot time of the first event

KavoBpfService* Service() { return KavoBpfService::GetInstance(); }

KavoTask Task(int pid) {
  std::lock_guard<std::mutex> guard(KavoTaskManager::kavoTaskManagerLock);
  KavoTask* task = KavoTaskManager::GetInstance()->GetKavoTask(pid);
  return task == nullptr ? KavoTask{} : *task;
}

bool Known(int pid) {
  std::lock_guard<std::mutex> guard(KavoTaskManager::kavoTaskManagerLock);
  return KavoTaskManager::GetInstance()->GetKavoTask(pid) != nullptr;
}

void Fork(int pid, int ppid, const char* comm, uint32_t kind, uint64_t time = kT0, int uid = 10001) {
  kavo_fork_event e = {};
  e.header.type = KAVO_EVENT_TASK_CREATE;
  e.header.time_ns = time;
  e.ppid = ppid;
  e.pid = pid;
  e.uid = uid;
  snprintf(e.comm, sizeof(e.comm), "%s", comm);
  e.kind = kind;
  Service()->handleSched_SchedProcessFork(reinterpret_cast<char*>(&e), sizeof(e));
}

void Exit(int pid, const char* comm, uint32_t kind, uint64_t time = kT0) {
  kavo_exit_event e = {};
  e.header.type = KAVO_EVENT_TASK_EXIT;
  e.header.time_ns = time;
  e.pid = pid;
  snprintf(e.comm, sizeof(e.comm), "%s", comm);
  e.kind = kind;
  Service()->handleSched_SchedProcessExit(reinterpret_cast<char*>(&e), sizeof(e));
}

void Rss(int pid, int member, int64_t size, uint64_t time) {
  kavo_rss_event e = {};
  e.header.type = KAVO_EVENT_RSS_STAT;
  e.header.time_ns = time;
  e.pid = pid;
  e.member = member;
  e.size = size;
  Service()->handleKmem_RssStat(reinterpret_cast<char*>(&e), sizeof(e));
}

TEST(TaskEvents, ProcessLifecycle) {
  EventSink sink({KAVO_EVENT_PROCESS_CREATED, KAVO_EVENT_PROCESS_EXITED});
  Fork(5000, 4000, "app_process", KAVO_TASK_PROCESS);
  Fork(5000, 4000, "again", KAVO_TASK_PROCESS);  // known pid: nothing at all
  auto records = sink.Drain();
  ASSERT_EQ(1u, records.size());
  auto created = RecordAs<kavo_process_created_event>(records[0]);
  EXPECT_EQ(sizeof(kavo_process_created_event), records[0].size());
  EXPECT_EQ(KAVO_EVENT_PROCESS_CREATED, created.type);
  EXPECT_EQ(5000, created.pid);
  EXPECT_EQ(4000, created.ppid);
  EXPECT_EQ(10001, created.uid);
  EXPECT_STREQ("app_process", created.comm);
  KavoTask task = Task(5000);
  EXPECT_EQ(1, task.threadNum);
  EXPECT_EQ(static_cast<int64_t>(kT0), task.firstSeenNs);
  EXPECT_GT(task.initTimeStamp, 0);

  Exit(5000, "renamed", KAVO_TASK_PROCESS);
  Exit(5999, "stranger", KAVO_TASK_PROCESS);  // never seen: still reported
  records = sink.Drain();
  ASSERT_EQ(2u, records.size());
  auto exited = RecordAs<kavo_process_exited_event>(records[0]);
  EXPECT_EQ(sizeof(kavo_process_exited_event), records[0].size());
  EXPECT_EQ(5000, exited.pid);
  EXPECT_STREQ("renamed", exited.comm);  // the exit record's name
  EXPECT_EQ(5999, RecordAs<kavo_process_exited_event>(records[1]).pid);
  EXPECT_FALSE(Known(5000));

  // Records of no known kind are errors, and change nothing.
  kavo::test::LogCapture log;
  Fork(5001, 1, "odd", 3);
  Exit(5001, "odd", 0);
  EXPECT_TRUE(log.Contains("[KavoBpfService] Task Create raw event (SCHED__TASK_CREATE) error!", ANDROID_LOG_ERROR));
  EXPECT_TRUE(log.Contains("[KavoBpfService] Task Exit raw event (SCHED__TASK_EXIT) error!", ANDROID_LOG_ERROR));
  EXPECT_TRUE(sink.Drain().empty());
  EXPECT_FALSE(Known(5001));
}

TEST(TaskEvents, UnknownParentAskedOfProc) {
  kavo::test::RunInNamespace(
      [] {
        EventSink sink({KAVO_EVENT_PROCESS_CREATED});
        kavo::test::FakeProcess p;
        p.pid = 6000;
        p.name = "realname";
        p.ppid = 33;
        kavo::test::WriteFakeProcess(p);
        Fork(6000, 0, "forkname", KAVO_TASK_PROCESS);
        Fork(6001, 0, "gone", KAVO_TASK_PROCESS);  // exited before /proc was read
        auto records = sink.Drain();
        ASSERT_EQ(2u, records.size());
        auto known = RecordAs<kavo_process_created_event>(records[0]);
        EXPECT_EQ(33, known.ppid);
        EXPECT_STREQ("realname", known.comm);
        auto gone = RecordAs<kavo_process_created_event>(records[1]);
        EXPECT_EQ(0, gone.ppid);
        EXPECT_STREQ("gone", gone.comm);
      },
      kavo::test::FakeProc());
}

TEST(TaskEvents, ThreadCountReports) {
  EventSink sink({KAVO_EVENT_THREAD_COUNT_CHANGED});
  Fork(7000, 1, "threads", KAVO_TASK_PROCESS, kT0);
  // 20 threads 2 s in: counted, never reported, however many.
  for (int i = 0; i < 20; ++i) Fork(7000, 7000, "threads", KAVO_TASK_THREAD, kT0 + 2 * kSecond);
  EXPECT_EQ(21, Task(7000).threadNum);
  EXPECT_TRUE(sink.Drain().empty());
  // The first change 3 s in reports everything since creation.
  Fork(7000, 7000, "threads", KAVO_TASK_THREAD, kT0 + 3 * kSecond);
  auto records = sink.Drain();
  ASSERT_EQ(1u, records.size());
  auto report = RecordAs<kavo_thread_count_event>(records[0]);
  EXPECT_EQ(sizeof(kavo_thread_count_event), records[0].size());
  EXPECT_EQ(7000, report.pid);
  EXPECT_EQ(1, report.ppid);
  EXPECT_EQ(10001, report.uid);
  EXPECT_EQ(1, report.old_thread_count);
  EXPECT_EQ(22, report.thread_count);

  // The next report needs a change of more than 10 from 22: exits count down.
  for (int i = 0; i < 10; ++i) Exit(7000, "threads", KAVO_TASK_THREAD, kT0 + 4 * kSecond);
  EXPECT_TRUE(sink.Drain().empty());
  Exit(7000, "threads", KAVO_TASK_THREAD, kT0 + 4 * kSecond);
  records = sink.Drain();
  ASSERT_EQ(1u, records.size());
  EXPECT_EQ(22, RecordAs<kavo_thread_count_event>(records[0]).old_thread_count);
  EXPECT_EQ(11, RecordAs<kavo_thread_count_event>(records[0]).thread_count);

  // Threads older than the record, and threads of unknown processes, do not count.
  Fork(7000, 7000, "threads", KAVO_TASK_THREAD, kT0 - kSecond);
  Fork(7001, 7001, "nobody", KAVO_TASK_THREAD, kT0 + 9 * kSecond);
  EXPECT_EQ(11, Task(7000).threadNum);
  EXPECT_FALSE(Known(7001));
}

TEST(TaskEvents, InitRecordSeedsAndReplaces) {
  Fork(8000, 1, "before", KAVO_TASK_PROCESS, kT0);
  for (int i = 0; i < 15; ++i) Fork(8000, 8000, "before", KAVO_TASK_THREAD, kT0 + 4 * kSecond);
  kavo_task_init_event init = {};
  init.header.type = KAVO_EVENT_TASK_INIT;
  init.header.time_ns = 123;
  init.pid = 8000;
  init.ppid = 1;
  init.uid = 1000;
  init.thread_count = 4;
  snprintf(init.comm, sizeof(init.comm), "%s", "init_seeded");
  init.rss_file = 1 << 20;
  init.rss_anon = 2 << 20;
  init.rss_shmem = 3 << 20;
  init.rss_swap = 4 << 20;
  init.start_time = 1700000000;
  EXPECT_EQ(0, Service()->handleKavoTaskInitEvent(reinterpret_cast<char*>(&init), sizeof(init)));
  KavoTask task = Task(8000);
  EXPECT_STREQ("init_seeded", task.comm);
  EXPECT_EQ(4, task.threadNum);
  EXPECT_EQ(4, task.oldThreadNum);
  EXPECT_EQ(1 << 20, task.rssSize[KAVO_RSS_FILE]);
  EXPECT_EQ(2 << 20, task.rssSize[KAVO_RSS_ANON]);
  EXPECT_EQ(4 << 20, task.rssSize[KAVO_RSS_SWAP]);  // swap and shmem trade places
  EXPECT_EQ(3 << 20, task.rssSize[KAVO_RSS_SHMEM]);
  EXPECT_EQ(0, memcmp(task.rssSize, task.rssOldSize, sizeof(task.rssSize)));
  EXPECT_EQ(1700000000, task.initTimeStamp);
  EXPECT_EQ(123, task.firstSeenNs);
  EXPECT_EQ(0u, task.mmId);
}

TEST(TaskEvents, MemoryReportsAccumulate) {
  EventSink sink({KAVO_EVENT_MEMORY_CHANGED});
  Fork(9000, 1, "bash", KAVO_TASK_PROCESS, kT0);
  // Too young to report, but the sizes are kept.
  Rss(9000, KAVO_RSS_ANON, 1 << 20, kT0 + kSecond);
  EXPECT_TRUE(sink.Drain().empty());
  EXPECT_EQ(1 << 20, Task(9000).rssSize[KAVO_RSS_ANON]);
  EXPECT_EQ(1000u, Task(9000).mmId);
  // Later, the whole change since creation is reported.
  Rss(9000, KAVO_RSS_FILE, 8192, kT0 + 4 * kSecond);
  auto records = sink.Drain();
  ASSERT_EQ(1u, records.size());
  auto first = RecordAs<kavo_memory_changed_event>(records[0]);
  EXPECT_EQ(sizeof(kavo_memory_changed_event), records[0].size());
  EXPECT_EQ(9000, first.pid);
  EXPECT_STREQ("bash", first.comm);  // contains "sh", but does not begin with it
  EXPECT_EQ(1 << 20, first.size[KAVO_RSS_ANON]);
  EXPECT_EQ(8192, first.size[KAVO_RSS_FILE]);
  EXPECT_EQ(0, first.old_size[KAVO_RSS_ANON]);

  // Two raises of 8192: one report, at the second, with the sizes before the first.
  Rss(9000, KAVO_RSS_ANON, (1 << 20) + 8192, kT0 + 5 * kSecond);
  EXPECT_TRUE(sink.Drain().empty());
  Rss(9000, KAVO_RSS_ANON, (1 << 20) + 16384, kT0 + 6 * kSecond);
  records = sink.Drain();
  ASSERT_EQ(1u, records.size());
  auto second = RecordAs<kavo_memory_changed_event>(records[0]);
  EXPECT_EQ((1 << 20) + 16384, second.size[KAVO_RSS_ANON]);
  EXPECT_EQ(1 << 20, second.old_size[KAVO_RSS_ANON]);
  EXPECT_EQ(8192, second.old_size[KAVO_RSS_FILE]);
  EXPECT_EQ(0, memcmp(Task(9000).rssSize, Task(9000).rssOldSize, sizeof(int64_t) * 4));

  // Damaged records are dropped: negative size, members out of range, short.
  Rss(9000, KAVO_RSS_ANON, -1, kT0 + 7 * kSecond);
  Rss(9000, 4, 1 << 30, kT0 + 7 * kSecond);
  Rss(9000, -1, 1 << 30, kT0 + 7 * kSecond);
  kavo_rss_event truncated = {};
  truncated.pid = 9000;
  Service()->handleKmem_RssStat(reinterpret_cast<char*>(&truncated), sizeof(truncated) - 1);
  EXPECT_TRUE(sink.Drain().empty());
  EXPECT_EQ((1 << 20) + 16384, Task(9000).rssSize[KAVO_RSS_ANON]);
}

TEST(TaskEvents, WhoseMemoryIsNeverReported) {
  EventSink sink({KAVO_EVENT_MEMORY_CHANGED});
  struct Case {
    int pid;
    int ppid;
    const char* comm;
    bool reported;
  } cases[] = {
      {300, 1, "early", false},    {301, 1, "app", true},          {1, 0, "init", true},
      {9100, 1, "sh", false},      {9101, 1, "shell_daemon", false}, {9102, 2, "kthreadish", false},
      {9103, 1, "dumpsys", false}, {9104, 1, "dumpsysx", false},    {9105, 1, "adbd", true},
  };
  for (const Case& c : cases) {
    Fork(c.pid, c.ppid, c.comm, KAVO_TASK_PROCESS, kT0);
    Rss(c.pid, KAVO_RSS_ANON, 1 << 20, kT0 + 5 * kSecond);
    auto records = sink.Drain();
    EXPECT_EQ(c.reported ? 1u : 0u, records.size()) << c.pid << " " << c.comm;
    EXPECT_EQ(1 << 20, Task(c.pid).rssSize[KAVO_RSS_ANON]) << c.pid;  // kept either way
  }
}

TEST(TaskEvents, ProvisionalNameRefreshedFromProc) {
  kavo::test::RunInNamespace(
      [] {
        EventSink sink({KAVO_EVENT_MEMORY_CHANGED});
        kavo::test::FakeProcess p;
        p.pid = 9500;
        p.name = "main";  // still being set up
        p.ppid = 700;
        kavo::test::WriteFakeProcess(p);
        Fork(9500, 600, "main", KAVO_TASK_PROCESS, kT0);
        Rss(9500, KAVO_RSS_ANON, 4096, kT0 + kSecond);  // first event: always asks /proc
        EXPECT_EQ(700, Task(9500).ppid);

        p.ppid = 701;
        kavo::test::WriteFakeProcess(p);
        Rss(9500, KAVO_RSS_ANON, 8192, kT0 + kSecond);  // within 3 s: not again
        EXPECT_EQ(700, Task(9500).ppid);

        std::this_thread::sleep_for(std::chrono::milliseconds(3100));
        p.name = "com.app.real";
        kavo::test::WriteFakeProcess(p);
        Rss(9500, KAVO_RSS_ANON, 1 << 20, kT0 + 5 * kSecond);
        EXPECT_EQ(701, Task(9500).ppid);
        auto records = sink.Drain();
        ASSERT_EQ(1u, records.size());
        EXPECT_STREQ("com.app.real", RecordAs<kavo_memory_changed_event>(records[0]).comm);

        // "re-initialized>" is provisional too; a process that is gone keeps
        // its name, and waits another 3 s before the next attempt.
        Fork(9501, 600, "re-initialized>", KAVO_TASK_PROCESS, kT0);
        kavo::test::LogCapture log;
        Rss(9501, KAVO_RSS_ANON, 4096, kT0 + kSecond);
        Rss(9501, KAVO_RSS_ANON, 8192, kT0 + kSecond);
        EXPECT_EQ(1u, log.Count("[KavoBpfService][GPI] Task not exists"));
        EXPECT_STREQ("re-initialized>", Task(9501).comm);
      },
      kavo::test::FakeProc());
}

}  // namespace
}  // namespace Kavo::Bpf
