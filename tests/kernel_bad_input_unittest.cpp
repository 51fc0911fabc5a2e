// What the kernel side hands the service, cut short or out of range: /proc
// files whose lines stop right after their prefix, and ring records whose
// times lie far apart. Each is read as an empty or unremarkable value and
// changes nothing else.

#include <stdint.h>
#include <string.h>

#include <mutex>

#include <gtest/gtest.h>

#include "support/event_sink.h"
#include "support/harness.h"
#include "service/kavo_bpf_service.h"
#include "service/kavo_bpf_task_manager.h"

namespace Kavo::Bpf {
namespace {

using kavo::test::WriteFile;

TEST(KernelBadInput, ProcLinesThatStopAfterTheirPrefix) {
  kavo::test::RunInNamespace(
      [] {
        KavoBpfService* service = KavoBpfService::GetInstance();
        // Every prefix the readers look for, with nothing after it.
        WriteFile("/proc/500/status",
                  "Name:\t\nPPid:\t\nUid:\t\nRssAnon:\t\nRssFile:\t\nRssShmem:\t\nVmSwap:\t\n");
        WriteFile("/proc/500/stat", "500 () S");
        WriteFile("/proc/500/fdinfo/3", "size:\t\nino:\t\n");

        UpdateProcessExdata info = {};
        ASSERT_EQ(0, service->getProcessInfo(500, &info));
        EXPECT_EQ(500, info.pid);
        EXPECT_EQ(0, info.ppid);
        EXPECT_STREQ("", info.comm);
        EXPECT_EQ(0, service->GetFdSize("/proc/500/fdinfo/3"));
        EXPECT_EQ(0u, service->GetFdInode("/proc/500/fdinfo/3"));

        // The scan still records the process, with an empty name and no memory.
        kavo::test::EventSink client({KAVO_EVENT_TASK_INIT});
        service->initTaskInfo();
        auto records = client.Drain();
        ASSERT_EQ(1u, records.size());
        auto init = kavo::test::RecordAs<kavo_task_init_event>(records[0]);
        EXPECT_EQ(500, init.pid);
        EXPECT_STREQ("", init.comm);
        EXPECT_EQ(0, init.rss_anon + init.rss_file + init.rss_shmem + init.rss_swap);
        std::lock_guard<std::mutex> guard(KavoTaskManager::kavoTaskManagerLock);
        EXPECT_NE(nullptr, KavoTaskManager::GetInstance()->GetKavoTask(500));
      },
      kavo::test::FakeProc());
}

// A stat file whose start time does not fit in 64-bit nanoseconds (found by
// proc_readers_fuzzer: the conversion overflowed). The start counts as not
// known: the process is scanned, and a resynchronisation keeps it.
TEST(KernelBadInput, StartTimesBeyond64BitNanoseconds) {
  kavo::test::RunInNamespace(
      [] {
        KavoBpfService* service = KavoBpfService::GetInstance();
        WriteFile("/proc/600/status", "Name:\tancient\nPPid:\t1\n");
        WriteFile("/proc/600/stat",
                  "600 (ancient) S 1 600 600 0 -1 4194560 100 0 0 0 5 3 0 0 20 0 1 0 "
                  "18446744073709551 12345678 300\n");
        service->initTaskInfo();
        {
          std::lock_guard<std::mutex> guard(KavoTaskManager::kavoTaskManagerLock);
          KavoTask* task = KavoTaskManager::GetInstance()->GetKavoTask(600);
          ASSERT_NE(nullptr, task);
          EXPECT_EQ(0, task->startTimeNs);
        }
        kavo::test::EventSink client({KAVO_EVENT_PROCESS_CREATED, KAVO_EVENT_PROCESS_EXITED});
        service->resyncTaskTable(1);
        EXPECT_TRUE(client.Drain().empty());
      },
      kavo::test::FakeProc());
}

// Record times as far apart as 64 bits allow: the handlers take the
// difference from a task's first-seen time in two's complement, never as an
// overflowing signed subtraction (UBSan would stop here). No kernel writes
// such times (boot nanoseconds stay below 2^62), but records are read as
// they come.
TEST(KernelBadInput, RecordTimesFarApartDoNotOverflow) {
  kavo::test::RunInNamespace([] {
    KavoBpfService* service = KavoBpfService::GetInstance();
    kavo::test::EventSink client({KAVO_EVENT_THREAD_COUNT_CHANGED, KAVO_EVENT_MEMORY_CHANGED});
    kavo_fork_event fork = {};
    fork.header.type = KAVO_EVENT_TASK_CREATE;
    fork.header.time_ns = 1ull << 63;  // INT64_MIN as the handlers read it
    fork.ppid = 1;
    fork.pid = 4242;
    fork.kind = KAVO_TASK_PROCESS;
    strcpy(fork.comm, "far");
    service->handleSched_SchedProcessFork(reinterpret_cast<char*>(&fork), sizeof(fork));

    kavo_rss_event rss = {};
    rss.header.type = KAVO_EVENT_RSS_STAT;
    rss.header.time_ns = (1ull << 63) - 1;  // INT64_MAX
    rss.pid = 4242;
    rss.member = KAVO_RSS_ANON;
    rss.size = 1 << 20;
    service->handleKmem_RssStat(reinterpret_cast<char*>(&rss), sizeof(rss));

    fork.kind = KAVO_TASK_THREAD;
    fork.header.time_ns = (1ull << 63) - 1;
    for (int i = 0; i < 12; ++i) {
      service->handleSched_SchedProcessFork(reinterpret_cast<char*>(&fork), sizeof(fork));
    }
    // In two's complement the differences are negative: too young to report.
    EXPECT_TRUE(client.Drain().empty());
  });
}

// A change of 2^63 bytes (a task-init record claiming INT64_MIN) must not
// overflow the RSS handler's sum of the four counters' changes. Task-init
// records come only from the service's own scan, whose sizes fit in 32 bits,
// but records are read as they come.
TEST(KernelBadInput, SizesFarApartDoNotOverflow) {
  kavo::test::RunInNamespace([] {
    KavoBpfService* service = KavoBpfService::GetInstance();
    kavo_task_init_event init = {};
    init.header.type = KAVO_EVENT_TASK_INIT;
    init.pid = 4343;
    init.ppid = 1;
    init.thread_count = 1;
    init.rss_anon = INT64_MIN;
    strcpy(init.comm, "far");
    service->handleKavoTaskInitEvent(reinterpret_cast<char*>(&init), sizeof(init));
    kavo_rss_event rss = {};
    rss.header.type = KAVO_EVENT_RSS_STAT;
    rss.pid = 4343;
    rss.member = KAVO_RSS_ANON;
    rss.size = 0;
    EXPECT_EQ(0, service->handleKmem_RssStat(reinterpret_cast<char*>(&rss), sizeof(rss)));
  });
}

}  // namespace
}  // namespace Kavo::Bpf
