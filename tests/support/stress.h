#pragma once

// What the stress tests measure of the process that hosts the service, and
// of the machine it watches: open descriptors, heap in use, the task table
// against the processes that are alive. Each figure is read in one go and is
// only meaningful while nothing else runs beside the test (stress tests run
// alone).
//
//   size_t before = kavo::test::OpenDescriptors(getpid());
//   ... load ...
//   EXPECT_TRUE(kavo::test::WaitUntil([&] { return OpenDescriptors(getpid()) == before; }, 5s));
//
// Thread-safe.

#include <sys/types.h>

#include <string>

#include "support/processes.h"
#include "support/wait_until.h"

namespace kavo::test {

// Bytes the allocator has handed out and not taken back (the sanitizer's
// allocator under a sanitizer, glibc's otherwise).
size_t HeapInUse();
// Entries of the service's task table, read under its lock.
size_t TaskTableSize();
// One line of the test's output: "figure <key>: <value>".
void Figure(const std::string& key, long long value);

}  // namespace kavo::test
