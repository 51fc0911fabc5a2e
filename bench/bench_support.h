#pragma once

// What the benchmark programs share: private namespaces like the tests have,
// the loader, idle processes to fill the process table, and figures.

#include <sys/types.h>

#include <string>
#include <vector>

namespace kavo::bench {

[[noreturn]] void Die(const std::string& what);

// Private mount and network namespaces: tmpfs /data and /mnt, a fresh bpffs
// and tracefs. The service's fixed paths and socket name are then private.
void EnterPrivateNamespaces();

// Runs kavobpf_loader with |args|; dies when it fails.
void RunLoader(const std::vector<std::string>& args = {});

// Absolute path of a tool of this build.
std::string ToolPath(const std::string& name);

// "major.minor" of the running kernel.
std::string KernelVersion();

// |count| children that sleep until this object is destroyed.
class SleepingProcesses {
 public:
  explicit SleepingProcesses(int count);
  ~SleepingProcesses();
  SleepingProcesses(const SleepingProcesses&) = delete;
  SleepingProcesses& operator=(const SleepingProcesses&) = delete;
  size_t size() const { return pids_.size(); }

 private:
  std::vector<pid_t> pids_;
};

// The median of |values| (which it sorts).
double Median(std::vector<double>* values);

}  // namespace kavo::bench
