// kavo_workload: small, predictable kernel workloads for the end-to-end tests
// and benchmarks.
//
//   kavo_workload threads N DELAY_MS   wait, start N threads, join them, exit
//   kavo_workload touch MIB DELAY_MS   wait, allocate and touch MIB MiB, exit
//   kavo_workload forks N              fork N children that exit at once
//   kavo_workload faults SECONDS MIB   map, touch and unmap MIB MiB in a loop
//   kavo_workload sleep MS             just wait

#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

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
  char* memory = static_cast<char*>(malloc(bytes));
  if (memory == nullptr) return 1;
  for (size_t i = 0; i < bytes; i += 4096) memory[i] = static_cast<char>(i);
  SleepMs(300);
  free(memory);
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

int Faults(double seconds, long mib) {
  size_t bytes = static_cast<size_t>(mib) << 20;
  auto end = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
  while (std::chrono::steady_clock::now() < end) {
    void* p = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (p == MAP_FAILED) return 1;
    for (size_t i = 0; i < bytes; i += 4096) static_cast<char*>(p)[i] = 1;
    munmap(p, bytes);
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
  if (mode == "faults") return Faults(argc > 2 ? atof(argv[2]) : 1.0, arg(3, 4));
  if (mode == "sleep") {
    SleepMs(arg(2, 1000));
    return 0;
  }
  fprintf(stderr, "usage: kavo_workload threads N DELAY_MS | touch MIB DELAY_MS | forks N | "
                  "faults SECONDS MIB | sleep MS\n");
  return 2;
}
