// String utilities shared by the service and the IPC framework.

#include <limits.h>
#include <stdarg.h>
#include <stdio.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "utils/kavo_bpf_helper_string.h"

namespace Kavo::Bpf {

std::string ReadSymlink(const char* path) {
  char target[4096];
  ssize_t n = readlink(path, target, sizeof(target) - 1);
  if (n < 0) return "";
  target[n] = '\0';
  return std::string(target);  // up to the first NUL, as the kernel may embed none
}

bool IsDigits(const std::string& s) {
  if (s.empty()) return false;
  for (char c : s) {
    if (c < '0' || c > '9') return false;
  }
  return true;
}

std::string ConvertToHexString(const char* data, int len) {
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string out;
  if (len <= 0) return out;
  out.resize(static_cast<size_t>(len) * 3);
  for (int i = 0; i < len; ++i) {
    unsigned char byte = static_cast<unsigned char>(data[i]);
    out[i * 3] = kDigits[byte >> 4];
    out[i * 3 + 1] = kDigits[byte & 0xf];
    out[i * 3 + 2] = ' ';
  }
  return out;
}

std::string StringPrintf(const char* fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  va_list measure;
  va_copy(measure, ap);
  int length = vsnprintf(nullptr, 0, fmt, measure);
  va_end(measure);
  std::string out;
  if (length > 0) {
    out.resize(static_cast<size_t>(length) + 1);
    vsnprintf(&out[0], out.size(), fmt, ap);
    out.resize(static_cast<size_t>(length));
  }
  va_end(ap);
  return out;
}

std::vector<std::string> Split(const std::string& s, const std::string& delim) {
  std::vector<std::string> pieces;
  if (delim.empty()) {
    if (!s.empty()) pieces.push_back(s);
    return pieces;
  }
  size_t start = 0;
  while (true) {
    size_t hit = s.find(delim, start);
    size_t end = hit == std::string::npos ? s.size() : hit;
    if (end > start) pieces.emplace_back(s, start, end - start);
    if (hit == std::string::npos) break;
    start = hit + delim.size();
  }
  return pieces;
}

int convertVersionToInt(const std::string& v) {
  std::vector<std::string> pieces = Split(v, ".");
  int major = pieces.empty() ? 0 : std::stoi(pieces[0]);
  int minor = pieces.size() < 2 ? 0 : std::stoi(pieces[1]);
  return major * 1000 + minor;
}

void TestHandleEvent(char*, long long) {}

namespace {

// Skips blanks and an optional sign; returns the position of the first digit
// or npos when no digit follows.
size_t SkipToDigits(std::string_view text, bool* negative) {
  size_t i = 0;
  while (i < text.size() && (text[i] == ' ' || text[i] == '\t' || text[i] == '\n' ||
                             text[i] == '\r' || text[i] == '\f' || text[i] == '\v')) {
    ++i;
  }
  *negative = false;
  if (i < text.size() && (text[i] == '-' || text[i] == '+')) {
    *negative = text[i] == '-';
    ++i;
  }
  if (i >= text.size() || text[i] < '0' || text[i] > '9') return std::string_view::npos;
  return i;
}

bool AccumulateDigits(std::string_view text, size_t i, unsigned long long limit,
                      unsigned long long* value) {
  unsigned long long v = 0;
  for (; i < text.size() && text[i] >= '0' && text[i] <= '9'; ++i) {
    unsigned digit = static_cast<unsigned>(text[i] - '0');
    if (v > (limit - digit) / 10) return false;
    v = v * 10 + digit;
  }
  *value = v;
  return true;
}

}  // namespace

bool ParseDecimal(std::string_view text, long long* out) {
  bool negative;
  size_t i = SkipToDigits(text, &negative);
  if (i == std::string_view::npos) return false;
  unsigned long long limit = negative ? static_cast<unsigned long long>(LLONG_MAX) + 1
                                      : static_cast<unsigned long long>(LLONG_MAX);
  unsigned long long magnitude;
  if (!AccumulateDigits(text, i, limit, &magnitude)) return false;
  *out = negative ? static_cast<long long>(0ull - magnitude) : static_cast<long long>(magnitude);
  return true;
}

bool ParseUnsignedDecimal(std::string_view text, unsigned long long* out) {
  bool negative;
  size_t i = SkipToDigits(text, &negative);
  if (i == std::string_view::npos || negative) return false;
  return AccumulateDigits(text, i, ULLONG_MAX, out);
}

}  // namespace Kavo::Bpf
