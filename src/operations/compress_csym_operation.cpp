#include "operations/compress_csym_operation.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <iterator>

#include "support/unique_strings.h"
#include "console/console_log.h"
#include "operations/compressed_csym_cache.h"
#include "operations/delete_file_operation.h"
#include "operations/parallel_gzip.h"
#include "operations/pipeline_errors.h"
#include "support/cleanup_registry.h"
#include "symbols/csym_generator.h"

namespace symlift::operations {

using console::SYLLogDebug;
using console::SYLLogError;

namespace {

std::optional<std::vector<std::uint8_t>> readWholeFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return std::nullopt;
  std::vector<std::uint8_t> bytes{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
  if (in.bad()) return std::nullopt;
  return bytes;
}

// The temporary directory is shared with other users on many systems: never
// follow a link someone placed at our name, never reuse an existing file.
int openNewFile(const std::string& path) {
  support::CleanupRegistry::add(path);  // before it exists: an interrupted run removes it
  const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
  if (fd < 0) {
    const int savedErrno = errno;
    support::CleanupRegistry::remove(path);
    errno = savedErrno;
  }
  return fd;
}

bool writeAll(int fd, const std::vector<std::uint8_t>& bytes) {
  std::size_t written = 0;
  while (written < bytes.size()) {
    const ssize_t n = ::write(fd, bytes.data() + written, bytes.size() - written);
    if (n < 0 && errno == EINTR) continue;
    if (n == 0) errno = ENOSPC;
    if (n <= 0) return false;
    written += static_cast<std::size_t>(n);
  }
  return true;
}

}  // namespace

SUPCompressCSYMOperation::SUPCompressCSYMOperation(std::shared_ptr<dsym::SUPCodeMappingInfoContainer> codeMappingInfo,
                                                   std::weak_ptr<network::SUPKITNetworkClient> networkClient)
    : dispatch::SUPKITAsyncOperation("SUPCompressCSYMOperation"),
      codeMappingInfo_(std::move(codeMappingInfo)),
      networkClient_(std::move(networkClient)) {}

std::shared_ptr<SUPCompressCSYMOperation> SUPCompressCSYMOperation::initWithCodeMappingInfo(
    std::shared_ptr<dsym::SUPCodeMappingInfoContainer> codeMappingInfo,
    std::weak_ptr<network::SUPKITNetworkClient> networkClient) {
  return std::make_shared<SUPCompressCSYMOperation>(std::move(codeMappingInfo), std::move(networkClient));
}

void SUPCompressCSYMOperation::main() {
  support::ErrorPtr error;
  const auto& info = *codeMappingInfo_;
  zipCSYMWithUUID(info.UUID().value_or("(null)"), info.architecture().value_or("(null)"),
                  info.URL() ? info.URL()->string() : std::string("(null)"), error);
  finishWithError(error);
}

bool SUPCompressCSYMOperation::zipCSYMWithUUID(const std::string& uuid, const std::string& architecture,
                                               const std::string& dSYMPath, support::ErrorPtr& error) {
  const std::string location = support::SUPStrings::uniqueZipFilePath();
  const std::string csymPath = symbols::SUPCSYMGeneratorUtilities::csymPathForArchitecture(architecture, uuid, dSYMPath);
  SYLLogDebug("Zipping csym for uuid {}, architecture: {}", uuid, architecture);
  if (!gzipCSYMAtPath(csymPath, location)) {
    error = support::makeError(
        kCompressCSYMErrorDomain, kCompressCSYMErrorCodeFailed,
        {{support::kLocalizedFailureReasonKey,
          fmt::format("Could not compress cSYM data for uuid {}, architecture: {}", uuid, architecture)}});
    return false;
  }
  SYLLogDebug("Zipping csym succeeded for uuid {}, architecture {}... getting compressed data", uuid, architecture);
  // The bytes just written are still in memory: no need to read the file back.
  std::optional<std::vector<std::uint8_t>> bytes = std::move(lastWritten_);
  lastWritten_.reset();
  if (!bytes) {
    error = support::makeError(
        kCompressCSYMErrorDomain, kCompressCSYMErrorCodeFailed,
        {{support::kLocalizedFailureReasonKey,
          fmt::format("Compressed cSYM data is nil for uuid {}, architecture: {}", uuid, architecture)}});
    return false;
  }
  compressedData_ = std::move(bytes);
  return true;
}

bool SUPCompressCSYMOperation::gzipCSYMAtPath(const std::string& path, const std::string& location) {
  // The stream made while the generator went on to the next slice, when the
  // file is still the one it wrote; otherwise the file is read and gzipped
  // here. An unreadable source is written as an empty stream, not as a failure.
  std::optional<std::vector<std::uint8_t>> stream = CompressedCSYMCache::shared().take(path);
  if (!stream) {
    std::vector<std::uint8_t> source = readWholeFile(path).value_or(std::vector<std::uint8_t>{});
    stream = gzipInChunks(source);
  }
  bool writeFailed = !stream;
  int writeErrno = 0;
  const int fd = writeFailed ? -1 : openNewFile(location);
  if (writeFailed) {
    // zlib could not compress: nothing is written.
  } else if (fd < 0) {
    // Nothing to write into: as short a write as there can be.
    writeFailed = true;
    writeErrno = errno;
  } else {
    if (!writeAll(fd, *stream)) {
      writeFailed = true;
      writeErrno = errno;
    }
    if (::close(fd) != 0 && !writeFailed) {
      writeFailed = true;
      writeErrno = errno;
    }
  }
  if (writeFailed)
    SYLLogError("Could not write compressed cSYM file {}: {}", location,
                writeErrno ? std::strerror(writeErrno) : "compression failed");
  else
    lastWritten_ = std::move(stream);

  if (codeMappingInfo_ && codeMappingInfo_->convertOnly()) {
    SYLLogDebug("Skipping deletion of cSYM at path {}", path);
  } else {
    scheduleDeletionOfFileAtPath(path);
    scheduleDeletionOfFileAtPath(location);
  }
  return !writeFailed;
}

void SUPCompressCSYMOperation::scheduleDeletionOfFileAtPath(const std::string& path) {
  auto queue = operationQueue_.lock();
  if (!queue) return;
  auto deletion = SUPDeleteFileOperation::initWithPath(path);
  deletion->addDependency(shared_from_this());
  queue->addOperation(deletion);
}

}  // namespace symlift::operations
