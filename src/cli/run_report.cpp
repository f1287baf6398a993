#include "cli/run_report.h"

#include <signal.h>

#include <cstdio>
#include <cstring>
#include <ctime>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "cli/path_expansion.h"
#include "dsym/code_mapping.h"
#include "dsym/dsym.h"
#include "support/files.h"
#include "support/info_dictionary.h"
#include "support/unique_strings.h"

namespace symlift::cli {

namespace {

using nlohmann::json;

std::string isoTime(std::chrono::system_clock::time_point time) {
  const std::time_t seconds = std::chrono::system_clock::to_time_t(time);
  std::tm utc{};
  gmtime_r(&seconds, &utc);
  char text[32];
  std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &utc);
  return text;
}

json errorJSON(const support::ErrorPtr& error) {
  if (!error) return nullptr;
  return json{{"domain", error->domain}, {"code", error->code}, {"text", error->description()}};
}

// Bytes as JSON text: invalid UTF-8 (paths may hold any bytes) is replaced.
std::string jsonText(const json& document) { return document.dump(2, ' ', false, json::error_handler_t::replace); }

const char* signalName(int signal) {
  switch (signal) {
    case SIGINT: return "SIGINT";
    case SIGTERM: return "SIGTERM";
    case SIGHUP: return "SIGHUP";
    case SIGPIPE: return "SIGPIPE";
  }
  return "signal";
}

}  // namespace

RunReport::RunReport(std::string path) : path_(std::move(path)), started_(std::chrono::system_clock::now()) {
  console::SYLLogging::addListener(this);
}

RunReport::~RunReport() { console::SYLLogging::removeListener(this); }

void RunReport::setMode(const std::string& mode, bool convertOnly, bool strict) {
  std::lock_guard<std::mutex> guard(mutex_);
  mode_ = mode;
  convertOnly_ = convertOnly;
  strict_ = strict;
}

void RunReport::setPlatform(const std::string& platform) {
  std::lock_guard<std::mutex> guard(mutex_);
  platform_ = platform;
}

void RunReport::beginInput(const std::string& path) {
  std::lock_guard<std::mutex> guard(mutex_);
  inputs_.push_back(Input{path, {}, {}});
}

RunReport::DSYM& RunReport::dsymFor(const DWARFInput& input, const std::string& status) {
  if (inputs_.empty()) inputs_.push_back(Input{input.bundlePath, {}, {}});
  DSYM& dsym = inputs_.back().dsyms.emplace_back();
  dsym.bundle = input.bundlePath;
  dsym.dwarfFile = input.dwarfPath.string();
  dsym.status = status;
  if (input.file)
    input.file->enumerateUUIDs([&](const std::optional<std::string>& uuid, const std::string& architecture) {
      Slice slice;
      slice.architecture = architecture;
      slice.uuid = uuid.value_or("");
      if (!status.empty()) slice.status = status;
      dsym.slices.push_back(std::move(slice));
    });
  return dsym;
}

void RunReport::beginDSYM(const DWARFInput& input) {
  std::lock_guard<std::mutex> guard(mutex_);
  current_ = &dsymFor(input, "");
  lastMark_ = Clock::now();
}

void RunReport::skippedDSYM(const DWARFInput& input) {
  std::lock_guard<std::mutex> guard(mutex_);
  dsymFor(input, "skipped");
}

void RunReport::endDSYM(const support::ErrorPtr& error) {
  std::lock_guard<std::mutex> guard(mutex_);
  if (!current_) return;
  current_->error = error;
  for (Slice& slice : current_->slices) {
    if (!slice.status.empty()) continue;
    if (error) {
      slice.status = "failed";
      if (!slice.error) slice.error = error;
    } else {
      slice.status = convertOnly_ ? "converted" : "uploaded";
    }
  }
  bool allUploaded = !current_->slices.empty();
  for (const Slice& slice : current_->slices) allUploaded = allUploaded && slice.status == "uploaded";
  current_->status = error ? "failed" : convertOnly_ ? "converted" : allUploaded ? "uploaded" : "failed";
  current_ = nullptr;
}

void RunReport::alreadyUploaded(const std::vector<std::string>& paths) {
  std::lock_guard<std::mutex> guard(mutex_);
  for (const std::string& path : paths) inputs_.push_back(Input{path, "already-uploaded", {}});
}

RunReport::Slice* RunReport::sliceLocked(const std::string& uuid) {
  if (!current_) return nullptr;
  for (Slice& slice : current_->slices)
    if (slice.uuid == uuid) return &slice;
  return nullptr;
}

void RunReport::conversionStarted(const std::string&) {
  std::lock_guard<std::mutex> guard(mutex_);
  lastMark_ = Clock::now();
}

void RunReport::sliceConverted(const std::string&, const operations::CSYMHeader& header, std::uint64_t bytes) {
  std::lock_guard<std::mutex> guard(mutex_);
  const auto now = Clock::now();
  if (Slice* slice = sliceLocked(header.uuid)) {
    slice->counts = header;
    slice->csymBytes = bytes;
    slice->seconds += std::chrono::duration<double>(now - lastMark_).count();
  }
  lastMark_ = now;
}

void RunReport::sliceCompressed(const std::string& uuid, std::uint64_t gzipBytes) {
  std::lock_guard<std::mutex> guard(mutex_);
  if (Slice* slice = sliceLocked(uuid)) slice->gzipBytes = gzipBytes;
}

void RunReport::uploadStarted(const std::string& uuid, std::uint64_t) {
  std::lock_guard<std::mutex> guard(mutex_);
  if (Slice* slice = sliceLocked(uuid)) slice->uploadStart = Clock::now();
}

void RunReport::uploadFinished(const std::string& uuid, long httpStatus, std::uint64_t attempts,
                               const support::ErrorPtr& error) {
  std::lock_guard<std::mutex> guard(mutex_);
  Slice* slice = sliceLocked(uuid);
  if (!slice) return;
  slice->httpStatus = httpStatus;
  slice->attempts = attempts;
  slice->error = error;
  slice->status = error ? "failed" : "uploaded";
  if (slice->uploadStart) slice->seconds += std::chrono::duration<double>(Clock::now() - *slice->uploadStart).count();
}

void RunReport::didWriteLine(std::uint64_t level, std::string_view message) {
  // Called under the console's lock; this lock is only ever taken inside it
  // or on its own, never the other way round.
  std::lock_guard<std::mutex> guard(mutex_);
  if (level == console::kLogLevelWarning) warnings_.emplace_back(message);
  if (level == console::kLogLevelError) errors_.emplace_back(message);
}

std::string RunReport::jsonLocked(int exitStatus, std::optional<int> signal) const {
  json inputs = json::array();
  for (const Input& input : inputs_) {
    json dsyms = json::array();
    for (const DSYM& dsym : input.dsyms) {
      json slices = json::array();
      for (const Slice& slice : dsym.slices) {
        json entry{{"architecture", slice.architecture},
                   {"uuid", slice.uuid.empty() ? json(nullptr) : json(slice.uuid)},
                   {"status", slice.status.empty() ? "failed" : slice.status},
                   {"files", slice.counts ? json(slice.counts->files) : json(nullptr)},
                   {"symbols", slice.counts ? json(slice.counts->symbols) : json(nullptr)},
                   {"ranges", slice.counts ? json(slice.counts->ranges) : json(nullptr)},
                   {"csymBytes", slice.csymBytes ? json(*slice.csymBytes) : json(nullptr)},
                   {"gzipBytes", slice.gzipBytes ? json(*slice.gzipBytes) : json(nullptr)},
                   {"httpStatus", slice.httpStatus ? json(slice.httpStatus) : json(nullptr)},
                   {"attempts", slice.attempts},
                   {"error", errorJSON(slice.error)},
                   {"seconds", slice.seconds}};
        slices.push_back(std::move(entry));
      }
      dsyms.push_back(json{{"bundle", dsym.bundle},
                           {"dwarfFile", dsym.dwarfFile},
                           {"status", dsym.status.empty() ? "failed" : dsym.status},
                           {"error", errorJSON(dsym.error)},
                           {"slices", std::move(slices)}});
    }
    json entry{{"path", input.path}, {"dsyms", std::move(dsyms)}};
    if (!input.status.empty()) entry["status"] = input.status;
    inputs.push_back(std::move(entry));
  }
  const auto ended = std::chrono::system_clock::now();
  json document{{"schema", kSchema},
                {"tool",
                 {{"name", "symlift"},
                  {"version", support::infoDictionaryString("CFBundleShortVersionString").value_or("")},
                  {"build", support::infoDictionaryString("CFBundleVersion").value_or("")}}},
                {"mode", mode_},
                {"convertOnly", convertOnly_},
                {"strict", strict_},
                {"platform", platform_ ? json(*platform_) : json(nullptr)},
                {"startedAt", isoTime(started_)},
                {"endedAt", isoTime(ended)},
                {"seconds", std::chrono::duration<double>(ended - started_).count()},
                {"exitStatus", exitStatus},
                {"interrupted", signal.has_value()},
                {"signal", signal ? json(signalName(*signal)) : json(nullptr)},
                {"warnings", warnings_},
                {"errors", errors_},
                {"inputs", std::move(inputs)}};
  return jsonText(document) + "\n";
}

bool RunReport::write(int exitStatus, std::optional<int> signal) {
  std::string text;
  {
    std::lock_guard<std::mutex> guard(mutex_);
    if (written_) return true;
    written_ = true;
    text = jsonLocked(exitStatus, signal);
  }
  const std::string temporary = path_ + ".partial." + support::SUPStrings::uniqueString();
  if (support::replaceFileAtomically(path_, text, temporary)) return true;
  std::fprintf(stderr, "symlift: could not write the report %s: %s\n", path_.c_str(), std::strerror(errno));
  return false;
}

}  // namespace symlift::cli
