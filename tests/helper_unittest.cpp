// The time base and string utilities every subsystem leans on.

#include <android-base/properties.h>
#include <time.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/harness.h"
#include "utils/kavo_bpf_helper.h"

namespace Kavo::Bpf {
namespace {

TEST(HelperStrings, HexDumpSplitAndDigits) {
  const char bytes[] = {0x0a, static_cast<char>(0xff), 0x00};
  EXPECT_EQ("0a ff 00 ", ConvertToHexString(bytes, 3));
  EXPECT_EQ("05 ", ConvertToHexString("\x05", 1));
  EXPECT_EQ("", ConvertToHexString(bytes, 0));
  EXPECT_EQ("", ConvertToHexString(bytes, -4));

  EXPECT_EQ((std::vector<std::string>{"a", "b"}), Split("a..b.", "."));
  EXPECT_EQ((std::vector<std::string>{"5.10"}), Split("-5.10", "-"));
  EXPECT_EQ((std::vector<std::string>{"x", "y"}), Split("x<>y<>", "<>"));
  EXPECT_TRUE(Split("", ",").empty());

  EXPECT_FALSE(IsDigits(""));
  EXPECT_TRUE(IsDigits("0123"));
  EXPECT_FALSE(IsDigits("12a"));
  EXPECT_FALSE(IsDigits("-1"));
}

TEST(HelperStrings, StringPrintfHasNoLengthLimit) {
  std::string big(100000, 'k');
  EXPECT_EQ(big + "-7", StringPrintf("%s-%d", big.c_str(), 7));
  EXPECT_EQ("", StringPrintf("%s", ""));
}

TEST(HelperStrings, VersionsAndCompatibility) {
  EXPECT_EQ(6001, convertVersionToInt("6.1"));
  EXPECT_EQ(5010, convertVersionToInt("5.10"));
  EXPECT_EQ(5015, convertVersionToInt("5.15.78"));
  EXPECT_EQ(0, convertVersionToInt("0.0"));
  EXPECT_EQ(6000, convertVersionToInt("6"));

  android::base::SetProperty("ro.kernel.version", "5.10");
  for (const char* pass : {"5.0+", "5.10-", "5.4-5.10", "5.10", "5.10+"}) {
    EXPECT_TRUE(CheckBpfCompatibility(pass)) << pass;
  }
  for (const char* fail : {"6.1+", "5.9", "5.11-6.1", "5.9-", ""}) {
    EXPECT_FALSE(CheckBpfCompatibility(fail)) << fail;
  }
  // A damaged property makes programs incompatible instead of ending the thread.
  android::base::SetProperty("ro.kernel.version", "five.ten");
  EXPECT_FALSE(CheckBpfCompatibility("5.0+"));
  android::base::SetProperty("ro.kernel.version", "");
  EXPECT_FALSE(CheckBpfCompatibility("5.0+"));  // unset counts as 0.0
  EXPECT_TRUE(CheckBpfCompatibility("0.0"));

  EXPECT_TRUE(IsBpfProg("prog_"));
  EXPECT_TRUE(IsBpfProg("prog_KavoBpfDefineset_kprobe_enter_fd_install"));
  EXPECT_FALSE(IsBpfProg("xprog_a"));
  EXPECT_FALSE(IsBpfProg("map_KavoBpfDefineset_ringbuf_map"));
}

TEST(HelperStrings, DecimalParsingStopsAtDamage) {
  long long v = 7;
  EXPECT_TRUE(ParseDecimal("  123 kB", &v));
  EXPECT_EQ(123, v);
  EXPECT_TRUE(ParseDecimal("-42", &v));
  EXPECT_EQ(-42, v);
  EXPECT_FALSE(ParseDecimal("kB", &v));
  EXPECT_FALSE(ParseDecimal("", &v));
  EXPECT_FALSE(ParseDecimal("99999999999999999999", &v));
  EXPECT_EQ(-42, v);
  unsigned long long u = 0;
  EXPECT_TRUE(ParseUnsignedDecimal("\t5000000000", &u));
  EXPECT_EQ(5000000000ull, u);
  EXPECT_FALSE(ParseUnsignedDecimal("-1", &u));
}

TEST(HelperTime, ClocksShareTheBase) {
  EXPECT_EQ(5, SubAbs(2, 7));
  EXPECT_EQ(5, SubAbs(7, 2));
  EXPECT_EQ(0, SubAbs(-3, -3));

  struct timespec boot;
  clock_gettime(CLOCK_BOOTTIME, &boot);
  long long base = GetBasetime();
  unsigned long long seconds = GetSystemSecondsTime();
  EXPECT_GE(seconds, static_cast<unsigned long long>(base + boot.tv_sec));
  EXPECT_LE(seconds, static_cast<unsigned long long>(base + boot.tv_sec + 2));
  // Milliseconds by boot time and by monotonic time differ by the time spent
  // suspended, never by more than the boot clock's lead.
  EXPECT_GE(GetSystemMillisecondsTime(false) + 5, GetSystemMillisecondsTime(true));

  // The 32-bit boot clock is the low 32 bits of boot nanoseconds, sign-extended.
  struct timespec before;
  clock_gettime(CLOCK_BOOTTIME, &before);
  long long wrapped = static_cast<long long>(GetSystemBootNanosencondsTime());
  EXPECT_GE(wrapped, INT32_MIN);
  EXPECT_LE(wrapped, INT32_MAX);
  uint32_t low = static_cast<uint32_t>(before.tv_sec) * 1000000000u + static_cast<uint32_t>(before.tv_nsec);
  // Within 50 ms of the same instant, modulo the wrap.
  int32_t delta = static_cast<int32_t>(static_cast<uint32_t>(wrapped) - low);
  EXPECT_GE(delta, 0);
  EXPECT_LT(delta, 50000000);
}

TEST(HelperTime, BaseTimeFromProcStat) {
  kavo::test::RunInNamespace(
      [] {
        EXPECT_FALSE(InitBasetime());  // no /proc/stat yet: the base stays
        EXPECT_EQ(0, GetBasetime());
        kavo::test::WriteFile("/proc/stat", "cpu  1 2 3\nintr 5\nbtime 1700000000\nprocesses 9\n");
        EXPECT_TRUE(InitBasetime());
        EXPECT_EQ(1700000000, GetBasetime());
        kavo::test::WriteFile("/proc/stat", "cpu 1\nbtime garbage\n");
        EXPECT_TRUE(InitBasetime());
        EXPECT_EQ(1700000000, GetBasetime());  // damaged value: base unchanged
        kavo::test::WriteFile("/proc/stat", "cpu 1\n");
        EXPECT_TRUE(InitBasetime());
        EXPECT_EQ(1700000000, GetBasetime());
      },
      kavo::test::FakeProc());
}

TEST(HelperStrings, ReadSymlink) {
  kavo::test::RunInNamespace([] {
    ASSERT_EQ(0, symlink("/dmabuf:", "/data/fdlink"));
    EXPECT_EQ("/dmabuf:", ReadSymlink("/data/fdlink"));
    EXPECT_EQ("", ReadSymlink("/data/missing"));
  });
}

}  // namespace
}  // namespace Kavo::Bpf
