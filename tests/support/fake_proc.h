#pragma once

// Made-up processes in a tmpfs mounted over /proc (see RunInNamespace with
// FakeProc()), written in the kernel's own formats so the service's /proc
// readers parse them as they would parse the real thing.
//
//   kavo::test::FakeProcess p;
//   p.pid = 4242; p.name = "surfaceflinger"; p.rssAnonKb = 1024;
//   kavo::test::WriteFakeProcess(p);
//   kavo::test::AddFakeFd(4242, 7, "/dmabuf:", 4096, 17);

#include <string>

namespace kavo::test {

struct FakeProcess {
  int pid = 0;
  std::string name = "proc";
  int ppid = 1, uid = 0, threads = 1;
  long long rssAnonKb = 0, rssFileKb = 0, rssShmemKb = 0, swapKb = 0;  // as status shows them
  long long startTicks = 0;
  char state = 'S';        // 'Z': a zombie
  bool withStat = true;    // false: the process "vanished" before its stat was read
  bool withFdDir = true;   // an empty /proc/<pid>/fd
};

// /proc/<pid>/status, /proc/<pid>/stat and an empty fd directory.
void WriteFakeProcess(const FakeProcess& process);
// Takes the process out of /proc again (reaped, or never there).
void RemoveFakeProcess(int pid);
// Descriptor |fd| of |pid|: a link to |target| and, when size >= 0, an fdinfo
// file with "size:" and "ino:" lines (either may be left out with -1).
bool AddFakeFd(int pid, int fd, const std::string& target, long long size = -1, long long inode = -1);

}  // namespace kavo::test
