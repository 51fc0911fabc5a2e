// The initial scan and the /proc readers over a made-up process tree: what
// the task table and the clients get from /proc files as the kernel writes
// them, and from files that are damaged, cut short or gone mid-walk.

#include <android/log.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "support/event_sink.h"
#include "support/fake_proc.h"
#include "support/harness.h"
#include "support/log_capture.h"
#include "service/kavo_bpf_service.h"

namespace Kavo::Bpf {
namespace {

using namespace kavo::test;

TEST(TaskScan, TheScanSeedsTableAndClients) {
  RunInNamespace([] {
    EXPECT_FALSE(InitBasetime());  // no /proc/stat: the base stays
    WriteFile("/proc/stat", "cpu 1\nbtime garbage\n");
    EXPECT_TRUE(InitBasetime());
    EXPECT_EQ(0, GetBasetime());
    WriteFile("/proc/stat", "cpu  1 2 3 4\nbtime 1700000000\nprocesses 9\n");
    ASSERT_TRUE(InitBasetime());
    FakeProcess init;
    init.pid = 1, init.name = "init", init.ppid = 0, init.uid = 0, init.threads = 3;
    init.rssAnonKb = 1000, init.rssFileKb = 2000, init.rssShmemKb = 300, init.swapKb = 40;
    init.startTicks = 5 * sysconf(_SC_CLK_TCK);
    WriteFakeProcess(init);
    FakeProcess big;  // 2,097,152 kB and more wrap in the 32-bit kB arithmetic
    big.pid = 4242, big.name = "com.example.app", big.uid = 10050;
    big.rssAnonKb = 2097152, big.rssFileKb = 3145728, big.rssShmemKb = 2097151, big.swapKb = 2097153;
    WriteFakeProcess(big);
    FakeProcess spaced;  // a blank in the name shifts no stat field
    spaced.pid = 4300, spaced.name = "Web Content", spaced.threads = 7;
    WriteFakeProcess(spaced);
    FakeProcess vanished;  // status read, then gone before its stat
    vanished.pid = 4400, vanished.withStat = false;
    WriteFakeProcess(vanished);
    for (const char* notAProcess : {"/proc/4500", "/proc/self", "/proc/12a"}) MakeDirs(notAProcess);
    // Damaged values are read as missing; a stat of too few fields gives no threads or start.
    WriteFile("/proc/77/status", "Name:\tdamaged\nPPid:\tnone\nUid:\t\nRssAnon:\tlots kB\nRssFile:\t  12 kB\n");
    WriteFile("/proc/77/stat", "77 (damaged) S 1 2 3\n");
    // Every prefix with nothing after it: an empty name and no memory.
    WriteFile("/proc/500/status", "Name:\t\nPPid:\t\nUid:\t\nRssAnon:\t\nRssFile:\t\nRssShmem:\t\nVmSwap:\t\n");
    WriteFile("/proc/500/stat", "500 () S");

    EventSink sink({KAVO_EVENT_TASK_INIT});
    const uint64_t countedBefore = Counted(KAVO_EVENT_TASK_INIT);
    KavoBpfService::GetInstance()->initTaskInfo();
    EXPECT_EQ(5u, KavoTaskManager::GetInstance()->GetKavoTaskCount());
    EXPECT_EQ("init 1 ppid 0 uid 0 threads 3/3 mm 0 rss 2048000,1024000,40960,307200 "
              "old 2048000,1024000,40960,307200 start 1700000005", TaskLine(1));
    // Stamped with the 32-bit boot clock: small, so the first kernel event
    // already counts as 3 s later.
    EXPECT_GE(KavoTaskManager::GetInstance()->GetKavoTask(1)->firstSeenNs, INT32_MIN);
    EXPECT_LE(KavoTaskManager::GetInstance()->GetKavoTask(1)->firstSeenNs, INT32_MAX);
    EXPECT_EQ("com.example.app 4242 ppid 1 uid 10050 threads 1/1 mm 0 rss -1073741824,-2147483648,-2147482624,"
              "2147482624 old -1073741824,-2147483648,-2147482624,2147482624 start 1700000000", TaskLine(4242));
    EXPECT_EQ("Web Content 4300 ppid 1 uid 0 threads 7/7 mm 0 rss 0,0,0,0 old 0,0,0,0 start 1700000000",
              TaskLine(4300));
    EXPECT_EQ("damaged 77 ppid 0 uid 0 threads 0/0 mm 0 rss 12288,0,0,0 old 12288,0,0,0 start 0", TaskLine(77));
    EXPECT_EQ(" 500 ppid 0 uid 0 threads 0/0 mm 0 rss 0,0,0,0 old 0,0,0,0 start 0", TaskLine(500));
    // Each scanned process reached the clients as a task-init record and was counted.
    auto records = sink.Drain();
    ASSERT_EQ(5u, records.size());
    for (const std::string& record : records) EXPECT_EQ(88u, record.size());
    EXPECT_EQ(KAVO_EVENT_TASK_INIT, RecordType(records[0]));
    EXPECT_EQ(2 * 5u, Counted(KAVO_EVENT_TASK_INIT) - countedBefore);
  }, FakeProc());
}

TEST(TaskScan, ReadersOfNameParentSizeAndInode) {
  RunInNamespace([] {
    KavoBpfService* service = KavoBpfService::GetInstance();
    // Parent before name, a 16-character name (cut to 15), a damaged
    // parent line skipped; empty values. (A process that is gone: the
    // handlers show it.)
    WriteFile("/proc/77/status", "PPid:\t12\nName:\tabcdefghijklmnop\nPPid:\tgarbage\n");
    WriteFile("/proc/78/status", "Name:\t\nPPid:\t\n");
    for (UpdateProcessExdata expected : std::vector<UpdateProcessExdata>{{77, 12, "abcdefghijklmno"}, {78, 0, ""}}) {
      UpdateProcessExdata info = {};
      ASSERT_EQ(0, service->getProcessInfo(expected.pid, &info));
      EXPECT_EQ(0, memcmp(&expected, &info, sizeof(info))) << expected.pid << " " << info.ppid << " " << info.comm;
    }
    LogCapture log;
    AddFakeFd(300, 9, "/dmabuf:", 8192, 5000000000LL);
    EXPECT_EQ(8192, service->GetFdSize("/proc/300/fdinfo/9"));
    EXPECT_EQ(5000000000ull, service->GetFdInode("/proc/300/fdinfo/9"));  // above 2^32, whole
    // No such line, damaged and empty values: 0, and no failure to log.
    WriteFile("/proc/300/fdinfo/10", "pos:\t0\nflags:\t02\n");
    WriteFile("/proc/300/fdinfo/11", "size:\tlots\nino:\t-4\n");
    WriteFile("/proc/300/fdinfo/12", "size:\t\nino:\t\n");
    for (std::string fd : {"10", "11", "12", "13"}) {
      EXPECT_EQ(0, service->GetFdSize("/proc/300/fdinfo/" + fd)) << fd;
      EXPECT_EQ(0u, service->GetFdInode("/proc/300/fdinfo/" + fd)) << fd;
    }
    // A missing file is: once per reader.
    EXPECT_EQ(2u, log.Lines().size());
    EXPECT_EQ(2u, log.Count("Unable to open /proc/300/fdinfo/13", ANDROID_LOG_WARN));
  }, FakeProc());
}

}  // namespace
}  // namespace Kavo::Bpf
