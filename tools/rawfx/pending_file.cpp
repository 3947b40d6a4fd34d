#include "tools/rawfx/pending_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <vector>

#include "tools/rawfx/image_io.h"

namespace rawfx::tool {
namespace {

// The permissions a plain new file gets under the process's umask; mkstemp
// makes 0600 files, which would otherwise survive the rename.
mode_t NewFileMode() {
  const mode_t mask = umask(0);
  umask(mask);
  return 0666 & ~mask;
}

std::string Reason(int error) { return std::strerror(error); }

}  // namespace

PendingFile::PendingFile(std::string target) : target_(std::move(target)) {
  const std::filesystem::path path(target_);
  const std::filesystem::path directory = path.has_parent_path() ? path.parent_path() : ".";
  std::string pattern = (directory / ("." + path.filename().string() + ".rawfx-XXXXXX")).string();
  std::vector<char> name(pattern.begin(), pattern.end());
  name.push_back('\0');
  const int fd = mkstemp(name.data());
  if (fd < 0) {
    throw ImageError("cannot write " + target_ + ": cannot create a file in " + directory.string() + ": " +
                     Reason(errno));
  }
  fchmod(fd, NewFileMode());
  close(fd);
  temporary_ = name.data();
}

PendingFile::~PendingFile() {
  if (!committed_) std::remove(temporary_.c_str());
}

void PendingFile::commit() {
  const int fd = open(temporary_.c_str(), O_RDONLY);
  const bool synced = fd >= 0 && fsync(fd) == 0;
  const int syncError = errno;
  if (fd >= 0) close(fd);
  if (!synced) throw ImageError("cannot write " + target_ + ": " + Reason(syncError));
  if (std::rename(temporary_.c_str(), target_.c_str()) != 0) {
    throw ImageError("cannot write " + target_ + ": " + Reason(errno));
  }
  committed_ = true;
}

}  // namespace rawfx::tool
