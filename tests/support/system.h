#pragma once

// The whole system as a user runs it, inside a RunInNamespace body: the
// loader's pins and kavobpfd, started and waited for until a client is
// served and kernel events flow.
//
//   kavo::test::KavoSystem system;
//   std::string why;
//   if (!system.Start(&why)) KAVO_KERNEL_SKIP(why);
//   kavobpf::Client client;   // served now
//   ...
//   EXPECT_EQ(0, system.Stop());
//
// Thread-compatible.

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "kavobpf/kavobpf_client.h"
#include "support/processes.h"
#include "support/wait_until.h"

namespace kavo::test {

class KavoSystem {
 public:
  struct Options {
    std::vector<std::string> loaderArgs, daemonArgs;
    // Where kavobpf_loader and kavobpfd are; this build's tools by default.
    std::string binDir;
  };

  explicit KavoSystem(Options options = {}) : options_(std::move(options)) {}

  // Pins the programs, starts kavobpfd and waits until it is ready; false
  // with the reason when something refused.
  bool Start(std::string* why);
  // Starts kavobpfd (again, after Kill) and waits until it is ready: until a
  // client is served and the exit of a process forked now reaches it.
  bool StartDaemon(std::string* why);
  // Signals kavobpfd and reaps it; for SIGKILL, SIGSTOP and the like.
  void Kill(int sig);
  // SIGTERM; the daemon's exit code, or -1 when its process did not end.
  int Stop();

  ChildProcess* daemon() { return daemon_.get(); }
  std::string Output() const { return daemon_ ? daemon_->Output() : std::string(); }

 private:
  std::string Tool(const std::string& name) const;

  Options options_;
  std::unique_ptr<ChildProcess> daemon_;
};

// Takes |client|'s events into *events until |done| holds for them all.
bool CollectEvents(kavobpf::Client& client, std::vector<kavobpf::Event>* events,
                   const std::function<bool(const std::vector<kavobpf::Event>&)>& done,
                   std::chrono::milliseconds timeout = std::chrono::seconds(10));
// The events of |type| about |pid|, oldest first, as indexes into |events|.
std::vector<size_t> EventsOf(const std::vector<kavobpf::Event>& events, int32_t type, pid_t pid);
// The daemon's task table, from the dump it writes on signal 53: by pid, the
// words of each row from the pid on ("pid ppid threads mmId <anon> KB <file>
// KB <shmem> KB <swap> KB <start>"); empty when no whole dump came in 2 s.
std::map<pid_t, std::vector<std::string>> DumpTaskTable(ChildProcess& daemon);

}  // namespace kavo::test
