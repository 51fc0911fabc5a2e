// Frames on the way in: when a frame is whole, what a damaged one costs, and
// how a read buffer is split into packages and dispatched by type.

#include <string.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/ipc_test_server.h"
#include "support/harness.h"
#include "support/wire.h"
#include "support/ipc_error_capture.h"

namespace {

// What the framework loses, as its user would record it.
[[maybe_unused]] const bool kCapturing = (kavo::test::CaptureIpcErrors(), true);

using kavo::test::PackageFrame;
using kavo::test::RawFrame;

std::string U32(uint32_t value) { return std::string(reinterpret_cast<const char*>(&value), 4); }

TEST(IpcFraming, LargestFrameFitsTheBufferExactly) {
  BufferState buffer;
  buffer.buffer.resize(32768);
  unsigned headerSize = 0, packageSize = 12345;
  memcpy(buffer.data(), U32(32764).data(), 4);
  buffer.bufferDataCursor = 3;  // not even the header yet
  EXPECT_FALSE(CheckIpcPackageComplete(&buffer, &headerSize, &packageSize));
  EXPECT_EQ(4u, headerSize);
  EXPECT_EQ(12345u, packageSize);
  buffer.bufferDataCursor = 32767;
  EXPECT_FALSE(CheckIpcPackageComplete(&buffer, &headerSize, &packageSize));
  buffer.bufferDataCursor = 32768;
  EXPECT_TRUE(CheckIpcPackageComplete(&buffer, &headerSize, &packageSize));
  EXPECT_EQ(32764u, packageSize);
}

TEST(IpcFraming, FramesSplitAtEveryByteArriveWhole) {
  kavo::test::RunInNamespace([] {
    kavo::test::IpcTestServer server("kavo_split");
    kavo::test::RawClient client;
    ASSERT_TRUE(client.Connect("kavo_split"));
    const std::string message = PackageFrame(0, "") + PackageFrame(0, "hello") + PackageFrame(0, "zz");
    for (size_t split = 1; split < message.size(); ++split) {
      SCOPED_TRACE(split);
      // The server reads the first part before the second is sent, so the
      // kernel cannot join them again.
      size_t reads = server.Count("read");
      ASSERT_TRUE(client.Send(message.substr(0, split)));
      ASSERT_TRUE(server.WaitFor("read", reads + 1));
      ASSERT_TRUE(client.Send(message.substr(split)));
      ASSERT_TRUE(server.WaitFor("pkg:zz", split));
    }
    EXPECT_EQ(server.Count("pkg:"), 3 * (message.size() - 1));
    EXPECT_EQ(message.size() - 1, server.Count("pkg:hello"));
  });
}

TEST(IpcFraming, DamagedFrameCostsItsBytesNotTheConnection) {
  kavo::test::RunInNamespace([] {
    kavo::test::IpcTestServer server("kavo_damaged");
    kavo::test::RawClient client;
    ASSERT_TRUE(client.Connect("kavo_damaged"));
    // One byte too big for the 32768-byte buffer, then a size that wraps the
    // 32-bit total; after each, the next frame is read from scratch.
    size_t expected = 0;
    for (uint32_t damaged : {32765u, 0xFFFFFFFFu}) {
      size_t reads = server.Count("read");
      ASSERT_TRUE(client.Send(U32(damaged)));
      ASSERT_TRUE(server.WaitFor("read", reads + 1));
      ASSERT_TRUE(client.Send(PackageFrame(0, "still here")));
      ASSERT_TRUE(server.WaitFor("pkg:still here", ++expected));
    }
    EXPECT_EQ(0u, server.Count("close:"));
    std::string errors = kavo::test::RecordedIpcErrors();
    EXPECT_NE(std::string::npos,
              errors.find("ErrorCode: 2\nError: Ipc package damage, packageSize: 32769, cursor: 0, "
                          "data: 4, bufferSize: 32768, Buffer hexdump: fd 7f 00 00 \n"));
    EXPECT_NE(std::string::npos,
              errors.find("ErrorCode: 2\nError: Ipc package damage, packageSize: 3, cursor: 0, "
                          "data: 4, bufferSize: 32768, Buffer hexdump: ff ff ff ff \n"));
    // The framework alone keeps no file: what it lost went to its user.
    EXPECT_FALSE(kavo::test::PathExists("/data/kavolog"));
  });
}

TEST(IpcDispatch, WholeFramesGoToTheirTypeAndTheRestWaits) {
  std::vector<std::string> seen;
  auto record = [&](int fd, char* body, unsigned size) {
    seen.push_back(std::to_string(fd) + ":" + std::string(body, size));
    return seen.back() == "7:stop" ? -1 : 0;
  };
  IpcPackageHandler handler({{0, record}, {1, record}, {2, nullptr}});
  BufferState buffer;
  buffer.buffer.resize(256);
  auto arrive = [&](const std::string& bytes) { ASSERT_TRUE(buffer.write(bytes.data(), bytes.size())); };

  // Two whole frames and half of a third: two dispatched, the half kept.
  std::string third = PackageFrame(1, "third");
  arrive(PackageFrame(0, "one") + PackageFrame(0, "two") + third.substr(0, 7));
  EXPECT_EQ(1, handler.handleAllIpcPackageInBuffer(7, &buffer));
  EXPECT_EQ((std::vector<std::string>{"7:one", "7:two"}), seen);
  EXPECT_EQ(7u, buffer.unread());
  // Ignored: a type whose handler is empty, a type without one, and a frame
  // too short to hold a second-level header.
  arrive(third.substr(7) + PackageFrame(2, "x") + PackageFrame(9, "y") + RawFrame("abcd"));
  EXPECT_EQ(1, handler.handleAllIpcPackageInBuffer(7, &buffer));
  EXPECT_EQ((std::vector<std::string>{"7:one", "7:two", "7:third"}), seen);
  // A handler's -1 ends the pass; the frame behind it stays unread.
  arrive(PackageFrame(1, "stop") + PackageFrame(0, "four"));
  EXPECT_EQ(0, handler.handleAllIpcPackageInBuffer(7, &buffer));
  EXPECT_EQ(PackageFrame(0, "four").size(), buffer.unread());
  EXPECT_EQ(1, handler.handleAllIpcPackageInBuffer(7, &buffer));
  EXPECT_EQ("7:four", seen.back());
}

TEST(IpcDispatchDeathTest, BrokenFramesEndTheProcess) {
  IpcPackageHandler handler({{0, nullptr}});
  std::string frame = PackageFrame(0, "abc").replace(8, 4, U32(2));  // disagrees with its frame
  BufferState buffer;
  buffer.buffer.resize(64);
  ASSERT_TRUE(buffer.write(frame.data(), frame.size()));
  EXPECT_DEATH(handler.handleAllIpcPackageInBuffer(3, &buffer),
               "Check failed: packagePtr->size == size - "
               "sizeof\\(KavoIpcSecondLevelPackageHeader\\)");
  BufferState broken;  // its data cursor ran past the storage
  broken.buffer.assign(8, 0);
  broken.bufferDataCursor = 12;
  EXPECT_DEATH(handler.handleAllIpcPackageInBuffer(3, &broken),
               "Check failed: readBufferState->read\\(ipcPackageHeaderSize\\) != nullptr");
}

}  // namespace
