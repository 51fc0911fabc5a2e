#include "support/system.h"

#include <stdio.h>
#include <sys/wait.h>
#include <unistd.h>

#include <sstream>
#include <type_traits>
#include <variant>

#include "kavobpf/kavobpf_client.h"
#include "service/kavo_bpf_signals.h"
#include "service/kavo_bpf_task_manager.h"
#include "support/namespaces.h"
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
  constexpr std::chrono::milliseconds timeout = 15s;
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
  // The programs are attached and ring 0 polled once a process forked now is
  // reported.
  bool reported = false;
  while (!reported && std::chrono::steady_clock::now() < deadline) {
    const pid_t probe = ForkAndReap();
    const auto probeDeadline = std::chrono::steady_clock::now() + 200ms;
    while (auto event = client.NextEvent(std::chrono::duration_cast<std::chrono::milliseconds>(
               probeDeadline - std::chrono::steady_clock::now()))) {
      auto* exited = event->as<kavo_process_exited_event>();
      if (exited != nullptr && exited->pid == probe) {
        reported = true;
        break;
      }
    }
  }
  if (!reported) {
    *why = "no kernel event reached a client: " + Output();
    return false;
  }
  // Ring 1's thread may still be attaching its programs or seeding the
  // dma-buf maps from /proc (slow under a sanitizer on a busy machine): the
  // daemon has settled once it waits in its poll, or has ended, so that tests
  // counting the daemon's descriptors or memory start from where it stays.
  WaitUntil([this] { return ThreadWaitsInEpoll(daemon_->pid(), "BpfServicePGpl").value_or(true); },
            std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now()));
  return true;
}

void KavoSystem::Kill(int sig) {
  int status;
  if (daemon_ && daemon_->Signal(sig) && sig == SIGKILL) daemon_->WaitExit(2s, &status);
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

bool CollectEvents(kavobpf::Client& client, std::vector<kavobpf::Event>* events,
                   const std::function<bool(const std::vector<kavobpf::Event>&)>& done, std::chrono::milliseconds timeout) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  for (std::chrono::milliseconds wait(0);; wait = 100ms) {
    // What has come so far (up to a batch: the machine's records never stop),
    // then the condition once for all of it.
    for (int taken = 0; taken < 50000; ++taken) {
      auto event = client.NextEvent(taken == 0 ? wait : 0ms);
      if (!event) break;
      events->push_back(std::move(*event));
    }
    if (done(*events)) return true;
    if (std::chrono::steady_clock::now() >= deadline) return false;
  }
}

std::vector<size_t> EventsOf(const std::vector<kavobpf::Event>& events, int32_t type, pid_t pid) {
  std::vector<size_t> found;
  for (size_t i = 0; i < events.size(); ++i) {
    std::visit([&](const auto& r) {  // every decoded record names its process
      if constexpr (!std::is_same_v<std::decay_t<decltype(r)>, std::monostate>) {
        if (events[i].type == type && r.pid == pid) found.push_back(i);
      }
    }, events[i].record);
  }
  return found;
}

std::map<pid_t, std::vector<std::string>> DumpTaskTable(ChildProcess& daemon) {
  const std::string file = Kavo::Bpf::KavoTaskManager::KAVOTASK_DUMP_TEMPLATE;
  unlink(file.c_str());
  daemon.Signal(Kavo::Bpf::kSignalDumpTasksNormal);
  std::map<pid_t, std::vector<std::string>> rows;
  // Written in place: whole once it holds as many rows as its header counts.
  WaitUntil([&] {
    rows.clear();
    std::istringstream text(ReadFile(file));
    std::string header, titles, row;
    size_t count = 0;
    if (!std::getline(text, header) || !std::getline(text, titles) ||
        sscanf(header.c_str(), "============ DUMP ALL KAVO TASKS INFO (count: %zu,", &count) != 1) {
      return false;
    }
    while (std::getline(text, row)) {
      std::vector<std::string> words;  // the name may hold blanks: count from the end
      std::istringstream fields(row);
      for (std::string word; fields >> word;) words.push_back(word);
      if (words.size() < 14) return false;
      rows[std::stoi(words[words.size() - 13])] = std::vector<std::string>(words.end() - 13, words.end());
    }
    return rows.size() == count && count > 0;
  }, 2s);
  return rows;
}

}  // namespace kavo::test
