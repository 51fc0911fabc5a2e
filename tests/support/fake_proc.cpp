#include "support/fake_proc.h"

#include <unistd.h>

#include <filesystem>

#include "support/namespaces.h"

namespace kavo::test {

namespace {

std::string Dir(int pid) { return "/proc/" + std::to_string(pid); }

}  // namespace

void WriteFakeProcess(const FakeProcess& p) {
  char status[1024];
  snprintf(status, sizeof(status), "Name:\t%s\nUmask:\t0022\nState:\tS (sleeping)\nTgid:\t%d\nNgid:\t0\nPid:\t%d\n"
           "PPid:\t%d\nTracerPid:\t0\nUid:\t%d\t%d\t%d\t%d\nGid:\t0\t0\t0\t0\nFDSize:\t64\n"
           "VmPeak:\t   10000 kB\nVmRSS:\t    %lld kB\nRssAnon:\t    %lld kB\nRssFile:\t    %lld kB\n"
           "RssShmem:\t    %lld kB\nVmData:\t    100 kB\nVmSwap:\t    %lld kB\nThreads:\t%d\n",
           p.name.c_str(), p.pid, p.pid, p.ppid, p.uid, p.uid + 1, p.uid + 2, p.uid + 3,
           p.rssAnonKb + p.rssFileKb + p.rssShmemKb, p.rssAnonKb, p.rssFileKb, p.rssShmemKb, p.swapKb, p.threads);
  WriteFile(Dir(p.pid) + "/status", status);
  if (p.withStat) {
    char stat[1024];
    snprintf(stat, sizeof(stat), "%d (%s) %c %d %d %d 0 -1 4194560 100 0 0 0 5 3 0 0 20 0 %d 0 %lld 12345678 300 "
             "18446744073709551615 1 1 0 0 0 0 0 0 0 0 0 0 17 1 0 0 0 0 0\n",
             p.pid, p.name.c_str(), p.state, p.ppid, p.pid, p.pid, p.threads, p.startTicks);
    WriteFile(Dir(p.pid) + "/stat", stat);
  }
  if (p.withFdDir) MakeDirs(Dir(p.pid) + "/fd");
}

void RemoveFakeProcess(int pid) {
  std::error_code ignored;
  std::filesystem::remove_all(Dir(pid), ignored);
}

bool AddFakeFd(int pid, int fd, const std::string& target, long long size, long long inode) {
  std::string link = Dir(pid) + "/fd/" + std::to_string(fd);
  MakeDirs(Dir(pid) + "/fd");
  if (symlink(target.c_str(), link.c_str()) != 0) return false;
  if (size < 0 && inode < 0) return true;
  std::string info = "pos:\t0\nflags:\t02000002\nmnt_id:\t15\n";
  if (size >= 0) info += "size:\t" + std::to_string(size) + "\n";
  info += "count:\t1\nexp_name:\tsystem\n";
  if (inode >= 0) info += "ino:\t" + std::to_string(inode) + "\n";
  return WriteFile(Dir(pid) + "/fdinfo/" + std::to_string(fd), info);
}

}  // namespace kavo::test
