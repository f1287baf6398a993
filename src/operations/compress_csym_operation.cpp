#include "operations/compress_csym_operation.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "support/unique_strings.h"
#include "console/console_log.h"
#include "operations/compressed_csym_cache.h"
#include "operations/delete_file_operation.h"
#include "operations/pipeline_errors.h"
#include "support/cleanup_registry.h"
#include "support/files.h"
#include "symbols/csym_generator.h"

namespace symlift::operations {

using console::SYLLogDebug;
using console::SYLLogError;


SUPCompressCSYMOperation::SUPCompressCSYMOperation(const PipelineContext& context,
                                               std::shared_ptr<dsym::SUPCodeMappingInfoContainer> codeMappingInfo,
                                                   std::weak_ptr<network::SUPKITNetworkClient> networkClient)
    : dispatch::SUPKITAsyncOperation("SUPCompressCSYMOperation"),
      context_(context),
      codeMappingInfo_(std::move(codeMappingInfo)),
      networkClient_(std::move(networkClient)) {}

std::shared_ptr<SUPCompressCSYMOperation> SUPCompressCSYMOperation::initWithCodeMappingInfo(
    const PipelineContext& context,
    std::shared_ptr<dsym::SUPCodeMappingInfoContainer> codeMappingInfo,
    std::weak_ptr<network::SUPKITNetworkClient> networkClient) {
  return std::make_shared<SUPCompressCSYMOperation>(context, std::move(codeMappingInfo), std::move(networkClient));
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
  context_.observer.sliceCompressed(uuid, bytes->size());
  compressedData_ = std::move(bytes);
  return true;
}

bool SUPCompressCSYMOperation::gzipCSYMAtPath(const std::string& path, const std::string& location) {
  // The stream of the text this run converted for the slice, made while the
  // generator went on to the next slice. The file at path is never read
  // back: another run may have replaced or removed it since. No stream (the
  // run converted nothing there, or it could not be compressed) fails the
  // slice, rather than sending an empty one.
  std::optional<std::vector<std::uint8_t>> stream = context_.compressedCSYMs.take(path);
  const bool converted = stream.has_value();
  bool writeFailed = !converted;
  int writeErrno = 0;
  const int fd = writeFailed ? -1 : support::createPrivateFile(location, &context_.cleanup);
  if (!converted) {
    SYLLogDebug("No converted cSYM of this run at {}", path);
  } else if (fd < 0) {
    // Nothing to write into: as short a write as there can be.
    writeFailed = true;
    writeErrno = errno;
  } else {
    if (!support::writeAll(fd, std::span<const std::uint8_t>(*stream))) {
      writeFailed = true;
      writeErrno = errno;
    }
    if (::close(fd) != 0 && !writeFailed) {
      writeFailed = true;
      writeErrno = errno;
    }
  }
  if (writeFailed && converted)
    SYLLogError("Could not write compressed cSYM file {}: {}", location, std::strerror(writeErrno));
  else if (!writeFailed)
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
  auto deletion = SUPDeleteFileOperation::initWithPath(path, context_.cleanup);
  deletion->addDependency(shared_from_this());
  queue->addOperation(deletion);
}

}  // namespace symlift::operations
