#include "support/processes.h"

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include "support/namespaces.h"
#include "support/wait_until.h"
#include "utils/kavo_bpf_file.h"
#include "utils/kavo_bpf_helper.h"

namespace kavo::test {

std::set<pid_t> LivePids() {
  std::set<pid_t> pids;
  Kavo::Bpf::ForEachDirEntry("/proc", [&pids](const char* name) {
    if (!Kavo::Bpf::IsDigits(name)) return Kavo::Bpf::LineAction::kContinue;
    // "<pid> (<name>) <state> ..."
    bool alive = false;
    Kavo::Bpf::ForEachLine((std::string("/proc/") + name + "/stat").c_str(), [&alive](std::string_view line) {
      size_t close = line.rfind(')');
      alive = close != std::string_view::npos && close + 2 < line.size() && line[close + 2] != 'Z' && line[close + 2] != 'X';
      return Kavo::Bpf::LineAction::kStop;
    });
    if (alive) pids.insert(atoi(name));
    return Kavo::Bpf::LineAction::kContinue;
  });
  return pids;
}

std::map<pid_t, std::string> ThreadsOf(pid_t pid) {
  const std::string tasks = (pid == 0 ? std::string("/proc/self") : "/proc/" + std::to_string(pid)) + "/task/";
  std::map<pid_t, std::string> threads;
  Kavo::Bpf::ForEachDirEntry(tasks.c_str(), [&](const char* tid) {
    if (!Kavo::Bpf::IsDigits(tid)) return Kavo::Bpf::LineAction::kContinue;
    std::string name = ReadFile(tasks + tid + "/comm");
    if (!name.empty() && name.back() == '\n') name.pop_back();
    threads[atoi(tid)] = std::move(name);
    return Kavo::Bpf::LineAction::kContinue;
  });
  return threads;
}

std::optional<bool> ThreadWaitsInEpoll(pid_t pid, const std::string& threadName) {
  for (const auto& [tid, name] : ThreadsOf(pid)) {
    if (name != threadName) continue;
    // "<number> <arguments...>" while blocked in a system call, "running" otherwise.
    const std::string syscall = "/proc/" + std::to_string(pid) + "/task/" + std::to_string(tid) + "/syscall";
    const long call = atol(ReadFile(syscall).c_str());
    return call == SYS_epoll_pwait
#ifdef SYS_epoll_wait
           || call == SYS_epoll_wait
#endif
#ifdef SYS_epoll_pwait2
           || call == SYS_epoll_pwait2
#endif
        ;
  }
  return std::nullopt;
}

std::string ToolPath(const std::string& name) { return std::string(KAVO_TOOLS_DIR) + "/" + name; }

pid_t ForkAndReap(const char* name, size_t touched) {
  pid_t child = fork();
  if (child == 0) {
    if (name != nullptr) prctl(PR_SET_NAME, name);
    if (touched != 0) memset(mmap(nullptr, touched, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0), 1, touched);
    _exit(0);
  }
  while (child > 0 && waitpid(child, nullptr, 0) < 0 && errno == EINTR) {}
  return child;
}

long long StatusKb(pid_t pid, const std::string& key) {
  const std::string status = ReadFile("/proc/" + std::to_string(pid) + "/status");
  const size_t at = status.find(key);
  return at == std::string::npos ? -1 : atoll(status.c_str() + at + key.size());
}

size_t OpenDescriptors(pid_t pid) {
  size_t count = 0;
  Kavo::Bpf::ForEachDirEntry(("/proc/" + std::to_string(pid) + "/fd").c_str(), [&count](const char* name) {
    if (name[0] != '.') ++count;
    return Kavo::Bpf::LineAction::kContinue;
  });
  return count;
}

CommandResult RunCommand(const std::vector<std::string>& argv, int timeoutSeconds) {
  CommandResult result;
  ChildProcess child(argv);
  int status = 0;
  if (!child.WaitExit(std::chrono::seconds(timeoutSeconds), &status)) {
    child.Signal(SIGKILL);
    child.WaitExit(std::chrono::seconds(10), &status);
  }
  if (WIFEXITED(status)) result.exitCode = WEXITSTATUS(status);
  result.output = child.Output();
  return result;
}

ChildProcess::ChildProcess(const std::vector<std::string>& argv) {
  char path[] = "/tmp/kavo-test-output-XXXXXX";
  const int outputFd = mkostemp(path, O_CLOEXEC);
  outputPath_ = path;
  std::vector<char*> args;
  for (const std::string& arg : argv) args.push_back(const_cast<char*>(arg.c_str()));
  args.push_back(nullptr);
  if ((pid_ = fork()) == 0) {
    // A test or benchmark that dies takes its daemon and workloads with it,
    // so that they cannot go on loading the machine under later runs.
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    dup2(outputFd, STDOUT_FILENO);
    dup2(outputFd, STDERR_FILENO);
    // Tests block signals sometimes; the child starts with a clean mask.
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    execvp(args[0], args.data());
    dprintf(outputFd, "exec %s: %s\n", args[0], strerror(errno));
    _exit(127);
  }
  close(outputFd);
}

ChildProcess::~ChildProcess() {
  if (pid_ > 0 && !reaped_) {
    kill(pid_, SIGKILL);
    int status;
    waitpid(pid_, &status, 0);
  }
  unlink(outputPath_.c_str());
}

bool ChildProcess::Signal(int sig) { return pid_ > 0 && !reaped_ && kill(pid_, sig) == 0; }

bool ChildProcess::WaitExit(std::chrono::milliseconds timeout, int* status) {
  pid_t r = 0;
  return reaped_ || (reaped_ = WaitUntil([&] { return (r = waitpid(pid_, status, WNOHANG)) == pid_ || (r < 0 && errno != EINTR); },
                                         timeout, std::chrono::milliseconds(5)) && r == pid_);
}

std::string ChildProcess::Output() const { return ReadFile(outputPath_); }

bool ChildProcess::WaitForOutput(const std::string& needle, std::chrono::milliseconds timeout) const {
  return WaitUntil([&] { return Output().find(needle) != std::string::npos; }, timeout, std::chrono::milliseconds(20));
}

}  // namespace kavo::test
