// The error log as someone reading a field report sees it: newest record on
// top, the file capped, the previous run's log kept once.

#include <android/log.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "support/log_capture.h"
#include "support/harness.h"
#include "service/kavo_bpf_error_log.h"

namespace Kavo::Bpf {
namespace {

using kavo::test::ReadFile;
using kavo::test::WriteFile;

std::vector<std::string> Lines(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

TEST(ErrorLog, FirstRecordIntoAMissingLog) {
  kavo::test::RunInNamespace(
      [] {
        // A made-up /proc gives the record a known command line.
        WriteFile("/proc/self/cmdline", std::string("a\0b\0", 4));
        InitBpfServiceErrorLog();
        prctl(PR_SET_NAME, "BpfServiceTr", 0, 0, 0);
        kavo::test::LogCapture log;
        RecordBpfServiceErrorInfo(2, "Ipc package damage, packageSize: 32769");

        EXPECT_TRUE(log.Contains("failed to read /data/kavolog/stability/kavobpfframework/error.log",
                                 ANDROID_LOG_ERROR));
        std::vector<std::string> lines = Lines(ReadFile(KAVO_ERROR_LOG_PATH));
        ASSERT_EQ(9u, lines.size());
        EXPECT_EQ("----------", lines[0]);
        EXPECT_EQ(0u, lines[1].rfind("Time: 20", 0)) << lines[1];
        EXPECT_EQ("Pid: " + std::to_string(getpid()), lines[2]);
        EXPECT_EQ("Tid: " + std::to_string(gettid()), lines[3]);
        EXPECT_EQ("Cmdline: a b", lines[4]);
        EXPECT_EQ("Comm: BpfServiceTr", lines[5]);
        EXPECT_EQ("ErrorCode: 2", lines[6]);
        EXPECT_EQ("Error: Ipc package damage, packageSize: 32769", lines[7]);
        EXPECT_EQ("", lines[8]);
      },
      kavo::test::FakeProc());
}

TEST(ErrorLog, NewestOnTopAndCapped) {
  kavo::test::RunInNamespace([] {
    InitBpfServiceErrorLog();
    std::string old;
    for (int i = 0; i < 10000; ++i) old += "old line " + std::to_string(i) + "\n";
    WriteFile(KAVO_ERROR_LOG_PATH, old);

    RecordBpfServiceErrorInfo(4, "B&A Ipc Package queue full 10000");
    std::vector<std::string> lines = Lines(ReadFile(KAVO_ERROR_LOG_PATH));
    ASSERT_EQ(9u + 4999u, lines.size());
    EXPECT_EQ("ErrorCode: 4", lines[6]);
    EXPECT_EQ("old line 0", lines[9]);
    EXPECT_EQ("old line 4998", lines.back());

    // Records keep coming without the file growing past its cap.
    for (int i = 0; i < 3; ++i) RecordBpfServiceErrorInfo(1, "r" + std::to_string(i));
    lines = Lines(ReadFile(KAVO_ERROR_LOG_PATH));
    EXPECT_EQ(9u + 4999u, lines.size());
    EXPECT_EQ("Error: r2", lines[7]);
    EXPECT_EQ("Error: r1", lines[16]);
  });
}

TEST(ErrorLog, ConcurrentRecordsAreAllKept) {
  kavo::test::RunInNamespace([] {
    InitBpfServiceErrorLog();
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
      threads.emplace_back([t] {
        for (int i = 0; i < 20; ++i) RecordBpfServiceErrorInfo(t + 1, "from thread");
      });
    }
    for (std::thread& t : threads) t.join();
    std::string text = ReadFile(KAVO_ERROR_LOG_PATH);
    size_t records = 0;
    for (size_t at = text.find("----------"); at != std::string::npos; at = text.find("----------", at + 1)) {
      ++records;
    }
    EXPECT_EQ(80u, records);
  });
}

TEST(ErrorLog, EachStartKeepsThePreviousRun) {
  kavo::test::RunInNamespace([] {
    InitBpfServiceErrorLog();
    RecordBpfServiceErrorInfo(1, "first run");
    EXPECT_EQ(0, InitBpfServiceErrorLog());
    EXPECT_FALSE(kavo::test::PathExists(KAVO_ERROR_LOG_PATH));
    EXPECT_NE(std::string::npos, ReadFile(KAVO_ERROR_OLD_LOG_PATH).find("Error: first run"));

    RecordBpfServiceErrorInfo(1, "second run");
    InitBpfServiceErrorLog();
    std::string old = ReadFile(KAVO_ERROR_OLD_LOG_PATH);
    EXPECT_NE(std::string::npos, old.find("Error: second run"));
    EXPECT_EQ(std::string::npos, old.find("Error: first run"));  // one generation only
    // A start with nothing to rotate leaves the old log alone.
    EXPECT_EQ(-1, InitBpfServiceErrorLog());
    EXPECT_EQ(old, ReadFile(KAVO_ERROR_OLD_LOG_PATH));
  });
}

TEST(ErrorLog, MissingDirectoryOnlyLogs) {
  kavo::test::RunInNamespace([] {
    kavo::test::LogCapture log;
    RecordBpfServiceErrorInfo(1, "nowhere to go");
    EXPECT_TRUE(log.Contains("failed to read"));
    EXPECT_TRUE(log.Contains("failed to write /data/kavolog/stability/kavobpfframework/error.log"));
    EXPECT_FALSE(kavo::test::PathExists(KAVO_ERROR_LOG_PATH));
  });
}

}  // namespace
}  // namespace Kavo::Bpf
