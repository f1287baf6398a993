#include "operations/compress_csym_operation.h"

#include <fcntl.h>
#include <unistd.h>
#include <zlib.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <iterator>

#include "buildenv/unique_strings.h"
#include "cli/console_log.h"
#include "operations/delete_file_operation.h"
#include "operations/pipeline_errors.h"
#include "support/cleanup_registry.h"
#include "symbols/csym_generator.h"

namespace symlift::operations {

using cli::SYLLogDebug;
using cli::SYLLogError;

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
gzFile openNewGzipFile(const std::string& path) {
  support::CleanupRegistry::add(path);  // before it exists: an interrupted run removes it
  int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
  if (fd < 0) {
    const int savedErrno = errno;
    support::CleanupRegistry::remove(path);
    errno = savedErrno;
    return nullptr;
  }
  gzFile file = gzdopen(fd, "w");
  if (!file) ::close(fd);
  return file;
}

}  // namespace

SUPCompressCSYMOperation::SUPCompressCSYMOperation(std::shared_ptr<dsym::SUPCodeMappingInfoContainer> codeMappingInfo,
                                                   std::weak_ptr<network::SUPKITNetworkClient> networkClient)
    : SUPKITAsyncOperation("SUPCompressCSYMOperation"),
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
  const std::string location = buildenv::SUPStrings::uniqueZipFilePath();
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
  auto bytes = readWholeFile(location);
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
  gzFile file = openNewGzipFile(location);
  bool writeFailed = false;
  // An unreadable source is written as an empty stream, not as a failure.
  std::vector<std::uint8_t> source = readWholeFile(path).value_or(std::vector<std::uint8_t>{});
  int writeErrno = 0;
  if (!file) {
    // Nothing to write into: as short a write as there can be.
    writeFailed = true;
    writeErrno = errno;
  } else {
    // gzwrite takes an unsigned count; write large files in pieces.
    constexpr std::size_t kMaxWrite = 1u << 30;
    for (std::size_t offset = 0; offset < source.size();) {
      const auto length = static_cast<unsigned>(std::min(kMaxWrite, source.size() - offset));
      if (gzwrite(file, source.data() + offset, length) != static_cast<int>(length)) {
        writeFailed = true;
        writeErrno = errno;
        break;
      }
      offset += length;
    }
    errno = 0;
    if (gzclose(file) != Z_OK && !writeFailed) {
      writeFailed = true;
      writeErrno = errno;
    }
  }
  if (writeFailed)
    SYLLogError("Could not write compressed cSYM file {}: {}", location,
                writeErrno ? std::strerror(writeErrno) : "write failed");

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
