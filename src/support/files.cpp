#include "support/files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <filesystem>

#include "support/cleanup_registry.h"

namespace symlift::support {

// The most one write() is given. A single call of tens of megabytes lets
// the page cache take its largest folios, and on a VM whose free memory is
// handed back to the host, touching such fresh blocks can cost several times
// the copy: 45 MB in one call took 10 to 180 ms here, in 256 KiB pieces
// 11 to 12 ms every time.
constexpr std::size_t kLargestWrite = std::size_t{256} << 10;

bool writeAll(int fd, std::span<const std::uint8_t> bytes) {
  while (!bytes.empty()) {
    const ssize_t written = ::write(fd, bytes.data(), std::min(bytes.size(), kLargestWrite));
    if (written < 0 && errno == EINTR) continue;
    if (written == 0) errno = ENOSPC;
    if (written <= 0) return false;
    bytes = bytes.subspan(static_cast<std::size_t>(written));
  }
  return true;
}

bool writeAll(int fd, std::string_view bytes) {
  return writeAll(fd, std::span(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size()));
}

int createPrivateFile(const std::string& path, CleanupRegistry* cleanup) {
  int fd = -1;
  const auto create = [&] {
    fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
    return fd >= 0;
  };
  if (cleanup) cleanup->createRegistered(path, create);
  else create();
  return fd;
}

bool replaceFileAtomically(const std::string& path, std::string_view bytes, const std::string& temporaryPath,
                           const ReplaceOptions& options, ReplaceStep* failedStep) {
  const auto fail = [&](ReplaceStep step, bool created) {
    const int reason = errno;
    if (created) {
      ::unlink(temporaryPath.c_str());
      if (options.cleanup) options.cleanup->remove(temporaryPath);
    }
    if (failedStep) *failedStep = step;
    errno = reason;
    return false;
  };
  const int fd = createPrivateFile(temporaryPath, options.cleanup);
  if (fd < 0) return fail(ReplaceStep::Create, false);
  if (!writeAll(fd, bytes)) {
    const int reason = errno;
    ::close(fd);
    errno = reason;
    return fail(ReplaceStep::Write, true);
  }
  if (options.durable && ::fsync(fd) != 0) {
    const int reason = errno;
    ::close(fd);
    errno = reason;
    return fail(ReplaceStep::Flush, true);
  }
  if (::close(fd) != 0) return fail(ReplaceStep::Close, true);
  const int renamed = options.cleanup ? options.cleanup->renameRegistered(temporaryPath, path)
                                      : std::rename(temporaryPath.c_str(), path.c_str());
  if (renamed != 0) return fail(ReplaceStep::Rename, true);
  if (options.durable) {
    // Makes the rename itself durable; a failure here does not undo it.
    const std::filesystem::path target(path);
    const std::string folder = target.has_parent_path() ? target.parent_path().string() : ".";
    const int folderFD = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (folderFD >= 0) {
      ::fsync(folderFD);
      ::close(folderFD);
    }
  }
  return true;
}

std::optional<std::string> readWholeFile(const std::string& path) {
  std::FILE* file = std::fopen(path.c_str(), "rb");
  if (!file) return std::nullopt;
  std::string bytes;
  char buffer[65536];
  std::size_t got;
  while ((got = std::fread(buffer, 1, sizeof buffer, file)) > 0) bytes.append(buffer, got);
  const bool failed = std::ferror(file) != 0;
  std::fclose(file);
  if (failed) return std::nullopt;
  return bytes;
}

std::optional<std::string> readRegularFile(const std::string& path, std::size_t maxBytes) {
  const int fd = ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  if (fd < 0) return std::nullopt;
  std::optional<std::string> result;
  struct stat status {};
  if (::fstat(fd, &status) == 0 && S_ISREG(status.st_mode) && status.st_size >= 0 &&
      static_cast<std::uintmax_t>(status.st_size) <= maxBytes) {
    std::string bytes;
    bytes.reserve(static_cast<std::size_t>(status.st_size));
    char buffer[65536];
    for (;;) {
      // One byte past the cap at most, to notice a file that grew.
      const std::size_t room = maxBytes - bytes.size() + 1;
      const ssize_t got = ::read(fd, buffer, std::min(sizeof buffer, room));
      if (got < 0 && errno == EINTR) continue;
      if (got < 0) break;
      if (got == 0) {
        result = std::move(bytes);
        break;
      }
      bytes.append(buffer, static_cast<std::size_t>(got));
      if (bytes.size() > maxBytes) break;
    }
  }
  ::close(fd);
  return result;
}

}  // namespace symlift::support
