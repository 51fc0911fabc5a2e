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
#include <unistd.h>

#include <android-base/unique_fd.h>

#include <filesystem>
#include <mutex>
#include <string>
#include <vector>

#include "fuzz_support.h"
#include "service/kavo_bpf_service.h"
#include "service/kavo_bpf_task_manager.h"
#include "support/namespaces.h"

namespace {

using Kavo::Bpf::KavoBpfService;

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

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  kavo::fuzz::QuietLog();
  if (!kavo::fuzz::PrivateMounts(/*fakeProc=*/true, /*bpffs=*/true)) return 0;
  kavo::test::MakeDirs("/sys/fs/bpf/kavo");
  for (const StandInMap& map : kMaps) {
    android::base::unique_fd fd(bpf_map_create(BPF_MAP_TYPE_HASH, nullptr, map.keySize, map.valueSize, 4096, nullptr));
    if (fd.get() < 0 || bpf_obj_pin(fd.get(), map.path) != 0) {
      fprintf(stderr, "proc_readers_fuzzer: no stand-in for %s (%s); the seedings stop early\n", map.path, strerror(errno));
      break;
    }
  }
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::vector<std::string> sections(1);  // separated by the byte 0x01
  for (size_t i = 0; i < size; ++i) {
    if (data[i] == 1) sections.emplace_back();
    else sections.back() += static_cast<char>(data[i]);
  }
  kavo::fuzz::Input shape(reinterpret_cast<const uint8_t*>(sections[0].data()), sections[0].size());
  size_t next = 1;  // the next file's section; past the last one, files are left out
  struct Process { int pid, fds; uint8_t targets; };
  std::vector<Process> processes(1 + shape.Byte() % 3);
  for (Process& p : processes) {
    p.pid = 100 + shape.Byte();
    const uint8_t fdByte = shape.Byte();
    p.fds = fdByte % 4, p.targets = fdByte >> 2;
  }
  for (const Process& p : processes) {
    const std::string dir = "/proc/" + std::to_string(p.pid);
    kavo::test::MakeDirs(dir + "/fdinfo");
    kavo::test::MakeDirs(dir + "/fd");
    for (const char* file : {"/status", "/stat", "/maps"}) {
      if (next < sections.size()) kavo::test::WriteFile(dir + file, sections[next++]);
    }
    for (int fd = 0; fd < p.fds; ++fd) {
      symlink(kTargets[(p.targets >> (2 * fd)) % 4], (dir + "/fd/" + std::to_string(fd)).c_str());
      if (next < sections.size()) kavo::test::WriteFile(dir + "/fdinfo/" + std::to_string(fd), sections[next++]);
    }
  }

  KavoBpfService* service = KavoBpfService::GetInstance();
  for (const Process& p : processes) {
    Kavo::Bpf::UpdateProcessExdata info = {};
    service->getProcessInfo(p.pid, &info);
    if (info.comm[sizeof(info.comm) - 1] != '\0') abort();  // the name is always terminated
    for (int fd = 0; fd < p.fds; ++fd) {
      const std::string fdinfo = "/proc/" + std::to_string(p.pid) + "/fdinfo/" + std::to_string(fd);
      service->GetFdSize(fdinfo);
      service->GetFdInode(fdinfo);
    }
  }
  service->initTaskInfo();
  service->resyncTaskTable(0);
  service->clearScanZombies();
  service->initFdBpfProg();
  service->initDmabufBpfProg();

  std::lock_guard<std::mutex> guard(Kavo::Bpf::KavoTaskManager::kavoTaskManagerLock);
  for (const Process& p : processes) {
    Kavo::Bpf::KavoTaskManager::GetInstance()->DelKavoTask(p.pid);
    std::error_code ignored;  // this process's own entry leads into the real procfs: left alone
    if (p.pid != getpid()) std::filesystem::remove_all("/proc/" + std::to_string(p.pid), ignored);
  }
  return 0;
}
