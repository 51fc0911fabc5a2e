// idle: what kavobpfd costs when nothing happens: wake-ups per second of its
// threads, and its resident memory.
//
// The loader pins the real programs and kavobpfd attaches them; then four
// windows are measured, each after a short settling pause:
//
//   quiet          no client; the bench switches both rings' producers off,
//                  so the kernel writes no record at all
//   idle           no client, producers on: only what the rest of the
//                  machine does reaches the service
//   table+clients  2000 more (sleeping) processes in the task table and 16
//                  connected clients, each subscribed to the derived process
//                  and memory events, producers on
//   table+quiet    the same with the producers off
//
// A wake-up is a voluntary context switch of one of the daemon's threads
// (/proc/<pid>/task/<tid>/status), so every blocking wait that ends counts:
// a timer, a record, a client. Records written in each window (the sets'
// ring_stats counters) are printed beside them. Resident memory is VmRSS,
// with its anonymous and file-backed parts.
//
// Runs as root in private mount and network namespaces (a fresh bpffs).
// Usage: idle [--seconds S]   (each window lasts S seconds, default 4)

#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "bench_support.h"
#include "bpf/kavo_bpf_records.h"
#include "support/wire.h"
#include "support/kernel.h"
#include "support/kernel_stand_ins.h"
#include "support/system.h"
#include "utils/kavo_bpf_file.h"
#include "utils/kavo_bpf_helper.h"

namespace {

using namespace kavo::bench;
using Clock = std::chrono::steady_clock;

constexpr uint64_t kProducersOn = KAVO_RING_CORE_ENABLED_BIT | KAVO_RING_NORMAL_ENABLED_BIT;
constexpr int kExtraTasks = 2000;
constexpr int kClients = 16;
constexpr auto kSettle = std::chrono::milliseconds(700);
constexpr char kDumpFile[] = "/data/kavolog/stability/kavobpfframework/DUMPTASK_INFO";

struct Window {
  std::string name;
  double seconds = 0;
  uint64_t records = 0;
  uint64_t wakeups = 0;
  std::map<std::string, uint64_t> wakeupsByThread;
  uint64_t rssKb = 0, anonKb = 0, fileKb = 0;
  uint64_t ringKb = 0;  // of the file-backed part: the mapped BPF maps (rings)

  double wakeupsPerSecond() const { return seconds > 0 ? static_cast<double>(wakeups) / seconds : 0; }
  double recordsPerSecond() const { return seconds > 0 ? static_cast<double>(records) / seconds : 0; }
};

// Resident kB of the daemon's mappings of BPF maps: the ring buffers, whose
// pages the kernel maps whole (and their data twice, for records that wrap).
uint64_t MappedBpfMapsKb(pid_t daemon) {
  uint64_t kb = 0;
  bool inMap = false;
  const std::string smaps = "/proc/" + std::to_string(daemon) + "/smaps";
  Kavo::Bpf::ForEachLine(smaps.c_str(), [&](std::string_view line) {
    // A mapping's first line is "start-end perms offset dev inode path";
    // its figures follow as "Name: value kB".
    const std::string_view first = line.substr(0, line.find(' '));
    if (first.find('-') != std::string_view::npos && first.back() != ':') {
      inMap = line.find("anon_inode:bpf-map") != std::string_view::npos;
    } else if (inMap && line.compare(0, 4, "Rss:") == 0) {
      kb += strtoull(std::string(line.substr(4)).c_str(), nullptr, 10);
    }
    return Kavo::Bpf::LineAction::kContinue;
  });
  return kb;
}

Window Measure(const std::string& name, pid_t daemon, double seconds) {
  std::this_thread::sleep_for(kSettle);
  Window window;
  window.name = name;
  const uint64_t recordsBefore = RingCounters::Read(0).allWritten() + RingCounters::Read(1).allWritten();
  std::map<int, ThreadWakeups> before = WakeupsByThread(daemon);
  const auto start = Clock::now();
  std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
  std::map<int, ThreadWakeups> after = WakeupsByThread(daemon);
  window.seconds = std::chrono::duration<double>(Clock::now() - start).count();
  window.records = RingCounters::Read(0).allWritten() + RingCounters::Read(1).allWritten() - recordsBefore;
  for (const auto& [tid, thread] : after) {
    auto earlier = before.find(tid);
    uint64_t woke = thread.voluntary - (earlier != before.end() ? earlier->second.voluntary : 0);
    window.wakeups += woke;
    window.wakeupsByThread[thread.name] += woke;
  }
  const std::string status = "/proc/" + std::to_string(daemon) + "/status";
  window.rssKb = StatusField(status, "VmRSS:");
  window.anonKb = StatusField(status, "RssAnon:");
  window.fileKb = StatusField(status, "RssFile:");
  window.ringKb = MappedBpfMapsKb(daemon);
  return window;
}

// Producers of both rings off (the full bit stays as it is) or back to |words|.
void ProducersOff(uint64_t words[2]) {
  for (int ring = 0; ring < 2; ++ring) {
    words[ring] = ControlWord(ring);
    SetControlWord(ring, words[ring] & ~kProducersOn);
  }
}
void ProducersBack(const uint64_t words[2]) {
  for (int ring = 0; ring < 2; ++ring) SetControlWord(ring, (ControlWord(ring) & ~kProducersOn) | (words[ring] & kProducersOn));
}

// Rows of the full task dump (signal 51): the tasks in the table.
long TasksInTable(const kavo::test::ChildProcess& daemon) {
  unlink(kDumpFile);
  kill(daemon.pid(), 51);
  const auto deadline = Clock::now() + std::chrono::seconds(5);
  long rows = -1;
  while (Clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    long counted = 0;
    if (!Kavo::Bpf::ForEachLine(kDumpFile, [&](std::string_view line) {
          counted += line.find(" KB") != std::string_view::npos;
          return Kavo::Bpf::LineAction::kContinue;
        })) {
      continue;
    }
    if (counted == rows && rows > 0) return rows;  // the same twice: written
    rows = counted;
  }
  return rows;
}

void PrintWindow(const Window& w) {
  printf("%-14s %8.1f %10.1f %9llu %9llu %9llu %9llu   ", w.name.c_str(), w.wakeupsPerSecond(),
         w.recordsPerSecond(), static_cast<unsigned long long>(w.rssKb), static_cast<unsigned long long>(w.anonKb),
         static_cast<unsigned long long>(w.fileKb), static_cast<unsigned long long>(w.ringKb));
  for (const auto& [thread, woke] : w.wakeupsByThread) {
    if (woke != 0) printf("%s %.1f/s  ", thread.c_str(), static_cast<double>(woke) / w.seconds);
  }
  printf("\n");
}

}  // namespace

int main(int argc, char** argv) {
  double seconds = 4;
  if (argc == 3 && strcmp(argv[1], "--seconds") == 0) seconds = atof(argv[2]);
  if (!(seconds > 0) || (argc != 1 && argc != 3)) Die("usage: idle [--seconds S]");
  if (geteuid() != 0) Die("idle: needs root (BPF programs and namespaces)");
  setvbuf(stdout, nullptr, _IOLBF, 0);

  EnterNamespacesAndLoad();
  kavo::test::KavoSystem system;
  std::string why;
  if (!system.StartDaemon(&why)) Die("idle: " + why);
  kavo::test::ChildProcess& daemon = *system.daemon();
  const auto deadline = Clock::now() + std::chrono::seconds(20);
  while ((ControlWord(0) & kProducersOn) != kProducersOn || (ControlWord(1) & kProducersOn) != kProducersOn) {
    if (Clock::now() > deadline) Die("idle: kavobpfd never switched its producers on\n" + daemon.Output());
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }

  std::vector<Window> windows;
  uint64_t words[2];
  ProducersOff(words);
  windows.push_back(Measure("quiet", daemon.pid(), seconds));
  ProducersBack(words);
  windows.push_back(Measure("idle", daemon.pid(), seconds));
  const long baseTasks = TasksInTable(daemon);

  auto sleepers = std::make_unique<SleepingProcesses>(kExtraTasks);
  std::vector<std::unique_ptr<kavo::test::RawClient>> clients;
  for (int i = 0; i < kClients; ++i) {
    clients.push_back(std::make_unique<kavo::test::RawClient>());
    if (!clients.back()->Connect()) Die("idle: a client could not connect");
    uint32_t reqId = 1;
    for (int type : {KAVO_EVENT_PROCESS_CREATED, KAVO_EVENT_PROCESS_EXITED, KAVO_EVENT_MEMORY_CHANGED}) {
      clients.back()->Send(kavo::test::RequestFrame(reqId++, 51, type));
    }
  }
  // Idle, not stuck: the clients read whatever comes, as soon as it comes.
  std::atomic<bool> stopReading{false};
  std::thread reader([&clients, &stopReading] {
    std::vector<struct pollfd> fds;
    for (const auto& client : clients) fds.push_back({client->fd(), POLLIN, 0});
    char sink[65536];
    while (!stopReading) {
      if (poll(fds.data(), fds.size(), 100) <= 0) continue;
      for (const struct pollfd& fd : fds) {
        if ((fd.revents & POLLIN) != 0) (void)!recv(fd.fd, sink, sizeof(sink), MSG_DONTWAIT);
      }
    }
  });
  windows.push_back(Measure("table+clients", daemon.pid(), seconds));
  ProducersOff(words);
  windows.push_back(Measure("table+quiet", daemon.pid(), seconds));
  ProducersBack(words);
  const long tasks = TasksInTable(daemon);
  stopReading = true;
  reader.join();
  clients.clear();
  sleepers.reset();

  daemon.Signal(SIGTERM);
  int status = 0;
  daemon.WaitExit(std::chrono::seconds(5), &status);

  printf("kernel %s, %ld CPUs, %.1f s per window, load average %.2f; tasks in the table: %ld, then %ld "
         "with %d clients\n",
         kavo::test::RunningKernelVersion().c_str(), sysconf(_SC_NPROCESSORS_ONLN), seconds, LoadAverage(), baseTasks, tasks, kClients);
  printf("%-14s %8s %10s %9s %9s %9s %9s   %s\n", "window", "wakeup/s", "records/s", "VmRSS kB", "anon kB",
         "file kB", "rings kB", "wake-ups by thread");
  for (const Window& w : windows) PrintWindow(w);
  printf("{\"benchmark\":\"idle\",\"kernel\":\"%s\",\"cpus\":%ld,\"seconds_per_window\":%.1f,\"load\":%.2f,"
         "\"tasks_idle\":%ld,\"tasks_loaded\":%ld,\"clients\":%d,\"windows\":[",
         kavo::test::RunningKernelVersion().c_str(), sysconf(_SC_NPROCESSORS_ONLN), seconds, LoadAverage(), baseTasks, tasks,
         kClients);
  for (size_t i = 0; i < windows.size(); ++i) {
    const Window& w = windows[i];
    printf("{\"window\":\"%s\",\"wakeups_per_s\":%.2f,\"records_per_s\":%.1f,\"rss_kb\":%llu,\"rss_anon_kb\":%llu,"
           "\"rss_file_kb\":%llu,\"rss_ring_maps_kb\":%llu}%s",
           w.name.c_str(), w.wakeupsPerSecond(), w.recordsPerSecond(), static_cast<unsigned long long>(w.rssKb),
           static_cast<unsigned long long>(w.anonKb), static_cast<unsigned long long>(w.fileKb),
           static_cast<unsigned long long>(w.ringKb),
           i + 1 == windows.size() ? "" : ",");
  }
  printf("]}\n");
  fflush(stdout);
  _exit(0);
}
