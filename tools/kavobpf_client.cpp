// kavobpf_client: subscribes to event types of the KAVO BPF service and prints
// every event it receives, one line each, decoded field by field (or as JSON).

#include <getopt.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "kavobpf_client_session.h"
#include "kavobpf_event_format.h"
#include "utils/kavo_bpf_helper.h"

namespace {

using namespace kavo::client;

constexpr char kDefaultSocket[] = "/mnt/bpfframework/kavobpfdispatcher";

void PrintUsage(FILE* out) {
  fprintf(out,
          "Usage: kavobpf_client --events LIST [--json] [--count N] [--duration SECONDS]\n"
          "                      [--connect-timeout SECONDS] [--socket NAME]\n"
          "\n"
          "Subscribes to events of the KAVO BPF service and prints one line per event.\n"
          "\n"
          "  --events LIST              comma-separated event types, by number or name:\n"
          "                               kavo_task_init (0), kmem_rss_info (1),\n"
          "                               sched_task_create (2), sched_task_exit (3),\n"
          "                               dmabuf_size_info (4), cgroup_attach_cpuset_info (5),\n"
          "                               fd_update_info (6), dmabuf_update (7),\n"
          "                               process_created (50001), process_exited (50002),\n"
          "                               thread_count_changed (50003), memory_changed (50004)\n"
          "  --json                     one JSON object per line instead of text\n"
          "  --count N                  stop after N events\n"
          "  --duration SECONDS         stop after this long (fractions allowed)\n"
          "  --connect-timeout SECONDS  give up (exit 1) when no service answers within\n"
          "                             this long (default 10)\n"
          "  --socket NAME              the service's socket (default %s)\n"
          "  --help                     show this text\n"
          "\n"
          "On exit a summary (events per type, refused subscriptions) goes to stderr.\n"
          "Exit codes: 0 done, 1 no service answered, 2 bad arguments.\n",
          kDefaultSocket);
}

[[noreturn]] void UsageError(const std::string& message) {
  fprintf(stderr, "kavobpf_client: %s\n", message.c_str());
  PrintUsage(stderr);
  exit(2);
}

bool ParseSeconds(const char* text, double* seconds) {
  char* end = nullptr;
  double v = strtod(text, &end);
  if (end == text || *end != '\0' || !(v >= 0)) return false;
  *seconds = v;
  return true;
}

uint64_t BootNs() {
  struct timespec ts;
  clock_gettime(CLOCK_BOOTTIME, &ts);
  return static_cast<uint64_t>(ts.tv_sec) * 1000000000ull + static_cast<uint64_t>(ts.tv_nsec);
}

struct Received {
  std::mutex mutex;
  std::condition_variable changed;
  std::map<int, long long> perType;
  long long total = 0;
};

[[noreturn]] void Finish(Received& received, const ClientSession& session, int code) {
  std::string summary;
  {
    std::lock_guard<std::mutex> guard(received.mutex);
    fflush(stdout);
    summary = Kavo::Bpf::StringPrintf("kavobpf_client: %lld events", received.total);
    const char* separator = " (";
    for (const auto& [type, count] : received.perType) {
      std::string name = EventTypeName(type);
      summary += separator + (name.empty() ? std::to_string(type) : name) + ": " + std::to_string(count);
      separator = ", ";
    }
    if (!received.perType.empty()) summary += ")";
  }
  summary += Kavo::Bpf::StringPrintf("; subscriptions: %d accepted, %d refused (result -1)\n",
                                     session.okResponses(), session.refusedResponses());
  fputs(summary.c_str(), stderr);
  fflush(stderr);
  // The endpoint's thread may sit in a reconnect pause; nothing is left to
  // flush, so leave without joining it.
  _exit(code);
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<int> eventTypes;
  bool json = false;
  long long count = -1;
  double duration = -1;
  double connectTimeout = 10;
  std::string socketName = kDefaultSocket;

  static const struct option kOptions[] = {
      {"events", required_argument, nullptr, 'e'}, {"json", no_argument, nullptr, 'j'},
      {"count", required_argument, nullptr, 'c'},  {"duration", required_argument, nullptr, 'd'},
      {"connect-timeout", required_argument, nullptr, 't'}, {"socket", required_argument, nullptr, 's'},
      {"help", no_argument, nullptr, 'h'},          {nullptr, 0, nullptr, 0},
  };
  opterr = 0;
  int opt;
  while ((opt = getopt_long(argc, argv, "", kOptions, nullptr)) != -1) {
    switch (opt) {
      case 'e':
        for (const std::string& item : Kavo::Bpf::Split(optarg, ",")) {
          int type;
          if (!ParseEventType(item, &type)) UsageError("unknown event type '" + item + "'");
          eventTypes.push_back(type);
        }
        break;
      case 'j':
        json = true;
        break;
      case 'c': {
        char* end = nullptr;
        count = strtoll(optarg, &end, 10);
        if (end == optarg || *end != '\0' || count <= 0) UsageError("--count needs a positive number");
        break;
      }
      case 'd':
        if (!ParseSeconds(optarg, &duration)) UsageError("--duration needs seconds");
        break;
      case 't':
        if (!ParseSeconds(optarg, &connectTimeout)) UsageError("--connect-timeout needs seconds");
        break;
      case 's':
        socketName = optarg;
        break;
      case 'h':
        PrintUsage(stdout);
        return 0;
      default:
        UsageError(optopt != 0 ? std::string("option needs a value: ") + argv[optind - 1]
                               : std::string("unknown option '") + argv[optind - 1] + "'");
    }
  }
  if (optind < argc) UsageError(std::string("unexpected argument '") + argv[optind] + "'");
  if (eventTypes.empty()) UsageError("--events is required");

  sigset_t stopSignals;
  sigemptyset(&stopSignals);
  sigaddset(&stopSignals, SIGINT);
  sigaddset(&stopSignals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);
  setvbuf(stdout, nullptr, _IOLBF, 0);

  Received received;
  std::atomic<bool> done{false};
  ClientSession session(socketName, eventTypes, [&](const char* record, size_t size) {
    std::lock_guard<std::mutex> guard(received.mutex);
    if (done) return;
    std::string line = json ? FormatEventJson(record, size, BootNs()) : FormatEventText(record, size);
    line += '\n';
    fwrite(line.data(), 1, line.size(), stdout);
    int32_t type = -1;
    if (size >= sizeof(type)) memcpy(&type, record, sizeof(type));
    ++received.perType[type];
    if (++received.total == count) done = true;
    received.changed.notify_all();
  });
  session.Start();
  auto connectLimit = std::chrono::milliseconds(static_cast<long long>(connectTimeout * 1000));
  if (!session.WaitConnected(connectLimit) || !session.WaitSubscribed(connectLimit)) {
    fprintf(stderr, "kavobpf_client: no service answered on %s within %g s\n", socketName.c_str(),
            connectTimeout);
    Finish(received, session, 1);
  }
  fprintf(stderr, "kavobpf_client: subscribed on %s (%d accepted, %d refused)\n", socketName.c_str(),
          session.okResponses(), session.refusedResponses());

  auto deadline = std::chrono::steady_clock::now() +
                  std::chrono::milliseconds(duration < 0 ? 0 : static_cast<long long>(duration * 1000));
  while (!done) {
    if (duration >= 0 && std::chrono::steady_clock::now() >= deadline) break;
    struct timespec poll = {0, 50 * 1000 * 1000};
    int sig = sigtimedwait(&stopSignals, nullptr, &poll);
    if (sig == SIGINT || sig == SIGTERM) break;
  }
  {
    std::lock_guard<std::mutex> guard(received.mutex);
    done = true;
  }
  Finish(received, session, 0);
}
