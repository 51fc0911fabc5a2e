#include "support/wire.h"

#include <cutils/sockets.h>
#include <errno.h>
#include <poll.h>
#include <string.h>
#include <sys/socket.h>

#include <thread>

namespace kavo::test {

std::string U32(uint32_t value) { return std::string(reinterpret_cast<const char*>(&value), 4); }

std::string RawFrame(const std::string& body) { return U32(static_cast<uint32_t>(body.size())) + body; }

std::string PackageFrame(uint32_t type, const std::string& body) {
  return RawFrame(U32(type) + U32(static_cast<uint32_t>(body.size())) + body);
}

std::string RequestFrame(uint32_t reqId, uint32_t reqType, int32_t eventType) {
  return PackageFrame(0, U32(reqId) + U32(reqType) + U32(4) + U32(static_cast<uint32_t>(eventType)));
}

std::vector<Frame> ParseFrames(std::string* bytes, size_t most) {
  std::vector<Frame> frames;
  size_t at = 0;
  for (uint32_t size = 0; frames.size() < most && bytes->size() - at >= 4; at += 4 + static_cast<size_t>(size)) {
    memcpy(&size, bytes->data() + at, 4);
    if (bytes->size() - at - 4 < size) break;
    Frame frame;
    if (size >= 8) {
      memcpy(&frame.type, bytes->data() + at + 4, 4);
      frame.body = bytes->substr(at + 12, size - 8);
    }
    frames.push_back(std::move(frame));
  }
  bytes->erase(0, at);
  return frames;
}

bool RawClient::Connect(const std::string& name, std::chrono::milliseconds timeout) {
  for (auto deadline = std::chrono::steady_clock::now() + timeout;; std::this_thread::sleep_for(std::chrono::milliseconds(20))) {
    fd_.reset(socket_local_client(name.c_str(), ANDROID_SOCKET_NAMESPACE_ABSTRACT, SOCK_STREAM));
    if (fd_.ok()) return true;
    if (std::chrono::steady_clock::now() >= deadline) return false;
  }
}

bool RawClient::Send(const std::string& bytes) {
  for (size_t sent = 0; sent < bytes.size();) {
    ssize_t n = send(fd_.get(), bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
    if (n <= 0 && errno != EINTR) return false;
    sent += n > 0 ? static_cast<size_t>(n) : 0;
  }
  return true;
}

std::optional<Frame> RawClient::ReadFrame(std::chrono::milliseconds timeout) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  while (true) {
    // One frame at a time: the rest stays pending for the next call.
    std::vector<Frame> one = ParseFrames(&pending_, 1);
    if (!one.empty()) return one.front();
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    struct pollfd pfd = {fd_.get(), POLLIN, 0};
    char chunk[65536];
    if (left.count() < 0 || poll(&pfd, 1, static_cast<int>(left.count())) <= 0) return std::nullopt;
    ssize_t n = recv(fd_.get(), chunk, sizeof(chunk), 0);
    if (n <= 0) return std::nullopt;
    pending_.append(chunk, static_cast<size_t>(n));
  }
}

std::optional<std::string> RawClient::ReadEvent(std::chrono::milliseconds timeout) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  while (auto frame = ReadFrame(std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now())))
    if (frame->type == 3) return frame->body;
  return std::nullopt;
}

void RawClient::SetReceiveBuffer(int bytes) { setsockopt(fd_.get(), SOL_SOCKET, SO_RCVBUF, &bytes, sizeof(bytes)); }

void RawClient::Close() { fd_.reset(); }

std::optional<Response> AsResponse(const Frame& frame) {
  if (frame.type != 1 || frame.body.size() < sizeof(Response)) return std::nullopt;
  Response response;
  memcpy(&response, frame.body.data(), sizeof(response));
  return response;
}

}  // namespace kavo::test
