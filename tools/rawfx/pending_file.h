// A file that appears at its target path only once it is complete: it is written
// under a temporary name in the target's directory and renamed into place. The
// result behaves like writing the target in place, but atomically: a symbolic
// link is written through to the file it names, and a replaced file keeps its
// mode (and its owner and group where the process may set them).
#pragma once

#include <string>

namespace rawfx::tool {

class PendingFile {
 public:
  // Checks that target may be written, without creating anything; ImageError when
  // it is a directory or a file the user may not write (unless force).
  explicit PendingFile(std::string target, bool force = false);
  ~PendingFile();  // removes the temporary file unless it was committed
  PendingFile(const PendingFile&) = delete;
  PendingFile& operator=(const PendingFile&) = delete;

  const std::string& target() const { return target_; }

  // The temporary file to write, created on first use (when writing starts) with the
  // replaced file's mode, or a new file's; ImageError when the directory cannot take it.
  const std::string& temporaryPath();

  // Flushes the temporary file to disk and renames it over the target.
  void commit();

 private:
  std::string target_;
  std::string destination_;  // target with symbolic links followed
  std::string temporary_;
  bool committed_ = false;
};

// The path a symbolic link leads to in the end (path itself when it is none);
// the last link may point to a file that does not exist yet.
std::string FollowLinks(const std::string& path);

}  // namespace rawfx::tool
