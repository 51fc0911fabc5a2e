#pragma once

// What the IPC framework reports losing, kept in memory for tests of the
// framework alone (which has no error log of its own).
//
//   kavo::test::CaptureIpcErrors();
//   ... a damaged frame ...
//   EXPECT_NE(std::string::npos, kavo::test::RecordedIpcErrors().find("ErrorCode: 2\n"));
//
// Thread-safe.

#include <string>

namespace kavo::test {

// Installs the in-memory recorder for the rest of the process.
void CaptureIpcErrors();
// Every loss so far, newest first, each as "----------\nErrorCode: <code>\nError: <text>\n".
std::string RecordedIpcErrors();

}  // namespace kavo::test
