#include "operations/generate_csym_operation.h"
#include "dispatch/thread_pool.h"

#include <fmt/format.h>

#include "operations/compressed_csym_cache.h"
#include "operations/pipeline_errors.h"
#include "symbols/csym_generator.h"

namespace symlift::operations {

namespace {
constexpr const char* kNoUUID = "(null)";

void enumerateSlices(const dsym::SUPCodeMappingInfoContainer& info,
                     const std::function<void(const std::string& uuid, const std::string& architecture)>& visit) {
  const auto& file = info.dSYMFile();
  if (!file || !file->dsym()) return;
  file->dsym()->enumerateUUIDs([&](const std::optional<std::string>& uuid, const std::string& architecture) {
    visit(uuid.value_or(kNoUUID), architecture);
  });
}
}  // namespace

SUPGenerateCSYMOperation::SUPGenerateCSYMOperation(const PipelineContext& context,
                                               std::shared_ptr<dsym::SUPCodeMappingInfoContainer> codeMappingInfo,
                                                   std::weak_ptr<network::SUPKITNetworkClient> networkClient)
    : dispatch::SUPKITAsyncOperation("SUPGenerateCSYMOperation"),
      context_(context),
      codeMappingInfo_(std::move(codeMappingInfo)),
      xpcReplyQueue_(dispatch::SerialDispatchQueue::create(context.pool, "csymgenerator reply queue")),
      networkClient_(std::move(networkClient)) {}

std::shared_ptr<SUPGenerateCSYMOperation> SUPGenerateCSYMOperation::initWithCodeMappingInfo(
    const PipelineContext& context,
    std::shared_ptr<dsym::SUPCodeMappingInfoContainer> codeMappingInfo,
    std::weak_ptr<network::SUPKITNetworkClient> networkClient) {
  return std::make_shared<SUPGenerateCSYMOperation>(context, std::move(codeMappingInfo), std::move(networkClient));
}

void SUPGenerateCSYMOperation::main() { generateCSYMs(codeMappingInfo_->maxCoreSymbolicationVersion()); }

void SUPGenerateCSYMOperation::generateCSYMs(float maxCoreSymbolicationVersion) {
  const auto& file = codeMappingInfo_->dSYMFile();
  const std::string path = file ? file->URL().string() : std::string();
  // The long part of the run: every slice is read and written here. Each
  // text is gzipped on the pool from the moment it exists, while its file is
  // written and the next slice is read; the compress step picks the stream up.
  CompressedCSYMCache& cache = context_.compressedCSYMs;
  context_.observer.conversionStarted(path);
  std::vector<std::string> written;
  symbols::CSYMGenerator::SliceHandler handler;
  handler.made = [&](const std::string& csymPath, const std::shared_ptr<const std::string>& text) {
    cache.compressInBackground(csymPath, text);
  };
  handler.written = [&](const std::string& csymPath, const std::string& text) {
    if (auto header = csymHeaderOf(text)) context_.observer.sliceConverted(path, *header, text.size());
    written.push_back(csymPath);
  };
  handler.notWritten = [&](const std::string& csymPath) { cache.forget(csymPath); };
  ArchitecturesByUUID result = symbols::CSYMGenerator::generateCSYMsFromDSYMAtPath(
      path, maxCoreSymbolicationVersion, handler, context_.symbolFiles, &context_.cleanup);
  ArchitecturesByUUID missing = checkForMissingCSYMsInResult(result);
  if (!missing.empty()) {
    // No compress step follows: nobody will ask for these streams.
    for (const std::string& csymPath : written) cache.forget(csymPath);
    finishWithMissingCSYMs(missing);
    return;
  }
  collectCSYMInfoContainers();
  finishWithError(nullptr);
}

SUPGenerateCSYMOperation::ArchitecturesByUUID SUPGenerateCSYMOperation::checkForMissingCSYMsInResult(
    const ArchitecturesByUUID& result) const {
  ArchitecturesByUUID missing;
  enumerateSlices(*codeMappingInfo_, [&](const std::string& uuid, const std::string& architecture) {
    if (uuid == kNoUUID || !result.contains(uuid)) missing[uuid] = architecture;
  });
  return missing;
}

void SUPGenerateCSYMOperation::collectCSYMInfoContainers() {
  std::vector<std::shared_ptr<dsym::SUPCodeMappingInfoContainer>> containers;
  enumerateSlices(*codeMappingInfo_, [&](const std::string& uuid, const std::string& architecture) {
    auto copy = codeMappingInfo_->copyWithZone();
    copy->setUUID(uuid);
    copy->setArchitecture(architecture);
    containers.push_back(std::move(copy));
  });
  cSYMInfoContainers_ = std::move(containers);
}

void SUPGenerateCSYMOperation::finishWithMissingCSYMs(const ArchitecturesByUUID& missing) {
  finishWithError(support::makeError(
      kGenerateCSYMErrorDomain, kGenerateCSYMErrorCodeMissingCSYMs,
      {{support::kLocalizedFailureReasonKey,
        fmt::format("Failed to generate cSYMs for architectures: {}", describeArchitectures(missing))}}));
}

std::string SUPGenerateCSYMOperation::describeArchitectures(const ArchitecturesByUUID& architectures) {
  std::string text = "{\n";
  for (const auto& [uuid, architecture] : architectures) text += fmt::format("    {} = {};\n", uuid, architecture);
  return text + "}";
}

}  // namespace symlift::operations
