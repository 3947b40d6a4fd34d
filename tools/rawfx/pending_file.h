// A file that appears at its target path only once it is complete: it is written
// under a temporary name in the target's directory and renamed into place.
#pragma once

#include <string>

namespace rawfx::tool {

class PendingFile {
 public:
  // Creates the temporary file; ImageError when the directory cannot take it.
  explicit PendingFile(std::string target);
  ~PendingFile();  // removes the temporary file unless it was committed
  PendingFile(const PendingFile&) = delete;
  PendingFile& operator=(const PendingFile&) = delete;

  const std::string& target() const { return target_; }
  const std::string& temporaryPath() const { return temporary_; }

  // Flushes the temporary file to disk and renames it over the target.
  void commit();

 private:
  std::string target_;
  std::string temporary_;
  bool committed_ = false;
};

}  // namespace rawfx::tool
