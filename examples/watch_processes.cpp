// Prints the processes that start and end on this machine, and those whose
// memory changes notably, as the KAVO BPF service reports them.
//
//   cmake -S examples -B build-example -DCMAKE_PREFIX_PATH=<prefix> && cmake --build build-example
//   c++ -std=c++17 watch_processes.cpp $(pkg-config --cflags --libs kavobpfclient)
//
// Runs until interrupted (or for the seconds given as its argument).

#include <kavobpf/kavobpf_client.h>
#include <stdio.h>
#include <stdlib.h>

int main(int argc, char** argv) {
  const int seconds = argc > 1 ? atoi(argv[1]) : -1;
  kavobpf::SetLogHandler(nullptr);  // the connection layer's own lines are not wanted here
  kavobpf::Client client;
  if (!client.Connect(std::chrono::seconds(10))) {
    fprintf(stderr, "no KAVO BPF service answered on %s\n", kavobpf::kDefaultSocket);
    return 1;
  }
  for (int32_t type : {KAVO_EVENT_PROCESS_CREATED, KAVO_EVENT_PROCESS_EXITED, KAVO_EVENT_MEMORY_CHANGED}) {
    if (client.Subscribe(type) != kavobpf::kAccepted) return 1;
  }
  printf("watching\n");
  fflush(stdout);
  for (int waited = 0; seconds < 0 || waited < seconds; ++waited) {
    while (auto event = client.NextEvent(std::chrono::seconds(1))) {
      if (auto* e = event->as<kavo_process_created_event>()) {
        printf("created pid=%d ppid=%d uid=%d comm=%s\n", e->pid, e->ppid, e->uid,
               std::string(kavobpf::Text(e->comm)).c_str());
      } else if (auto* e = event->as<kavo_process_exited_event>()) {
        printf("exited pid=%d comm=%s\n", e->pid, std::string(kavobpf::Text(e->comm)).c_str());
      } else if (auto* e = event->as<kavo_memory_changed_event>()) {
        printf("memory pid=%d comm=%s anon=%lld KiB (was %lld KiB)\n", e->pid,
               std::string(kavobpf::Text(e->comm)).c_str(), (long long)e->size[KAVO_RSS_ANON] / 1024,
               (long long)e->old_size[KAVO_RSS_ANON] / 1024);
      }
      fflush(stdout);
    }
  }
  return 0;
}
