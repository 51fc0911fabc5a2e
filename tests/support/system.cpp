#include "support/system.h"

#include <sys/wait.h>
#include <unistd.h>

#include "kavobpf/kavobpf_client.h"
#include "support/wire.h"

namespace kavo::test {

using namespace std::chrono_literals;

std::string KavoSystem::Tool(const std::string& name) const {
  return options_.binDir.empty() ? ToolPath(name) : options_.binDir + "/" + name;
}

bool KavoSystem::Start(std::string* why) {
  std::vector<std::string> loader = {Tool("kavobpf_loader")};
  loader.insert(loader.end(), options_.loaderArgs.begin(), options_.loaderArgs.end());
  CommandResult pinned = RunCommand(loader);
  if (pinned.exitCode != 0) {
    *why = "kavobpf_loader: " + pinned.output;
    return false;
  }
  return StartDaemon(why);
}

bool KavoSystem::StartDaemon(std::string* why) {
  std::vector<std::string> argv = {Tool("kavobpfd")};
  argv.insert(argv.end(), options_.daemonArgs.begin(), options_.daemonArgs.end());
  daemon_ = std::make_unique<ChildProcess>(argv);
  return WaitReady(why);
}

bool KavoSystem::WaitReady(std::string* why, std::chrono::milliseconds timeout) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  // Listening first: a client refused once waits out its retry period.
  if (!RawClient().Connect(kServiceSocket, timeout)) {
    *why = "kavobpfd never listened: " + Output();
    return false;
  }
  kavobpf::Client client;
  if (!client.Connect(timeout) || client.Subscribe(KAVO_EVENT_PROCESS_EXITED) != kavobpf::kAccepted) {
    *why = "kavobpfd never served a client: " + Output();
    return false;
  }
  // The programs are attached and both rings polled once a process forked
  // now is reported.
  while (std::chrono::steady_clock::now() < deadline) {
    pid_t probe = fork();
    if (probe == 0) _exit(0);
    waitpid(probe, nullptr, 0);
    const auto probeDeadline = std::chrono::steady_clock::now() + 200ms;
    while (auto event = client.NextEvent(std::chrono::duration_cast<std::chrono::milliseconds>(
               probeDeadline - std::chrono::steady_clock::now()))) {
      auto* exited = event->as<kavo_process_exited_event>();
      if (exited != nullptr && exited->pid == probe) return true;
    }
  }
  *why = "no kernel event reached a client: " + Output();
  return false;
}

void KavoSystem::Kill(int sig) {
  if (!daemon_) return;
  daemon_->Signal(sig);
  if (sig == SIGKILL) {
    int status;
    daemon_->WaitExit(2s, &status);
  }
}

int KavoSystem::Stop() {
  if (!daemon_) return -1;
  int status = 0;
  daemon_->Signal(SIGTERM);
  // The daemon stops within 2 s; its process is gone once the kernel has
  // detached each program, every detach waiting out an RCU grace period.
  if (!daemon_->WaitExit(15s, &status)) return -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

}  // namespace kavo::test
