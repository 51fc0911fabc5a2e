// What someone diagnosing a device reads: the error log (newest record on
// top, capped, the previous run's kept once), the state record's CSV of
// per-second counters, and the task dumps that signals 51 to 54 write.

#include <signal.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <atomic>
#include <regex>
#include <sstream>

#include <gtest/gtest.h>

#include "support/harness.h"
#include "support/wait_until.h"
#include "service/kavo_bpf_error_log.h"
#include "service/kavo_bpf_service.h"
#include "service/kavo_bpf_signals.h"
#include "service/kavo_bpf_state.h"

namespace Kavo::Bpf {
namespace {

using namespace kavo::test;
using Lines = std::vector<std::string>;

Lines LinesOf(const std::string& path) {
  Lines lines;
  std::istringstream in(ReadFile(path));
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

TEST(ErrorLog, RecordsNewestOnTopCappedAndRotatedPerStart) {
  RunInNamespace([] {
    // The first record into a missing log, with a known command line and thread name.
    WriteFile("/proc/self/cmdline", std::string("a\0b\0", 4));
    InitBpfServiceErrorLog();
    prctl(PR_SET_NAME, "BpfServiceTr", 0, 0, 0);
    RecordBpfServiceErrorInfo(2, "Ipc package damage, packageSize: 32769");
    EXPECT_TRUE(std::regex_match(ReadFile(KAVO_ERROR_LOG_PATH), std::regex("----------\nTime: \\d{4}-\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d\nPid: " +
        std::to_string(getpid()) + "\nTid: " + std::to_string(gettid()) + "\nCmdline: a b\nComm: BpfServiceTr\nErrorCode: 2\n"
        "Error: Ipc package damage, packageSize: 32769\n\n"))) << ReadFile(KAVO_ERROR_LOG_PATH);
    // The new record, then at most 4999 lines of the old file.
    for (size_t old : {4998u, 4999u, 5000u}) {
      std::string text;
      for (size_t i = 0; i < old; ++i) text += "old line " + std::to_string(i) + "\n";
      WriteFile(KAVO_ERROR_LOG_PATH, text);
      RecordBpfServiceErrorInfo(4, "B&A Ipc Package queue full 10000");
      Lines lines = LinesOf(KAVO_ERROR_LOG_PATH);
      ASSERT_EQ(9 + std::min<size_t>(old, 4999), lines.size()) << old << " old lines";
      EXPECT_TRUE(lines[6] == "ErrorCode: 4" && lines[9] == "old line 0");
    }
    // Each start keeps the previous run's log, one generation only.
    EXPECT_TRUE(InitBpfServiceErrorLog() == 0 && !PathExists(KAVO_ERROR_LOG_PATH));
    RecordBpfServiceErrorInfo(1, "second run");
    EXPECT_EQ(0, InitBpfServiceErrorLog());
    const std::string old = ReadFile(KAVO_ERROR_OLD_LOG_PATH);
    EXPECT_TRUE(old.find("----------\n") == 0 && old.find("Error: second run\n\n") != std::string::npos && old.find("old line") == std::string::npos) << old;
    EXPECT_TRUE(InitBpfServiceErrorLog() == -1 && old == ReadFile(KAVO_ERROR_OLD_LOG_PATH));  // nothing to rotate: the old log stays
  }, FakeProc());
}

constexpr char kStateHeader[] = "EventCount, kavo_task_init, kmem_rss_info, sched_task_create, sched_task_exit, dmabuf_size_info, "
                                "cgroup_attach_cpuset_info, fd_update_info, dmabuf_update, PollCount, ";

TEST(StateRecord, ThirtyMinutesOfCountersAsAnOperatorReadsThem) {
  std::atomic<long long> now{1000};
  KavoBpfDataState state([&now] { return now.load(); });
  RunInNamespace([&] {
    // Right after construction one row of zeros; then a task init, two RSS
    // records and a poll in one second (the poll is no event); unknown types count nowhere.
    for (const char* row : {"0, 0, 0, 0, 0, 0, 0, 0, 0, 0, ", "3, 1, 2, 0, 0, 0, 0, 0, 0, 1, "}) {
      ASSERT_TRUE(state.DumpState());
      EXPECT_EQ(std::string(kStateHeader) + "0, 0 \r\n" + row + "\r\n", ReadFile(KavoBpfDataState::KAVOTASK_DUMP_TEMPLATE));
      for (int type : {0, 1, 1, KavoBpfDataState::kPollCounter, 9, 10, -1}) if (row[0] == '0') state.RecordEvent(type, 1);
    }
  });
  // One exit record a second: 1800 seconds are kept (1799, 1800, 1801 seconds).
  for (int second = 1; second <= 1800; ++second) {
    now = 1000 + second;
    state.RecordEvent(3, 1);
    EXPECT_TRUE(second < 1798 || state.oldestSecond() == (second < 1800 ? 0 : 1)) << second + 1 << " seconds";
  }
  RunInNamespace([&] {
    ASSERT_TRUE(state.DumpState());
    Lines lines = LinesOf(KavoBpfDataState::KAVOTASK_DUMP_TEMPLATE);
    ASSERT_EQ(1801u, lines.size());
    EXPECT_EQ(std::string(kStateHeader) + "1800, 1 \r", lines[0]);
    EXPECT_TRUE(lines[1] == "1, 0, 0, 0, 1, 0, 0, 0, 0, 0, \r" && lines[1800] == lines[1]) << lines[1];
  });
  // Five quiet seconds, then a fork: the four skipped seconds and the new one
  // start from zero (their slots held counts from half an hour before).
  now += 5;
  state.RecordEvent(2, 1);
  EXPECT_EQ(std::make_pair(1805, 6), std::make_pair(state.newestSecond(), state.oldestSecond()));
  for (int second = 1800; second <= 1805; ++second) EXPECT_EQ(second == 1800, state.counterAt(second, 3)) << second;
  EXPECT_EQ(1u, state.counterAt(1805, 2));
  // A clock that steps back moves the newest second back without clearing.
  now -= 10;
  state.RecordEvent(1, 4);
  EXPECT_EQ(1795, state.newestSecond());
  EXPECT_TRUE(state.counterAt(1795, 1) == 4u && state.counterAt(1795, 3) == 1u);
}

KavoTask MakeTask(int pid, const char* comm, int ppid, int64_t anon, int64_t file) {
  KavoTask task = {};
  task.pid = pid, task.ppid = ppid, task.threadNum = 1, task.oldThreadNum = 1;
  memcpy(task.comm, comm, std::min(strlen(comm), sizeof(task.comm)));  // 16 fill it without a NUL
  task.rssSize[KAVO_RSS_ANON] = anon, task.rssSize[KAVO_RSS_FILE] = file;
  return task;
}

TEST(TaskDumps, WrittenOnSignalsAsAnEngineerReadsThem) {
  RunInNamespace([] {
    KavoTaskManager* tasks = KavoTaskManager::GetInstance();
    KavoBpfService::GetInstance();  // registers what each signal writes
    InstallDumpSignalHandlers();
    auto signalAndRead = [](int signal) {
      unlink(KavoTaskManager::KAVOTASK_DUMP_TEMPLATE.c_str());
      uint64_t before = CompletedDumps();
      EXPECT_EQ(0, kill(getpid(), signal));
      EXPECT_TRUE(WaitUntil([before] { return CompletedDumps() > before; })) << signal;
      return LinesOf(KavoTaskManager::KAVOTASK_DUMP_TEMPLATE);
    };
    Lines lines = signalAndRead(kSignalDumpTasks);  // an empty table
    EXPECT_TRUE(lines.size() == 2u && std::regex_match(lines[0], std::regex("============ DUMP ALL KAVO TASKS INFO \\(count: 0, time: [0-9]+\\) ============")));

    // A kernel thread without memory, names of 15 and 16 characters, a big
    // process. Sizes in whole KB: 10240 bytes are 10, 1023 are 0.
    tasks->AddKavoTask(45, MakeTask(45, "kworker/0:1", 2, 0, 0));
    KavoTask app = MakeTask(1234, "system_server12", 567, 10240, 1023);
    app.threadNum = 89, app.oldThreadNum = 80, app.mmId = 1000, app.initTimeStamp = 1700000123;
    // Swap is printed as the signed value it is.
    app.rssOldSize[KAVO_RSS_FILE] = 2048, app.rssSize[KAVO_RSS_SHMEM] = 4096, app.rssSize[KAVO_RSS_SWAP] = -3072;
    tasks->AddKavoTask(app.pid, app);
    for (const KavoTask& task : {MakeTask(1300, "sixteen_letters_", 1, 1024, 1024), MakeTask(900, "surfaceflinger", 1, 6LL << 30, 0)}) tasks->AddKavoTask(task.pid, task);
    lines = signalAndRead(kSignalDumpTasks);
    ASSERT_TRUE(lines.size() == 6u && lines[0].find("(count: 4, time: ") != std::string::npos) << lines.size();
    EXPECT_EQ("comm               pid         ppid        threadNum   oldThreadNum mmId        rssAnonSize         "
              "rssAnonOldSize      rssFileSize         rssFileOldSize      rssShmemSize        rssShmemOldSize     "
              "rssSwapSize         rssSwapOldSize      initTimeStamp       ", lines[1]);
    EXPECT_EQ(0u, lines[2].rfind("surfaceflinger     900         1           1           1            0              6291456 KB", 0)) << lines[2];
    EXPECT_EQ("system_server12    1234        567         89          80           1000                10 KB      "
              "          0 KB                0 KB                2 KB                4 KB                0 KB      "
              "         -3 KB                0 KB          1700000123", lines[3]);
    EXPECT_EQ(0u, lines[4].rfind("sixteen_letters_   1300        1           1           1            0          "
                                 "          1 KB                0 KB                1 KB", 0)) << lines[4];
    EXPECT_EQ(0u, lines[5].rfind("kworker/0:1        45          2           ", 0)) << lines[5];

    lines = signalAndRead(kSignalDumpTasksNormal);
    ASSERT_EQ(6u, lines.size());
    EXPECT_EQ("comm               pid         ppid        threadNum   mmId        rssAnonSize         "
              "rssFileSize         rssShmemSize        rssSwapSize         initTimeStamp       ", lines[1]);
    // Without the tasks that hold no memory: the kernel thread goes, the count stays.
    for (int signal : {kSignalDumpNonKernelTasks, kSignalDumpNonKernelTasksNormal}) {
      lines = signalAndRead(signal);
      ASSERT_EQ(5u, lines.size()) << signal;
      EXPECT_TRUE(lines[0].find("(count: 4, ") != std::string::npos && lines[4].find("kworker") == std::string::npos) << signal;
      EXPECT_EQ(signal == kSignalDumpNonKernelTasks, lines[1].find("oldThreadNum") != std::string::npos);
    }
  });
}

}  // namespace
}  // namespace Kavo::Bpf
