#pragma once
// What the run hears of each slice as it goes through the pipeline (for the
// progress line and the run report). Calls come from any thread of the run;
// an implementation guards its own state. Every method does nothing unless
// overridden.

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "support/error.h"

namespace symlift::operations {

// What a cSYM's header line says of its slice.
struct CSYMHeader {
  std::string uuid;
  std::string architecture;
  std::uint64_t files = 0;
  std::uint64_t symbols = 0;
  std::uint64_t ranges = 0;
};

// Reads the header line of a cSYM text; nothing when the text does not
// start with one.
std::optional<CSYMHeader> csymHeaderOf(std::string_view text);

class PipelineObserver {
 public:
  virtual ~PipelineObserver() = default;
  // The slices of one DWARF file are being read.
  virtual void conversionStarted(const std::string& /*dwarfPath*/) {}
  // One slice's cSYM is written (bytes long) and handed on.
  virtual void sliceConverted(const std::string& /*dwarfPath*/, const CSYMHeader& /*header*/,
                              std::uint64_t /*bytes*/) {}
  virtual void sliceCompressed(const std::string& /*uuid*/, std::uint64_t /*gzipBytes*/) {}
  virtual void uploadStarted(const std::string& /*uuid*/, std::uint64_t /*bodyBytes*/) {}
  // Body bytes sent so far in the current attempt.
  virtual void uploadProgress(const std::string& /*uuid*/, std::uint64_t /*sent*/) {}
  // The attempt failed and another follows after delay.
  virtual void uploadRetrying(const std::string& /*uuid*/, std::uint64_t /*nextAttempt*/,
                              std::chrono::nanoseconds /*delay*/) {}
  // The last word on one slice's upload: the HTTP status of the last
  // response (0 without one), the attempts made and the error, if any.
  virtual void uploadFinished(const std::string& /*uuid*/, long /*httpStatus*/, std::uint64_t /*attempts*/,
                              const support::ErrorPtr& /*error*/) {}
};

// Hands every call on to each of a list of observers, in order.
class PipelineObservers : public PipelineObserver {
 public:
  explicit PipelineObservers(std::vector<PipelineObserver*> observers) : observers_(std::move(observers)) {}

  void conversionStarted(const std::string& dwarfPath) override {
    for (auto* o : observers_) o->conversionStarted(dwarfPath);
  }
  void sliceConverted(const std::string& dwarfPath, const CSYMHeader& header, std::uint64_t bytes) override {
    for (auto* o : observers_) o->sliceConverted(dwarfPath, header, bytes);
  }
  void sliceCompressed(const std::string& uuid, std::uint64_t gzipBytes) override {
    for (auto* o : observers_) o->sliceCompressed(uuid, gzipBytes);
  }
  void uploadStarted(const std::string& uuid, std::uint64_t bodyBytes) override {
    for (auto* o : observers_) o->uploadStarted(uuid, bodyBytes);
  }
  void uploadProgress(const std::string& uuid, std::uint64_t sent) override {
    for (auto* o : observers_) o->uploadProgress(uuid, sent);
  }
  void uploadRetrying(const std::string& uuid, std::uint64_t nextAttempt, std::chrono::nanoseconds delay) override {
    for (auto* o : observers_) o->uploadRetrying(uuid, nextAttempt, delay);
  }
  void uploadFinished(const std::string& uuid, long httpStatus, std::uint64_t attempts,
                      const support::ErrorPtr& error) override {
    for (auto* o : observers_) o->uploadFinished(uuid, httpStatus, attempts, error);
  }

 private:
  std::vector<PipelineObserver*> observers_;
};

}  // namespace symlift::operations
