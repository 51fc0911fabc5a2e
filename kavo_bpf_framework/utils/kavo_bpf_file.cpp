#include "utils/kavo_bpf_file.h"

#include <stdlib.h>
#include <sys/stat.h>

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
