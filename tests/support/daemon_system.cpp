#include "support/daemon_system.h"

#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>

#include <regex>
#include <sstream>
#include <thread>

#include <gtest/gtest.h>

extern char** environ;

namespace kavo::test {

using namespace std::chrono_literals;

long long JsonEvent::Num(const std::string& key) const {
  auto it = fields.find(key);
  return it == fields.end() ? -1 : std::stoll(it->second);
}

std::string JsonEvent::Str(const std::string& key) const {
  auto it = fields.find(key);
  return it == fields.end() ? "" : it->second;
}

std::vector<JsonEvent> ParseJsonEvents(const std::string& output) {
  static const std::regex kField("\"([a-z_]+)\":(-?[0-9]+|\"[^\"]*\")");
  std::vector<JsonEvent> events;
  std::istringstream in(output);
  for (std::string line; std::getline(in, line);) {
    if (line.empty() || line[0] != '{') continue;
    JsonEvent event;
    for (auto it = std::sregex_iterator(line.begin(), line.end(), kField); it != std::sregex_iterator(); ++it) {
      std::string value = (*it)[2];
      if (value.size() >= 2 && value.front() == '"') value = value.substr(1, value.size() - 2);
      event.fields[(*it)[1]] = value;
    }
    event.type = event.Num("type");
    events.push_back(event);
  }
  return events;
}

pid_t Spawn(const std::vector<std::string>& argv) {
  std::vector<char*> args;
  for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
  args.push_back(nullptr);
  pid_t pid = -1;
  if (posix_spawn(&pid, args[0], nullptr, nullptr, args.data(), environ) != 0) return -1;
  return pid;
}

bool DaemonSystem::Start(const std::string& events, const std::vector<std::string>& loaderArgs) {
  std::vector<std::string> loaderArgv = {ToolPath("kavobpf_loader")};
  loaderArgv.insert(loaderArgv.end(), loaderArgs.begin(), loaderArgs.end());
  auto loader = RunCommand(loaderArgv);
  if (loader.exitCode != 0) {
    why_ = "kavobpf_loader: " + loader.output;
    return false;
  }
  if (beforeDaemon) beforeDaemon();
  daemon_ = std::make_unique<ChildProcess>(std::vector<std::string>{ToolPath("kavobpfd")});
  client_ = std::make_unique<ChildProcess>(std::vector<std::string>{
      ToolPath("kavobpf_client"), "--events", events + ",sched_task_create", "--json"});
  if (!client_->WaitForOutput("kavobpf_client: subscribed", 10s)) {
    why_ = "client never subscribed: " + client_->Output() + daemon_->Output();
    return false;
  }
  // Probe until the monitors deliver: the programs are attached and polled.
  for (int i = 0; i < 100; ++i) {
    pid_t probe = Spawn({"/bin/true"});
    waitpid(probe, nullptr, 0);
    std::this_thread::sleep_for(100ms);
    for (const JsonEvent& e : Events()) {
      if (e.type == 2 && e.Num("pid") == probe) return true;
    }
  }
  why_ = "no kernel event reached the client: " + daemon_->Output();
  return false;
}

std::vector<JsonEvent> DaemonSystem::Events() const { return ParseJsonEvents(client_->Output()); }

bool DaemonSystem::WaitEvents(const std::function<bool(const std::vector<JsonEvent>&)>& done,
                              std::chrono::milliseconds timeout) const {
  auto deadline = std::chrono::steady_clock::now() + timeout;
  while (!done(Events())) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(100ms);
  }
  return true;
}

// Stops the client, then the daemon, which must exit 0. How soon is
// kavobpfd's own test; here the daemon has attached programs, and its process
// is gone only once the kernel has detached each of them as its descriptors
// close at exit, every detach waiting out an RCU grace period: on a busy
// machine that alone takes seconds.
void DaemonSystem::Stop() {
  int status = -1;
  client_->Signal(SIGINT);
  client_->WaitExit(2s, &status);
  status = -1;
  daemon_->Signal(SIGTERM);
  EXPECT_TRUE(daemon_->WaitExit(15s, &status));
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << daemon_->Output();
}

}  // namespace kavo::test
