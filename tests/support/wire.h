#pragma once

// A client that speaks the service's wire format by hand, byte for byte, so
// tests check the protocol itself rather than the framework's own client.
//
//   kavo::test::RawClient client;
//   ASSERT_TRUE(client.Connect());
//   client.Send(kavo::test::RequestFrame(7, 51, 1));
//   auto frame = client.ReadFrame(std::chrono::seconds(2));   // type, body

#include <stdint.h>

#include <android-base/unique_fd.h>

#include <chrono>
#include <optional>
#include <string>
#include <vector>

namespace kavo::test {

constexpr char kServiceSocket[] = "/mnt/bpfframework/kavobpfdispatcher";

struct Frame {
  uint32_t type = 0;  // second-level type
  std::string body;   // after the 8-byte second-level header
};

// A u32 as it stands on the wire (host byte order).
std::string U32(uint32_t value);
// "size | 0 | 16 | reqId | reqType | 4 | eventType", 28 bytes.
std::string RequestFrame(uint32_t reqId, uint32_t reqType, int32_t eventType);
// A second-level package (type, size, body) behind its first-level size.
std::string PackageFrame(uint32_t type, const std::string& body);
// Any bytes behind a first-level size.
std::string RawFrame(const std::string& body);
// Takes the whole frames, at most |most|, off the front of |bytes| (a partial one stays).
std::vector<Frame> ParseFrames(std::string* bytes, size_t most = SIZE_MAX);

class RawClient {
 public:
  // Connects to the service socket (abstract namespace), retrying until
  // |timeout| for a service that is still starting.
  bool Connect(const std::string& name = kServiceSocket, std::chrono::milliseconds timeout = std::chrono::seconds(5));
  bool Send(const std::string& bytes);
  // The next whole frame, or nothing when none arrived in time.
  std::optional<Frame> ReadFrame(std::chrono::milliseconds timeout);
  // The next frame of second-level type 3 (an event record), skipping others.
  std::optional<std::string> ReadEvent(std::chrono::milliseconds timeout);
  // Shrinks the socket's receive buffer (before reading anything).
  void SetReceiveBuffer(int bytes);
  void Close();
  int fd() const { return fd_.get(); }

 private:
  android::base::unique_fd fd_;
  std::string pending_;
};

// Response body fields: reqId, result, dataSize.
struct Response { uint32_t reqId; int32_t result; uint32_t dataSize; };
std::optional<Response> AsResponse(const Frame& frame);

}  // namespace kavo::test
