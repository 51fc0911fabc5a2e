#pragma once

// The kernel side as the tests set it up: the real programs loaded and pinned
// by kavobpf_loader (inside a RunInNamespace body, so the pins are private to
// the test), what the running kernel offers, and a plain reader of a pinned
// ring for tests that look at the records themselves.
//
//   kavo::test::RunInNamespace([] {
//     std::string why;
//     if (!kavo::test::BpfAvailable(&why)) KAVO_KERNEL_SKIP(why);
//     ASSERT_TRUE(kavo::test::LoadKernelSide(&why)) << why;
//     ...
//   });
//
// Attached programs see the whole machine: tests pick out the records of the
// processes they made.

#include <sys/types.h>

#include <string>
#include <vector>

namespace kavo::test {

// Whether the kernel lets this process create a BPF ring buffer.
bool BpfAvailable(std::string* why);

// Runs kavobpf_loader with |args|; false with its output in *why.
bool LoadKernelSide(std::string* why, const std::vector<std::string>& args = {});

// "major.minor" of the running kernel, as ro.kernel.version would hold it.
std::string RunningKernelVersion();
// Whether kprobes can be attached at all, and to |function| in particular.
bool KprobesAvailable();
bool KprobeableFunction(const std::string& function);

// Forks |count| children that exit at once with status 0, reaps them, and
// returns their pids.
std::vector<pid_t> ForkAndReapChildren(int count);

// Every record waiting in the ring pinned at |ringMapPath|, taken out of it.
std::vector<std::string> DrainRing(const std::string& ringMapPath);

}  // namespace kavo::test
