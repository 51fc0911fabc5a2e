#include "support/processes.h"

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include "support/namespaces.h"
#include "support/wait_until.h"
#include "utils/kavo_bpf_file.h"
#include "utils/kavo_bpf_helper.h"

namespace kavo::test {

namespace {

pid_t Spawn(const std::vector<std::string>& argv, int outputFd) {
  std::vector<char*> args;
  for (const std::string& arg : argv) args.push_back(const_cast<char*>(arg.c_str()));
  args.push_back(nullptr);
  pid_t pid = fork();
  if (pid == 0) {
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
  return pid;
}

// Waits for |pid| up to |timeout|; true with *status when it ended.
bool WaitFor(pid_t pid, std::chrono::milliseconds timeout, int* status) {
  pid_t r = 0;
  WaitUntil([&] { return (r = waitpid(pid, status, WNOHANG)) == pid || (r < 0 && errno != EINTR); }, timeout,
            std::chrono::milliseconds(5));
  return r == pid;
}

std::string TempOutputPath() {
  char path[] = "/tmp/kavo-test-output-XXXXXX";
  int fd = mkstemp(path);
  if (fd >= 0) close(fd);
  return path;
}

}  // namespace

std::set<pid_t> LivePids() {
  std::set<pid_t> pids;
  Kavo::Bpf::ForEachDirEntry("/proc", [&pids](const char* name) {
    if (!Kavo::Bpf::IsDigits(name)) return Kavo::Bpf::LineAction::kContinue;
    // "<pid> (<name>) <state> ..."
    bool alive = false;
    Kavo::Bpf::ForEachLine((std::string("/proc/") + name + "/stat").c_str(), [&alive](std::string_view line) {
      size_t close = line.rfind(')');
      alive = close != std::string_view::npos && close + 2 < line.size() && line[close + 2] != 'Z' &&
              line[close + 2] != 'X';
      return Kavo::Bpf::LineAction::kStop;
    });
    if (alive) pids.insert(atoi(name));
    return Kavo::Bpf::LineAction::kContinue;
  });
  return pids;
}

std::string ToolPath(const std::string& name) { return std::string(KAVO_TOOLS_DIR) + "/" + name; }

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

ChildProcess::ChildProcess(const std::vector<std::string>& argv) : outputPath_(TempOutputPath()) {
  int outputFd = open(outputPath_.c_str(), O_WRONLY | O_TRUNC | O_CLOEXEC);
  pid_ = Spawn(argv, outputFd);
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
  return reaped_ || (reaped_ = WaitFor(pid_, timeout, status));
}

std::string ChildProcess::Output() const { return ReadFile(outputPath_); }

bool ChildProcess::WaitForOutput(const std::string& needle, std::chrono::milliseconds timeout) const {
  return WaitUntil([&] { return Output().find(needle) != std::string::npos; }, timeout, std::chrono::milliseconds(20));
}

}  // namespace kavo::test
