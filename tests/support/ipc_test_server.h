#pragma once

// A server endpoint set up the way the service sets up its own (compaction
// on, the package handler reading, one outgoing queue per client drained by
// the write handler), recording what reaches its owner, for tests that talk
// to it over a real socket inside RunInNamespace.
//
//   kavo::test::IpcTestServer server("kavo_test");
//   kavo::test::RawClient client;
//   ASSERT_TRUE(client.Connect("kavo_test"));
//   client.Send(kavo::test::PackageFrame(0, "hello"));
//   ASSERT_TRUE(server.WaitFor("pkg:hello"));
//
// Thread-safe.

#include <stdint.h>

#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "support/wire.h"
#include "utils/kavo_bpf_ipc_helper.h"

namespace kavo::test {

class IpcTestServer {
 public:
  // Started and listening once constructed.
  explicit IpcTestServer(const std::string& name, bool closeOnError = true);
  ~IpcTestServer();

  UnixIpcManager& endpoint() { return *endpoint_; }
  // What reached the owner, in order: "connect:<fd>", "close:<fd>", "read"
  // for each read handler call, "pkg:<body>" for each type-0 package. A
  // package with the body "fail" makes the read handler fail.
  std::vector<std::string> Events() const;
  // Events that begin with |prefix|.
  size_t Count(const std::string& prefix) const;
  bool WaitFor(const std::string& prefix, size_t count = 1) const;
  // The newest connection.
  int fd() const;

  // Queues a package for client |fd| and asks the loop to send it.
  void Send(int fd, uint32_t type, const std::string& body);
  IpcPackageManager& Queue(int fd);

 private:
  void Record(const std::string& event);

  mutable std::mutex mutex_;
  std::vector<std::string> events_;
  int fd_ = -1;
  std::map<int, IpcPackageManager> queues_;  // kept for the server's lifetime
  IpcPackageHandler handler_;
  std::unique_ptr<UnixIpcManager> endpoint_;
};

}  // namespace kavo::test
