// The task table and its dumps, as someone diagnosing a device reads them.

#include <android/log.h>
#include <errno.h>
#include <signal.h>
#include <sys/mount.h>
#include <unistd.h>

#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/log_capture.h"
#include "support/harness.h"
#include "service/kavo_bpf_service.h"
#include "service/kavo_bpf_signals.h"
#include "service/kavo_bpf_task_manager.h"

namespace Kavo::Bpf {
namespace {

using kavo::test::ReadFile;

KavoTask MakeTask(int pid, const char* comm, int64_t anon = 0, int64_t file = 0) {
  KavoTask task = {};
  task.pid = pid;
  task.ppid = 1;
  task.threadNum = 1;
  task.oldThreadNum = 1;
  snprintf(task.comm, sizeof(task.comm), "%s", comm);
  task.rssSize[KAVO_RSS_ANON] = anon;
  task.rssSize[KAVO_RSS_FILE] = file;
  return task;
}

std::string Left(const std::string& s, size_t width) {
  return s.size() >= width ? s : s + std::string(width - s.size(), ' ');
}
std::string Right(const std::string& s, size_t width) {
  return s.size() >= width ? s : std::string(width - s.size(), ' ') + s;
}

std::vector<std::string> Lines(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

TEST(TaskTable, LookupsReplaceAndDelete) {
  KavoTaskManager* tasks = KavoTaskManager::GetInstance();
  EXPECT_EQ(nullptr, tasks->GetKavoTask(4000));
  EXPECT_EQ(0u, tasks->GetKavoTaskCount());  // a failed lookup inserts nothing

  tasks->AddKavoTask(4000, MakeTask(4000, "first", 4096));
  KavoTask* stored = tasks->GetKavoTask(4000);
  ASSERT_NE(nullptr, stored);
  tasks->AddKavoTask(4000, MakeTask(4000, "second"));
  EXPECT_EQ(1u, tasks->GetKavoTaskCount());
  EXPECT_STREQ("second", stored->comm);  // earlier pointers see the replacement
  EXPECT_EQ(0, stored->rssSize[KAVO_RSS_ANON]);

  // The mm-id index is the caller's to keep in step: deleting a task leaves it.
  tasks->AddMmidIndex(77, stored);
  EXPECT_EQ(stored, tasks->GetKavoTaskByMmid(77));
  EXPECT_EQ(0, tasks->DelKavoTask(4000));
  EXPECT_EQ(0, errno);
  EXPECT_EQ(0u, tasks->GetKavoTaskCount());
  EXPECT_EQ(-1, tasks->DelKavoTask(4000));
  EXPECT_EQ(ENOENT, errno);
  EXPECT_EQ(0, tasks->DelMmidIndex(77));
  EXPECT_EQ(-1, tasks->DelMmidIndex(77));
  EXPECT_EQ(nullptr, tasks->GetKavoTaskByMmid(77));

  tasks->AddRssTempTask(9, MakeTask(1, "temp"));
  ASSERT_NE(nullptr, tasks->GetRssTempTask(9));
  EXPECT_EQ(0, tasks->DelRssTempTask(9));
  EXPECT_EQ(-1, tasks->DelRssTempTask(9));
  EXPECT_EQ(ENOENT, errno);
}

TEST(TaskTable, OrderByTotalResidentMemory) {
  KavoTask big = MakeTask(1, "big", 1 << 20);
  KavoTask small = MakeTask(2, "small", 100, 100);
  KavoTask same = MakeTask(3, "same", 150, 50);
  EXPECT_TRUE(CompareKavoTask(big, small));
  EXPECT_FALSE(CompareKavoTask(small, big));
  EXPECT_FALSE(CompareKavoTask(small, same));  // equal totals: neither first
  EXPECT_FALSE(CompareKavoTask(same, small));
}

// A table as a device might hold it: a kernel thread without memory, an app
// with a 15-character name, and a big process.
void FillTable() {
  KavoTaskManager* tasks = KavoTaskManager::GetInstance();
  KavoTask kworker = MakeTask(45, "kworker/0:1");
  kworker.ppid = 2;
  tasks->AddKavoTask(kworker.pid, kworker);

  KavoTask app = MakeTask(1234, "system_server12", 10240, 1023);
  app.ppid = 567;
  app.threadNum = 89;
  app.oldThreadNum = 80;
  app.mmId = 1000;
  app.rssOldSize[KAVO_RSS_FILE] = 2048;
  app.rssSize[KAVO_RSS_SHMEM] = 4096;
  app.rssSize[KAVO_RSS_SWAP] = -3072;  // printed as the signed value it is
  app.initTimeStamp = 1700000123;
  tasks->AddKavoTask(app.pid, app);

  tasks->AddKavoTask(900, MakeTask(900, "surfaceflinger", 6LL << 30));
}

TEST(TaskTable, FullDumpLayout) {
  kavo::test::RunInNamespace([] {
    FillTable();
    KavoTaskManager::GetInstance()->DumpKavoTaskInfo();
    std::vector<std::string> lines = Lines(ReadFile(KavoTaskManager::KAVOTASK_DUMP_TEMPLATE));
    ASSERT_EQ(5u, lines.size());
    EXPECT_TRUE(std::regex_match(
        lines[0], std::regex("============ DUMP ALL KAVO TASKS INFO \\(count: 3, time: [0-9]+\\) ============")))
        << lines[0];
    EXPECT_EQ(std::string("comm               pid         ppid        threadNum   oldThreadNum mmId        "
                          "rssAnonSize         rssAnonOldSize      rssFileSize         rssFileOldSize      "
                          "rssShmemSize        rssShmemOldSize     rssSwapSize         rssSwapOldSize      "
                          "initTimeStamp       "),
              lines[1]);
    EXPECT_EQ(0u, lines[2].rfind("surfaceflinger  ", 0)) << lines[2];  // largest first
    EXPECT_NE(std::string::npos, lines[2].find(Right("6291456", 10) + " KB")) << lines[2];
    std::string expected = "system_server12 " + std::string("   ") + Left("1234", 12) + Left("567", 12) +
                           Left("89", 12) + Left("80", 13) + Left("1000", 12) + Right("10", 10) + " KB" +
                           Right("0", 17) + " KB" + Right("0", 17) + " KB" + Right("2", 17) + " KB" +
                           Right("4", 17) + " KB" + Right("0", 17) + " KB" + Right("-3", 17) + " KB" +
                           Right("0", 17) + " KB" + Right("1700000123", 20);
    EXPECT_EQ(expected, lines[3]);
    EXPECT_EQ(0u, lines[4].rfind("kworker/0:1     " + std::string("   ") + Left("45", 12) + Left("2", 12), 0))
        << lines[4];
  });
}

TEST(TaskTable, ShortAndFilteredDumps) {
  kavo::test::RunInNamespace([] {
    FillTable();
    KavoTaskManager* tasks = KavoTaskManager::GetInstance();

    tasks->DumpKavoTaskInfoNormal();
    std::vector<std::string> lines = Lines(ReadFile(KavoTaskManager::KAVOTASK_DUMP_TEMPLATE));
    ASSERT_EQ(5u, lines.size());
    EXPECT_EQ(std::string("comm               pid         ppid        threadNum   mmId        rssAnonSize         "
                          "rssFileSize         rssShmemSize        rssSwapSize         initTimeStamp       "),
              lines[1]);
    EXPECT_EQ("system_server12 " + std::string("   ") + Left("1234", 12) + Left("567", 12) + Left("89", 12) +
                  Left("1000", 12) + Right("10", 10) + " KB" + Right("0", 17) + " KB" + Right("4", 17) + " KB" +
                  Right("-3", 17) + " KB" + Right("1700000123", 20),
              lines[3]);

    // Without tasks that hold no memory: the kernel thread goes, the count stays.
    for (auto dump : {&KavoTaskManager::DumpKavoTaskIgnoreKernelTaskInfo,
                      &KavoTaskManager::DumpKavoTaskIgnoreKernelTaskInfoNormal}) {
      (tasks->*dump)();
      std::string text = ReadFile(KavoTaskManager::KAVOTASK_DUMP_TEMPLATE);
      EXPECT_NE(std::string::npos, text.find("(count: 3,"));
      EXPECT_EQ(std::string::npos, text.find("kworker"));
      EXPECT_EQ(4u, Lines(text).size());
    }
  });
}

TEST(TaskTable, EmptyTableAndUnwritableDirectory) {
  kavo::test::RunInNamespace([] {
    KavoTaskManager* tasks = KavoTaskManager::GetInstance();
    tasks->DumpKavoTaskInfo();
    std::vector<std::string> lines = Lines(ReadFile(KavoTaskManager::KAVOTASK_DUMP_TEMPLATE));
    ASSERT_EQ(2u, lines.size());
    EXPECT_NE(std::string::npos, lines[0].find("(count: 0,"));

    // A read-only /data: the full and short dumps of all tasks say why; the
    // filtered ones stay silent. No file either way.
    ASSERT_EQ(0, umount2("/data", MNT_DETACH));
    ASSERT_EQ(0, mount("tmpfs", "/data", "tmpfs", MS_RDONLY, nullptr));
    kavo::test::LogCapture log;
    tasks->DumpKavoTaskInfo();
    tasks->DumpKavoTaskIgnoreKernelTaskInfo();
    tasks->DumpKavoTaskInfoNormal();
    tasks->DumpKavoTaskIgnoreKernelTaskInfoNormal();
    EXPECT_EQ(2u, log.Count("failed to dump kavo task, error: ", ANDROID_LOG_ERROR));
    EXPECT_FALSE(kavo::test::PathExists(KavoTaskManager::KAVOTASK_DUMP_TEMPLATE));
  });
}

}  // namespace
}  // namespace Kavo::Bpf

namespace Kavo::Bpf {
namespace {

// What an engineer on a device does: kill -51 <pid>, then read the file.
TEST(TaskTable, SignalsWriteTheDumps) {
  kavo::test::RunInNamespace([] {
    FillTable();
    KavoBpfService::GetInstance();  // registers what each signal writes
    InstallDumpSignalHandlers();
    struct Expectation {
      int signal;
      size_t lines;
      const char* firstTitle;
    } expectations[] = {
        {51, 5, "comm               pid         ppid        threadNum   oldThreadNum"},
        {52, 4, "comm               pid         ppid        threadNum   oldThreadNum"},
        {53, 5, "comm               pid         ppid        threadNum   mmId"},
        {54, 4, "comm               pid         ppid        threadNum   mmId"},
    };
    for (const Expectation& e : expectations) {
      unlink(KavoTaskManager::KAVOTASK_DUMP_TEMPLATE.c_str());
      uint64_t before = CompletedDumps();
      ASSERT_EQ(0, kill(getpid(), e.signal));
      for (int i = 0; i < 200 && CompletedDumps() == before; ++i) usleep(10000);
      std::vector<std::string> lines = Lines(ReadFile(KavoTaskManager::KAVOTASK_DUMP_TEMPLATE));
      ASSERT_EQ(e.lines, lines.size()) << "signal " << e.signal;
      EXPECT_NE(std::string::npos, lines[0].find("(count: 3,")) << e.signal;
      EXPECT_EQ(0u, lines[1].rfind(e.firstTitle, 0)) << e.signal;
    }
  });
}

}  // namespace
}  // namespace Kavo::Bpf
