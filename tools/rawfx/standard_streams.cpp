#include "tools/rawfx/standard_streams.h"

#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <vector>

#include "tools/rawfx/image_io.h"

namespace rawfx::tool {
namespace {

constexpr const char* kInputName = "standard input";
constexpr const char* kOutputName = "standard output";
constexpr size_t kBlockBytes = 1 << 16;

// Reads up to size bytes, retrying interrupted and short reads; the count read.
size_t ReadFully(int fd, uint8_t* data, size_t size) {
  size_t done = 0;
  while (done < size) {
    const ssize_t got = read(fd, data + done, size - done);
    if (got == 0) break;
    if (got < 0) {
      if (errno == EINTR) continue;
      throw ImageError(std::string("cannot read ") + kInputName + ": " + std::strerror(errno));
    }
    done += static_cast<size_t>(got);
  }
  return done;
}

void WriteFully(int fd, const uint8_t* data, size_t size, const char* name) {
  for (size_t done = 0; done < size;) {
    const ssize_t put = write(fd, data + done, size - done);
    if (put < 0 && errno == EINTR) continue;
    if (put <= 0) throw WriteFailure(name, put < 0 ? errno : EIO);
    done += static_cast<size_t>(put);
  }
}

}  // namespace

MemoryFile::MemoryFile(const char* label) : fd_(memfd_create(label, MFD_CLOEXEC)) {
  if (fd_ < 0) throw ImageError(std::string("cannot hold ") + label + " in memory: " + std::strerror(errno));
  path_ = "/proc/self/fd/" + std::to_string(fd_);
}

MemoryFile::~MemoryFile() { close(fd_); }

StandardInput::StandardInput(uint64_t maxBytes) {
  struct stat status {};
  if (fstat(STDIN_FILENO, &status) == 0 && S_ISREG(status.st_mode)) return;
  std::vector<uint8_t> block(kBlockBytes);
  size_t got = ReadFully(STDIN_FILENO, block.data(), block.size());
  if (got == 0) throw ImageError(std::string("cannot read ") + kInputName + ": it is empty");
  if (!FileTypeOfContent(block.data(), got)) {
    throw ImageError(std::string("cannot read ") + kInputName + ": not a PNG, JPEG, TIFF or WebP image");
  }
  copy_ = std::make_unique<MemoryFile>(kInputName);
  for (uint64_t total = got; got > 0; total += got) {
    if (total > maxBytes) {
      throw ImageError(std::string("cannot read ") + kInputName + ": more than " + std::to_string(maxBytes) +
                       " bytes, too many for an image within the pixel limit (raise it with --max-pixels)");
    }
    WriteFully(copy_->fd(), block.data(), got, kInputName);
    got = ReadFully(STDIN_FILENO, block.data(), block.size());
  }
}

void CopyToStandardOutput(const MemoryFile& file) {
  std::vector<uint8_t> block(kBlockBytes);
  for (off_t offset = 0;;) {
    const ssize_t got = pread(file.fd(), block.data(), block.size(), offset);
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) throw WriteFailure(kOutputName, errno);
    if (got == 0) break;
    WriteFully(STDOUT_FILENO, block.data(), static_cast<size_t>(got), kOutputName);
    offset += got;
  }
}

}  // namespace rawfx::tool
