// kavobpf_client: subscribes to event types of the KAVO BPF service and prints
// every event it receives, one line each, decoded field by field (or as JSON).
// Built on libkavobpfclient alone.

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

#include "kavobpf/kavobpf_client.h"
#include "kavobpf_event_format.h"

namespace {

using namespace kavo::client;
using kavobpf::kDefaultSocket;

void PrintUsage(FILE* out) {
  fprintf(out,
          "Usage: kavobpf_client --events LIST [--json] [--count N] [--duration SECONDS]\n"
          "                      [--connect-timeout SECONDS] [--socket NAME] [--verbose]\n"
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
          "  --verbose                  also show the connection layer's own log lines\n"
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
  int accepted = 0;
  int refused = 0;
  int answered = 0;
};

// Prints the summary and leaves. Closing the client is not waited for: its
// thread may sit in a reconnect pause, and nothing is left to flush.
[[noreturn]] void Finish(Received& received, int code) {
  std::string summary;
  {
    std::lock_guard<std::mutex> guard(received.mutex);
    fflush(stdout);
    summary = "kavobpf_client: " + std::to_string(received.total) + " events";
    const char* separator = " (";
    for (const auto& [type, count] : received.perType) {
      std::string name(kavobpf::EventTypeName(type));
      summary += separator + (name.empty() ? std::to_string(type) : name) + ": " + std::to_string(count);
      separator = ", ";
    }
    if (!received.perType.empty()) summary += ")";
    summary += "; subscriptions: " + std::to_string(received.accepted) + " accepted, " +
               std::to_string(received.refused) + " refused (result -1)\n";
  }
  fputs(summary.c_str(), stderr);
  fflush(stderr);
  _exit(code);
}

std::vector<std::string> SplitList(const std::string& list) {
  std::vector<std::string> items;
  size_t start = 0;
  while (start <= list.size()) {
    size_t comma = list.find(',', start);
    if (comma == std::string::npos) comma = list.size();
    if (comma > start) items.push_back(list.substr(start, comma - start));
    start = comma + 1;
  }
  return items;
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<int32_t> eventTypes;
  bool json = false;
  bool verbose = false;
  long long count = -1;
  double duration = -1;
  double connectTimeout = 10;
  std::string socketName = kDefaultSocket;

  static const struct option kOptions[] = {
      {"events", required_argument, nullptr, 'e'}, {"json", no_argument, nullptr, 'j'},
      {"count", required_argument, nullptr, 'c'},  {"duration", required_argument, nullptr, 'd'},
      {"connect-timeout", required_argument, nullptr, 't'}, {"socket", required_argument, nullptr, 's'},
      {"verbose", no_argument, nullptr, 'v'},       {"help", no_argument, nullptr, 'h'},
      {nullptr, 0, nullptr, 0},
  };
  opterr = 0;
  int opt;
  while ((opt = getopt_long(argc, argv, "", kOptions, nullptr)) != -1) {
    switch (opt) {
      case 'e':
        for (const std::string& item : SplitList(optarg)) {
          int32_t type;
          if (!kavobpf::ParseEventType(item, &type)) UsageError("unknown event type '" + item + "'");
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
      case 'v':
        verbose = true;
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

  // The connection layer's lines (retries, its view of a lost server) are
  // for whoever debugs the client; the tool says what matters itself.
  if (!verbose) kavobpf::SetLogHandler(nullptr);

  Received received;
  std::atomic<bool> done{false};
  kavobpf::ClientOptions options;
  options.socket = socketName;
  kavobpf::ClientCallbacks callbacks;
  callbacks.onEvent = [&](const kavobpf::Event& event) {
    std::lock_guard<std::mutex> guard(received.mutex);
    if (done) return;
    std::string line = json ? FormatEventJson(event, BootNs()) : FormatEventText(event);
    line += '\n';
    fwrite(line.data(), 1, line.size(), stdout);
    ++received.perType[event.type];
    if (++received.total == count) done = true;
    received.changed.notify_all();
  };
  callbacks.onConnection = [&](kavobpf::ConnectionChange change) {
    if (change == kavobpf::ConnectionChange::kLost) {
      fprintf(stderr, "kavobpf_client: connection to %s lost, reconnecting\n", socketName.c_str());
    } else if (change == kavobpf::ConnectionChange::kReconnected) {
      fprintf(stderr, "kavobpf_client: reconnected to %s and subscribed again\n", socketName.c_str());
    }
  };
  kavobpf::Client client(options, callbacks);
  for (int32_t type : eventTypes) {
    client.SubscribeAsync(type, [&received](int result) {
      std::lock_guard<std::mutex> guard(received.mutex);
      if (result == kavobpf::kAccepted) ++received.accepted;
      if (result == kavobpf::kRefused) ++received.refused;
      ++received.answered;
      received.changed.notify_all();
    });
  }
  auto connectLimit = std::chrono::milliseconds(static_cast<long long>(connectTimeout * 1000));
  auto connectDeadline = std::chrono::steady_clock::now() + connectLimit;
  bool subscribed = client.Connect(connectLimit);
  if (subscribed) {
    std::unique_lock<std::mutex> lock(received.mutex);
    subscribed = received.changed.wait_until(lock, connectDeadline, [&] {
      return received.answered == static_cast<int>(eventTypes.size());
    });
  }
  if (!subscribed) {
    fprintf(stderr, "kavobpf_client: no service answered on %s within %g s\n", socketName.c_str(),
            connectTimeout);
    Finish(received, 1);
  }
  {
    std::lock_guard<std::mutex> guard(received.mutex);
    fprintf(stderr, "kavobpf_client: subscribed on %s (%d accepted, %d refused)\n", socketName.c_str(),
            received.accepted, received.refused);
  }

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
  Finish(received, 0);
}
