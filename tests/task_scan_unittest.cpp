// The initial scan of /proc: one task-init record per process, seeding the
// task table and reaching clients, over a made-up process tree.

#include <unistd.h>

#include <gtest/gtest.h>

#include "support/event_sink.h"
#include "support/fake_proc.h"
#include "support/harness.h"
#include "service/kavo_bpf_service.h"
#include "service/kavo_bpf_task_manager.h"

namespace Kavo::Bpf {
namespace {

using kavo::test::FakeProcess;
using kavo::test::WriteFakeProcess;

KavoTask* Find(int pid) { return KavoTaskManager::GetInstance()->GetKavoTask(pid); }

TEST(TaskScan, SeedsTableAndClientsFromProc) {
  kavo::test::RunInNamespace(
      [] {
        kavo::test::WriteFile("/proc/stat", "cpu  1 2 3 4\nbtime 1700000000\n");
        ASSERT_TRUE(InitBasetime());
        const long ticks = sysconf(_SC_CLK_TCK);

        FakeProcess init;
        init.pid = 1;
        init.name = "init";
        init.ppid = 0;
        init.uid = 0;
        init.threads = 3;
        init.rssAnonKb = 1000;
        init.rssFileKb = 2000;
        init.rssShmemKb = 300;
        init.swapKb = 40;
        init.startTicks = 5 * ticks;
        WriteFakeProcess(init);

        FakeProcess big;  // 2 GiB and more wrap in the 32-bit kB arithmetic
        big.pid = 4242;
        big.name = "big";
        big.uid = 10050;
        big.rssAnonKb = 2097152;
        big.rssFileKb = 3145728;
        big.rssShmemKb = 2097151;
        WriteFakeProcess(big);

        FakeProcess spaced;  // a name with a blank shifts no stat field
        spaced.pid = 4300;
        spaced.name = "Web Content";
        spaced.threads = 7;
        WriteFakeProcess(spaced);

        FakeProcess vanished;  // status read, then gone before its stat
        vanished.pid = 4400;
        vanished.withStat = false;
        WriteFakeProcess(vanished);
        kavo::test::MakeDirs("/proc/4500");  // gone before anything was read
        kavo::test::MakeDirs("/proc/self");
        kavo::test::MakeDirs("/proc/sys");

        kavo::test::EventSink sink({KAVO_EVENT_TASK_INIT});
        KavoBpfService::GetInstance()->initTaskInfo();

        std::lock_guard<std::mutex> guard(KavoTaskManager::kavoTaskManagerLock);
        EXPECT_EQ(3u, KavoTaskManager::GetInstance()->GetKavoTaskCount());
        KavoTask* t = Find(1);
        ASSERT_NE(nullptr, t);
        EXPECT_STREQ("init", t->comm);
        EXPECT_EQ(0, t->ppid);
        EXPECT_EQ(3, t->threadNum);
        EXPECT_EQ(3, t->oldThreadNum);
        EXPECT_EQ(1000 * 1024, t->rssSize[KAVO_RSS_ANON]);
        EXPECT_EQ(2000 * 1024, t->rssSize[KAVO_RSS_FILE]);
        EXPECT_EQ(300 * 1024, t->rssSize[KAVO_RSS_SHMEM]);
        EXPECT_EQ(40 * 1024, t->rssSize[KAVO_RSS_SWAP]);
        EXPECT_EQ(1700000005, t->initTimeStamp);
        // Stamped with the 32-bit boot clock: small, so the first kernel event
        // already counts as 3 s later.
        EXPECT_GE(t->firstSeenNs, INT32_MIN);
        EXPECT_LE(t->firstSeenNs, INT32_MAX);

        t = Find(4242);
        ASSERT_NE(nullptr, t);
        EXPECT_EQ(10050, t->uid);  // the real uid, first of four
        EXPECT_EQ(INT32_MIN, t->rssSize[KAVO_RSS_ANON]);
        EXPECT_EQ(-1073741824, t->rssSize[KAVO_RSS_FILE]);
        EXPECT_EQ(2147482624, t->rssSize[KAVO_RSS_SHMEM]);

        t = Find(4300);
        ASSERT_NE(nullptr, t);
        EXPECT_STREQ("Web Content", t->comm);
        EXPECT_EQ(7, t->threadNum);

        EXPECT_EQ(nullptr, Find(4400));
        EXPECT_EQ(nullptr, Find(4500));

        // Clients subscribed to task-init records saw every scanned process.
        auto records = sink.Drain();
        ASSERT_EQ(3u, records.size());
        for (const std::string& record : records) {
          EXPECT_EQ(88u, record.size());
          EXPECT_EQ(KAVO_EVENT_TASK_INIT, kavo::test::RecordType(record));
        }
      },
      kavo::test::FakeProc());
}

TEST(TaskScan, DamagedValuesAreSkipped) {
  kavo::test::RunInNamespace(
      [] {
        kavo::test::WriteFile("/proc/77/status",
                              "Name:\tdamaged\nPPid:\tnone\nUid:\t\nRssAnon:\tlots kB\nRssFile:\t  12 kB\n");
        kavo::test::WriteFile("/proc/77/stat", "77 (damaged) S 1 2 3\n");  // too few fields
        KavoBpfService::GetInstance()->initTaskInfo();
        std::lock_guard<std::mutex> guard(KavoTaskManager::kavoTaskManagerLock);
        KavoTask* t = Find(77);
        ASSERT_NE(nullptr, t);
        EXPECT_STREQ("damaged", t->comm);
        EXPECT_EQ(0, t->ppid);
        EXPECT_EQ(0, t->rssSize[KAVO_RSS_ANON]);
        EXPECT_EQ(12 * 1024, t->rssSize[KAVO_RSS_FILE]);
        EXPECT_EQ(0, t->threadNum);
        EXPECT_EQ(0, t->initTimeStamp);
      },
      kavo::test::FakeProc());
}

}  // namespace
}  // namespace Kavo::Bpf
