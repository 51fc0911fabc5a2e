#pragma once

// Runs a test body in a forked child inside the private namespaces of
// support/namespaces.h, so that the service's fixed paths and socket name are
// private to the test and tests can run in parallel.
//
// GoogleTest results of the body (failures, skips) are reported to the parent
// test with their file and line; a child that crashes, aborts or hangs past
// its timeout fails the parent test.
//
//   TEST(Foo, Bar) {
//     kavo::test::RunInNamespace([] {
//       EXPECT_EQ(0, mkdir("/data/kavolog", 0775));
//     });
//   }

#include <functional>
#include <string>

#include <gtest/gtest.h>

#include "support/namespaces.h"

namespace kavo::test {

struct NamespaceOptions {
  // Mount an empty tmpfs over /proc; the body writes the process tree.
  bool fakeProc = false;
  // The child is killed and the test fails after this long.
  int timeoutSeconds = 120;
};

void RunInNamespace(const std::function<void()>& body, const NamespaceOptions& options = {});

// Options with an empty tmpfs over /proc.
inline NamespaceOptions FakeProc() { return NamespaceOptions{true}; }

// True when KAVO_REQUIRE_KERNEL=1: a test that would skip because the kernel
// refused fails instead.
bool KernelRequired();
// True when |feature| is in KAVO_KERNEL_LACKS (a comma-separated list): the
// machine's kernel is known to refuse the whole feature, so tests that need
// it skip even where the kernel is required.
bool KernelKnownToLack(const std::string& feature);

}  // namespace kavo::test

// Skips the current test because the kernel refused something, or fails it
// when KAVO_REQUIRE_KERNEL=1. Use inside a TEST body or a RunInNamespace body.
#define KAVO_KERNEL_SKIP(why)                                             \
  do {                                                                    \
    if (::kavo::test::KernelRequired()) {                                 \
      FAIL() << "kernel refused and KAVO_REQUIRE_KERNEL=1: " << (why);    \
    }                                                                     \
    GTEST_SKIP() << "kernel refused: " << (why);                          \
  } while (0)

// The same for a test that needs a feature the kernel may refuse as a whole
// ("trampolines"): with KAVO_REQUIRE_KERNEL=1 it fails, unless the feature
// is listed in KAVO_KERNEL_LACKS.
#define KAVO_KERNEL_FEATURE_SKIP(feature, why)                                              \
  do {                                                                                      \
    if (::kavo::test::KernelRequired() && !::kavo::test::KernelKnownToLack(feature)) {      \
      FAIL() << "kernel refused " << (feature) << " and KAVO_REQUIRE_KERNEL=1: " << (why);  \
    }                                                                                       \
    GTEST_SKIP() << "kernel refused " << (feature) << ": " << (why);                        \
  } while (0)
