#pragma once
// One status line on standard error while a run works, when standard error
// is a terminal: slices done of slices found, the dSYM and architecture
// being converted, the bytes of an upload sent, a retry being waited out.
// It is redrawn in place, steps aside for every line the console log writes
// and is cleared at the end. When standard error is not a terminal it writes
// nothing at all.

#include <chrono>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "console/console_log.h"
#include "operations/pipeline_observer.h"

namespace symlift::cli {

class ProgressLine : public operations::PipelineObserver, public console::LogListener {
 public:
  // Draws on fd when it is a terminal. In a convert-only run a slice is
  // done once converted, otherwise once its upload has ended.
  ProgressLine(int fd, bool convertOnly);
  ~ProgressLine() override;
  ProgressLine(const ProgressLine&) = delete;
  ProgressLine& operator=(const ProgressLine&) = delete;

  bool enabled() const { return enabled_; }

  // A dSYM enters the pipeline with the architectures of its slices.
  void dsymStarted(const std::string& bundlePath, const std::vector<std::string>& architectures);
  // Removes the line for good.
  void clear();

  // operations::PipelineObserver
  void sliceConverted(const std::string& dwarfPath, const operations::CSYMHeader& header,
                      std::uint64_t bytes) override;
  void uploadStarted(const std::string& uuid, std::uint64_t bodyBytes) override;
  void uploadProgress(const std::string& uuid, std::uint64_t sent) override;
  void uploadRetrying(const std::string& uuid, std::uint64_t nextAttempt, std::chrono::nanoseconds delay) override;
  void uploadFinished(const std::string& uuid, long httpStatus, std::uint64_t attempts,
                      const support::ErrorPtr& error) override;

  // console::LogListener
  void willWriteLine() override;
  void didWriteLine(std::uint64_t level, std::string_view message) override;

  // The text of the line for the current state (for tests), unclipped.
  std::string text() const;

 private:
  std::string textLocked() const;
  void drawLocked(bool force);
  void eraseLocked();

  const int fd_;
  const bool enabled_;
  const bool convertOnly_;
  mutable std::mutex mutex_;  // guards everything below
  std::string dsymName_;
  std::vector<std::string> architectures_;  // of the dSYM in the pipeline
  std::size_t converted_ = 0;               // slices of it converted
  std::size_t found_ = 0;                   // slices of every dSYM so far
  std::size_t done_ = 0;                    // of those, finished
  std::uint64_t uploadTotal_ = 0;
  std::uint64_t uploadSent_ = 0;
  bool uploading_ = false;
  std::string retry_;  // the retry being waited out, if any
  bool shown_ = false;
  bool cleared_ = false;
  std::chrono::steady_clock::time_point lastDraw_{};
};

}  // namespace symlift::cli
