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

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "support/processes.h"

namespace kavo::test {

class KavoSystem {
 public:
  struct Options {
    std::vector<std::string> loaderArgs;
    std::vector<std::string> daemonArgs;
    // Where kavobpf_loader and kavobpfd are; this build's tools by default.
    std::string binDir;
  };

  KavoSystem() = default;
  explicit KavoSystem(Options options) : options_(std::move(options)) {}

  // Pins the programs, starts kavobpfd and waits until it is ready; false
  // with the reason when something refused.
  bool Start(std::string* why);
  // Starts kavobpfd again (after Kill) and waits until it is ready.
  bool StartDaemon(std::string* why);
  // Until a client is served and the exit of a process forked now reaches it.
  bool WaitReady(std::string* why, std::chrono::milliseconds timeout = std::chrono::seconds(15));
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

}  // namespace kavo::test
