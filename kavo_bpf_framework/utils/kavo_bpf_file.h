#pragma once

// Move-only owners for FILE* and DIR* streams, and the one line reader that
// every /proc and log-file parser of the service goes through.
//
// Thread-compatible: each owner belongs to one thread at a time.

#include <dirent.h>
#include <stdio.h>
#include <sys/types.h>

#include <functional>
#include <string>
#include <string_view>

namespace Kavo::Bpf {

class ScopedFile {
 public:
  ScopedFile() = default;
  explicit ScopedFile(FILE* file) : file_(file) {}
  ScopedFile(ScopedFile&& other) noexcept : file_(other.release()) {}
  ScopedFile& operator=(ScopedFile&& other) noexcept {
    reset(other.release());
    return *this;
  }
  ScopedFile(const ScopedFile&) = delete;
  ScopedFile& operator=(const ScopedFile&) = delete;
  ~ScopedFile() { reset(); }

  FILE* get() const { return file_; }
  explicit operator bool() const { return file_ != nullptr; }
  FILE* release() {
    FILE* f = file_;
    file_ = nullptr;
    return f;
  }
  void reset(FILE* file = nullptr) {
    if (file_ != nullptr) fclose(file_);
    file_ = file;
  }

 private:
  FILE* file_ = nullptr;
};

class ScopedDir {
 public:
  ScopedDir() = default;
  explicit ScopedDir(DIR* dir) : dir_(dir) {}
  ScopedDir(ScopedDir&& other) noexcept : dir_(other.dir_) { other.dir_ = nullptr; }
  ScopedDir& operator=(ScopedDir&& other) noexcept {
    if (this != &other) {
      reset();
      dir_ = other.dir_;
      other.dir_ = nullptr;
    }
    return *this;
  }
  ScopedDir(const ScopedDir&) = delete;
  ScopedDir& operator=(const ScopedDir&) = delete;
  ~ScopedDir() { reset(); }

  DIR* get() const { return dir_; }
  explicit operator bool() const { return dir_ != nullptr; }
  void reset() {
    if (dir_ != nullptr) closedir(dir_);
    dir_ = nullptr;
  }

 private:
  DIR* dir_ = nullptr;
};

// Opens |path| read-only and close-on-exec; null on failure with errno set.
ScopedFile OpenForRead(const char* path);

// What a line visitor tells the reader.
enum class LineAction { kContinue, kStop };

// Calls |visit| with every line of |file| (without its line break), in order,
// until the end of the file or until |visit| returns kStop. A last line
// without a line break is delivered too. Lines of any length are whole.
void ForEachLine(FILE* file, const std::function<LineAction(std::string_view)>& visit);

// Opens |path| and reads it as above. False (errno set) when it cannot be opened.
bool ForEachLine(const char* path, const std::function<LineAction(std::string_view)>& visit);

// The same over text already in memory.
void ForEachLine(std::string_view text, const std::function<LineAction(std::string_view)>& visit);

// Reads the regular or /proc file at |path| whole into |text|, replacing what
// it held: one open, one read into the room |text| already has (4 KiB at
// least; more reads only for a bigger file), one close. A /proc file is made
// whole for its first read, and a read of a regular file comes back short
// only at its end, so a short read ends the file. Reusing one string for
// many files allocates nothing. False (errno set) when the file cannot be
// opened or read.
bool ReadWholeFile(const char* path, std::string* text);

// mkdir -p with |mode| for every missing directory; existing ones are fine.
void MakeDirs(const std::string& path, mode_t mode);

// Calls |visit| with the name of every entry of the directory |dir|, "." and
// ".." included. False (errno set) when the directory cannot be opened.
bool ForEachDirEntry(const char* dir, const std::function<LineAction(const char* name)>& visit);

}  // namespace Kavo::Bpf
