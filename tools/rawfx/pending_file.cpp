#include "tools/rawfx/pending_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <optional>
#include <random>

#include "tools/rawfx/image_io.h"
#include "tools/rawfx/interrupt.h"

namespace rawfx::tool {
namespace {

namespace fs = std::filesystem;

// The permissions a plain new file gets under the process's umask; mkstemp
// makes 0600 files, which would otherwise survive the rename.
mode_t NewFileMode() {
  const mode_t mask = umask(0);
  umask(mask);
  return 0666 & ~mask;
}

std::string Reason(int error) { return std::strerror(error); }

std::optional<struct stat> StatOf(const std::string& path) {
  struct stat info {};
  if (stat(path.c_str(), &info) != 0) return std::nullopt;
  return info;
}

std::string DirectoryOf(const std::string& path) {
  const fs::path parent = fs::path(path).parent_path();
  return parent.empty() ? "." : parent.string();
}

// Nobody may write the file: no write permission bit at all. Root passes every
// access() test, yet such a file is meant to stay as it is.
bool WriteProtected(const std::string& path, const struct stat& info) {
  if (access(path.c_str(), W_OK) != 0) return errno == EACCES;
  return geteuid() == 0 && (info.st_mode & 0222) == 0;
}

// Creates stem + a random tail exclusively. The name is made known to the signal
// handler before the file exists, so a signal at any moment leaves no file behind.
int CreateTemporary(const std::string& stem, std::string* path) {
  static const char kLetters[] = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789";
  std::random_device device;
  for (int attempt = 0; attempt < 100; ++attempt) {
    std::string name = stem;
    for (int i = 0; i < 8; ++i) name += kLetters[device() % (sizeof kLetters - 1)];
    SetTemporaryFile(name);
    const int fd = open(name.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    if (fd >= 0) {
      *path = name;
      return fd;
    }
    const int error = errno;
    ClearTemporaryFile();
    errno = error;
    if (error != EEXIST) return -1;
  }
  return -1;
}

}  // namespace

std::string FollowLinks(const std::string& path) {
  constexpr int kMaxLinks = 40;  // as the kernel allows in one path
  fs::path current(path);
  for (int i = 0; i < kMaxLinks; ++i) {
    std::error_code error;
    if (!fs::is_symlink(fs::symlink_status(current, error))) return current.string();
    const fs::path next = fs::read_symlink(current, error);
    if (error) return current.string();
    current = next.is_absolute() ? next : current.parent_path() / next;
  }
  return current.string();
}

PendingFile::PendingFile(std::string target, bool force)
    : target_(std::move(target)), destination_(FollowLinks(target_)) {
  const std::string directory = DirectoryOf(destination_);
  if (access(directory.c_str(), W_OK | X_OK) != 0) {
    throw ImageError("cannot write " + target_ + ": cannot create a file in " + directory + ": " + Reason(errno));
  }
  const std::optional<struct stat> existing = StatOf(destination_);
  if (!existing) return;
  if (S_ISDIR(existing->st_mode)) throw ImageError("cannot write " + target_ + ": it is a directory");
  if (!force && WriteProtected(destination_, *existing)) {
    char mode[8];
    std::snprintf(mode, sizeof mode, "%03o", static_cast<unsigned>(existing->st_mode & 0777));
    throw ImageError("cannot write " + target_ + ": the file is write-protected (mode " + mode +
                     "); --force replaces it");
  }
}

PendingFile::~PendingFile() {
  if (committed_ || temporary_.empty()) return;
  std::remove(temporary_.c_str());
  ClearTemporaryFile();
}

const std::string& PendingFile::temporaryPath() {
  if (!temporary_.empty()) return temporary_;
  const fs::path path(destination_);
  const std::string directory = DirectoryOf(destination_);
  const int fd = CreateTemporary((fs::path(directory) / ("." + path.filename().string() + ".rawfx-")).string(),
                                 &temporary_);
  if (fd < 0) {
    throw ImageError("cannot write " + target_ + ": cannot create a file in " + directory + ": " + Reason(errno));
  }
  if (const std::optional<struct stat> existing = StatOf(destination_)) {
    // Owner first: changing it may clear the set-user and set-group bits.
    const int ignored = fchown(fd, existing->st_uid, existing->st_gid);
    (void)ignored;  // only root, or the owner choosing one of its groups, may; otherwise the file becomes ours
    fchmod(fd, existing->st_mode & 07777);
  } else {
    fchmod(fd, NewFileMode());
  }
  close(fd);
  return temporary_;
}

void PendingFile::commit() {
  const std::string& temporary = temporaryPath();
  const int fd = open(temporary.c_str(), O_RDONLY);
  const bool synced = fd >= 0 && fsync(fd) == 0;
  const int syncError = errno;
  if (fd >= 0) close(fd);
  if (!synced) throw ImageError("cannot write " + target_ + ": " + Reason(syncError));
  if (std::rename(temporary.c_str(), destination_.c_str()) != 0) {
    throw ImageError("cannot write " + target_ + ": " + Reason(errno));
  }
  ClearTemporaryFile();
  committed_ = true;
}

}  // namespace rawfx::tool
