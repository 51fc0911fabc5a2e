// Fuzzes the service's readers of /proc with made-up process trees whose
// files hold whatever the input says: getProcessInfo (status), GetFdSize and
// GetFdInode (fdinfo), the initial task scan initTaskInfo (status and stat of
// every process) and the task-table repairs that read /proc the same way
// (resyncTaskTable, clearScanZombies), the descriptor-map seeding initFdBpfProg (status and the fd
// directory) and the dma-buf seeding initDmabufBpfProg (fd links, fdinfo and
// maps). None of them may crash, read out of bounds or hang on any content.
//
// The tree lives in a private tmpfs mounted over /proc (/proc/self still
// leads to the real procfs, for the sanitizers); the maps the seedings write
// are stand-ins created on a private bpffs, so that the seedings get past
// opening them and walk the tree. Without BPF they stop at the first map,
// logged, and the rest is still fuzzed.
//
// Input: sections separated by the byte 0x01. The first section shapes the
// tree: one byte for the number of processes (1 to 3), then for each a pid
// byte and a descriptor byte (count 0 to 3 in its low bits, the link target
// of each descriptor in the higher ones). The following sections are file
// contents, in order: for each process its status, stat and maps, then the
// fdinfo of each of its descriptors. A missing section leaves its file out.
// fuzz/proc_readers.dict holds the prefixes the readers look for.
//
// Nothing fatal: the readers have no fatal checks, and a value that is not a
// number is skipped rather than thrown on. The task-table entries the scan
// made are removed after each input.

#include <bpf/bpf.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <android-base/unique_fd.h>

#include <mutex>
#include <string>
#include <vector>

#include "fuzz_support.h"
#include "support/namespaces.h"
#include "service/kavo_bpf_service.h"
#include "service/kavo_bpf_task_manager.h"

namespace {

using Kavo::Bpf::KavoBpfService;
using Kavo::Bpf::KavoTaskManager;
using kavo::fuzz::Input;

constexpr char kSeparator = '\x01';
const char* const kTargets[] = {"/dmabuf:", "anon_inode:dmabuf", "/dev/null", "/dmabuf:system-heap"};

struct StandInMap { const char* path; uint32_t keySize, valueSize; };
const StandInMap kMaps[] = {
    {"/sys/fs/bpf/kavo/map_KavoBpfDefineset_open_fd_caller_map", 4, sizeof(kavo_fd_info)},
    {"/sys/fs/bpf/kavo/map_KavoBpfGplDefineset_dmabuf_allocate_map", 8, sizeof(kavo_dmabuf_buffer)},
    {"/sys/fs/bpf/kavo/map_KavoBpfGplDefineset_dmabuf_size_map", 4, sizeof(dmabuf_stat)},
    {"/sys/fs/bpf/kavo/map_KavoBpfGplDefineset_dmabuf_perprocess_size_map", 4, sizeof(dmabuf_stat)},
    {"/sys/fs/bpf/kavo/map_KavoBpfGplDefineset_process_inode_map", 4, 4},
    {"/sys/fs/bpf/kavo/map_KavoBpfGplDefineset_process_mmap_infos", 4, 4},
};

void PinStandInMaps() {
  mkdir("/sys/fs/bpf/kavo", 0755);
  for (const StandInMap& map : kMaps) {
    android::base::unique_fd fd(bpf_map_create(BPF_MAP_TYPE_HASH, nullptr, map.keySize, map.valueSize, 4096, nullptr));
    if (fd.get() < 0 || bpf_obj_pin(fd.get(), map.path) != 0) {
      fprintf(stderr, "proc_readers_fuzzer: no stand-in for %s (%s); the seedings stop early\n", map.path,
              strerror(errno));
      return;
    }
  }
}

std::vector<std::string> Sections(const uint8_t* data, size_t size) {
  std::vector<std::string> sections(1);
  for (size_t i = 0; i < size; ++i) {
    if (data[i] == static_cast<uint8_t>(kSeparator)) {
      sections.emplace_back();
    } else {
      sections.back() += static_cast<char>(data[i]);
    }
  }
  return sections;
}

void RemoveTree(const std::string& dir) {
  for (const char* sub : {"/fd", "/fdinfo"}) {
    std::string path = dir + sub;
    for (int fd = 0; fd < 4; ++fd) unlink((path + "/" + std::to_string(fd)).c_str());
    rmdir(path.c_str());
  }
  for (const char* file : {"/status", "/stat", "/maps"}) unlink((dir + file).c_str());
  rmdir(dir.c_str());
}

struct Process { int pid, fds; };  // a made-up process and how many descriptors it has

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  kavo::fuzz::QuietLog();
  if (kavo::fuzz::PrivateMounts(/*fakeProc=*/true, /*bpffs=*/true)) PinStandInMaps();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::vector<std::string> sections = Sections(data, size);
  Input shape(reinterpret_cast<const uint8_t*>(sections[0].data()), sections[0].size());
  size_t nextSection = 1;
  auto content = [&](std::string* text) {
    if (nextSection >= sections.size()) return false;
    *text = sections[nextSection++];
    return true;
  };

  std::vector<Process> processes;
  const int count = 1 + shape.Byte() % 3;
  std::vector<uint8_t> targets;
  for (int i = 0; i < count; ++i) {
    uint8_t pidByte = shape.Byte();
    uint8_t fdByte = shape.Byte();
    processes.push_back({100 + pidByte, fdByte % 4});
    targets.push_back(fdByte >> 2);
  }
  for (size_t i = 0; i < processes.size(); ++i) {
    const std::string dir = "/proc/" + std::to_string(processes[i].pid);
    mkdir(dir.c_str(), 0755);
    std::string text;
    for (const char* file : {"/status", "/stat", "/maps"}) {
      if (content(&text)) kavo::test::WriteFile(dir + file, text);
    }
    mkdir((dir + "/fd").c_str(), 0755);
    mkdir((dir + "/fdinfo").c_str(), 0755);
    for (int fd = 0; fd < processes[i].fds; ++fd) {
      const char* target = kTargets[(targets[i] >> (2 * fd)) % 4];
      symlink(target, (dir + "/fd/" + std::to_string(fd)).c_str());
      if (content(&text)) kavo::test::WriteFile(dir + "/fdinfo/" + std::to_string(fd), text);
    }
  }

  KavoBpfService* service = KavoBpfService::GetInstance();
  for (const Process& process : processes) {
    Kavo::Bpf::UpdateProcessExdata info = {};
    service->getProcessInfo(process.pid, &info);
    if (info.comm[sizeof(info.comm) - 1] != '\0') abort();  // the name is always terminated
    for (int fd = 0; fd < process.fds; ++fd) {
      std::string fdinfo = "/proc/" + std::to_string(process.pid) + "/fdinfo/" + std::to_string(fd);
      service->GetFdSize(fdinfo);
      service->GetFdInode(fdinfo);
    }
  }
  service->initTaskInfo();
  service->resyncTaskTable(0);
  service->clearScanZombies();
  service->initFdBpfProg();
  service->initDmabufBpfProg();

  {
    std::lock_guard<std::mutex> guard(KavoTaskManager::kavoTaskManagerLock);
    for (const Process& process : processes) KavoTaskManager::GetInstance()->DelKavoTask(process.pid);
  }
  for (const Process& process : processes) RemoveTree("/proc/" + std::to_string(process.pid));
  return 0;
}
