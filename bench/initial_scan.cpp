// initial_scan: how long the service's start-up scan of /proc takes with a
// busy process table, beside what `ps` takes to read the same processes.
//
// Starts 2000 extra sleeping processes, then times initTaskInfo() (the scan
// that seeds the task table: status and stat of every process, one record
// through the dispatch each) and `ps -e -o pid,ppid,uid,nlwp,rss,comm`, each
// several times, and prints the medians and their ratio.
//
// Usage: initial_scan [--processes N] [--runs N]

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <vector>

#include "bench_support.h"
#include "support/kernel.h"
#include "service/kavo_bpf_service.h"
#include "service/kavo_bpf_task_manager.h"
#include "utils/kavo_bpf_file.h"

namespace {

using namespace kavo::bench;
using Clock = std::chrono::steady_clock;

double Seconds(Clock::time_point start) { return std::chrono::duration<double>(Clock::now() - start).count(); }

size_t ProcessCount() {
  size_t count = 0;
  Kavo::Bpf::ForEachDirEntry("/proc", [&count](const char* name) {
    count += Kavo::Bpf::IsDigits(name);
    return Kavo::Bpf::LineAction::kContinue;
  });
  return count;
}

double TimePs() {
  auto start = Clock::now();
  pid_t pid = fork();
  if (pid == 0) {
    freopen("/dev/null", "w", stdout);
    execlp("ps", "ps", "-e", "-o", "pid,ppid,uid,nlwp,rss,comm", static_cast<char*>(nullptr));
    _exit(127);
  }
  int status = 0;
  waitpid(pid, &status, 0);
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) Die("initial_scan: ps failed");
  return Seconds(start);
}

}  // namespace

int main(int argc, char** argv) {
  int extra = 2000;
  int runs = 7;
  for (int i = 1; i + 1 < argc; i += 2) {
    if (strcmp(argv[i], "--processes") == 0) extra = atoi(argv[i + 1]);
    if (strcmp(argv[i], "--runs") == 0) runs = atoi(argv[i + 1]);
  }
  if (extra < 0 || runs < 1) Die("usage: initial_scan [--processes N] [--runs N]");

  SleepingProcesses sleepers(extra);
  size_t processes = ProcessCount();
  Kavo::Bpf::InitBasetime();
  Kavo::Bpf::KavoBpfService* service = Kavo::Bpf::KavoBpfService::GetInstance();

  std::vector<double> scan, ps;
  uint32_t tasks = 0;
  for (int run = 0; run < runs; ++run) {
    auto start = Clock::now();
    service->initTaskInfo();
    scan.push_back(Seconds(start));
    ps.push_back(TimePs());
  }
  {
    std::lock_guard<std::mutex> guard(Kavo::Bpf::KavoTaskManager::kavoTaskManagerLock);
    tasks = Kavo::Bpf::KavoTaskManager::GetInstance()->GetKavoTaskCount();
  }
  double scanMedian = Median(&scan);
  double psMedian = Median(&ps);
  printf("processes in /proc: %zu (%zu extra sleeping), tasks in the table: %u, runs: %d, kernel %s\n",
         processes, sleepers.size(), tasks, runs, kavo::test::RunningKernelVersion().c_str());
  printf("%-44s %12s %14s\n", "reader", "median ms", "us / process");
  printf("%-44s %12.2f %14.2f\n", "initTaskInfo (scan + dispatch)", scanMedian * 1e3, scanMedian * 1e6 / processes);
  printf("%-44s %12.2f %14.2f\n", "ps -e -o pid,ppid,uid,nlwp,rss,comm", psMedian * 1e3, psMedian * 1e6 / processes);
  printf("initTaskInfo / ps: %.3f\n", scanMedian / psMedian);
  printf("{\"benchmark\":\"initial_scan\",\"kernel\":\"%s\",\"processes\":%zu,\"runs\":%d,"
         "\"scan_ms\":%.3f,\"ps_ms\":%.3f,\"scan_to_ps\":%.3f}\n",
         kavo::test::RunningKernelVersion().c_str(), processes, runs, scanMedian * 1e3, psMedian * 1e3, scanMedian / psMedian);
  return 0;
}
