#pragma once

// Private namespaces over the service's fixed paths, for tests, benchmarks
// and fuzz targets alike: a private mount namespace (and network namespace,
// so the abstract socket name is private too) with
//
//   /data         tmpfs (created on the host first if it does not exist)
//   /mnt          tmpfs
//   /sys/fs/bpf   a fresh bpffs instance
//   /sys/kernel/tracing  tracefs, for bcc to find tracepoint ids
//   /proc         optionally an empty tmpfs for a made-up process tree
//
// and the small file helpers that go with them. No GoogleTest here: the
// benchmarks and the fuzz targets use it too.

#include <string>

namespace kavo::test {

struct PrivateMounts {
  bool network = true;   // a network namespace of its own
  bool mnt = true;       // tmpfs over /mnt
  bool bpffs = true;     // a fresh bpffs
  bool fakeProc = false; // an empty tmpfs over /proc
  // With fakeProc: /proc/self, /proc/thread-self and /proc/<own pid> still
  // lead into a real procfs (mounted at /proc/.host), where the sanitizers
  // read this process's maps and threads; walks of /proc then meet it too.
  bool keepOwnProc = false;
};

// Enters the namespaces; false with the reason when something was refused.
bool EnterPrivateNamespaces(const PrivateMounts& mounts, std::string* why);
// An empty tmpfs over /proc, from inside the namespaces (after using the
// real /proc, to run the loader, say).
bool MountFakeProc(bool keepOwnProc, std::string* why);

// mkdir -p.
void MakeDirs(const std::string& path);
// Writes |content| to |path|, creating missing parent directories.
bool WriteFile(const std::string& path, const std::string& content);
// The whole file, or "" when it cannot be read.
std::string ReadFile(const std::string& path);
bool PathExists(const std::string& path);
// How often |needle| occurs in |text| (lines of output: "\n").
size_t Occurrences(const std::string& text, const std::string& needle);
// Sets *why to "<what>: <errno's text>"; returns false.
bool Refused(const std::string& what, std::string* why);

}  // namespace kavo::test
