#pragma once

// Starting the project's tools (and other commands) from tests.
//
//   auto loader = kavo::test::RunCommand({kavo::test::ToolPath("kavobpf_loader")});
//   EXPECT_EQ(0, loader.exitCode) << loader.output;
//
//   kavo::test::ChildProcess daemon({kavo::test::ToolPath("kavobpfd")});
//   daemon.Signal(SIGTERM);
//   int status;
//   EXPECT_TRUE(daemon.WaitExit(std::chrono::seconds(2), &status));

#include <sys/types.h>

#include <chrono>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace kavo::test {

// Absolute path of a tool built by this project.
std::string ToolPath(const std::string& name);

struct CommandResult {
  int exitCode = -1;    // -1 when it did not exit normally
  std::string output;   // stdout and stderr together
};

// The value of |key| ("RssAnon:") in /proc/<pid>/status, in kB; -1 without such a line.
long long StatusKb(pid_t pid, const std::string& key);
// Entries of /proc/<pid>/fd.
size_t OpenDescriptors(pid_t pid);
// The threads of |pid| (0: this process): thread id -> name, as in its comm.
std::map<pid_t, std::string> ThreadsOf(pid_t pid);
// Whether the thread of |pid| named |threadName| is blocked waiting for
// events in epoll; nullopt without such a thread.
std::optional<bool> ThreadWaitsInEpoll(pid_t pid, const std::string& threadName);
// Processes alive now: the numeric entries of /proc that are not zombies
// (a zombie has exited; only its parent has not reaped it yet).
std::set<pid_t> LivePids();

// Forks a child that takes |name| (when given), touches |touched| bytes of
// anonymous memory and exits with status 0; reaps it and returns its pid.
pid_t ForkAndReap(const char* name = nullptr, size_t touched = 0);

// Runs |argv| to its end (killed after |timeoutSeconds|), capturing its output.
CommandResult RunCommand(const std::vector<std::string>& argv, int timeoutSeconds = 60);

// A command running in the background; killed and reaped when destroyed.
// Its stdout and stderr go to a file that Output() reads.
class ChildProcess {
 public:
  explicit ChildProcess(const std::vector<std::string>& argv);
  ~ChildProcess();
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  pid_t pid() const { return pid_; }
  bool Signal(int sig);
  // True when the process ended within |timeout|; *status is its wait status.
  bool WaitExit(std::chrono::milliseconds timeout, int* status);
  // Everything it printed so far.
  std::string Output() const;
  // Waits until its output contains |needle|.
  bool WaitForOutput(const std::string& needle, std::chrono::milliseconds timeout = std::chrono::seconds(10)) const;

 private:
  pid_t pid_ = -1;
  bool reaped_ = false;
  std::string outputPath_;
};

}  // namespace kavo::test
