// kavo_workload: small, predictable kernel workloads for the end-to-end tests
// and benchmarks.
//
//   kavo_workload threads N DELAY_MS   wait, start N threads, join them, exit
//   kavo_workload touch MIB DELAY_MS   wait, allocate and touch MIB MiB, exit
//   kavo_workload forks N              fork N children that exit at once
//   kavo_workload forks-for SECONDS    the same, for that long
//   kavo_workload forks-paced N BATCH PERIOD_MS
//                                      fork N children that exit at once, BATCH
//                                      of them every PERIOD_MS, and print each
//                                      child's pid on a line of its own
//   kavo_workload faults SECONDS MIB [RATE]
//                                      map, touch and unmap MIB MiB in a loop;
//                                      with RATE, about RATE pages a second
//   kavo_workload sleep MS             just wait
//
// Each page touched is one fault and one RSS change (huge pages are refused
// for the mapping), each unmap one more: a steady, known stream of RSS
// records for the benchmarks.

#include <errno.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

namespace {

void SleepMs(long ms) { std::this_thread::sleep_for(std::chrono::milliseconds(ms)); }

int Threads(int n, long delayMs) {
  SleepMs(delayMs);
  std::vector<std::thread> threads;
  for (int i = 0; i < n; ++i) threads.emplace_back([] { SleepMs(200); });
  for (std::thread& t : threads) t.join();
  return 0;
}

int Touch(long mib, long delayMs) {
  SleepMs(delayMs);
  size_t bytes = static_cast<size_t>(mib) << 20;
  // volatile: memory that is freed unread would otherwise never be touched
  // at all (clang drops the stores, and with them the page faults).
  volatile char* memory = static_cast<char*>(malloc(bytes));
  if (memory == nullptr) return 1;
  for (size_t i = 0; i < bytes; i += 4096) memory[i] = static_cast<char>(i);
  SleepMs(300);
  free(const_cast<char*>(memory));
  return 0;
}

int Forks(int n) {
  for (int i = 0; i < n; ++i) {
    pid_t child = fork();
    if (child == 0) _exit(0);
    if (child > 0) waitpid(child, nullptr, 0);
  }
  return 0;
}

int ForksPaced(long total, long batch, long periodMs) {
  if (total < 0 || batch < 1 || periodMs < 0) return 2;
  std::vector<pid_t> children;
  auto next = std::chrono::steady_clock::now();
  for (long forked = 0; forked < total;) {
    children.clear();
    for (long i = 0; i < batch && forked < total; ++i, ++forked) {
      pid_t child = fork();
      if (child == 0) _exit(0);
      if (child < 0) return 1;
      children.push_back(child);
    }
    for (pid_t child : children) {
      while (waitpid(child, nullptr, 0) < 0 && errno == EINTR) {
      }
      printf("%d\n", static_cast<int>(child));
    }
    next += std::chrono::milliseconds(periodMs);
    std::this_thread::sleep_until(next);
  }
  return fflush(stdout) == 0 ? 0 : 1;
}

int ForksFor(double seconds) {
  auto end = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
  while (std::chrono::steady_clock::now() < end) Forks(1);
  return 0;
}

// |rate| pages a second (0: as fast as it goes), in small batches so that the
// faults come evenly rather than in bursts.
int Faults(double seconds, long mib, double rate) {
  using Clock = std::chrono::steady_clock;
  const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
  const size_t bytes = static_cast<size_t>(mib) << 20;
  const size_t pages = bytes / page;
  const size_t batch = rate > 0 ? std::clamp<size_t>(static_cast<size_t>(rate / 5000), 1, 64) : pages;
  const auto start = Clock::now();
  const auto end = start + std::chrono::duration<double>(seconds);
  double made = 0;
  while (Clock::now() < end) {
    void* mapped = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (mapped == MAP_FAILED) return 1;
    volatile char* p = static_cast<char*>(mapped);
    madvise(mapped, bytes, MADV_NOHUGEPAGE);
    for (size_t first = 0; first < pages; first += batch) {
      const size_t last = std::min(pages, first + batch);
      for (size_t i = first; i < last; ++i) p[i * page] = 1;
      made += static_cast<double>(last - first);
      if (rate <= 0) continue;
      std::this_thread::sleep_until(start + std::chrono::duration_cast<Clock::duration>(
                                                std::chrono::duration<double>(made / rate)));
      if (Clock::now() >= end) break;
    }
    munmap(mapped, bytes);
    made += 1;
  }
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  std::string mode = argc > 1 ? argv[1] : "";
  auto arg = [&](int i, long fallback) { return argc > i ? atol(argv[i]) : fallback; };
  if (mode == "threads") return Threads(static_cast<int>(arg(2, 40)), arg(3, 0));
  if (mode == "touch") return Touch(arg(2, 8), arg(3, 0));
  if (mode == "forks") return Forks(static_cast<int>(arg(2, 100)));
  if (mode == "forks-for") return ForksFor(argc > 2 ? atof(argv[2]) : 1.0);
  if (mode == "forks-paced") return ForksPaced(arg(2, 100), arg(3, 10), arg(4, 20));
  if (mode == "faults") return Faults(argc > 2 ? atof(argv[2]) : 1.0, arg(3, 4), argc > 4 ? atof(argv[4]) : 0);
  if (mode == "sleep") {
    SleepMs(arg(2, 1000));
    return 0;
  }
  fprintf(stderr, "usage: kavo_workload threads N DELAY_MS | touch MIB DELAY_MS | forks N | "
                  "forks-for SECONDS | forks-paced N BATCH PERIOD_MS | faults SECONDS MIB [RATE] | sleep MS\n");
  return 2;
}
