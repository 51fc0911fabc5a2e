#include "utils/kavo_bpf_file.h"

#include <android-base/unique_fd.h>
#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

namespace Kavo::Bpf {

ScopedFile OpenForRead(const char* path) { return ScopedFile(fopen(path, "re")); }

void ForEachLine(FILE* file, const std::function<LineAction(std::string_view)>& visit) {
  char* line = nullptr;
  size_t capacity = 0;
  ssize_t length;
  while ((length = getline(&line, &capacity, file)) >= 0) {
    std::string_view text(line, static_cast<size_t>(length));
    if (!text.empty() && text.back() == '\n') text.remove_suffix(1);
    if (visit(text) == LineAction::kStop) break;
  }
  free(line);
}

bool ForEachLine(const char* path, const std::function<LineAction(std::string_view)>& visit) {
  ScopedFile file = OpenForRead(path);
  if (!file) return false;
  ForEachLine(file.get(), visit);
  return true;
}

void ForEachLine(std::string_view text, const std::function<LineAction(std::string_view)>& visit) {
  while (!text.empty()) {
    const size_t end = text.find('\n');
    if (visit(text.substr(0, end)) == LineAction::kStop || end == std::string_view::npos) return;
    text.remove_prefix(end + 1);
  }
}

bool ReadWholeFile(const char* path, std::string* text) {
  constexpr size_t kLeastRoom = 4096;
  android::base::unique_fd fd(open(path, O_RDONLY | O_CLOEXEC));
  if (fd.get() < 0) return false;
  text->resize(std::max(text->capacity(), kLeastRoom));
  size_t length = 0;
  while (true) {
    ssize_t n = read(fd.get(), &(*text)[length], text->size() - length);
    if (n < 0) {
      if (errno == EINTR) continue;
      text->clear();
      return false;
    }
    length += static_cast<size_t>(n);
    if (n == 0 || length < text->size()) break;
    text->resize(2 * text->size());
  }
  text->resize(length);
  return true;
}

void MakeDirs(const std::string& path, mode_t mode) {
  for (size_t slash = path.find('/', 1); slash != std::string::npos; slash = path.find('/', slash + 1)) {
    mkdir(path.substr(0, slash).c_str(), mode);
  }
  mkdir(path.c_str(), mode);
}

bool ForEachDirEntry(const char* dir, const std::function<LineAction(const char* name)>& visit) {
  ScopedDir d(opendir(dir));
  if (!d) return false;
  while (struct dirent* entry = readdir(d.get())) {
    if (visit(entry->d_name) == LineAction::kStop) break;
  }
  return true;
}

}  // namespace Kavo::Bpf
