// Standard input and output as image files ("-" on the command line). Readers and
// writers need a file they can seek in, so a pipe is copied into an unnamed
// in-memory file, which leaves nothing behind however the run ends.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

namespace rawfx::tool {

inline constexpr const char* kStandardStream = "-";

// An unnamed in-memory file, reachable by a path while it is open.
class MemoryFile {
 public:
  explicit MemoryFile(const char* label);  // ImageError when the system refuses one
  ~MemoryFile();
  MemoryFile(const MemoryFile&) = delete;
  MemoryFile& operator=(const MemoryFile&) = delete;
  const std::string& path() const { return path_; }
  int fd() const { return fd_; }

 private:
  int fd_;
  std::string path_;
};

// Standard input as a path: itself when it is a regular file; otherwise its bytes
// copied into a memory file once its first bytes have shown an image type (so a
// stream of anything else is refused before it is read), up to maxBytes (so a
// stream that never ends is refused before it fills memory). ImageError on failure.
class StandardInput {
 public:
  explicit StandardInput(uint64_t maxBytes);
  const std::string& path() const { return copy_ ? copy_->path() : path_; }

 private:
  std::string path_ = "/proc/self/fd/0";
  std::unique_ptr<MemoryFile> copy_;
};

// Copies a whole memory file to standard output; ImageError with the system's reason.
void CopyToStandardOutput(const MemoryFile& file);

}  // namespace rawfx::tool
