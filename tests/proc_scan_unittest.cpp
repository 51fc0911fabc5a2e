// The initial scan and the /proc readers over a made-up process tree: what
// the task table and the clients get from /proc files as the kernel writes
// them, and from files that are damaged, cut short or gone mid-walk.

#include <android/log.h>
#include <unistd.h>

#include <string>

#include <gtest/gtest.h>

#include "support/event_sink.h"
#include "support/fake_proc.h"
#include "support/harness.h"
#include "support/log_capture.h"
#include "service/kavo_bpf_service.h"
#include "service/kavo_bpf_state.h"
#include "service/kavo_bpf_task_manager.h"

namespace Kavo::Bpf {
namespace {

using kavo::test::FakeProcess;
using kavo::test::WriteFile;

KavoTask* Find(int pid) { return KavoTaskManager::GetInstance()->GetKavoTask(pid); }

TEST(ProcScan, TheScanSeedsTableAndClients) {
  kavo::test::RunInNamespace(
      [] {
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
        kavo::test::WriteFakeProcess(init);
        FakeProcess big;  // 2,097,152 kB and more wrap in the 32-bit kB arithmetic
        big.pid = 4242, big.name = "com.example.app", big.uid = 10050;
        big.rssAnonKb = 2097152, big.rssFileKb = 3145728, big.rssShmemKb = 2097151, big.swapKb = 2097153;
        kavo::test::WriteFakeProcess(big);
        FakeProcess spaced;  // a blank in the name shifts no stat field
        spaced.pid = 4300, spaced.name = "Web Content", spaced.threads = 7;
        kavo::test::WriteFakeProcess(spaced);
        FakeProcess vanished;  // status read, then gone before its stat
        vanished.pid = 4400, vanished.withStat = false;
        kavo::test::WriteFakeProcess(vanished);
        kavo::test::MakeDirs("/proc/4500");  // gone before anything was read
        kavo::test::MakeDirs("/proc/self");
        kavo::test::MakeDirs("/proc/12a");
        // Damaged values are read as missing; a stat of too few fields gives no threads or start.
        WriteFile("/proc/77/status", "Name:\tdamaged\nPPid:\tnone\nUid:\t\nRssAnon:\tlots kB\nRssFile:\t  12 kB\n");
        WriteFile("/proc/77/stat", "77 (damaged) S 1 2 3\n");
        // Every prefix with nothing after it: an empty name and no memory.
        WriteFile("/proc/500/status", "Name:\t\nPPid:\t\nUid:\t\nRssAnon:\t\nRssFile:\t\nRssShmem:\t\nVmSwap:\t\n");
        WriteFile("/proc/500/stat", "500 () S");

        kavo::test::EventSink sink({KAVO_EVENT_TASK_INIT});
        KavoBpfDataState* state = KavoBpfDataState::GetInstance();
        const uint32_t countedBefore = state->counterAt(state->newestSecond(), KAVO_EVENT_TASK_INIT);
        KavoBpfService::GetInstance()->initTaskInfo();

        EXPECT_EQ(5u, KavoTaskManager::GetInstance()->GetKavoTaskCount());
        KavoTask* t = Find(1);
        ASSERT_NE(nullptr, t);
        EXPECT_STREQ("init", t->comm);
        EXPECT_EQ(0, t->ppid);
        EXPECT_EQ(3, t->threadNum);
        EXPECT_EQ(3, t->oldThreadNum);
        EXPECT_EQ((std::vector<int64_t>{2000 * 1024, 1000 * 1024, 40 * 1024, 300 * 1024}),
                  std::vector<int64_t>(t->rssSize, t->rssSize + 4));
        EXPECT_EQ(1700000005, t->initTimeStamp);
        // Stamped with the 32-bit boot clock: small, so the first kernel event
        // already counts as 3 s later.
        EXPECT_GE(t->firstSeenNs, INT32_MIN);
        EXPECT_LE(t->firstSeenNs, INT32_MAX);
        t = Find(4242);
        ASSERT_NE(nullptr, t);
        EXPECT_STREQ("com.example.app", t->comm);  // 15 characters, whole
        EXPECT_EQ(10050, t->uid);                  // the real uid, first of four
        EXPECT_EQ((std::vector<int64_t>{-1073741824, INT32_MIN, INT32_MIN + 1024, 2147482624}),
                  std::vector<int64_t>(t->rssSize, t->rssSize + 4));
        t = Find(4300);
        ASSERT_NE(nullptr, t);
        EXPECT_STREQ("Web Content", t->comm);
        EXPECT_EQ(7, t->threadNum);
        t = Find(77);
        ASSERT_NE(nullptr, t);
        EXPECT_EQ(0, t->ppid);
        EXPECT_EQ(0, t->rssSize[KAVO_RSS_ANON]);
        EXPECT_EQ(12 * 1024, t->rssSize[KAVO_RSS_FILE]);
        EXPECT_EQ(0, t->threadNum);
        EXPECT_EQ(0, t->initTimeStamp);
        t = Find(500);
        ASSERT_NE(nullptr, t);
        EXPECT_STREQ("", t->comm);

        // Each scanned process reached the clients as a task-init record and was counted.
        auto records = sink.Drain();
        ASSERT_EQ(5u, records.size());
        for (const std::string& record : records) {
          EXPECT_EQ(88u, record.size());
          EXPECT_EQ(KAVO_EVENT_TASK_INIT, kavo::test::RecordType(record));
        }
        EXPECT_EQ(2 * 5u, state->counterAt(state->newestSecond(), KAVO_EVENT_TASK_INIT) - countedBefore);
      },
      kavo::test::FakeProc());
}

TEST(ProcScan, ReadersOfNameParentSizeAndInode) {
  kavo::test::RunInNamespace(
      [] {
        KavoBpfService* service = KavoBpfService::GetInstance();
        FakeProcess app;
        app.pid = 4321, app.name = "com.example.app", app.ppid = 610;
        kavo::test::WriteFakeProcess(app);
        UpdateProcessExdata info = {};
        ASSERT_EQ(0, service->getProcessInfo(4321, &info));
        EXPECT_EQ(4321, info.pid);
        EXPECT_EQ(610, info.ppid);
        EXPECT_STREQ("com.example.app", info.comm);
        // Parent before name, a 16-character name (cut to 15), a damaged parent line skipped.
        WriteFile("/proc/77/status", "PPid:\t12\nName:\tabcdefghijklmnop\nPPid:\tgarbage\n");
        info = {};
        ASSERT_EQ(0, service->getProcessInfo(77, &info));
        EXPECT_EQ(12, info.ppid);
        EXPECT_STREQ("abcdefghijklmno", info.comm);
        WriteFile("/proc/78/status", "Name:\t\nPPid:\t\n");
        info = {};
        ASSERT_EQ(0, service->getProcessInfo(78, &info));
        EXPECT_EQ(0, info.ppid);
        EXPECT_STREQ("", info.comm);
        // A process that is gone leaves the caller's record alone.
        kavo::test::LogCapture log;
        UpdateProcessExdata untouched = {5, 6, "keep"};
        EXPECT_EQ(-1, service->getProcessInfo(79, &untouched));
        EXPECT_EQ(6, untouched.ppid);
        EXPECT_STREQ("keep", untouched.comm);
        EXPECT_TRUE(log.Contains("[KavoBpfService][GPI] Task not exists, errno info: No such file or directory",
                                 ANDROID_LOG_WARN));

        log.Clear();
        kavo::test::AddFakeFd(300, 9, "/dmabuf:", 8192, 5000000000LL);
        EXPECT_EQ(8192, service->GetFdSize("/proc/300/fdinfo/9"));
        EXPECT_EQ(5000000000ull, service->GetFdInode("/proc/300/fdinfo/9"));  // above 2^32, whole
        // No such line, damaged and empty values: 0, and no failure to log.
        WriteFile("/proc/300/fdinfo/10", "pos:\t0\nflags:\t02\n");
        WriteFile("/proc/300/fdinfo/11", "size:\tlots\nino:\t-4\n");
        WriteFile("/proc/300/fdinfo/12", "size:\t\nino:\t\n");
        for (const char* fd : {"10", "11", "12"}) {
          EXPECT_EQ(0, service->GetFdSize(std::string("/proc/300/fdinfo/") + fd)) << fd;
          EXPECT_EQ(0u, service->GetFdInode(std::string("/proc/300/fdinfo/") + fd)) << fd;
        }
        EXPECT_TRUE(log.Lines().empty());
        EXPECT_EQ(0, service->GetFdSize("/proc/300/fdinfo/13"));
        EXPECT_EQ(0u, service->GetFdInode("/proc/300/fdinfo/13"));
        EXPECT_EQ(2u, log.Count("Unable to open /proc/300/fdinfo/13", ANDROID_LOG_WARN));
      },
      kavo::test::FakeProc());
}

}  // namespace
}  // namespace Kavo::Bpf
