#pragma once

// The whole system as a platform engineer runs it, for end-to-end tests: the
// loader pins the programs, kavobpfd hosts the service, kavobpf_client
// subscribes and prints each event as a JSON line, which the test reads back.
// Runs in the current namespaces (call it inside a RunInNamespace body).
//
//   kavo::test::DaemonSystem system;
//   if (!system.Start("process_created,process_exited")) KAVO_KERNEL_SKIP(system.why());
//   ... make processes ...
//   system.WaitEvents([](const std::vector<kavo::test::JsonEvent>& events) { ... });
//   system.Stop();

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "support/processes.h"

namespace kavo::test {

// One JSON line of kavobpf_client, with its fields as text.
struct JsonEvent {
  long long type = -1;
  std::map<std::string, std::string> fields;
  long long Num(const std::string& key) const;
  std::string Str(const std::string& key) const;
};

std::vector<JsonEvent> ParseJsonEvents(const std::string& output);

// Starts |argv| (an absolute path first) without waiting; its pid, or -1.
pid_t Spawn(const std::vector<std::string>& argv);

class DaemonSystem {
 public:
  // Loader (with |loaderArgs|), daemon and a client subscribed to |events|
  // (and to sched_task_create, with which it probes that kernel records
  // arrive). False with why() when something refused.
  bool Start(const std::string& events, const std::vector<std::string>& loaderArgs = {});
  // Between the loader and the daemon, e.g. to take a pin away.
  std::function<void()> beforeDaemon;

  const std::string& why() const { return why_; }
  std::vector<JsonEvent> Events() const;
  // Waits until |done| holds for the events so far.
  bool WaitEvents(const std::function<bool(const std::vector<JsonEvent>&)>& done,
                  std::chrono::milliseconds timeout = std::chrono::seconds(10)) const;
  ChildProcess& daemon() { return *daemon_; }
  // Client interrupted, daemon stopped by SIGTERM; expects it to exit 0 in 2 s.
  void Stop();

 private:
  std::string why_;
  std::unique_ptr<ChildProcess> daemon_;
  std::unique_ptr<ChildProcess> client_;
};

}  // namespace kavo::test
