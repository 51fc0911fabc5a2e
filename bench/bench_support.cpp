#include "bench_support.h"

#include <errno.h>
#include <sched.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/utsname.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>

namespace kavo::bench {

void Die(const std::string& what) {
  fprintf(stderr, "%s\n", what.c_str());
  exit(1);
}

void EnterPrivateNamespaces() {
  if (unshare(CLONE_NEWNS | CLONE_NEWNET) != 0) Die(std::string("unshare: ") + strerror(errno));
  if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) Die("making / private");
  mkdir("/data", 0755);
  for (const char* dir : {"/data", "/mnt"}) {
    if (mount("tmpfs", dir, "tmpfs", 0, "mode=0755") != 0) Die(std::string("tmpfs on ") + dir);
  }
  if (mount("bpf", "/sys/fs/bpf", "bpf", 0, "mode=0700") != 0) Die("mounting bpffs");
  mount("tracefs", "/sys/kernel/tracing", "tracefs", 0, nullptr);
}

std::string ToolPath(const std::string& name) { return std::string(KAVO_TOOLS_DIR) + "/" + name; }

void RunLoader(const std::vector<std::string>& args) {
  std::string loader = ToolPath("kavobpf_loader");
  std::vector<char*> argv = {const_cast<char*>(loader.c_str())};
  for (const std::string& arg : args) argv.push_back(const_cast<char*>(arg.c_str()));
  argv.push_back(nullptr);
  pid_t pid = fork();
  if (pid == 0) {
    execv(argv[0], argv.data());
    _exit(127);
  }
  int status = 0;
  waitpid(pid, &status, 0);
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) Die("kavobpf_loader failed");
}

std::string KernelVersion() {
  struct utsname uts;
  uname(&uts);
  std::string release(uts.release);
  size_t first = release.find('.');
  return release.substr(0, release.find_first_not_of("0123456789", first + 1));
}

SleepingProcesses::SleepingProcesses(int count) {
  for (int i = 0; i < count; ++i) {
    pid_t pid = fork();
    if (pid == 0) {
      while (true) pause();
    }
    if (pid < 0) Die(std::string("fork: ") + strerror(errno));
    pids_.push_back(pid);
  }
}

SleepingProcesses::~SleepingProcesses() {
  for (pid_t pid : pids_) kill(pid, SIGKILL);
  for (pid_t pid : pids_) waitpid(pid, nullptr, 0);
}

double Median(std::vector<double>* values) {
  if (values->empty()) return 0;
  std::sort(values->begin(), values->end());
  return (*values)[values->size() / 2];
}

}  // namespace kavo::bench
